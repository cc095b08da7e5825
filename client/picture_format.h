// The one picture format between decode thread and window: packed rows of 4 bytes per pixel in the
// order B, G, R, A, which is libswscale's BGRA and, on a little-endian machine, SDL's ARGB8888.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vesper::client {

inline constexpr int kBytesPerPixel = 4;

// Bytes from one row of a picture to the next.
[[nodiscard]] constexpr int picture_pitch(int width) {
    return width * kBytesPerPixel;
}

// Bytes of a picture of `width` x `height` pixels.
[[nodiscard]] constexpr std::size_t picture_size(int width, int height) {
    return static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * kBytesPerPixel;
}

// Bytes past the end of a picture's rows that libswscale may overwrite: its vector code stores
// whole vectors, up to 60 bytes too far where a row does not end with one (measured with
// libswscale 6.7 on widths up to 400; a row's excess falls into the next row, which comes later,
// the last row's after the picture). Room for vectors four times as wide.
inline constexpr std::size_t kConverterOverrun = 256;

// Makes `picture` one of `width` x `height` pixels, new bytes zero, with room for the converter's
// overrun after it. A swap with another picture swaps that room too.
inline void allocate_picture(std::vector<std::uint8_t>& picture, int width, int height) {
    picture.reserve(picture_size(width, height) + kConverterOverrun);
    picture.resize(picture_size(width, height));
}

}  // namespace vesper::client
