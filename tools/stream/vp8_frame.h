// What a VP8 frame declares in its first bytes (RFC 6386, section 9.1), read without a decoder.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace vesper::tools {

// Width and height in pixels.
struct PictureSize {
    int width = 0;
    int height = 0;

    bool operator==(const PictureSize&) const = default;
};

// The size that a keyframe declares, given at least its first 10 bytes. Nothing if these bytes do
// not begin a keyframe.
[[nodiscard]] std::optional<PictureSize> keyframe_size(std::span<const std::uint8_t> frame);

}  // namespace vesper::tools
