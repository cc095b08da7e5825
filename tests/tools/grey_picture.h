// The simplest picture to encode.
#pragma once

#include <cstddef>
#include <cstring>

#include "tools/stream/picture.h"

namespace vesper::test {

// Every pixel of the grey that this luma means; null when there is no memory.
[[nodiscard]] inline tools::Picture make_grey_picture(int width, int height, int luma = 180) {
    constexpr int kNoColor = 128;
    tools::Picture picture = tools::make_picture(width, height);
    if (picture) {
        const auto fill = [&picture](int plane, int value, int rows) {
            std::memset(picture->data[plane], value,
                        static_cast<std::size_t>(picture->linesize[plane] * rows));
        };
        fill(0, luma, height);
        fill(1, kNoColor, height / 2);
        fill(2, kNoColor, height / 2);
    }
    return picture;
}

}  // namespace vesper::test
