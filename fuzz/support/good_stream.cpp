#include "fuzz/support/good_stream.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <numbers>

#include "audio/opus_codec.h"
#include "net/stream_datagrams.h"
#include "tools/stream/vp8_encoder.h"

namespace vesper::fuzz {

namespace {

constexpr int kSampleRate = 48000;  // Hz
constexpr int kFrameSize = 960;     // samples per channel: 20 ms
constexpr int kChannels = 2;
constexpr double kTone = 440.0;        // Hz
constexpr double kAmplitude = 8000.0;  // of 32767
constexpr int kMaxPacket = 1275;       // bytes of one Opus frame (RFC 6716, section 3.2.1)

void fill(const tools::Picture& picture, int plane, int rows, std::uint8_t value) {
    std::fill_n(picture->data[plane],
                static_cast<std::size_t>(picture->linesize[plane]) * static_cast<std::size_t>(rows),
                value);
}

// Without encoders there is nothing to fuzz with.
void demand(bool made) {
    if (!made) {
        std::abort();
    }
}

std::vector<std::uint8_t> encode_good_keyframe() {
    tools::Vp8Encoder encoder;
    demand(encoder.open({.width = kGoodWidth, .height = kGoodHeight, .bitrate = 100'000}));
    auto keyframe = encoder.encode(green_picture(kGoodWidth, kGoodHeight), true);
    demand(!keyframe.empty() && keyframe.size() <= kMaxFragmentPayload);
    return keyframe;
}

std::vector<std::uint8_t> encode_good_packet() {
    std::array<short, std::size_t{kFrameSize} * kChannels> samples;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const double seconds = static_cast<double>(i / kChannels) / kSampleRate;
        samples[i] =
            static_cast<short>(kAmplitude * std::sin(2 * std::numbers::pi * kTone * seconds));
    }
    OpusEncoderWrapper encoder;
    demand(encoder.init(kSampleRate, kChannels, OPUS_APPLICATION_AUDIO));
    std::vector<std::uint8_t> packet(kMaxPacket);
    const int size = encoder.encode(samples.data(), kFrameSize, packet.data(), kMaxPacket);
    demand(size > 0);
    packet.resize(static_cast<std::size_t>(size));
    return packet;
}

}  // namespace

tools::Picture green_picture(int width, int height) {
    tools::Picture picture = tools::make_picture(width, height);
    demand(picture != nullptr);
    fill(picture, 0, height, 145);
    fill(picture, 1, height / 2, 54);
    fill(picture, 2, height / 2, 34);
    return picture;
}

const std::vector<std::uint8_t>& good_keyframe() {
    static const std::vector<std::uint8_t> keyframe = encode_good_keyframe();
    return keyframe;
}

const std::vector<std::uint8_t>& good_opus_packet() {
    static const std::vector<std::uint8_t> packet = encode_good_packet();
    return packet;
}

}  // namespace vesper::fuzz
