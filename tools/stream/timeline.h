// One continuous time out of the timestamps of an input's streams. Timestamps begin anywhere, jump
// back where a recorder was restarted, and jump by hours where two recordings were joined; what
// leaves here begins at 0 and goes on.
//
// Pure: knows no clock and no library. One thread at a time uses an object.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <optional>

#include "tools/stream/impairments.h"

namespace vesper::tools {

class Timeline {
  public:
    using Time = std::chrono::microseconds;
    enum class Stream : std::size_t { kPictures, kSound };

    struct Reading {
        Time time{};               // since the first packet
        std::optional<Time> jump;  // how far the timestamps jumped, where they did
    };

    // A gap of up to a minute is one of the film, and is waited for; of a live input, what is
    // stamped more than two seconds ahead of the time that went by since the packet before is no
    // gap but a jump: nothing can come from the future.
    static constexpr Time kLongestGap = std::chrono::seconds(60);
    static constexpr Time kLongestLiveLead = std::chrono::seconds(2);
    // What goes back by less is the interleaving of a muxer or the correction of a clock.
    static constexpr Time kLongestStepBack = std::chrono::seconds(1);

    explicit Timeline(bool live) : live_(live) {}

    // The time of the packet of `stream` that is stamped `timestamp` and came at `arrival`, which
    // only a live input needs. Of each stream the packets are handed in in their order. A jump that
    // both streams make is reported once, and they stay together.
    [[nodiscard]] Reading read(Stream stream, Time timestamp, Clock::time_point arrival);

    // The input begins again: whatever timestamp comes next goes on where the last packet ends.
    void begin_again();

  private:
    struct Track {
        bool seen = false;
        Time offset{};  // from timestamp to time
        Time last{};
        Time step{};  // between its last two packets: how long the last one lasts
        Clock::time_point arrival;
    };

    [[nodiscard]] bool goes_on(const Track& track, Time time, Clock::time_point arrival) const;
    [[nodiscard]] Time end() const;

    bool live_;
    std::array<Track, 2> tracks_;
    bool begun_ = false;
    bool beginning_again_ = false;
    Time offset_{};  // the newest
    Time newest_{};
};

}  // namespace vesper::tools
