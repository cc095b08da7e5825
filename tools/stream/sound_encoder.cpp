#include "tools/stream/sound_encoder.h"

#include <cstddef>
#include <cstdint>

#include "tools/stream/libav.h"
#include "tools/stream/media_source.h"

namespace vesper::tools {

namespace {

// Music and speech alike.
constexpr int kBitrate = 96'000;  // bit/s

// What libopus' manual recommends room for.
constexpr std::size_t kMaxPacket = 4000;  // bytes

}  // namespace

std::string SoundEncoder::open(const AVCodecParameters& parameters) {
    if (!decoder_.open(parameters, sound_shape())) {
        return "libavcodec has no decoder for it";
    }
    if (!encoder_.init(kSoundRate, kSoundChannels, OPUS_APPLICATION_AUDIO)) {
        return "libopus made no encoder";
    }
    encoder_.set_bitrate(kBitrate);
    return {};
}

std::vector<SoundEncoder::Encoded> SoundEncoder::encode(const AVPacket& packet) {
    return encode(decoder_.decode(packet));
}

std::vector<SoundEncoder::Encoded> SoundEncoder::finish() {
    return encode(decoder_.finish());
}

std::vector<SoundEncoder::Encoded> SoundEncoder::encode(const std::vector<Picture>& blocks) {
    std::vector<Encoded> encoded;
    for (const Picture& block : blocks) {
        // The last block of a stream may be shorter; the rest of it is silence.
        if (block->nb_samples != kSoundFrameSamples) {
            continue;
        }
        Encoded packet = {.time = std::chrono::microseconds(block->pts),
                          .bytes = OpusPacket(kMaxPacket)};
        const int size =
            encoder_.encode(reinterpret_cast<const std::int16_t*>(block->data[0]),
                            kSoundFrameSamples, packet.bytes.data(), static_cast<int>(kMaxPacket));
        if (size > 0) {
            packet.bytes.resize(static_cast<std::size_t>(size));
            encoded.push_back(std::move(packet));
        }
    }
    return encoded;
}

}  // namespace vesper::tools
