#include "client/right_edge.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
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
constexpr int kBlockWidth = 16;  // columns

// Wider than any incomplete block, a multiple of 8, which none of libswscale's code leaves columns
// out of, but not of 16: for such widths there is faster code on arm64, whose colours differ by up
// to 3 of 255 from those beside the edge (measured with libswscale 6.7).
constexpr int kEdgeWidth = 24;  // columns

// Entries of every plane and stride array that libswscale reads, used or not.
constexpr std::size_t kPlanes = 4;

}  // namespace

void RightEdge::prepare(const AVFrame& first, int width, int height) {
    reset();
    const bool keeps_its_size = first.width == width && first.height == height;
    if (!keeps_its_size || height % 2 != 0 || width % kBlockWidth == 0) {
        return;
    }
    width_ = width;
    source_ = av_frame_alloc();
    if (source_ == nullptr) {
        return;
    }
    source_->format = first.format;
    source_->width = kEdgeWidth;
    source_->height = height;
    if (av_frame_get_buffer(source_, 0) < 0) {
        return;
    }
    allocate_picture(converted_, kEdgeWidth, height);
    converter_ =
        sws_getContext(kEdgeWidth, height, static_cast<AVPixelFormat>(first.format), kEdgeWidth,
                       height, AV_PIX_FMT_BGRA, SWS_BILINEAR, nullptr, nullptr, nullptr);
}

void RightEdge::convert(const AVFrame& source, int rows, std::uint8_t* picture) {
    if (converter_ == nullptr || rows > source_->height) {
        return;
    }
    const int left = width_ / kBlockWidth * kBlockWidth;
    // YUV 4:2:0, as all of VP8: half as many columns of chroma.
    std::array<const std::uint8_t*, kPlanes> edge = {
        source.data[0] + left, source.data[1] + left / 2, source.data[2] + left / 2};
    av_image_copy(source_->data, source_->linesize, edge.data(), source.linesize,
                  static_cast<AVPixelFormat>(source_->format), width_ - left, rows);
    const std::array<std::uint8_t*, kPlanes> planes = {converted_.data()};
    const std::array<int, kPlanes> strides = {picture_pitch(kEdgeWidth)};
    const int converted = sws_scale(converter_, source_->data, source_->linesize, 0, rows,
                                    planes.data(), strides.data());
    for (int row = 0; row < converted; ++row) {
        std::copy_n(converted_.data() + picture_size(kEdgeWidth, row), picture_pitch(width_ - left),
                    picture + picture_size(width_, row) + picture_pitch(left));
    }
}

void RightEdge::reset() {
    if (converter_ != nullptr) {
        sws_freeContext(std::exchange(converter_, nullptr));
    }
    if (source_ != nullptr) {
        av_frame_free(&source_);
    }
    converted_.clear();
}

}  // namespace vesper::client
