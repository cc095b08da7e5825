#include "tools/stream/replay.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <utility>

#include "net/stream_datagrams.h"

namespace vesper::tools {

namespace {

using Seconds = std::chrono::duration<double>;

// Later than anybody waits, yet a time that the clock can express.
constexpr Seconds kLatest = std::chrono::years(100);

bool is_sound(std::span<const std::uint8_t> datagram) {
    return datagram.size() > kPacketHeaderSize &&
           (read_packet_header(datagram.data()).flags & kScreenAudioFlag) != 0;
}

// The bytes of a frame's first fragment; none if the datagram is not one.
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

}  // namespace

void replay(std::vector<CapturedDatagram> stream, double speed, Clock::time_point start,
            Link& link) {
    Clock::time_point due = start;
    for (CapturedDatagram& datagram : stream) {
        const Seconds since_first = datagram.time - stream.front().time;
        const Seconds wait = std::clamp(since_first / speed, Seconds(0), kLatest);
        due = std::max(due, start + std::chrono::duration_cast<Clock::duration>(wait));
        link.send(std::move(datagram.bytes), due);
    }
}

std::optional<PictureSize> picture_size(std::span<const CapturedDatagram> stream) {
    for (const CapturedDatagram& datagram : stream) {
        if (const auto size = keyframe_size(beginning_of_frame(datagram.bytes))) {
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
