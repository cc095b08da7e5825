// The tests' one way into a receiver's private state. Every accessor is a plain reference: the test
// takes the lock that guards the member, where another thread runs.
#pragma once

#include "client/video_receiver.h"

namespace vesper::client {

struct VideoReceiverPeer {
    using PartialFrame = VideoReceiver::PartialFrame;

    explicit VideoReceiverPeer(VideoReceiver& receiver) : r(receiver) {}

    // Makes the receiver accept fragments and sound without window, decoder or decode thread, so
    // that the ring keeps what reassembly puts into it.
    void go_live_without_decoder() { r.running = true; }

    auto& running() { return r.running; }
    auto& reserved_flag() { return r.reserved_flag; }
    auto& stream_ended() { return r.stream_ended; }
    auto& cleanup_done() { return r.cleanup_done; }
    auto& condemned() { return r.condemned; }
    auto& uid() { return r.uid; }
    auto& frame_width() { return r.frame_width_; }
    auto& frame_height() { return r.frame_height_; }
    auto& window() { return r.window; }
    auto& renderer() { return r.renderer; }
    auto& texture() { return r.texture; }
    auto& window_id() { return r.window_id; }
    auto& frames_mutex() { return r.frames_mutex; }
    auto& partial_frames() { return r.partial_frames; }
    auto& last_completed_frame_id() { return r.last_completed_frame_id; }
    auto& queue_mutex() { return r.queue_mutex; }
    auto& queue_cv() { return r.queue_cv; }
    auto& frame_queue() { return r.frame_queue; }
    auto& queue_head() { return r.queue_head; }
    auto& queue_tail() { return r.queue_tail; }
    auto& queue_count() { return r.queue_count; }
    auto& decode_thread() { return r.decode_thread; }
    auto& picture_mutex() { return r.picture_mutex; }
    auto& picture() { return r.picture; }
    auto& picture_ready() { return r.picture_ready; }
    auto& codec() { return r.codec; }
    auto& codec_ctx() { return r.codec_ctx; }
    auto& av_frame() { return r.av_frame; }
    auto& av_packet() { return r.av_packet; }
    auto& sws_ctx() { return r.sws_ctx; }
    auto& convert_buffer() { return r.convert_buffer; }
    auto& overlay_callback() { return r.overlay_callback; }
    auto& zoom_enabled() { return r.zoom_enabled; }
    auto& zoom_x() { return r.zoom_x; }
    auto& zoom_y() { return r.zoom_y; }
    auto& zoom_w() { return r.zoom_w; }
    auto& zoom_h() { return r.zoom_h; }
    auto& audio_enabled() { return r.audio_enabled; }
    auto& audio_device() { return r.audio_device; }
    auto& opus_decoder() { return r.opus_decoder; }
    auto& audio_volume() { return r.audio_volume; }
    auto& last_audio_sequence() { return r.last_audio_sequence; }
    auto& partial_frames_bytes() { return r.partial_frames_bytes; }
    auto& decode_error_count() { return r.decode_error_count; }
    auto& keyframe_needed() { return r.keyframe_needed; }
    auto& staging_frame() { return r.staging_frame; }

    void decode_thread_func() { r.decode_thread_func(); }

    VideoReceiver& r;
};

}  // namespace vesper::client
