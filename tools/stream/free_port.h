// A port for a player that is about to start.
#pragma once

#include <cstdint>

namespace vesper::tools {

// A UDP port of 127.0.0.1 that was free a moment ago; 0 when there is none. Any thread.
[[nodiscard]] std::uint16_t free_port();

}  // namespace vesper::tools
