#include "tests/e2e/parent.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>

#include "tests/support/eventually.h"
#include "tools/stream/receive_queue.h"

namespace vesper::test {

namespace {

// Far fewer full fragments than fit a default receive buffer of 212992 bytes.
constexpr std::size_t kBurst = 40;  // datagrams

constexpr std::size_t kLongestMessage = 64;  // bytes, more than any message has

// Whether the socket bound to 127.0.0.1:`port` has nothing left to receive.
bool receive_queue_is_empty(std::uint16_t port) {
    const auto queue = tools::receive_queue(port);
    return queue && queue->waiting == 0;
}

}  // namespace

Message audio_state(bool muted, float volume) {
    Message message = {'A', 'U', 'D', 'S', static_cast<std::uint8_t>(muted ? 1 : 0), 0, 0, 0, 0};
    std::memcpy(message.data() + 5, &volume, sizeof(volume));
    return message;
}

Parent::Parent() {
    // A port that nobody else takes while this parent is dead.
    if (port_ == 0 || !socket_.bind(port_)) {
        throw std::runtime_error("no free UDP port");
    }
}

void Parent::come_back() {
    if (!socket_.bind(port_)) {
        throw std::runtime_error("somebody else took port " + std::to_string(port_));
    }
}

bool Parent::send(std::span<const tools::Datagram> datagrams, std::uint16_t player_port) {
    std::size_t sent = 0;
    for (const tools::Datagram& datagram : datagrams) {
        send_now(datagram, player_port);
        ++sent;
        const bool pause = sent % kBurst == 0 || sent == datagrams.size();
        if (pause && !eventually([=] { return receive_queue_is_empty(player_port); })) {
            return false;
        }
    }
    return true;
}

void Parent::send_now(const tools::Datagram& datagram, std::uint16_t player_port) {
    socket_.send(datagram.data(), datagram.size(), "127.0.0.1", player_port);
}

Message Parent::next_message() {
    return receive(static_cast<int>(kPatience.count()));
}

Message Parent::waiting_message() {
    return receive(0);
}

bool Parent::has_no_message() {
    return waiting_message().empty();
}

Message Parent::receive(int limit) {
    std::array<std::uint8_t, kLongestMessage> buffer{};
    const int length = socket_.recv(buffer.data(), buffer.size(), limit);
    return {buffer.begin(), buffer.begin() + std::max(length, 0)};
}

}  // namespace vesper::test
