// The effects of a bad network on datagrams, simulated repeatably: the same seed and settings do
// the same to the same datagrams, so that a stream which broke the player breaks it again.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "tools/stream/packetizer.h"
#include "tools/stream/seeded_draws.h"

namespace vesper::tools {

using Clock = std::chrono::steady_clock;

// All of them combine; each is drawn separately for every datagram.
struct ImpairmentSettings {
    double loss = 0;       // percent of the datagrams that vanish
    double duplicate = 0;  // percent that arrive twice
    double reorder = 0;    // percent that swap places with the next datagram; of one that is also
                           // duplicated, the second copy does
    double corrupt = 0;    // percent with one bit flipped, anywhere
    double truncate = 0;   // percent cut short, to a length from 1 byte up
    // Each datagram is late by up to this much. Lateness alone never changes the order: that is
    // what `reorder` is for.
    std::chrono::milliseconds jitter{0};
    std::uint64_t seed = 1;
};

// A datagram and the time at which it leaves.
struct Departure {
    Clock::time_point time;
    Datagram datagram;
};

// One thread at a time uses it.
class Impairments {
  public:
    // How many datagrams each impairment affected.
    struct Counters {
        std::uint64_t lost = 0;
        std::uint64_t duplicated = 0;
        std::uint64_t reordered = 0;
        std::uint64_t corrupted = 0;
        std::uint64_t truncated = 0;

        Counters& operator+=(const Counters& other);
    };

    explicit Impairments(const ImpairmentSettings& settings = {})
        : settings_(settings), draws_(settings.seed) {}

    // What becomes of `datagram`, of at least 1 byte, that would leave at `time`: none, one or more
    // departures, in order, none earlier than one returned before. One that swaps places is kept
    // and returned after the next.
    [[nodiscard]] std::vector<Departure> pass(Datagram datagram, Clock::time_point time);

    [[nodiscard]] const Counters& counters() const { return counters_; }

  private:
    [[nodiscard]] bool happens(double percent, std::uint64_t& counter);
    void depart(Datagram datagram, Clock::time_point time, std::vector<Departure>& departures);

    ImpairmentSettings settings_;
    SeededDraws draws_;
    Counters counters_;
    std::optional<Datagram> kept_;  // swaps places with the next
    Clock::time_point last_departure_;
};

}  // namespace vesper::tools
