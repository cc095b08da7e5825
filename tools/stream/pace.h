// When a packet is sent: maps the times of a Timeline to the steady clock.
//
// Pure: every clock reading is an argument. One thread at a time uses an object.
#pragma once

#include <chrono>
#include <optional>

#include "tools/stream/impairments.h"
#include "tools/stream/timeline.h"

namespace vesper::tools {

// For an input that waits for us, such as a file: the first packet is sent at once and each other
// one at its time after it. A late stream stays late and does not hurry: the player queues sound,
// so that what is sent faster than it is played becomes a permanent delay.
class FilePace {
  public:
    using Time = Timeline::Time;

    // More than this is a delay, not a scheduling hiccup.
    static constexpr auto kLate = std::chrono::milliseconds(100);

    // When to send the packet of this time, as of `now`.
    [[nodiscard]] Clock::time_point due(Time time, Clock::time_point now);

    // Nothing could be sent for a while: the next packet is due at once.
    void begin_again() { start_.reset(); }

  private:
    std::optional<Clock::time_point> start_;  // when time 0 is due
};

// For a live input: each packet is sent when it arrives, or later by as much as it was too early.
class LivePace {
  public:
    using Time = Timeline::Time;

    // A packet that is later than the others by this much stays late: its sender paused.
    static constexpr auto kStoodStill = std::chrono::seconds(1);

    // If all packets of a second arrived early by this much, all of them can be sent that much
    // earlier: the sender's clock is faster than ours, or the first packet was late.
    static constexpr auto kTooEarly = std::chrono::milliseconds(40);
    static constexpr auto kPeriod = std::chrono::seconds(1);

    // When to send the packet of this time, which arrived at `arrival`. Call it once for each
    // packet, when it arrives.
    [[nodiscard]] Clock::time_point due(Time time, Clock::time_point arrival);

  private:
    void begin_period(Clock::time_point now);

    std::optional<Clock::time_point> start_;  // when time 0 leaves
    Clock::time_point period_end_;
    Clock::duration earliness_{};  // least of the period
};

}  // namespace vesper::tools
