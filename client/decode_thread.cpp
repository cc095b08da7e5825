// The decode thread: from the ring of encoded frames to the newest published picture.
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "client/frame_ring.h"
#include "client/picture_format.h"
#include "client/video_receiver.h"

namespace vesper::client {

namespace {

// A broken stream fails at every frame, 30 times a second; the first few lines say enough.
constexpr std::uint32_t kReportedDecodeErrors = 5;

// Entries of every plane and stride array that FFmpeg's picture functions read, used or not.
constexpr std::size_t kPlanes = 4;

// Shrinking by about 128 times or more in one direction (measured with libswscale 6.7), libswscale
// works in two steps, and then crashes on a slice that is not the whole picture. Half of that is
// still far from any useful size.
constexpr int kMaxShrinkOfPartialPicture = 64;

}  // namespace

void VideoReceiver::decode_thread_func() {
    while (running) {
        EncodedFrames batch;
        if (!take_queued_frames(batch)) {
            return;
        }
        decode_batch(batch);
        if (running && convert_picture() && running) {
            publish_picture();
        }
    }
}

// Waits for frames and moves all of them out of the ring, oldest first: each one is a reference for
// the next, so none may be skipped. False when the receiver is stopping.
bool VideoReceiver::take_queued_frames(EncodedFrames& batch) {
    std::unique_lock lock(queue_mutex);
    queue_cv.wait(lock, [this] { return queue_count > 0 || !running; });
    if (!running) {
        return false;
    }
    batch.reserve(queue_count);
    for (; queue_count > 0; --queue_count) {
        batch.push_back(std::exchange(frame_queue[queue_head], {}));
        queue_head = next_slot(queue_head);
    }
    return true;
}

void VideoReceiver::decode_batch(const EncodedFrames& batch) {
    for (const auto& encoded_frame : batch) {
        if (!running) {
            return;
        }
        if (!encoded_frame.empty()) {
            decode_frame(encoded_frame);
        }
    }
}

// One send, one receive. With two decoder threads the pictures come one frame late, and the first
// receive of a stream finds none yet (EAGAIN), which counts as an error like any other. A failed
// send leaves the previous picture in av_frame, a failed receive leaves none.
void VideoReceiver::decode_frame(const std::vector<std::uint8_t>& encoded_frame) {
    av_packet->data = const_cast<std::uint8_t*>(encoded_frame.data());  // only read by the decoder
    av_packet->size = static_cast<int>(encoded_frame.size());
    const int sent = avcodec_send_packet(codec_ctx, av_packet);
    if (sent < 0) {
        count_decode_error("[VideoReceiver] VP8 send_packet error: %d (frame %zu bytes)\n", sent,
                           encoded_frame.size());
        return;
    }
    const int received = avcodec_receive_frame(codec_ctx, av_frame);
    if (received < 0) {
        count_decode_error("[VideoReceiver] VP8 receive_frame error: %d\n", received);
        return;
    }
    decode_error_count = 0;
}

// Reports the first errors of a run, and requests a keyframe at its very first: one is enough to
// end it.
void VideoReceiver::count_decode_error(const char* format, ...) {
    ++decode_error_count;
    if (decode_error_count <= kReportedDecodeErrors) {
        va_list arguments;
        va_start(arguments, format);
        std::vfprintf(stderr, format, arguments);
        va_end(arguments);
    }
    if (decode_error_count == 1) {
        keyframe_needed = true;
    }
}

// Converts the picture decoded last into convert_buffer. False when there is none, no converter, or
// no memory. A taller picture than the converter's, or a shorter one with an odd number of rows, is
// refused by libswscale and leaves the picture before last in convert_buffer, which is then shown
// again: a parent that changes the stream's size starts a new player.
bool VideoReceiver::convert_picture() {
    if (av_frame->data[0] == nullptr) {
        return false;
    }
    if (sws_ctx == nullptr && !create_converter()) {
        return false;
    }
    const AVFrame* source = converter_source();
    if (source == nullptr) {
        return false;
    }
    const bool partial = av_frame->height < converter_height;
    if (partial) {
        if (shrinks_too_far_for_partial_pictures()) {
            return true;
        }
        before_partial_picture = convert_buffer;
    }
    const std::array<std::uint8_t*, kPlanes> planes = {convert_buffer.data()};
    const std::array<int, kPlanes> strides = {picture_pitch(frame_width_)};
    const int rows = sws_scale(sws_ctx, source->data, source->linesize, 0, av_frame->height,
                               planes.data(), strides.data());
    if (partial) {
        restore_row_below(rows);
    }
    right_edge.convert(*source, av_frame->height, convert_buffer.data());
    return true;
}

// From the size of the first picture to that of the texture, for the rest of the stream.
bool VideoReceiver::create_converter() {
    sws_ctx = sws_getContext(
        av_frame->width, av_frame->height, static_cast<AVPixelFormat>(av_frame->format),
        frame_width_, frame_height_, AV_PIX_FMT_BGRA, SWS_BILINEAR, nullptr, nullptr, nullptr);
    converter_width = av_frame->width;
    converter_height = av_frame->height;
    if (sws_ctx == nullptr) {
        return false;
    }
    right_edge.prepare(*av_frame, frame_width_, frame_height_);
    return true;
}

bool VideoReceiver::shrinks_too_far_for_partial_pictures() const {
    return converter_width / frame_width_ >= kMaxShrinkOfPartialPicture ||
           converter_height / frame_height_ >= kMaxShrinkOfPartialPicture;
}

// The rows below a picture that is shorter than the converter's source are not converted and keep
// their contents; the converter's overrun of the last converted row must not show in them.
// `rows` is what sws_scale() returned.
void VideoReceiver::restore_row_below(int rows) {
    const std::size_t begin = picture_size(frame_width_, std::clamp(rows, 0, frame_height_));
    const std::size_t end = std::min(begin + kConverterOverrun, convert_buffer.size());
    std::copy(before_partial_picture.begin() + static_cast<std::ptrdiff_t>(begin),
              before_partial_picture.begin() + static_cast<std::ptrdiff_t>(end),
              convert_buffer.begin() + static_cast<std::ptrdiff_t>(begin));
}

// av_frame itself, or, if it is narrower than the converter's source, its rows copied into a black
// picture of the converter's source size. VP8 has only one pixel format (RFC 6386, section 2), so
// the converter's is always that of av_frame. Null when there is no memory for the staging picture.
const AVFrame* VideoReceiver::converter_source() {
    if (av_frame->width >= converter_width) {
        return av_frame;
    }
    const auto format = static_cast<AVPixelFormat>(av_frame->format);
    if (staging_frame == nullptr) {
        staging_frame = av_frame_alloc();
        if (staging_frame == nullptr) {
            return nullptr;
        }
        staging_frame->format = format;
        staging_frame->width = converter_width;
        staging_frame->height = converter_height;
        if (av_frame_get_buffer(staging_frame, 0) < 0) {
            av_frame_free(&staging_frame);
            return nullptr;
        }
    }
    std::array<std::ptrdiff_t, kPlanes> strides{};
    std::copy_n(staging_frame->linesize, kPlanes, strides.begin());
    av_image_fill_black(staging_frame->data, strides.data(), format, AVCOL_RANGE_MPEG,
                        converter_width, converter_height);
    av_image_copy(staging_frame->data, staging_frame->linesize,
                  const_cast<const std::uint8_t**>(av_frame->data), av_frame->linesize, format,
                  av_frame->width, std::min(av_frame->height, converter_height));
    return staging_frame;
}

// A swap, so that the main thread never waits for longer than that; the previous picture's buffer
// becomes the next scratch picture.
void VideoReceiver::publish_picture() {
    const std::lock_guard lock(picture_mutex);
    convert_buffer.swap(picture);
    picture_ready = true;
}

}  // namespace vesper::client
