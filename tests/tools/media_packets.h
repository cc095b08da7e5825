// What a media file holds, packet by packet, for tests that feed in files of other people's
// encoders: whether a file has what its test is about is asked of the file itself.
#pragma once

extern "C" {
#include <libavformat/avformat.h>
}

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace vesper::test {

using PacketBytes = std::vector<std::uint8_t>;

struct MediaPacket {
    AVMediaType type = AVMEDIA_TYPE_UNKNOWN;
    double time = 0;  // seconds, as the file has it
    PacketBytes bytes;
    std::int64_t position = 0;  // bytes from the beginning of the file
};

// The packets of a file as libavformat reads them, but for those that are cut short.
[[nodiscard]] inline std::vector<MediaPacket> media_packets_of(const std::string& path) {
    std::vector<MediaPacket> packets;
    AVFormatContext* format = nullptr;
    AVPacket* packet = av_packet_alloc();
    EXPECT_GE(avformat_open_input(&format, path.c_str(), nullptr, nullptr), 0) << path;
    while (format != nullptr && av_read_frame(format, packet) >= 0) {
        const AVStream* stream = format->streams[packet->stream_index];
        if ((packet->flags & AV_PKT_FLAG_CORRUPT) == 0) {
            packets.push_back({.type = stream->codecpar->codec_type,
                               .time = static_cast<double>(packet->pts) * av_q2d(stream->time_base),
                               .bytes = {packet->data, packet->data + packet->size},
                               .position = packet->pos});
        }
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&format);
    return packets;
}

// Those of one kind.
[[nodiscard]] inline std::vector<PacketBytes> packets_of(const std::string& path,
                                                         AVMediaType type) {
    std::vector<PacketBytes> packets;
    for (MediaPacket& packet : media_packets_of(path)) {
        if (packet.type == type) {
            packets.push_back(std::move(packet.bytes));
        }
    }
    return packets;
}

// RFC 6386, section 9.1: the bit show_frame is the fifth of a frame.
[[nodiscard]] inline bool is_not_shown(const PacketBytes& frame) {
    return !frame.empty() && (frame.front() & 0x10) == 0;
}

// RFC 6716, section 3.1: the bit s.
[[nodiscard]] inline bool is_stereo(const PacketBytes& opus) {
    return !opus.empty() && (opus.front() & 0x04) != 0;
}

// The manual of libopus, opus_encode(): "the packet does not need to be transmitted (DTX)". RFC
// 6716, section 3.1: such a packet has frames without any bytes.
[[nodiscard]] inline bool is_pause(const PacketBytes& opus) {
    return opus.size() <= 2;
}

// RFC 6716, sections 3.1 and 4.2.3: of one mono frame of 20 ms with a SILK layer, the first bit
// says whether there is a voice, and the second one whether the frame before comes once more.
[[nodiscard]] inline bool repeats_the_frame_before(const PacketBytes& opus) {
    constexpr int kCeltOnly = 16;  // the first configuration
    return opus.size() > 2 && opus[0] >> 3 < kCeltOnly && !is_stereo(opus) &&
           (opus[0] & 0x03) == 0 && (opus[1] & 0x40) != 0;
}

}  // namespace vesper::test
