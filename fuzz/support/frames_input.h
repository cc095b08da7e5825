// What an input of the frames fuzzer contains besides its frames, for the fuzzer and its seeds.
#pragma once

#include <array>
#include <cstdint>

namespace vesper::fuzz {

// Before every frame: the next one follows at once, so that the decode thread may find both in its
// queue.
inline constexpr std::uint8_t kQueueWithNext = 0x01;

// In the input's first byte, which chooses the receiver's size: the rest of it chooses a remainder.
// Libraries convert 16 columns and two rows at a time, and what is left over takes other ways.
inline constexpr std::uint8_t kEveryRemainder = 0x80;
inline constexpr int kRemainders = 32;  // 16 of the width times 2 of the height

// Width and height, from 49x33 to 64x34: all of them four by three of VP8's macroblocks.
[[nodiscard]] constexpr std::array<int, 2> size_with_remainders(std::uint8_t choice) {
    return {49 + (choice & 0x0F), 33 + (choice >> 4 & 0x01)};
}

}  // namespace vesper::fuzz
