// Builds video-fragment datagrams, so that a test states only what matters to it.
#pragma once

#include <cstdint>
#include <numeric>
#include <vector>

#include "net/stream_datagrams.h"

namespace vesper::test {

// One fragment; by default a single-fragment frame 1 with one payload byte.
class FragmentBuilder {
  public:
    FragmentBuilder& frame(std::uint32_t id) {
        header_.frame_id = id;
        return *this;
    }
    FragmentBuilder& index(int index) {
        header_.fragment_index = static_cast<std::uint16_t>(index);
        return *this;
    }
    FragmentBuilder& of(int count) {
        header_.fragment_count = static_cast<std::uint16_t>(count);
        return *this;
    }
    FragmentBuilder& payload(std::vector<std::uint8_t> bytes) {
        payload_ = std::move(bytes);
        header_.payload_size = static_cast<std::uint16_t>(payload_.size());
        return *this;
    }
    // Payload of `size` bytes that differ from one another and from other fragments' bytes.
    FragmentBuilder& payload_of_size(std::size_t size) {
        std::vector<std::uint8_t> bytes(size);
        std::iota(bytes.begin(), bytes.end(),
                  static_cast<std::uint8_t>(header_.frame_id * 31 + header_.fragment_index * 7));
        return payload(std::move(bytes));
    }
    // The size that the header declares, whatever the payload really is.
    FragmentBuilder& declared_payload_size(int size) {
        header_.payload_size = static_cast<std::uint16_t>(size);
        return *this;
    }
    FragmentBuilder& flags(std::uint8_t flags) {
        flags_ = flags;
        return *this;
    }

    [[nodiscard]] std::vector<std::uint8_t> build() const {
        std::vector<std::uint8_t> datagram(kVideoPayloadOffset);
        write_packet_header({.flags = flags_}, datagram.data());
        write_video_fragment_header(header_, datagram.data());
        datagram.insert(datagram.end(), payload_.begin(), payload_.end());
        return datagram;
    }
    [[nodiscard]] const std::vector<std::uint8_t>& payload_bytes() const { return payload_; }

  private:
    std::uint8_t flags_ = 0;
    VideoFragmentHeader header_{
        .frame_id = 1, .fragment_index = 0, .fragment_count = 1, .payload_size = 1};
    std::vector<std::uint8_t> payload_ = {0xAB};
};

}  // namespace vesper::test
