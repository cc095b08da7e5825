// Sound datagrams a second through handle_screen_audio(), to the queue of SDL's dummy sound card,
// compared with bare opus_decode() of the same packets. In processor time: there is only one
// thread.
#include <SDL2/SDL.h>
#include <benchmark/benchmark.h>
#include <opus.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <vector>

#include "audio/opus_codec.h"
#include "bench/support/processor_time.h"
#include "client/video_receiver.h"
#include "net/stream_datagrams.h"
#include "tests/support/video_receiver_peer.h"
#include "tools/stream/media_source.h"
#include "tools/stream/packetizer.h"

using vesper::client::VideoReceiver;
using vesper::client::VideoReceiverPeer;
using vesper::tools::Datagram;

namespace {

constexpr std::size_t kPackets = 100;  // two seconds of sound
// SDL keeps memory for this many when its queue is emptied, as it has it when a sound card plays.
constexpr std::size_t kTimedAtOnce = 4;
constexpr int kRate = vesper::tools::kSoundRate;
constexpr int kChannels = vesper::tools::kSoundChannels;
constexpr int kFrameSize = vesper::tools::kSoundFrameSamples;

// The test picture's tone and beeps.
const std::vector<Datagram>& datagrams() {
    static const std::vector<Datagram> all = [] {
        vesper::tools::MediaSource source;
        vesper::OpusEncoderWrapper encoder;
        if (!source.open_test_picture({.width = 64, .height = 64}) ||
            !encoder.init(kRate, kChannels, OPUS_APPLICATION_AUDIO)) {
            std::exit(EXIT_FAILURE);
        }
        vesper::tools::AudioPacketizer packetizer;
        std::vector<Datagram> made;
        for (std::size_t i = 0; i < kPackets; ++i) {
            vesper::tools::SoundFrame sound;
            std::array<unsigned char, 1400> packet{};
            if (!source.next_sound(sound)) {
                std::exit(EXIT_FAILURE);
            }
            const int size = encoder.encode(sound.data(), kFrameSize, packet.data(), packet.size());
            if (size <= 0) {
                std::exit(EXIT_FAILURE);
            }
            made.push_back(
                packetizer.packetize(std::span(packet).first(static_cast<std::size_t>(size))));
        }
        return made;
    }();
    return all;
}

// One iteration is all packets. `prepare` runs before every few of them and is not timed.
template <typename Prepare, typename Play>
void time_packets(benchmark::State& state, Prepare prepare, Play play) {
    for (auto _ : state) {
        double seconds = 0;
        for (std::size_t at = 0; at < kPackets; at += kTimedAtOnce) {
            prepare();
            const double start = vesper::bench::thread_seconds();
            for (const Datagram& datagram : std::span(datagrams()).subspan(at, kTimedAtOnce)) {
                play(datagram);
            }
            seconds += vesper::bench::thread_seconds() - start;
        }
        state.SetIterationTime(seconds);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kPackets));
}

void player(benchmark::State& state, float gain) {
    VideoReceiver receiver;
    VideoReceiverPeer peer(receiver);
    peer.go_live_without_decoder();
    receiver.enable_audio(true);
    receiver.set_audio_volume(gain);
    const auto empty_queue = [&peer] { peer.audio_device().clear_queue(); };
    time_packets(state, empty_queue, [&](const Datagram& datagram) {
        receiver.handle_screen_audio(datagram.data(), static_cast<int>(datagram.size()));
    });
    if (peer.audio_device().get_queued_size() == 0) {
        state.SkipWithError("nothing was queued");
    }
}

void bare_decode(benchmark::State& state, float /*gain*/) {
    int error = 0;
    OpusDecoder* decoder = opus_decoder_create(kRate, kChannels, &error);
    vesper::tools::SoundFrame sound;
    const auto nothing = [] {};
    time_packets(state, nothing, [&](const Datagram& datagram) {
        const int size = static_cast<int>(datagram.size()) - vesper::kPacketHeaderSize;
        benchmark::DoNotOptimize(opus_decode(decoder, datagram.data() + vesper::kPacketHeaderSize,
                                             size, sound.data(), kFrameSize, 0));
    });
    opus_decoder_destroy(decoder);
}

void add(const char* name, void (*function)(benchmark::State&, float), float gain) {
    benchmark::RegisterBenchmark(name, function, gain)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

}  // namespace

int main(int argc, char** argv) {
    SDL_setenv("SDL_AUDIODRIVER", "dummy", 0);
    if (SDL_Init(SDL_INIT_AUDIO) != 0) {
        std::fprintf(stderr, "%s\n", SDL_GetError());
        return EXIT_FAILURE;
    }
    add("audio/gain_1/player", player, 1.0F);
    add("audio/gain_1/floor", bare_decode, 1.0F);
    add("audio/gain_0.5/player", player, 0.5F);
    add("audio/gain_0.5/floor", bare_decode, 0.5F);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    SDL_Quit();
    return EXIT_SUCCESS;
}
