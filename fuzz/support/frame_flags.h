// The flags before every frame in an input of the frames fuzzer.
#pragma once

#include <cstdint>

namespace vesper::fuzz {

// The next frame follows at once, so that the decode thread may find both in its queue.
inline constexpr std::uint8_t kQueueWithNext = 0x01;

}  // namespace vesper::fuzz
