// Limits how often a player's keyframe requests are answered. A stream with hidden frames makes the
// player request a keyframe for each of them, and answering all of these would leave room for
// nothing else.
//
// Pure: every clock reading is an argument. One thread at a time uses an object.
#pragma once

#include <algorithm>
#include <chrono>
#include <optional>

#include "tools/stream/impairments.h"

namespace vesper::tools {

class KeyframeLimit {
  public:
    static constexpr auto kInterval = std::chrono::milliseconds(500);

    // The player asks. A request too soon after an answer is not lost: it is due later.
    void request(Clock::time_point now) {
        if (!due_) {
            due_ = last_ ? std::max(now, *last_ + kInterval) : now;
        }
    }

    // When to send a keyframe; nothing if none is requested.
    [[nodiscard]] std::optional<Clock::time_point> due() const { return due_; }

    // A keyframe is being sent.
    void answer(Clock::time_point now) {
        last_ = now;
        due_.reset();
    }

  private:
    std::optional<Clock::time_point> last_;
    std::optional<Clock::time_point> due_;
};

}  // namespace vesper::tools
