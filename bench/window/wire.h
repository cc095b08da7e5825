// How encoded frames reach a player: as the stream datagrams of vesper-player, or as RTP.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>

namespace vesper::bench {

class Wire {
  public:
    virtual ~Wire() = default;

    using Clock = std::chrono::steady_clock;

    // Sends one frame, all its datagrams, spread evenly over `spread`: at once where that is zero.
    // Returns when the last one has left.
    virtual void send(std::span<const std::uint8_t> frame, std::chrono::milliseconds media_time,
                      Clock::duration spread) = 0;
};

// To 127.0.0.1:`port`. Ends the process, with a line, when there is no socket.
[[nodiscard]] std::unique_ptr<Wire> make_stream_wire(std::uint16_t port);
// RTP payload type 96, VP8 (RFC 7741).
[[nodiscard]] std::unique_ptr<Wire> make_rtp_wire(std::uint16_t port);

// A free UDP port of 127.0.0.1 as RTP wants it: even (RFC 3550, section 11). 0 when there is none.
[[nodiscard]] std::uint16_t free_rtp_port();

}  // namespace vesper::bench
