// Opus packets as the player takes them: 20 ms of sound at most (RFC 6716, section 3, defines the
// layout of a packet).
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace vesper::tools {

using OpusPacket = std::vector<std::uint8_t>;

// Longest packet that the player plays; it drops longer ones silently.
inline constexpr std::chrono::milliseconds kLongestOpusPacket(20);

// The packet's duration; nothing if it is not an Opus packet.
[[nodiscard]] std::optional<std::chrono::microseconds> opus_duration(
    std::span<const std::uint8_t> packet);

// `packet` as packets of at most 20 ms, which together decode to the same sound: the packet itself
// if it is short enough, or else its frames, as many together as fit 20 ms. Nothing if a single
// frame is longer, since no frame can be divided without decoding it; an empty list if this is not
// an Opus packet.
[[nodiscard]] std::optional<std::vector<OpusPacket>> split_opus(
    std::span<const std::uint8_t> packet);

// Whether an Opus stream with this header (RFC 7845, section 5.1; may be missing) carries mono or
// stereo, one Opus packet at a time. Others carry several at once and need a multistream decoder,
// which the player does not have.
[[nodiscard]] bool is_plain_opus(std::span<const std::uint8_t> header);

}  // namespace vesper::tools
