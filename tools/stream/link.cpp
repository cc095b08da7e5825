#include "tools/stream/link.h"

#include <algorithm>
#include <array>
#include <utility>

namespace vesper::tools {

namespace {

// Wait for a message between two checks of what is due: the finest resolution that the socket's
// wait allows, and almost no processor time.
constexpr int kReceiveWait = 1;  // ms

// Larger than any message of the player, so that an overlong one is recognised.
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
    idle_ = false;
    const auto later = std::ranges::upper_bound(waiting_, due, {}, &Departure::time);
    waiting_.insert(later, {.time = due, .datagram = std::move(datagram)});
}

bool Link::idle() const {
    const std::lock_guard lock(mutex_);
    return idle_;
}

void Link::hurry() {
    const std::lock_guard lock(mutex_);
    const Clock::time_point now = Clock::now();
    for (Departure& departure : waiting_) {
        departure.time = std::min(departure.time, now);
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
        impair_due();
        send_departures();
        receive();
    }
}

std::optional<Departure> Link::take_due() {
    const std::lock_guard lock(mutex_);
    if (waiting_.empty() || waiting_.front().time > Clock::now()) {
        return std::nullopt;
    }
    Departure departure = std::move(waiting_.front());
    waiting_.pop_front();
    return departure;
}

void Link::impair_due() {
    while (auto due = take_due()) {
        for (Departure& departure : impairments_.pass(std::move(due->datagram), due->time)) {
            departures_.push_back(std::move(departure));
        }
    }
    const std::lock_guard lock(mutex_);
    counters_.impaired = impairments_.counters();
}

void Link::send_departures() {
    while (!departures_.empty() && departures_.front().time <= Clock::now()) {
        send_now(departures_.front().datagram);
        departures_.pop_front();
    }
    const std::lock_guard lock(mutex_);
    idle_ = waiting_.empty() && departures_.empty();
}

void Link::send_now(const Datagram& datagram) {
    const int sent = socket_.send(datagram.data(), datagram.size(), "127.0.0.1", player_port_);
    if (sent >= 0 && handlers_.datagram_passed) {
        handlers_.datagram_passed(Direction::kToPlayer, datagram);
    }
    const std::lock_guard lock(mutex_);
    if (sent < 0) {
        ++counters_.send_failures;
        return;
    }
    ++counters_.datagrams_sent;
    counters_.bytes_sent += datagram.size();
}

void Link::receive() {
    std::array<std::uint8_t, kReceiveBuffer> buffer{};
    const int length = socket_.recv(buffer.data(), buffer.size(), kReceiveWait);
    if (length <= 0) {
        return;
    }
    const std::span message(buffer.data(), static_cast<std::size_t>(length));
    if (handlers_.datagram_passed) {
        handlers_.datagram_passed(Direction::kFromPlayer, message);
    }
    if (is_keyframe_request(message)) {
        {
            const std::lock_guard lock(mutex_);
            ++counters_.keyframe_requests;
        }
        if (handlers_.keyframe_requested) {
            handlers_.keyframe_requested();
        }
    } else if (const auto state = read_audio_state(message);
               state && handlers_.audio_state_reported) {
        handlers_.audio_state_reported(*state);
    }
}

}  // namespace vesper::tools
