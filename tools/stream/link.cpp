#include "tools/stream/link.h"

#include <algorithm>
#include <array>
#include <span>

namespace vesper::tools {

namespace {

// Wait for a message between two looks at what is due: the finest pace that the socket's wait
// allows, and next to nothing for the processor.
constexpr int kReceiveWait = 1;  // ms

// Larger than any message of the player, so that an overlong one is seen as such.
constexpr std::size_t kReceiveBuffer = 2048;  // bytes

}  // namespace

Link::~Link() {
    stop();
}

bool Link::open(std::uint16_t listen_port, std::uint16_t player_port) {
    player_port_ = player_port;
    return socket_.bind(listen_port);
}

void Link::start(Handlers handlers) {
    handlers_ = std::move(handlers);
    running_ = true;
    thread_ = std::thread([this] { run(); });
}

void Link::send(Datagram datagram, Clock::time_point due) {
    const std::lock_guard lock(mutex_);
    const auto later = std::ranges::upper_bound(waiting_, due, {}, &Waiting::due);
    waiting_.insert(later, {.due = due, .datagram = std::move(datagram)});
}

void Link::hurry() {
    const std::lock_guard lock(mutex_);
    const Clock::time_point now = Clock::now();
    for (Waiting& waiting : waiting_) {
        waiting.due = std::min(waiting.due, now);
    }
}

void Link::stop() {
    {
        const std::lock_guard lock(mutex_);
        running_ = false;
    }
    if (thread_.joinable()) {
        thread_.join();
    }
}

Link::Counters Link::counters() const {
    const std::lock_guard lock(mutex_);
    return counters_;
}

void Link::run() {
    for (;;) {
        {
            const std::lock_guard lock(mutex_);
            if (!running_) {
                return;
            }
        }
        send_due();
        receive();
    }
}

bool Link::take_due(Waiting& waiting) {
    const std::lock_guard lock(mutex_);
    if (waiting_.empty() || waiting_.front().due > Clock::now()) {
        return false;
    }
    waiting = std::move(waiting_.front());
    waiting_.pop_front();
    return true;
}

void Link::send_due() {
    Waiting waiting;
    while (take_due(waiting)) {
        const int sent = socket_.send(waiting.datagram.data(), waiting.datagram.size(), "127.0.0.1",
                                      player_port_);
        const std::lock_guard lock(mutex_);
        if (sent < 0) {
            ++counters_.send_failures;
            continue;
        }
        ++counters_.datagrams_sent;
        counters_.bytes_sent += waiting.datagram.size();
    }
}

void Link::receive() {
    std::array<std::uint8_t, kReceiveBuffer> buffer{};
    const int length = socket_.recv(buffer.data(), buffer.size(), kReceiveWait);
    if (length <= 0) {
        return;
    }
    const std::span message(buffer.data(), static_cast<std::size_t>(length));
    if (is_keyframe_request(message)) {
        {
            const std::lock_guard lock(mutex_);
            ++counters_.keyframe_requests;
        }
        handlers_.keyframe_requested();
    } else if (const auto state = read_audio_state(message)) {
        handlers_.audio_state_reported(*state);
    }
}

}  // namespace vesper::tools
