// A port for a player that is about to start.
#pragma once

#include <cstdint>

namespace vesper::tools {

// A UDP port of 127.0.0.1 that is free; 0, with a line on standard error, when there is none. Until
// this process ends, the function gives it to nobody else, in this process or another, and it is
// none of those that the system gives to whoever asks for any: it is still free when the player
// takes it, however long that takes to start. Any thread.
[[nodiscard]] std::uint16_t free_port();

// Likewise an even port, with the next one kept, too: RTP and its control protocol use such pairs
// (RFC 3550, section 11).
[[nodiscard]] std::uint16_t free_pair_of_ports();

}  // namespace vesper::tools
