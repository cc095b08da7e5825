#include "client/right_edge.h"

extern "C" {
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

#include "client/picture_format.h"

namespace vesper::client {

namespace {

// The largest block that libswscale's code for pictures of unchanged size works in.
constexpr int kEdgeWidth = 16;  // columns

// Entries of every plane and stride array that libswscale reads, used or not.
constexpr std::size_t kPlanes = 4;

}  // namespace

void RightEdge::prepare(const AVFrame& first, int width, int height) {
    reset();
    const bool keeps_its_size = first.width == width && first.height == height;
    if (!keeps_its_size || height % 2 != 0 || width % kEdgeWidth == 0) {
        return;
    }
    width_ = width;
    converter_ =
        sws_getContext(kEdgeWidth, height, static_cast<AVPixelFormat>(first.format), kEdgeWidth,
                       height, AV_PIX_FMT_BGRA, SWS_BILINEAR, nullptr, nullptr, nullptr);
    allocate_picture(block_, kEdgeWidth, height);
}

void RightEdge::convert(const AVFrame& source, int rows, std::uint8_t* picture) {
    if (converter_ == nullptr) {
        return;
    }
    const int left = width_ / kEdgeWidth * kEdgeWidth;
    // YUV 4:2:0, as all of VP8: half as many columns of chroma.
    const std::array<const std::uint8_t*, kPlanes> planes = {
        source.data[0] + left, source.data[1] + left / 2, source.data[2] + left / 2};
    const std::array<std::uint8_t*, kPlanes> block = {block_.data()};
    const std::array<int, kPlanes> strides = {picture_pitch(kEdgeWidth)};
    const int converted = sws_scale(converter_, planes.data(), source.linesize, 0, rows,
                                    block.data(), strides.data());
    for (int row = 0; row < converted; ++row) {
        std::copy_n(block_.data() + picture_size(kEdgeWidth, row), picture_pitch(width_ - left),
                    picture + picture_size(width_, row) + picture_pitch(left));
    }
}

void RightEdge::reset() {
    if (converter_ != nullptr) {
        sws_freeContext(std::exchange(converter_, nullptr));
    }
    block_.clear();
}

}  // namespace vesper::client
