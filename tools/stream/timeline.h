// Turns the timestamps of an input's streams into one continuous time. Timestamps begin anywhere,
// jump back where a recorder was restarted, and jump by hours where two recordings were joined; the
// resulting time begins at 0 and is continuous.
//
// Pure: knows no clock and no library. One thread at a time uses an object.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
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

    // A gap of up to a minute is taken for a pause in the film, and is waited for. In a live input,
    // a timestamp more than two seconds ahead of the time elapsed since the previous packet is not
    // a gap but a jump: nothing arrives from the future.
    static constexpr Time kLongestGap = std::chrono::seconds(60);
    static constexpr Time kLongestLiveLead = std::chrono::seconds(2);
    // A smaller step back is the interleaving of a muxer or the correction of a clock.
    static constexpr Time kLongestStepBack = std::chrono::seconds(1);

    // How long a packet lasts where the timestamps of its stream do not show it: as long as one of
    // 25 a second. Otherwise an input of a single packet would restart at its own beginning.
    static constexpr Time kUsualStep = std::chrono::milliseconds(40);

    // 73,000 years: further timestamps, which only a damaged or hostile input has, count as this
    // one, so that sums of them fit.
    static constexpr Time kFurthest{std::int64_t{1} << 61};

    explicit Timeline(bool live) : live_(live) {}

    // The time of the packet of `stream` with this timestamp, which arrived at `arrival` (used for
    // a live input only). Call it for each stream's packets in their order. A jump that both
    // streams make is reported once, and they stay together.
    [[nodiscard]] Reading read(Stream stream, Time timestamp, Clock::time_point arrival);

    // The input restarts: the next timestamp, whatever it is, continues where the last packet ends.
    void begin_again();

  private:
    struct Track {
        bool seen = false;
        Time offset{};  // from timestamp to time
        Time last{};
        Time step = kUsualStep;  // between its last two packets: how long the last one lasts
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
