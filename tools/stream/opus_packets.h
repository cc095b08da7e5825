// Opus packets as the player takes them: 20 ms of sound at most (RFC 6716, section 3, lays out what
// a packet holds).
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace vesper::tools {

using OpusPacket = std::vector<std::uint8_t>;

// Longest packet that the player plays; it drops others without a word.
inline constexpr std::chrono::milliseconds kLongestOpusPacket(20);

// How long the packet sounds; nothing where it is no Opus packet.
[[nodiscard]] std::optional<std::chrono::microseconds> opus_duration(
    std::span<const std::uint8_t> packet);

// `packet` as packets of at most 20 ms, which together decode to the same sound: the packet itself
// where it is short enough, or else its frames, as many together as 20 ms hold. Nothing where a
// single frame is longer, since no frame can be divided without decoding it; an empty list where
// this is no Opus packet.
[[nodiscard]] std::optional<std::vector<OpusPacket>> split_opus(
    std::span<const std::uint8_t> packet);

// Whether an Opus stream with this header (RFC 7845, section 5.1; may be missing) carries mono or
// stereo, one Opus packet at a time. Others carry several at once and need a multistream decoder,
// which the player has not.
[[nodiscard]] bool is_plain_opus(std::span<const std::uint8_t> header);

}  // namespace vesper::tools
