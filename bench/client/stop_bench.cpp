// How long stop() keeps the thread that calls it, with and without frames left to decode, and with
// sound. One repetition stops one receiver, so lowest and highest show the spread. There is no
// floor: nearly all of it is waiting, for a thread, for a pause and for SDL.
//
// Needs a display. The sound goes to SDL's dummy driver, or to the one that SDL_AUDIODRIVER names.
// The table goes to standard output; the receivers' failures, such as the -11 at the start of every
// stream, go to standard error. scripts/bench does not run this; docs/embedding.md has the figures.
#include <SDL2/SDL.h>
#include <benchmark/benchmark.h>

extern "C" {
#include <libavutil/log.h>
}

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "audio/opus_codec.h"
#include "bench/support/test_stream.h"
#include "client/frame_ring.h"
#include "client/renderer_choice.h"
#include "client/video_receiver.h"
#include "tools/stream/media_source.h"
#include "tools/stream/packetizer.h"

using vesper::bench::EncodedFrame;
using vesper::bench::StreamSize;
using vesper::client::VideoReceiver;
using vesper::tools::Datagram;

namespace {

using Seconds = std::chrono::duration<double>;

constexpr int kReceivers = 15;
constexpr int kShownFrames = 10;       // before the stop; the sound plays meanwhile
constexpr Uint32 kFrameInterval = 33;  // ms
constexpr int kPacketsForEachFrame = 2;
constexpr int kFramesInRing = static_cast<int>(vesper::client::kFrameQueueSlots);

struct Case {
    const char* name;
    StreamSize size;
    bool full_ring;  // stopped right after as many frames as the ring holds
    bool sound;
};

const std::vector<EncodedFrame>& frames_of(StreamSize size) {
    static std::map<int, std::vector<EncodedFrame>> made;
    std::vector<EncodedFrame>& frames = made[size.width];
    if (frames.empty()) {
        frames = vesper::bench::encode_test_stream(size, kShownFrames + kFramesInRing);
    }
    return frames;
}

// A packet of silence.
std::vector<unsigned char> silence() {
    vesper::OpusEncoderWrapper encoder;
    const vesper::tools::SoundFrame sound{};
    std::vector<unsigned char> packet(1400);
    if (!encoder.init(vesper::tools::kSoundRate, vesper::tools::kSoundChannels,
                      OPUS_APPLICATION_AUDIO)) {
        std::exit(EXIT_FAILURE);
    }
    const int size = encoder.encode(sound.data(), vesper::tools::kSoundFrameSamples, packet.data(),
                                    static_cast<int>(packet.size()));
    packet.resize(static_cast<std::size_t>(std::max(size, 0)));
    return packet;
}

class LiveReceiver {
  public:
    LiveReceiver(StreamSize size, bool sound) : sound_(sound) {
        if (!receiver.start(1, "bench", size.width, size.height, nullptr)) {
            std::exit(EXIT_FAILURE);
        }
        receiver.enable_audio(sound);
    }

    void feed_frame(const EncodedFrame& frame) {
        for (const Datagram& datagram : video_.packetize(frame)) {
            receiver.handle_fragment(datagram.data(), static_cast<int>(datagram.size()));
        }
    }

    void feed_sound() {
        static const std::vector<unsigned char> packet = silence();
        for (int i = 0; sound_ && i < kPacketsForEachFrame; ++i) {
            const Datagram datagram = packets_.packetize(packet);
            receiver.handle_screen_audio(datagram.data(), static_cast<int>(datagram.size()));
        }
    }

    VideoReceiver receiver;

  private:
    const bool sound_;
    vesper::tools::VideoPacketizer video_;
    vesper::tools::AudioPacketizer packets_;
};

void stop(benchmark::State& state, Case subject) {
    const std::span frames(frames_of(subject.size));
    for (auto _ : state) {
        LiveReceiver live(subject.size, subject.sound);
        for (const EncodedFrame& frame : frames.first(kShownFrames)) {
            live.feed_frame(frame);
            live.feed_sound();
            SDL_PumpEvents();
            live.receiver.update();
            SDL_Delay(kFrameInterval);
        }
        if (subject.full_ring) {
            for (const EncodedFrame& frame : frames.subspan(kShownFrames)) {
                live.feed_frame(frame);
            }
        }
        const auto start = std::chrono::steady_clock::now();
        live.receiver.stop();
        state.SetIterationTime(Seconds(std::chrono::steady_clock::now() - start).count());
    }
}

}  // namespace

int main(int argc, char** argv) {
    SDL_setenv("SDL_AUDIODRIVER", "dummy", 0);
    av_log_set_level(AV_LOG_QUIET);
    if (SDL_Init(SDL_INIT_VIDEO | SDL_INIT_AUDIO) != 0) {
        std::fprintf(stderr, "%s\n", SDL_GetError());
        return EXIT_FAILURE;
    }
    vesper::client::choose_renderer();
    benchmark::Initialize(&argc, argv);
    const auto lowest = [](const std::vector<double>& v) { return *std::ranges::min_element(v); };
    const auto highest = [](const std::vector<double>& v) { return *std::ranges::max_element(v); };
    for (const Case& subject : {
             Case{"stop/640x360", {640, 360}, false, false},
             Case{"stop/640x360/full_ring", {640, 360}, true, false},
             Case{"stop/1920x1080/full_ring", {1920, 1080}, true, false},
             Case{"stop/640x360/sound", {640, 360}, false, true},
             Case{"stop/1920x1080/full_ring/sound", {1920, 1080}, true, true},
         }) {
        benchmark::RegisterBenchmark(subject.name, stop, subject)
            ->UseManualTime()
            ->Iterations(1)
            ->Repetitions(kReceivers)
            ->ReportAggregatesOnly()
            ->ComputeStatistics("lowest", lowest)
            ->ComputeStatistics("highest", highest)
            ->Unit(benchmark::kMillisecond);
    }
    // What the receivers print there would tear the table apart.
    std::ofstream output("/dev/stdout", std::ios::app);
    if (!output || std::freopen("/dev/null", "w", stdout) == nullptr) {
        std::perror("standard output");
        return EXIT_FAILURE;
    }
    std::streambuf* const usual = std::cout.rdbuf(output.rdbuf());
    benchmark::RunSpecifiedBenchmarks();
    std::cout.rdbuf(usual);
    SDL_Quit();
    return EXIT_SUCCESS;
}
