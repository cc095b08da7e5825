// A picture on its way from a source to the encoder: an AVFrame in YUV 4:2:0, owned.
#pragma once

extern "C" {
#include <libavutil/frame.h>
}

#include <memory>

namespace vesper::tools {

struct PictureDeleter {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
using Picture = std::unique_ptr<AVFrame, PictureDeleter>;

// A picture of `width` x `height` pixels, both even and positive, with planes of its own whose
// content is undefined. Null when there is no memory.
[[nodiscard]] inline Picture make_picture(int width, int height) {
    Picture picture(av_frame_alloc());
    if (picture) {
        picture->format = AV_PIX_FMT_YUV420P;
        picture->width = width;
        picture->height = height;
        if (av_frame_get_buffer(picture.get(), 0) < 0) {
            picture.reset();
        }
    }
    return picture;
}

}  // namespace vesper::tools
