// The one picture format between decode thread and window: packed rows of 4 bytes per pixel in the
// order B, G, R, A, which is libswscale's BGRA and, on a little-endian machine, SDL's ARGB8888.
#pragma once

#include <cstddef>

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

}  // namespace vesper::client
