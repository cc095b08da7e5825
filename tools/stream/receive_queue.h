// What the kernel tells of any process's UDP socket: how much waits in its receive buffer, and how
// much found that full. A sender learns of the latter in no other way.
#pragma once

#include <cstdint>
#include <optional>

namespace vesper::tools {

struct ReceiveQueue {
    std::uint64_t waiting = 0;  // bytes, the kernel's bookkeeping included
    std::uint64_t lost = 0;     // datagrams that found the buffer full, since the socket was made
};

// Of the IPv4 socket bound to UDP `port`. Nothing where there is none. Any thread.
[[nodiscard]] std::optional<ReceiveQueue> receive_queue(std::uint16_t port);

// Whether the player on UDP `port` has taken everything that came for it so far: whether it keeps
// up. True where there is no such socket to ask. Any thread.
[[nodiscard]] bool has_taken_all(std::uint16_t port);

}  // namespace vesper::tools
