// When a packet leaves: times of a Timeline onto the steady clock.
//
// Pure: every clock reading is an argument. One thread at a time uses an object.
#pragma once

#include <chrono>
#include <optional>

#include "tools/stream/impairments.h"
#include "tools/stream/timeline.h"

namespace vesper::tools {

// Of an input that waits for us, such as a file: the first packet leaves at once and each other one
// at its time after it. Whoever is late goes on late and does not hurry: the player queues sound,
// so that what is sent faster than it is played is a delay for good.
class FilePace {
  public:
    using Time = Timeline::Time;

    // Later than this is late, and no scheduling hiccup.
    static constexpr auto kLate = std::chrono::milliseconds(100);

    // When the packet of this time leaves, asked at `now`.
    [[nodiscard]] Clock::time_point due(Time time, Clock::time_point now);

    // Nothing could leave for a while: the next packet that is asked for leaves then.
    void begin_again() { start_.reset(); }

  private:
    std::optional<Clock::time_point> start_;  // when time 0 leaves
};

// Of a live input: each packet leaves when it has come, or as much later as it came too early.
class LivePace {
  public:
    using Time = Timeline::Time;

    // A packet this much behind the others has a reason that will stay: the sender stood still.
    static constexpr auto kStoodStill = std::chrono::seconds(1);

    // If all packets of a second came this much too early, they can all leave that much earlier:
    // the sender's clock is faster than ours, or the first packet was late.
    static constexpr auto kTooEarly = std::chrono::milliseconds(40);
    static constexpr auto kPeriod = std::chrono::seconds(1);

    // When the packet of this time, which came at `arrival`, leaves. Each packet is asked for once,
    // as it comes.
    [[nodiscard]] Clock::time_point due(Time time, Clock::time_point arrival);

  private:
    void begin_period(Clock::time_point now);

    std::optional<Clock::time_point> start_;  // when time 0 leaves
    Clock::time_point period_end_;
    Clock::duration earliness_{};  // least of the period
};

}  // namespace vesper::tools
