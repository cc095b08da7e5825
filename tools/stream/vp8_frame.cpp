#include "tools/stream/vp8_frame.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace vesper::tools {

// The first bit is clear, a start code follows the first three bytes, and then come width and
// height, 14 bits each, with a hint in the other two on how a player may scale them.
std::optional<PictureSize> keyframe_size(std::span<const std::uint8_t> frame) {
    constexpr std::size_t kHeaderSize = 10;  // bytes
    constexpr std::array<std::uint8_t, 3> kStartCode = {0x9D, 0x01, 0x2A};
    constexpr int kSideMask = (1 << 14) - 1;
    if (frame.size() < kHeaderSize || (frame[0] & 1) != 0 ||
        !std::ranges::equal(frame.subspan(3, kStartCode.size()), kStartCode)) {
        return std::nullopt;
    }
    const auto side = [frame](std::size_t at) {
        return (frame[at] | frame[at + 1] << 8) & kSideMask;
    };
    return PictureSize{.width = side(6), .height = side(8)};
}

}  // namespace vesper::tools
