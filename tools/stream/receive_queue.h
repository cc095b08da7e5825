// What the kernel reports about any process's UDP socket: how much waits in its receive buffer, and
// how much was dropped because that was full. A sender has no other way to know of the latter.
#pragma once

#include <cstdint>
#include <optional>

namespace vesper::tools {

struct ReceiveQueue {
    std::uint64_t waiting = 0;  // bytes, the kernel's bookkeeping included
    std::uint64_t lost = 0;     // datagrams that found the buffer full, since the socket was made
};

// Of the socket bound to UDP `port` of 127.0.0.1: other programs' sockets on other addresses may
// have the same port. Nothing if there is none in this network namespace, or the kernel does not
// report it (no /proc). Any thread.
[[nodiscard]] std::optional<ReceiveQueue> receive_queue(std::uint16_t port);

// Whether the player on UDP `port` keeps up: whether it has taken everything that has arrived for
// it, except perhaps one small datagram: a sound packet comes every 20 ms, and waits for the next
// pass. True if nothing is known of such a socket. Any thread.
[[nodiscard]] bool keeps_up(std::uint16_t port);

}  // namespace vesper::tools
