#include "tools/stream/media_source.h"

extern "C" {
#include <libavcodec/packet.h>
#include <libavdevice/avdevice.h>
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavformat/avformat.h>
#include <libavutil/avstring.h>
#include <libavutil/dict.h>
#include <libavutil/mem.h>
}

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/stream/libav.h"

namespace vesper::tools {

namespace {

// Labels of a graph's ends.
constexpr std::string_view kPictureEnd = "picture";
constexpr std::string_view kSoundEnd = "sound";

// For decoding and for filtering: one of each is fast enough for live pictures, and leaves the
// processors to the encoder and the player.
constexpr int kThreads = 1;

// The screen grabber waits until its next frame is due, unless it is late. At a rate that nobody
// asks for it is always late, so that it never waits and the picture is as new as can be.
constexpr const char* kGrabRate = "1000";  // frames/s

// A pointer to const in FFmpeg 5 and later, but not in 4.4.
using InputFormat = decltype(av_find_input_format(nullptr));

// What names an end of a graph's description.
std::string picture_end() {
    return "[" + std::string(kPictureEnd) + "]";
}
std::string sound_end() {
    return "[" + std::string(kSoundEnd) + "]";
}

std::string size_of(const MediaSettings& settings) {
    return std::to_string(settings.width) + "x" + std::to_string(settings.height);
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

// `text` as one value in a graph's description: escaped once for the filter's options and once for
// the graph (libavfilter's manual, "Notes on filtergraph escaping").
std::string escaped(std::string text) {
    for (const char* special : {":", "[],;"}) {
        char* result = nullptr;
        if (av_escape(&result, text.c_str(), special, AV_ESCAPE_MODE_BACKSLASH, 0) < 0) {
            return {};
        }
        text = result;
        av_free(result);
    }
    return text;
}

// With the scheme in front, a colon in a file's name is a colon.
std::string url_of(const std::string& path) {
    return path.find("://") == std::string::npos ? "file:" + path : path;
}

// What a file offers.
struct Probe {
    int error = 0;  // negative: libavformat's
    bool has_pictures = false;
    bool has_sound = false;
};

Probe probe(const std::string& url) {
    Probe result;
    AVFormatContext* format = nullptr;
    result.error = avformat_open_input(&format, url.c_str(), nullptr, nullptr);
    if (result.error >= 0) {
        result.error = avformat_find_stream_info(format, nullptr);
    }
    if (result.error >= 0) {
        const auto best = [format](AVMediaType type) {
            return av_find_best_stream(format, type, -1, -1, nullptr, 0);
        };
        const int pictures = best(AVMEDIA_TYPE_VIDEO);
        result.has_pictures = pictures >= 0 && is_video(*format->streams[pictures]);
        result.has_sound = best(AVMEDIA_TYPE_AUDIO) >= 0;
    }
    avformat_close_input(&format);
    return result;
}

}  // namespace

MediaSource::~MediaSource() {
    close();
}

void MediaSource::close() {
    avfilter_graph_free(&graph_);
    pictures_ = nullptr;
    sound_ = nullptr;
    avformat_close_input(&screen_);
    grabs_.close();
}

bool MediaSource::open_test_picture(const MediaSettings& settings) {
    std::string graph = "testsrc2=size=" + size_of(settings) +
                        ":rate=" + std::to_string(settings.frames_per_second) + ",format=yuv420p" +
                        enlarged_clock(settings) + picture_end();
    if (settings.sound) {
        graph += ";sine=frequency=440:beep_factor=4:sample_rate=" + std::to_string(kSoundRate) +
                 "," + sound_shape() + sound_end();
    }
    const int result = open_graph(graph);
    if (result < 0) {
        std::fprintf(stderr, "no test picture of %s: %s\n", size_of(settings).c_str(),
                     libav_error(result).c_str());
        return false;
    }
    name_ = "the test picture";
    has_sound_ = settings.sound;
    return true;
}

bool MediaSource::open_file(const MediaSettings& settings, const std::string& path, bool loop) {
    const std::string url = url_of(path);
    const Probe file = probe(url);
    if (file.error < 0) {
        std::fprintf(stderr, "cannot read %s: %s\n", path.c_str(), libav_error(file.error).c_str());
        return false;
    }
    if (!file.has_pictures) {
        std::fprintf(stderr, "%s has no video\n", path.c_str());
        return false;
    }
    const bool sound = settings.sound && file.has_sound;
    // The rate filter takes the last picture's time for the end and drops it, unless something
    // follows: a clone, which it then drops instead.
    std::string graph = "movie=filename=" + escaped(url) + ":streams=dv" + (sound ? "+da" : "") +
                        "[v]" + (sound ? "[a]" : "") + ";[v]tpad=stop=1:stop_mode=clone,fps=" +
                        std::to_string(settings.frames_per_second) + "," + picture_shape(settings) +
                        picture_end();
    if (sound) {
        graph += ";[a]" + sound_shape() + sound_end();
    }
    const int result = open_graph(graph);
    if (result < 0) {
        std::fprintf(stderr, "cannot play %s: %s\n", path.c_str(), libav_error(result).c_str());
        return false;
    }
    name_ = path;
    has_sound_ = sound;
    looped_graph_ = loop ? graph : "";
    return true;
}

bool MediaSource::open_screen(const MediaSettings& settings, const std::string& display) {
    const int result = open_grabber(settings, display);
    if (result < 0) {
        std::fprintf(stderr, "cannot grab the display \"%s\": %s\n", display.c_str(),
                     libav_error(result).c_str());
        return false;
    }
    name_ = "the display \"" + display + "\"";
    return true;
}

// libavfilter's movie source would do all of this, but FFmpeg 4.3's takes no options for a grabber.
// Negative: libavformat's error; the source is then closed.
int MediaSource::open_grabber(const MediaSettings& settings, const std::string& display) {
    close();
    avdevice_register_all();
    InputFormat grabber = av_find_input_format("x11grab");
    // libavformat would take the display's name for a file's.
    if (grabber == nullptr) {
        return AVERROR_DEMUXER_NOT_FOUND;
    }
    AVDictionary* options = nullptr;
    av_dict_set(&options, "framerate", kGrabRate, 0);
    int result = avformat_open_input(&screen_, display.c_str(), grabber, &options);
    av_dict_free(&options);
    if (result >= 0 && !grabs_.open(*screen_->streams[0]->codecpar, picture_shape(settings))) {
        result = AVERROR_DECODER_NOT_FOUND;
    }
    // Only the first picture shows whether there can be any of the settings' size.
    if (result >= 0) {
        Picture first;
        result = grab(first);
    }
    if (result < 0) {
        close();
    }
    return result;
}

// Negative: libavfilter's error; the source is then closed.
int MediaSource::open_graph(const std::string& description) {
    close();
    graph_ = avfilter_graph_alloc();
    if (graph_ == nullptr) {
        return AVERROR(ENOMEM);
    }
    graph_->nb_threads = kThreads;
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
        close();
    }
    return result;
}

// Negative: an error of libav's; `picture` is then as it was.
int MediaSource::grab(Picture& picture) {
    AVPacket* packet = av_packet_alloc();
    int result = packet != nullptr ? av_read_frame(screen_, packet) : AVERROR(ENOMEM);
    if (result >= 0) {
        std::vector<Picture> pictures = grabs_.decode(*packet);
        if (pictures.empty()) {
            result = AVERROR(EINVAL);
        } else {
            picture = std::move(pictures.front());
        }
    }
    av_packet_free(&packet);
    return result;
}

// The graph's next picture; a looped one restarts at its end. Negative: libavfilter's error.
int MediaSource::filter(Picture& picture) {
    picture.reset(av_frame_alloc());
    if (!picture) {
        return AVERROR(ENOMEM);
    }
    int result = av_buffersink_get_frame(pictures_, picture.get());
    if (result == AVERROR_EOF && !looped_graph_.empty()) {
        result = open_graph(looped_graph_);
        if (result >= 0) {
            result = av_buffersink_get_frame(pictures_, picture.get());
        }
    }
    return result;
}

Picture MediaSource::next_picture() {
    if (pictures_ == nullptr && screen_ == nullptr) {
        return nullptr;
    }
    Picture picture;
    const int result = screen_ != nullptr ? grab(picture) : filter(picture);
    if (result < 0) {
        const bool at_end = result == AVERROR_EOF && screen_ == nullptr && looped_graph_.empty();
        if (!at_end) {
            std::fprintf(stderr, "cannot read %s any further: %s\n", name_.c_str(),
                         libav_error(result).c_str());
        }
        // What is left of the sound may still be wanted.
        pictures_ = nullptr;
        avformat_close_input(&screen_);
        grabs_.close();
        return nullptr;
    }
    return picture;
}

bool MediaSource::next_sound(SoundFrame& sound) {
    const Picture frame(av_frame_alloc());
    if (!has_sound() || !frame) {
        return false;
    }
    if (sound_ == nullptr || av_buffersink_get_frame(sound_, frame.get()) < 0) {
        sound.fill(0);
        return true;
    }
    std::memcpy(sound.data(), frame->data[0], sizeof sound);
    return true;
}

}  // namespace vesper::tools
