#include "tools/stream/media_source.h"

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavutil/error.h>
}

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace vesper::tools {

namespace {

// Labels of a graph's ends.
constexpr std::string_view kPictureEnd = "picture";
constexpr std::string_view kSoundEnd = "sound";

std::string size_of(const MediaSettings& settings) {
    return std::to_string(settings.width) + "x" + std::to_string(settings.height);
}

// Any sound into the frames that the Opus encoder takes.
std::string sound_shape() {
    return "aresample=" + std::to_string(kSoundRate) +
           ",aformat=sample_fmts=s16:channel_layouts=stereo,asetnsamples=n=" +
           std::to_string(kSoundFrameSamples) + ":p=1[" + std::string(kSoundEnd) + "]";
}

// testsrc2 writes clock and frame number 16 pixels high into its top left corner; a copy of that
// corner, enlarged to two fifths of the width, can be read from across the room and survives heavy
// compression. Empty where the picture is too small to enlarge anything.
std::string enlarged_clock(const MediaSettings& settings) {
    constexpr int kWidth = 100;  // pixels, of the corner that holds the text
    constexpr int kHeight = 36;
    const int times = std::min(settings.width * 2 / 5 / kWidth, settings.height * 2 / 5 / kHeight);
    if (times < 2) {
        return {};
    }
    return ",split[whole][corner];[corner]crop=" + std::to_string(kWidth) + ":" +
           std::to_string(kHeight) + ":2:2,scale=iw*" + std::to_string(times) + ":ih*" +
           std::to_string(times) + ":flags=neighbor[clock];[whole][clock]overlay=0:0";
}

}  // namespace

MediaSource::~MediaSource() {
    close();
}

void MediaSource::close() {
    avfilter_graph_free(&graph_);
    pictures_ = nullptr;
    sound_ = nullptr;
}

bool MediaSource::open_test_picture(const MediaSettings& settings) {
    std::string graph = "testsrc2=size=" + size_of(settings) +
                        ":rate=" + std::to_string(settings.frames_per_second) + ",format=yuv420p" +
                        enlarged_clock(settings) + "[" + std::string(kPictureEnd) + "]";
    if (settings.sound) {
        graph += ";sine=frequency=440:beep_factor=4:sample_rate=" + std::to_string(kSoundRate) +
                 "," + sound_shape();
    }
    return open_graph(graph);
}

bool MediaSource::open_graph(const std::string& description) {
    close();
    graph_ = avfilter_graph_alloc();
    AVFilterInOut* inputs = nullptr;
    AVFilterInOut* outputs = nullptr;
    int result = avfilter_graph_parse2(graph_, description.c_str(), &inputs, &outputs);
    for (AVFilterInOut* end = outputs; result >= 0 && end != nullptr; end = end->next) {
        const bool is_picture = end->name == kPictureEnd;
        AVFilterContext*& sink = is_picture ? pictures_ : sound_;
        result = avfilter_graph_create_filter(
            &sink, avfilter_get_by_name(is_picture ? "buffersink" : "abuffersink"), end->name,
            nullptr, nullptr, graph_);
        if (result >= 0) {
            result = avfilter_link(end->filter_ctx, static_cast<unsigned>(end->pad_idx), sink, 0);
        }
    }
    avfilter_inout_free(&inputs);
    avfilter_inout_free(&outputs);
    if (result >= 0) {
        result = avfilter_graph_config(graph_, nullptr);
    }
    if (result < 0) {
        std::array<char, AV_ERROR_MAX_STRING_SIZE> reason{};
        av_strerror(result, reason.data(), reason.size());
        std::fprintf(stderr, "libavfilter refused \"%s\": %s\n", description.c_str(),
                     reason.data());
        close();
        return false;
    }
    return true;
}

Picture MediaSource::next_picture() {
    Picture picture(av_frame_alloc());
    if (!picture || av_buffersink_get_frame(pictures_, picture.get()) < 0) {
        return nullptr;
    }
    return picture;
}

bool MediaSource::next_sound(SoundFrame& sound) {
    const Picture frame(av_frame_alloc());
    if (!has_sound() || !frame || av_buffersink_get_frame(sound_, frame.get()) < 0) {
        return false;
    }
    std::memcpy(sound.data(), frame->data[0], sizeof sound);
    return true;
}

}  // namespace vesper::tools
