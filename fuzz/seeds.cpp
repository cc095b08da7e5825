// Writes the inputs that the fuzzers start from, made of real streams: seeds FOLDER makes
// FOLDER/TARGET/NAME for every target.
#include <SDL2/SDL_events.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "fuzz/support/datagram_steps.h"
#include "fuzz/support/frames_input.h"
#include "fuzz/support/good_stream.h"
#include "fuzz/support/input.h"
#include "fuzz/support/input_steps.h"
#include "net/stream_datagrams.h"
#include "tools/stream/packetizer.h"
#include "tools/stream/vp8_encoder.h"

using namespace vesper::fuzz;
using vesper::tools::Picture;

namespace {

using Frames = std::vector<std::vector<std::uint8_t>>;

class Corpus {
  public:
    Corpus(const std::filesystem::path& folder, const char* target) : folder_(folder / target) {
        std::filesystem::create_directories(folder_);
    }

    void add(const char* name, const std::vector<std::uint8_t>& input) const {
        std::ofstream file(folder_ / name, std::ios::binary);
        file.write(reinterpret_cast<const char*>(input.data()),
                   static_cast<std::streamsize>(input.size()));
        if (!file) {
            std::perror(name);
            std::exit(1);
        }
    }

  private:
    std::filesystem::path folder_;
};

// Green with a moving bar of noise, so that the frames between keyframes are not empty.
void draw(const Picture& picture, int number) {
    unsigned noise = 12345;
    for (int y = 0; y < picture->height; ++y) {
        for (int x = 0; x < picture->width / 4; ++x) {
            noise = noise * 1103515245U + 12345U;
            const int column = (x + number * 3) % picture->width;
            picture->data[0][y * picture->linesize[0] + column] =
                static_cast<std::uint8_t>(noise >> 16U);
        }
    }
}

// A keyframe, followed by `count` - 1 frames.
Frames encode(int width, int height, int count, int bitrate = 200'000) {
    vesper::tools::Vp8Encoder encoder;
    if (!encoder.open({.width = width, .height = height, .bitrate = bitrate})) {
        std::exit(1);
    }
    Frames frames;
    for (int i = 0; i < count; ++i) {
        const Picture picture = green_picture(width, height);
        draw(picture, i);
        frames.push_back(encoder.encode(picture, i == 0));
    }
    // libvpx may drop a frame to keep to the bitrate.
    std::erase_if(frames, [](const auto& frame) { return frame.empty(); });
    return frames;
}

// `frames` with a keyframe that declares fewer pixels of the same macroblocks: width and height are
// 14 bits each, little-endian, after frame tag and start code (RFC 6386, section 9.1).
Frames declaring(int width, int height, Frames frames) {
    frames[0][6] = static_cast<std::uint8_t>(width);
    frames[0][7] = static_cast<std::uint8_t>(width >> 8);
    frames[0][8] = static_cast<std::uint8_t>(height);
    frames[0][9] = static_cast<std::uint8_t>(height >> 8);
    return frames;
}

Frames joined(std::initializer_list<Frames> streams) {
    Frames all;
    for (const Frames& stream : streams) {
        all.insert(all.end(), stream.begin(), stream.end());
    }
    return all;
}

// ---- datagrams ----

InputWriter& step(InputWriter& writer, DatagramStep kind) {
    return writer.number(static_cast<std::uint8_t>(kind));
}

void add_datagram(InputWriter& writer, const vesper::tools::Datagram& datagram) {
    step(writer, DatagramStep::datagram)
        .number(static_cast<std::uint16_t>(datagram.size()))
        .bytes(datagram);
}

void add_fragment(InputWriter& writer, std::uint32_t frame_id, int index, int count, int size) {
    step(writer, DatagramStep::fragment)
        .number(frame_id)
        .number(static_cast<std::uint16_t>(index))
        .number(static_cast<std::uint16_t>(count))
        .number(static_cast<std::uint16_t>(size));
}

InputWriter video(const Frames& frames, bool reversed) {
    InputWriter writer;
    vesper::tools::VideoPacketizer packetizer;
    for (const auto& frame : frames) {
        auto datagrams = packetizer.packetize(frame);
        if (reversed) {
            std::reverse(datagrams.begin(), datagrams.end());
        }
        for (const auto& datagram : datagrams) {
            add_datagram(writer, datagram);
        }
        step(writer, DatagramStep::settle);
        step(writer, DatagramStep::render);
    }
    return writer;
}

// Packets with a gap, a repetition and changing gain.
InputWriter sound() {
    InputWriter writer;
    vesper::tools::AudioPacketizer packetizer;
    for (int i = 0; i < 6; ++i) {
        const auto datagram = packetizer.packetize(good_opus_packet());
        if (i == 2) {
            continue;
        }
        add_datagram(writer, datagram);
        step(writer, DatagramStep::volume).number(0.4F * static_cast<float>(i));
    }
    return writer;
}

InputWriter losses() {
    InputWriter writer;
    add_fragment(writer, 1, 0, 4, 1400);
    add_fragment(writer, 1, 2, 4, 1400);
    add_fragment(writer, 2, 1, 2, 7);
    step(writer, DatagramStep::age).number(std::uint16_t{300});
    add_fragment(writer, 3, 0, 2, 1);
    step(writer, DatagramStep::ask);
    add_fragment(writer, 3, 1, 2, 1);
    add_fragment(writer, 3, 0, 3, 1);
    step(writer, DatagramStep::settle);
    return writer;
}

// Beyond the limit on partial frames, or on their bytes.
InputWriter flood(int frames, int fragments) {
    InputWriter writer;
    for (int i = 0; i < frames; ++i) {
        add_fragment(writer, static_cast<std::uint32_t>(i + 1), 0, fragments, 1400);
    }
    return writer;
}

// Every datagram lacks its last byte.
InputWriter cut_short(const Frames& frames) {
    InputWriter writer;
    vesper::tools::VideoPacketizer video_packetizer;
    auto datagrams = video_packetizer.packetize(frames.front());
    datagrams.push_back(vesper::tools::AudioPacketizer().packetize(good_opus_packet()));
    for (auto& datagram : datagrams) {
        datagram.pop_back();
        add_datagram(writer, datagram);
    }
    return writer;
}

InputWriter last_number() {
    InputWriter writer;
    add_fragment(writer, 0xFFFFFFFF, 0, 1, 5);
    add_fragment(writer, 0xFFFFFFFF, 0, 1, 5);
    add_fragment(writer, 1, 0, 1, 5);
    return writer;
}

InputWriter ended(const Frames& frames) {
    InputWriter writer = video(frames, false);
    step(writer, DatagramStep::end);
    step(writer, DatagramStep::render);
    add_fragment(writer, 100, 0, 1, 5);
    return writer;
}

void make_datagrams(const Corpus& corpus) {
    const Frames small = encode(kGoodWidth, kGoodHeight, 4);
    corpus.add("video", video(small, false).input());
    corpus.add("video-of-many-fragments", video(encode(320, 240, 2, 2'000'000), true).input());
    corpus.add("sound", sound().input());
    corpus.add("losses", losses().input());
    corpus.add("many-partial-frames", flood(62, 2).input());
    corpus.add("large-partial-frames", flood(40, vesper::kMaxFragmentsPerFrame).input());
    corpus.add("cut-short", cut_short(small).input());
    corpus.add("last-frame-number", last_number().input());
    corpus.add("ended", ended(small).input());
}

// ---- frames ----

InputWriter frames_input(std::uint8_t receiver_size, const Frames& frames, std::uint8_t flags = 0) {
    InputWriter writer;
    writer.number(receiver_size);
    for (const auto& frame : frames) {
        writer.number(flags).number(static_cast<std::uint16_t>(frame.size())).bytes(frame);
    }
    return writer;
}

void make_frames(const Corpus& corpus) {
    const Frames small = encode(kGoodWidth, kGoodHeight, 4);
    const Frames smaller = encode(32, 16, 3);
    const Frames larger = encode(160, 96, 3);
    const Frames tall = encode(16, 128, 2);
    corpus.add("stream", frames_input(0, small).input());
    corpus.add("scaled-up", frames_input(1, small).input());
    corpus.add("scaled-down", frames_input(2, larger).input());
    corpus.add("one-pixel", frames_input(3, smaller).input());
    corpus.add("odd-size", frames_input(4, small).input());
    corpus.add("unscaled-odd", frames_input(7, encode(126, 64, 2)).input());
    corpus.add("queued-together", frames_input(0, small, kQueueWithNext).input());
    corpus.add("grows", frames_input(0, joined({smaller, small, larger})).input());
    corpus.add("shrinks", frames_input(0, joined({larger, small, smaller})).input());
    corpus.add("turns", frames_input(1, joined({larger, tall, larger})).input());
    corpus.add("no-keyframe", frames_input(0, Frames(small.begin() + 1, small.end())).input());

    const Frames whole_macroblocks = encode(64, 48, 3);
    for (int remainder = 0; remainder < kRemainders; ++remainder) {
        const auto choice = static_cast<std::uint8_t>(kEveryRemainder | remainder);
        const auto [width, height] = size_with_remainders(choice);
        const std::string size = std::to_string(width) + "x" + std::to_string(height);
        corpus.add(("scaled-to-" + size).c_str(), frames_input(choice, small).input());
        corpus.add(("unscaled-" + size).c_str(),
                   frames_input(choice, declaring(width, height, whole_macroblocks)).input());
    }
}

// ---- args ----

void add_words(const Corpus& corpus, const char* name,
               std::initializer_list<std::string_view> words) {
    std::vector<std::uint8_t> input;
    for (const std::string_view word : words) {
        input.insert(input.end(), word.begin(), word.end());
        input.push_back(0);
    }
    corpus.add(name, input);
}

void make_args(const Corpus& corpus) {
    add_words(corpus, "port", {"--port", "5000"});
    add_words(corpus, "everything",
              {"--port", "5000", "--streamer-id", "7", "--width", "1920", "--height", "1080",
               "--username", "somebody", "--parent-port", "5001", "--has-audio", "--audio-volume",
               "0.5", "--audio-muted"});
    add_words(corpus, "wrong-values",
              {"--port", "70000", "--width", "x", "--height", "-1", "--audio-volume", "nan"});
    add_words(corpus, "missing-value", {"--username", "--port", "5000", "--width"});
}

// ---- input ----

InputWriter begin_input(std::uint8_t flags, float volume, int frame_width, int frame_height) {
    InputWriter writer;
    writer.number(flags).number(volume).number(frame_width).number(frame_height);
    writer.number(static_cast<std::uint8_t>(InputStep::resize)).number(640).number(360);
    return writer;
}

InputWriter& step(InputWriter& writer, InputStep kind) {
    return writer.number(static_cast<std::uint8_t>(kind));
}

void press(InputWriter& writer, int button, int clicks, int x, int y) {
    step(writer, InputStep::press)
        .number(static_cast<std::uint8_t>(button))
        .number(static_cast<std::uint8_t>(clicks))
        .number(x)
        .number(y);
}

void release(InputWriter& writer, int button) {
    step(writer, InputStep::release).number(static_cast<std::uint8_t>(button));
}

InputWriter zoom_and_pan() {
    InputWriter writer = begin_input(0, 1.0F, 1280, 720);
    for (int i = 0; i < 12; ++i) {
        step(writer, InputStep::wheel).number(500).number(20).number(1);
    }
    press(writer, SDL_BUTTON_RIGHT, 1, 500, 20);
    step(writer, InputStep::motion).number(10).number(300);
    step(writer, InputStep::motion).number(-4000).number(3000);
    release(writer, SDL_BUTTON_RIGHT);
    step(writer, InputStep::wheel).number(0).number(359).number(-1);
    step(writer, InputStep::key).number(static_cast<std::int32_t>(SDLK_r));
    return writer;
}

InputWriter slider_and_mute(std::uint8_t flags, float volume) {
    InputWriter writer = begin_input(flags, volume, 64, 40);
    press(writer, SDL_BUTTON_LEFT, 1, 100, 350);
    step(writer, InputStep::motion).number(200).number(10);
    release(writer, SDL_BUTTON_LEFT);
    press(writer, SDL_BUTTON_LEFT, 1, 20, 350);
    for (const SDL_Keycode key : {SDLK_m, SDLK_UP, SDLK_UP, SDLK_DOWN}) {
        step(writer, InputStep::key).number(static_cast<std::int32_t>(key));
    }
    return writer;
}

InputWriter fullscreen() {
    InputWriter writer = begin_input(0, 1.0F, 64, 40);
    press(writer, SDL_BUTTON_LEFT, 2, 100, 100);
    press(writer, SDL_BUTTON_LEFT, 1, 630, 350);
    for (const SDL_Keycode key : {SDLK_f, SDLK_ESCAPE, SDLK_ESCAPE, SDLK_F11}) {
        step(writer, InputStep::key).number(static_cast<std::int32_t>(key));
    }
    step(writer, InputStep::hide);
    press(writer, SDL_BUTTON_LEFT, 2, 100, 100);
    step(writer, InputStep::event)
        .number(std::uint32_t{SDL_WINDOWEVENT})
        .number(static_cast<std::uint8_t>(SDL_WINDOWEVENT_CLOSE));
    return writer;
}

void make_input(const Corpus& corpus) {
    corpus.add("zoom-and-pan", zoom_and_pan().input());
    corpus.add("slider-and-mute", slider_and_mute(kHasAudio | kHasParent, 0.5F).input());
    corpus.add("muted-without-window",
               slider_and_mute(kHasAudio | kStartMuted | kNoWindow, 0.98F).input());
    corpus.add("fullscreen", fullscreen().input());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "Usage: %s FOLDER\n", argv[0]);
        return 1;
    }
    const std::filesystem::path folder = argv[1];
    make_datagrams(Corpus(folder, "datagrams"));
    make_frames(Corpus(folder, "frames"));
    make_args(Corpus(folder, "args"));
    make_input(Corpus(folder, "input"));
    return 0;
}
