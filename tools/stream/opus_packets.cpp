#include "tools/stream/opus_packets.h"

#include <opus.h>

#include <algorithm>
#include <cstddef>
#include <memory>

namespace vesper::tools {

namespace {

constexpr int kRate = 48'000;  // Hz
constexpr int kMaxSamples = kRate / 1000 * static_cast<int>(kLongestOpusPacket.count());

// Samples of the whole packet; negative where it is none.
int samples_of(std::span<const std::uint8_t> packet) {
    return packet.empty() ? OPUS_INVALID_PACKET
                          : opus_packet_get_nb_samples(
                                packet.data(), static_cast<opus_int32>(packet.size()), kRate);
}

struct RepacketizerDeleter {
    void operator()(OpusRepacketizer* repacketizer) const {
        opus_repacketizer_destroy(repacketizer);
    }
};

}  // namespace

std::optional<std::chrono::microseconds> opus_duration(std::span<const std::uint8_t> packet) {
    const int samples = samples_of(packet);
    if (samples <= 0) {
        return std::nullopt;
    }
    return std::chrono::microseconds(std::int64_t{samples} * 1'000'000 / kRate);
}

std::optional<std::vector<OpusPacket>> split_opus(std::span<const std::uint8_t> packet) {
    const int samples = samples_of(packet);
    if (samples <= 0) {
        return std::vector<OpusPacket>();
    }
    if (samples <= kMaxSamples) {
        return std::vector<OpusPacket>{{packet.begin(), packet.end()}};
    }
    const int frame_samples = opus_packet_get_samples_per_frame(packet.data(), kRate);
    if (frame_samples > kMaxSamples) {
        return std::nullopt;
    }
    const std::unique_ptr<OpusRepacketizer, RepacketizerDeleter> repacketizer(
        opus_repacketizer_create());
    std::vector<OpusPacket> packets;
    // The repacketizer only remembers where the frames are, so that `packet` stays in use.
    if (!repacketizer || opus_repacketizer_cat(repacketizer.get(), packet.data(),
                                               static_cast<opus_int32>(packet.size())) != OPUS_OK) {
        return packets;
    }
    const int frames = opus_repacketizer_get_nb_frames(repacketizer.get());
    const int together = kMaxSamples / frame_samples;
    for (int begin = 0; begin < frames; begin += together) {
        // Frames do not grow; of a packet's head a few bytes may be added.
        constexpr std::size_t kMoreHead = 16;  // bytes
        OpusPacket part(packet.size() + kMoreHead);
        const opus_int32 size = opus_repacketizer_out_range(
            repacketizer.get(), begin, std::min(begin + together, frames), part.data(),
            static_cast<opus_int32>(part.size()));
        if (size <= 0) {
            return std::vector<OpusPacket>();
        }
        part.resize(static_cast<std::size_t>(size));
        packets.push_back(std::move(part));
    }
    return packets;
}

bool is_plain_opus(std::span<const std::uint8_t> header) {
    // Byte 9 counts the channels, byte 18 names the mapping family; then come the numbers of
    // streams and of those that are stereo.
    constexpr std::size_t kChannels = 9;
    constexpr std::size_t kFamily = 18;
    constexpr std::size_t kStreams = 19;
    if (header.size() <= kFamily || header[kFamily] == 0) {
        return true;  // a header without a family is one without a table of channels
    }
    return header.size() > kStreams && header[kStreams] == 1 && header[kChannels] <= 2;
}

}  // namespace vesper::tools
