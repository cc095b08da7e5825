// The layout of every datagram that passes between a parent application and the player: the one
// definition that both ends of the wire use.
//
// Every multi-byte number is little-endian and unaligned. Nothing carries a checksum, a magic value
// or a version. Bytes after a datagram's declared payload are ignored.
//
//   video fragment        0        28                    40
//                         PacketHeader  VideoFragmentHeader   1 to 1400 bytes of an encoded frame
//   screen audio          0        28
//                         PacketHeader  one Opus packet
//   keyframe request      "KFRQ"                                            (player to parent)
//   audio state           "AUDS" muted:u8 volume:f32                        (player to parent)
//
// All functions here are pure and may be called from any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace vesper {

inline constexpr int kPacketHeaderSize = 28;                                              // bytes
inline constexpr int kVideoFragmentHeaderSize = 12;                                       // bytes
inline constexpr int kVideoPayloadOffset = kPacketHeaderSize + kVideoFragmentHeaderSize;  // bytes

// Largest slice of an encoded frame in one datagram: with the 40 header bytes and 28 bytes of IP
// and UDP headers it stays below the 1500-byte Ethernet MTU, so a parent can relay a datagram that
// it received from the network without splitting it.
inline constexpr int kMaxFragmentPayload = 1400;  // bytes

// Most fragments of one frame: 1.4 MB, far above a VP8 keyframe of a full-HD stream, and a bound on
// what one datagram can make the receiver allocate.
inline constexpr int kMaxFragmentsPerFrame = 1000;

// Bit of PacketHeader::flags: set, the datagram is a screen-audio packet; clear, a video fragment.
inline constexpr std::uint8_t kScreenAudioFlag = 0x04;

// The first 28 bytes of every datagram to the player. Bytes 0 to 19 and 27 belong to the sender;
// the player never looks at them.
struct PacketHeader {
    std::uint32_t sequence = 0;      // byte 20; screen audio only: counts the packets
    std::uint16_t payload_size = 0;  // byte 24; screen audio only: 1 to all bytes after the header
    std::uint8_t flags = 0;          // byte 26; only kScreenAudioFlag is read
};

// Bytes 28 to 39 of a video fragment. Bytes 38 and 39 belong to the sender.
struct VideoFragmentHeader {
    std::uint32_t frame_id = 0;        // byte 28; must grow from frame to frame; no wrap-around
    std::uint16_t fragment_index = 0;  // byte 32; 0 to fragment_count - 1
    std::uint16_t fragment_count = 0;  // byte 34; 1 to kMaxFragmentsPerFrame
    std::uint16_t payload_size = 0;    // byte 36; 1 to kMaxFragmentPayload, all of it present
};

// Read a header out of a datagram. `datagram` holds at least kPacketHeaderSize bytes, or
// kVideoPayloadOffset bytes for the fragment header. The ranges above are not checked here: each
// handler checks what it is about to rely on.
[[nodiscard]] PacketHeader read_packet_header(const std::uint8_t* datagram);
[[nodiscard]] VideoFragmentHeader read_video_fragment_header(const std::uint8_t* datagram);

// Write a header into a datagram of the same sizes; the sender's own bytes become zero.
void write_packet_header(const PacketHeader& header, std::uint8_t* datagram);
void write_video_fragment_header(const VideoFragmentHeader& header, std::uint8_t* datagram);

// The parent application's address: both ends run on the same machine.
inline constexpr const char* kParentHost = "127.0.0.1";

// "KFRQ": the player asks for a keyframe.
inline constexpr std::array<std::uint8_t, 4> kKeyframeRequest = {'K', 'F', 'R', 'Q'};

inline constexpr std::size_t kAudioStateSize = 9;  // bytes

// The content of "AUDS": the mute state and the volume that the user chose, 0.0 to 1.0, which is
// kept (and reported) while muted.
struct AudioState {
    bool muted = false;
    float volume = 1.0F;
};

// The 9 bytes of the audio state message.
[[nodiscard]] std::array<std::uint8_t, kAudioStateSize> make_audio_state(const AudioState& state);

// Parent's side: whether `message` is exactly the keyframe request.
[[nodiscard]] bool is_keyframe_request(std::span<const std::uint8_t> message);

// Parent's side: the state in `message`, or nothing when it is no audio state message.
[[nodiscard]] std::optional<AudioState> read_audio_state(std::span<const std::uint8_t> message);

}  // namespace vesper
