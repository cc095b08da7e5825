#include "tools/stream/vp8_encoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
}

#include <cstdio>

namespace vesper::tools {

namespace {

// Fast enough for full HD on two cores; every step down costs about half the speed.
constexpr int kCpuUsed = 8;

// A keyframe may take what this many frames take on average: a player takes one datagram a pass, so
// each of a keyframe's makes its picture a pass later. Unbounded, the keyframe of a busy picture
// takes half a second's worth: more than the player's receive buffer holds, so that it would be
// lost just when it is needed. Half of this costs another 0.3 dB, and the frame after the keyframe
// takes what the keyframe was not given.
constexpr int kMaxKeyframeShare = 400;  // percent of the average frame

}  // namespace

Vp8Encoder::~Vp8Encoder() {
    av_packet_free(&packet_);
    avcodec_free_context(&context_);
}

bool Vp8Encoder::open(const Vp8Settings& settings) {
    const AVCodec* codec = avcodec_find_encoder_by_name("libvpx");
    if (codec == nullptr) {
        std::fprintf(stderr, "libavcodec was built without libvpx: no VP8 encoder\n");
        return false;
    }
    context_ = avcodec_alloc_context3(codec);
    packet_ = av_packet_alloc();
    if (context_ == nullptr || packet_ == nullptr) {
        std::fprintf(stderr, "no memory for the VP8 encoder\n");
        return false;
    }
    context_->width = settings.width;
    context_->height = settings.height;
    context_->pix_fmt = AV_PIX_FMT_YUV420P;
    context_->time_base = {.num = 1, .den = settings.frames_per_second};
    context_->framerate = {.num = settings.frames_per_second, .den = 1};
    context_->bit_rate = settings.bitrate;
    // All three alike: libavcodec then asks libvpx for a constant rate, which keeps each frame near
    // the average. With a variable one the frames that renew the golden picture take twice that.
    context_->rc_min_rate = settings.bitrate;
    context_->rc_max_rate = settings.bitrate;
    context_->rc_buffer_size = settings.bitrate / 2;  // half a second
    context_->gop_size = settings.keyframe_interval;
    context_->thread_count = 1;
    av_opt_set(context_->priv_data, "deadline", "realtime", 0);
    av_opt_set_int(context_->priv_data, "cpu-used", kCpuUsed, 0);
    av_opt_set_int(context_->priv_data, "lag-in-frames", 0, 0);
    av_opt_set_int(context_->priv_data, "max-intra-rate", kMaxKeyframeShare, 0);
    const int result = avcodec_open2(context_, codec, nullptr);
    if (result < 0) {
        std::fprintf(stderr, "libvpx refused %dx%d at %d frames/s and %d bit/s\n", settings.width,
                     settings.height, settings.frames_per_second, settings.bitrate);
        return false;
    }
    return true;
}

std::vector<std::uint8_t> Vp8Encoder::encode(const Picture& picture, bool keyframe) {
    picture->pts = next_pts_++;
    picture->pict_type = keyframe ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    if (avcodec_send_frame(context_, picture.get()) < 0 ||
        avcodec_receive_packet(context_, packet_) < 0) {
        std::fprintf(stderr, "libvpx failed to encode a frame\n");
        return {};
    }
    std::vector<std::uint8_t> encoded(packet_->data, packet_->data + packet_->size);
    av_packet_unref(packet_);
    return encoded;
}

}  // namespace vesper::tools
