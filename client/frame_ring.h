// The ring of encoded frames between reassembly and the decode thread.
#pragma once

#include <cstddef>

namespace vesper::client {

// 200 ms of a stream at 30 frames/s: room for a decode thread that was kept off the processor for
// a moment. A thread further behind than that loses frames instead of adding delay.
inline constexpr std::size_t kFrameQueueSlots = 6;

[[nodiscard]] constexpr std::size_t next_slot(std::size_t slot) {
    return (slot + 1) % kFrameQueueSlots;
}

}  // namespace vesper::client
