// A valid stream: the seeds are made of it, and every receiver must still play it after any input.
#pragma once

#include <cstdint>
#include <vector>

#include "tools/stream/picture.h"

namespace vesper::fuzz {

// Small, so that the fuzzers are fast; not a multiple of a VP8 macroblock each way.
inline constexpr int kGoodWidth = 64;   // pixels
inline constexpr int kGoodHeight = 40;  // pixels

// Saturated green (ITU-R BT.601, limited range).
[[nodiscard]] tools::Picture green_picture(int width, int height);

// A keyframe of kGoodWidth x kGoodHeight pixels, all green; at most one fragment long.
[[nodiscard]] const std::vector<std::uint8_t>& good_keyframe();

// 20 ms of a tone, stereo.
[[nodiscard]] const std::vector<std::uint8_t>& good_opus_packet();

}  // namespace vesper::fuzz
