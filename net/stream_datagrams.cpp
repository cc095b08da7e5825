#include "net/stream_datagrams.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>

namespace vesper {

namespace {

// Offsets in bytes from the start of the datagram.
constexpr std::size_t kSequenceOffset = 20;
constexpr std::size_t kAudioPayloadSizeOffset = 24;
constexpr std::size_t kFlagsOffset = 26;
constexpr std::size_t kFrameIdOffset = 28;
constexpr std::size_t kFragmentIndexOffset = 32;
constexpr std::size_t kFragmentCountOffset = 34;
constexpr std::size_t kFragmentPayloadSizeOffset = 36;

// Offsets in bytes from the start of the audio state message.
constexpr std::size_t kMutedOffset = 4;
constexpr std::size_t kVolumeOffset = 5;

constexpr std::array<std::uint8_t, 4> kAudioStateTag = {'A', 'U', 'D', 'S'};

static_assert(std::endian::native == std::endian::little,
              "fields are copied as they stand; a big-endian machine would have to swap them");
static_assert(std::numeric_limits<float>::is_iec559 && sizeof(float) == 4,
              "the volume travels as an IEEE 754 binary32");

template <typename Number>
Number read_number(const std::uint8_t* bytes) {
    Number value;
    std::memcpy(&value, bytes, sizeof(value));
    return value;
}

template <typename Number>
void write_number(Number value, std::uint8_t* bytes) {
    std::memcpy(bytes, &value, sizeof(value));
}

}  // namespace

PacketHeader read_packet_header(const std::uint8_t* datagram) {
    return {.sequence = read_number<std::uint32_t>(datagram + kSequenceOffset),
            .payload_size = read_number<std::uint16_t>(datagram + kAudioPayloadSizeOffset),
            .flags = datagram[kFlagsOffset]};
}

VideoFragmentHeader read_video_fragment_header(const std::uint8_t* datagram) {
    return {.frame_id = read_number<std::uint32_t>(datagram + kFrameIdOffset),
            .fragment_index = read_number<std::uint16_t>(datagram + kFragmentIndexOffset),
            .fragment_count = read_number<std::uint16_t>(datagram + kFragmentCountOffset),
            .payload_size = read_number<std::uint16_t>(datagram + kFragmentPayloadSizeOffset)};
}

void write_packet_header(const PacketHeader& header, std::uint8_t* datagram) {
    std::fill_n(datagram, kPacketHeaderSize, std::uint8_t{0});
    write_number(header.sequence, datagram + kSequenceOffset);
    write_number(header.payload_size, datagram + kAudioPayloadSizeOffset);
    datagram[kFlagsOffset] = header.flags;
}

void write_video_fragment_header(const VideoFragmentHeader& header, std::uint8_t* datagram) {
    std::fill_n(datagram + kPacketHeaderSize, kVideoFragmentHeaderSize, std::uint8_t{0});
    write_number(header.frame_id, datagram + kFrameIdOffset);
    write_number(header.fragment_index, datagram + kFragmentIndexOffset);
    write_number(header.fragment_count, datagram + kFragmentCountOffset);
    write_number(header.payload_size, datagram + kFragmentPayloadSizeOffset);
}

std::array<std::uint8_t, kAudioStateSize> make_audio_state(const AudioState& state) {
    std::array<std::uint8_t, kAudioStateSize> message{};
    std::copy(kAudioStateTag.begin(), kAudioStateTag.end(), message.begin());
    message[kMutedOffset] = state.muted ? 1 : 0;
    write_number(state.volume, message.data() + kVolumeOffset);
    return message;
}

bool is_keyframe_request(std::span<const std::uint8_t> message) {
    return std::equal(message.begin(), message.end(), kKeyframeRequest.begin(),
                      kKeyframeRequest.end());
}

std::optional<AudioState> read_audio_state(std::span<const std::uint8_t> message) {
    if (message.size() != kAudioStateSize ||
        !std::equal(kAudioStateTag.begin(), kAudioStateTag.end(), message.begin())) {
        return std::nullopt;
    }
    return AudioState{.muted = message[kMutedOffset] != 0,
                      .volume = read_number<float>(message.data() + kVolumeOffset)};
}

}  // namespace vesper
