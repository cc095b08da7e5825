// Splits encoded frames and packets into the datagrams that the player takes. The parent's side of
// net/stream_datagrams.h; the tests build their datagrams with it too.
//
// One thread at a time uses an object. Nothing fails: inputs outside the stated sizes are bugs of
// the caller and asserted.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace vesper::tools {

using Datagram = std::vector<std::uint8_t>;

// Numbers the video frames from 1.
class VideoPacketizer {
  public:
    // The datagrams of one encoded frame of 1 to 1,400,000 bytes, in order: all full but the last.
    [[nodiscard]] std::vector<Datagram> packetize(std::span<const std::uint8_t> encoded_frame);

    // Id that the next frame will carry.
    [[nodiscard]] std::uint32_t next_frame_id() const { return next_frame_id_; }

  private:
    std::uint32_t next_frame_id_ = 1;
};

// Numbers the sound packets from 1 (the player reads 0 as "none yet").
class AudioPacketizer {
  public:
    // The datagram of one Opus packet of 1 to 65,000 bytes.
    [[nodiscard]] Datagram packetize(std::span<const std::uint8_t> opus_packet);

    // Number that the next packet will carry.
    [[nodiscard]] std::uint32_t next_sequence() const { return next_sequence_; }

  private:
    std::uint32_t next_sequence_ = 1;
};

}  // namespace vesper::tools
