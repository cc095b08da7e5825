#include "tools/stream/decoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
#include <libavutil/version.h>
}

#include <array>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <utility>

namespace vesper::tools {

namespace {

constexpr AVRational kMicroseconds = {.num = 1, .den = 1'000'000};

// One of each leaves the processors to the encoder and the player.
constexpr int kThreads = 1;

struct Channels {
    int count = 0;
    std::uint64_t mask = 0;  // 0: which is which is not known

    bool operator==(const Channels&) const = default;
};

Channels channels_of(const AVFrame& frame) {
#if LIBAVUTIL_VERSION_INT >= AV_VERSION_INT(57, 24, 100)
    return {.count = frame.ch_layout.nb_channels,
            .mask = frame.ch_layout.order == AV_CHANNEL_ORDER_NATIVE ? frame.ch_layout.u.mask : 0};
#else
    return {.count = frame.channels, .mask = frame.channel_layout};
#endif
}

bool is_sound(const AVFrame& frame) {
    return frame.sample_rate > 0;
}

// The options of libavfilter's source for frames like this one.
std::string source_options(const AVFrame& frame) {
    std::array<char, 200> text{};
    if (is_sound(frame)) {
        const Channels channels = channels_of(frame);
        std::snprintf(
            text.data(), text.size(), "time_base=%d/%d:sample_rate=%d:sample_fmt=%s:channels=%d",
            kMicroseconds.num, kMicroseconds.den, frame.sample_rate,
            av_get_sample_fmt_name(static_cast<AVSampleFormat>(frame.format)), channels.count);
        std::string options = text.data();
        if (channels.mask != 0) {
            std::snprintf(text.data(), text.size(), ":channel_layout=0x%" PRIx64, channels.mask);
            options += text.data();
        }
        return options;
    }
    std::snprintf(text.data(), text.size(),
                  "video_size=%dx%d:pix_fmt=%d:time_base=%d/%d:pixel_aspect=%d/%d", frame.width,
                  frame.height, frame.format, kMicroseconds.num, kMicroseconds.den,
                  frame.sample_aspect_ratio.num, frame.sample_aspect_ratio.den);
    return text.data();
}

}  // namespace

Decoder::~Decoder() {
    close();
}

void Decoder::close() {
    close_graph();
    avcodec_free_context(&context_);
}

bool Decoder::open(const AVCodecParameters& parameters, std::string shape) {
    close();
    shape_ = std::move(shape);
    end_of_sound_ = 0;
    converts_ = true;
    const AVCodec* codec = avcodec_find_decoder(parameters.codec_id);
    if (codec == nullptr) {
        return false;
    }
    context_ = avcodec_alloc_context3(codec);
    if (context_ == nullptr) {
        return false;
    }
    context_->pkt_timebase = kMicroseconds;
    context_->thread_count = kThreads;
    if (avcodec_parameters_to_context(context_, &parameters) < 0 ||
        avcodec_open2(context_, codec, nullptr) < 0) {
        close();
        return false;
    }
    return true;
}

std::vector<Picture> Decoder::decode(const AVPacket& packet) {
    if (context_ == nullptr || avcodec_send_packet(context_, &packet) < 0) {
        return {};
    }
    return receive();
}

std::vector<Picture> Decoder::finish() {
    if (context_ == nullptr) {
        return {};
    }
    avcodec_send_packet(context_, nullptr);
    std::vector<Picture> rest = receive();
    avcodec_flush_buffers(context_);
    end_of_sound_ = 0;
    return rest;
}

std::vector<Picture> Decoder::receive() {
    std::vector<Picture> out;
    for (;;) {
        const Picture frame(av_frame_alloc());
        if (!frame || avcodec_receive_frame(context_, frame.get()) < 0) {
            return out;
        }
        frame->pts = frame->best_effort_timestamp;
        if (is_sound(*frame)) {
            continue_sound(*frame);
        }
        if ((!fits_graph(*frame) && !open_graph(*frame)) ||
            av_buffersrc_add_frame(source_, frame.get()) < 0) {
            converts_ = false;
            continue;
        }
        for (Picture shaped(av_frame_alloc());
             shaped && av_buffersink_get_frame(sink_, shaped.get()) >= 0;
             shaped.reset(av_frame_alloc())) {
            shaped->pts =
                av_rescale_q(shaped->pts, av_buffersink_get_time_base(sink_), kMicroseconds);
            out.push_back(std::move(shaped));
        }
    }
}

// Of the blocks of sound in one packet libavcodec stamps only the first.
void Decoder::continue_sound(AVFrame& block) {
    if (block.pts == AV_NOPTS_VALUE) {
        block.pts = end_of_sound_;
    }
    end_of_sound_ = block.pts + av_rescale(block.nb_samples, kMicroseconds.den, block.sample_rate);
}

bool Decoder::fits_graph(const AVFrame& frame) const {
    return like_ && like_->format == frame.format && like_->width == frame.width &&
           like_->height == frame.height && like_->sample_rate == frame.sample_rate &&
           channels_of(*like_) == channels_of(frame);
}

// The rest in an earlier graph, less than a block of sound, is lost.
bool Decoder::open_graph(const AVFrame& frame) {
    close_graph();
    graph_ = avfilter_graph_alloc();
    if (graph_ == nullptr) {
        return false;
    }
    graph_->nb_threads = kThreads;
    const auto filter = [&frame](const char* of_pictures, const char* of_sound) {
        return avfilter_get_by_name(is_sound(frame) ? of_sound : of_pictures);
    };
    const std::string options = source_options(frame);
    AVFilterInOut* inputs = nullptr;
    AVFilterInOut* outputs = nullptr;
    const bool good = avfilter_graph_create_filter(&source_, filter("buffer", "abuffer"), "in",
                                                   options.c_str(), nullptr, graph_) >= 0 &&
                      avfilter_graph_create_filter(&sink_, filter("buffersink", "abuffersink"),
                                                   "out", nullptr, nullptr, graph_) >= 0 &&
                      avfilter_graph_parse2(graph_, shape_.c_str(), &inputs, &outputs) >= 0 &&
                      inputs != nullptr && outputs != nullptr &&
                      avfilter_link(source_, 0, inputs->filter_ctx,
                                    static_cast<unsigned>(inputs->pad_idx)) >= 0 &&
                      avfilter_link(outputs->filter_ctx, static_cast<unsigned>(outputs->pad_idx),
                                    sink_, 0) >= 0 &&
                      avfilter_graph_config(graph_, nullptr) >= 0;
    avfilter_inout_free(&inputs);
    avfilter_inout_free(&outputs);
    like_.reset(av_frame_alloc());
    if (!good || !like_ || av_frame_copy_props(like_.get(), &frame) < 0) {
        close_graph();
        return false;
    }
    like_->format = frame.format;
    like_->width = frame.width;
    like_->height = frame.height;
    like_->sample_rate = frame.sample_rate;
#if LIBAVUTIL_VERSION_INT >= AV_VERSION_INT(57, 24, 100)
    if (av_channel_layout_copy(&like_->ch_layout, &frame.ch_layout) < 0) {
        close_graph();
        return false;
    }
#else
    like_->channels = frame.channels;
    like_->channel_layout = frame.channel_layout;
#endif
    return true;
}

void Decoder::close_graph() {
    avfilter_graph_free(&graph_);
    source_ = sink_ = nullptr;
    like_.reset();
}

}  // namespace vesper::tools
