// The stream's sound: decoding, concealment of lost packets, volume.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <span>

#include "client/video_receiver.h"
#include "net/stream_datagrams.h"

namespace vesper::client {

namespace {

// The stream's one format. Opus's own rate, so nothing is resampled on the way.
constexpr int kSampleRate = 48000;  // Hz
constexpr int kChannels = 2;
constexpr int kFrameSize = 960;                        // samples per channel: 20 ms
constexpr int kFrameSamples = kFrameSize * kChannels;  // values of all channels
constexpr int kDeviceBuffer = kFrameSize;              // sample frames: one packet

// At most 60 ms are concealed: a guess grows worse with every frame, and what is invented for a gap
// delays everything after it.
constexpr std::uint32_t kMaxConcealedFrames = 3;

using FrameSamples = std::array<short, kFrameSamples>;

// The finite gain with the same effect, so that no product is a NaN and the loop over the samples
// need not check for one: a NaN silences; an infinite gain saturates every sample but 0, and so
// does the largest finite one.
float without_nan(float gain) {
    constexpr float kLargest = std::numeric_limits<float>::max();
    return std::isnan(gain) ? 0.0F : std::clamp(gain, -kLargest, kLargest);
}

// Truncates toward zero and saturates. Clamping before the conversion keeps every value inside an
// int.
short scaled(short sample, float gain) {
    constexpr auto kLowest = static_cast<float>(std::numeric_limits<short>::min());
    constexpr auto kHighest = static_cast<float>(std::numeric_limits<short>::max());
    const float product = static_cast<float>(sample) * gain;
    return static_cast<short>(static_cast<int>(std::min(std::max(product, kLowest), kHighest)));
}

void apply_gain(std::span<short> samples, float gain) {
    if (gain == 1.0F) {
        return;
    }
    const float finite_gain = without_nan(gain);
    for (short& sample : samples) {
        sample = scaled(sample, finite_gain);
    }
}

}  // namespace

void VideoReceiver::enable_audio(bool enable) {
    if (!enable || audio_enabled) {
        return;
    }
    if (!opus_decoder.init(kSampleRate, kChannels)) {
        std::fprintf(stderr, "[VideoReceiver] Failed to init screen audio decoder\n");
        return;
    }
    if (!audio_device.open(AudioDevice::Playback, kSampleRate, kChannels, kDeviceBuffer, nullptr)) {
        std::fprintf(stderr, "[VideoReceiver] Failed to open screen audio playback device\n");
        opus_decoder.destroy();
        return;
    }
    audio_enabled = true;
    last_audio_sequence = 0;
    std::printf("[VideoReceiver] Screen audio enabled (stereo, 48kHz)\n");
}

void VideoReceiver::handle_screen_audio(const std::uint8_t* data, int len) {
    if (!audio_enabled || !running || len < kPacketHeaderSize) {
        return;
    }
    const PacketHeader header = read_packet_header(data);
    if (header.payload_size == 0 || header.payload_size > len - kPacketHeaderSize) {
        return;
    }
    if (!conceal_lost_packets(header.sequence)) {
        return;
    }
    // Every packet moves the reference: a late or repeated one moves it back, and even one that
    // turns out to be undecodable moves it.
    last_audio_sequence = header.sequence;

    FrameSamples decoded;
    const int frames = opus_decoder.decode(data + kPacketHeaderSize, header.payload_size,
                                           decoded.data(), kFrameSize);
    if (frames <= 0) {
        return;
    }
    const std::span samples(decoded.data(), static_cast<std::size_t>(frames) * kChannels);
    apply_gain(samples, audio_volume);
    if (running) {
        audio_device.write_samples(samples.data(), static_cast<int>(samples.size()));
    }
}

// Plays concealment for the packets between the last one and `sequence`. False when the receiver
// has begun to stop in the meantime.
bool VideoReceiver::conceal_lost_packets(std::uint32_t sequence) {
    // Unsigned, modulo 2^32: after the largest number the count continues from 0. A gap that begins
    // before the largest number and ends after it looks like a late packet and is not concealed.
    if (last_audio_sequence == 0 || sequence <= last_audio_sequence + 1) {
        return true;
    }
    const std::uint32_t lost = sequence - last_audio_sequence - 1;
    // If concealment fails, the frame is played anyway to keep the timing; the zeros keep the first
    // one defined.
    FrameSamples concealed{};
    for (std::uint32_t i = 0; i < std::min(lost, kMaxConcealedFrames); ++i) {
        opus_decoder.decode_plc(concealed.data(), kFrameSize);
        apply_gain(concealed, audio_volume);
        if (!running) {
            return false;
        }
        audio_device.write_samples(concealed.data(), kFrameSamples);
    }
    return true;
}

void VideoReceiver::set_audio_volume(float volume) {
    audio_volume = volume;
}

}  // namespace vesper::client
