// A stream from a hostile sender over a merciless network: frames in order, whose fragments are
// lost, duplicated, delayed and reordered, and headers that lie. Every choice comes from the seed.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <random>
#include <span>
#include <vector>

namespace vesper::fuzz {

class RandomStream {
  public:
    explicit RandomStream(std::uint64_t seed);

    // Datagrams in it.
    [[nodiscard]] std::size_t length() const { return length_; }

    // Time from one datagram to the next, most often.
    [[nodiscard]] std::chrono::nanoseconds pace() const { return pace_; }

    // Of 1000 datagrams, how many come after a pause.
    [[nodiscard]] unsigned pauses() const { return pauses_; }

    // The next datagram, valid until the next call. The heap block ends with its last byte.
    [[nodiscard]] std::span<const std::uint8_t> next();

    // 0 to n - 1.
    [[nodiscard]] std::uint64_t below(std::uint64_t n) { return random_() % n; }
    [[nodiscard]] bool chance(unsigned in_1000) { return below(1000) < in_1000; }

  private:
    struct Fragment {
        std::uint32_t frame = 0;
        std::uint16_t index = 0;
        std::uint16_t count = 1;
    };

    void begin_frame();
    Fragment sent();
    Fragment arrived();

    std::mt19937_64 random_;
    std::size_t length_ = 0;
    std::chrono::nanoseconds pace_{};
    unsigned pauses_ = 0;

    // The sender.
    unsigned largest_count_ = 1;
    bool all_large_ = false;    // 1000 fragments each, most of them never sent
    unsigned gap_ = 0;          // in 1000 frames: a number is left out before it
    unsigned abandoned_ = 0;    // in 1000 frames: the rest of it is never sent
    unsigned one_missing_ = 0;  // in 1000 frames: one fragment is never sent
    std::uint32_t next_frame_ = 0;
    Fragment current_;  // to be sent next
    int end_ = 0;       // of the current frame's fragments that are sent
    int missing_ = -1;  // the one that is not

    // The network.
    unsigned lost_ = 0;           // in 1000 fragments
    unsigned doubled_ = 0;        // in 1000 fragments
    unsigned late_ = 0;           // in 1000 fragments: changes places with one of long ago
    std::vector<Fragment> line_;  // on the way, to be overtaken
    std::array<Fragment, 8> held_back_{};

    // The headers.
    unsigned lies_ = 0;            // in 1000 datagrams
    unsigned large_payloads_ = 0;  // in 1000 datagrams

    std::vector<std::uint8_t> bytes_;   // random ones, to be sent
    std::vector<std::uint8_t> buffer_;  // the datagram is its end
};

}  // namespace vesper::fuzz
