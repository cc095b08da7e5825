// Sound datagrams a second through handle_screen_audio(), to the queue of SDL's dummy sound card,
// beside bare opus_decode() of the same packets.
#include <SDL2/SDL.h>
#include <benchmark/benchmark.h>
#include <opus/opus.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "audio/opus_codec.h"
#include "client/video_receiver.h"
#include "net/stream_datagrams.h"
#include "tests/support/video_receiver_peer.h"
#include "tools/stream/media_source.h"
#include "tools/stream/packetizer.h"

using vesper::client::VideoReceiver;
using vesper::client::VideoReceiverPeer;
using vesper::tools::Datagram;

namespace {

constexpr int kPackets = 100;  // two seconds of sound
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
        for (int i = 0; i < kPackets; ++i) {
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

// One iteration is all packets, so that the sound card's queue can be emptied between.
template <typename Play>
void time_packets(benchmark::State& state, Play play) {
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        play();
        const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(taken.count());
    }
    state.SetItemsProcessed(state.iterations() * kPackets);
}

void player(benchmark::State& state, float gain) {
    VideoReceiver receiver;
    VideoReceiverPeer peer(receiver);
    peer.go_live_without_decoder();
    receiver.enable_audio(true);
    receiver.set_audio_volume(gain);
    time_packets(state, [&] {
        peer.last_audio_sequence() = 0;  // the numbers begin again: nothing to conceal
        peer.audio_device().clear_queue();
        for (const Datagram& datagram : datagrams()) {
            receiver.handle_screen_audio(datagram.data(), static_cast<int>(datagram.size()));
        }
    });
    if (peer.audio_device().get_queued_size() == 0) {
        state.SkipWithError("nothing was queued");
    }
}

void bare_decode(benchmark::State& state, float /*gain*/) {
    int error = 0;
    OpusDecoder* decoder = opus_decoder_create(kRate, kChannels, &error);
    vesper::tools::SoundFrame sound;
    time_packets(state, [&] {
        for (const Datagram& datagram : datagrams()) {
            const int size = static_cast<int>(datagram.size()) - vesper::kPacketHeaderSize;
            benchmark::DoNotOptimize(opus_decode(decoder,
                                                 datagram.data() + vesper::kPacketHeaderSize, size,
                                                 sound.data(), kFrameSize, 0));
        }
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
    SDL_SetHint(SDL_HINT_AUDIODRIVER, "dummy");
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
