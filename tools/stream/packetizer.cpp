#include "tools/stream/packetizer.h"

#include <algorithm>
#include <cassert>

#include "net/stream_datagrams.h"

namespace vesper::tools {

std::vector<Datagram> VideoPacketizer::packetize(std::span<const std::uint8_t> encoded_frame) {
    constexpr std::size_t kSlice = kMaxFragmentPayload;
    const std::size_t count = (encoded_frame.size() + kSlice - 1) / kSlice;
    assert(count >= 1 && count <= kMaxFragmentsPerFrame);
    const std::uint32_t frame_id = next_frame_id_++;

    std::vector<Datagram> datagrams;
    datagrams.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        const auto slice =
            encoded_frame.subspan(i * kSlice, std::min(kSlice, encoded_frame.size() - i * kSlice));
        Datagram datagram(kVideoPayloadOffset + slice.size());
        write_packet_header({}, datagram.data());
        write_video_fragment_header({.frame_id = frame_id,
                                     .fragment_index = static_cast<std::uint16_t>(i),
                                     .fragment_count = static_cast<std::uint16_t>(count),
                                     .payload_size = static_cast<std::uint16_t>(slice.size())},
                                    datagram.data());
        std::copy(slice.begin(), slice.end(), datagram.begin() + kVideoPayloadOffset);
        datagrams.push_back(std::move(datagram));
    }
    return datagrams;
}

Datagram AudioPacketizer::packetize(std::span<const std::uint8_t> opus_packet) {
    assert(!opus_packet.empty() && opus_packet.size() <= 65'000);
    Datagram datagram(kPacketHeaderSize + opus_packet.size());
    write_packet_header({.sequence = next_sequence_++,
                         .payload_size = static_cast<std::uint16_t>(opus_packet.size()),
                         .flags = kScreenAudioFlag},
                        datagram.data());
    std::copy(opus_packet.begin(), opus_packet.end(), datagram.begin() + kPacketHeaderSize);
    return datagram;
}

}  // namespace vesper::tools
