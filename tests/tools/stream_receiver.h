// The player's end of a link, for tests: takes the datagrams and puts frames together.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "net/stream_datagrams.h"
#include "net/udp_socket.h"
#include "tests/support/eventually.h"
#include "tools/stream/packetizer.h"

namespace vesper::test {

class StreamReceiver {
  public:
    StreamReceiver() { EXPECT_TRUE(socket_.bind(0)); }

    [[nodiscard]] std::uint16_t port() const { return socket_.get_bound_port(); }

    void send(std::span<const std::uint8_t> message, std::uint16_t to_port) {
        EXPECT_EQ(socket_.send(message.data(), message.size(), "127.0.0.1", to_port),
                  static_cast<int>(message.size()));
    }

    // The next datagram; empty, with a failure, when none comes.
    [[nodiscard]] tools::Datagram next() {
        int length = 0;
        EXPECT_TRUE(eventually([&] {
            length = socket_.recv(buffer_.data(), buffer_.size(), 5);
            return length > 0;
        }));
        return {buffer_.begin(), buffer_.begin() + length};
    }

    // The next whole frame of a link that loses nothing; counts the sound packets on the way.
    [[nodiscard]] std::vector<std::uint8_t> next_frame() {
        std::vector<std::uint8_t> frame;
        sound_packets_on_the_way_ = sound_packets_before_ = 0;
        for (;;) {
            const tools::Datagram datagram = next();
            if (datagram.empty()) {
                return {};
            }
            if ((read_packet_header(datagram.data()).flags & kScreenAudioFlag) != 0) {
                ++sound_packets_on_the_way_;
                continue;
            }
            const auto header = read_video_fragment_header(datagram.data());
            if (frame.empty()) {
                sound_packets_before_ = sound_packets_on_the_way_;
            }
            frame.insert(frame.end(), datagram.begin() + kVideoPayloadOffset, datagram.end());
            if (header.fragment_index + 1 == header.fragment_count) {
                return frame;
            }
        }
    }

    // How many came before the last fragment of the frame that next_frame() returned.
    [[nodiscard]] int sound_packets_on_the_way() const { return sound_packets_on_the_way_; }

    // How many of these came after its first fragment.
    [[nodiscard]] int sound_packets_within_the_frame() const {
        return sound_packets_on_the_way_ - sound_packets_before_;
    }

  private:
    UDPSocket socket_;
    std::array<std::uint8_t, 65536> buffer_{};
    int sound_packets_on_the_way_ = 0;
    int sound_packets_before_ = 0;  // the first fragment
};

// RFC 6386, section 9.1: the lowest bit of a frame is clear in keyframes.
[[nodiscard]] inline bool is_keyframe(const std::vector<std::uint8_t>& frame) {
    return (frame.at(0) & 1) == 0;
}

}  // namespace vesper::test
