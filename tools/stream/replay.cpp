#include "tools/stream/replay.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <utility>

#include "net/stream_datagrams.h"

namespace vesper::tools {

namespace {

bool is_sound(std::span<const std::uint8_t> datagram) {
    return datagram.size() > kPacketHeaderSize &&
           (read_packet_header(datagram.data()).flags & kScreenAudioFlag) != 0;
}

// The bytes of a frame's first fragment; none where the datagram is none.
std::span<const std::uint8_t> beginning_of_frame(std::span<const std::uint8_t> datagram) {
    if (is_sound(datagram) || datagram.size() <= kVideoPayloadOffset) {
        return {};
    }
    const VideoFragmentHeader header = read_video_fragment_header(datagram.data());
    const auto payload = datagram.subspan(kVideoPayloadOffset);
    return header.fragment_index == 0 && header.payload_size <= payload.size()
               ? payload.first(header.payload_size)
               : std::span<const std::uint8_t>();
}

// RFC 6386, section 9.1: the first bit is clear, a start code follows the first three bytes, and
// then come width and height, 14 bits each, beside what a player may do to scale them.
std::optional<PictureSize> size_in_keyframe(std::span<const std::uint8_t> frame) {
    constexpr std::size_t kHeaderSize = 10;  // bytes
    constexpr std::array<std::uint8_t, 3> kStartCode = {0x9D, 0x01, 0x2A};
    constexpr int kSideMask = (1 << 14) - 1;
    if (frame.size() < kHeaderSize || (frame[0] & 1) != 0 ||
        !std::ranges::equal(frame.subspan(3, kStartCode.size()), kStartCode)) {
        return std::nullopt;
    }
    const auto side = [frame](std::size_t at) {
        return (frame[at] | frame[at + 1] << 8) & kSideMask;
    };
    return PictureSize{.width = side(6), .height = side(8)};
}

}  // namespace

void replay(std::vector<CapturedDatagram> stream, double speed, Clock::time_point start,
            Link& link) {
    Clock::time_point due = start;
    for (CapturedDatagram& datagram : stream) {
        const std::chrono::duration<double> since_first = datagram.time - stream.front().time;
        due =
            std::max(due, start + std::chrono::duration_cast<Clock::duration>(since_first / speed));
        link.send(std::move(datagram.bytes), due);
    }
}

std::optional<PictureSize> picture_size(std::span<const CapturedDatagram> stream) {
    for (const CapturedDatagram& datagram : stream) {
        if (const auto size = size_in_keyframe(beginning_of_frame(datagram.bytes))) {
            return size;
        }
    }
    return std::nullopt;
}

bool begins_frame(std::span<const std::uint8_t> datagram) {
    return !beginning_of_frame(datagram).empty();
}

bool carries_sound(std::span<const CapturedDatagram> stream) {
    return std::ranges::any_of(stream, is_sound, &CapturedDatagram::bytes);
}

}  // namespace vesper::tools
