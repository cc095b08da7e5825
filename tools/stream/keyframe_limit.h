// How often a player's requests for keyframes are answered. A stream with frames that are not to be
// shown makes the player ask once for each of them, and a keyframe for each would be all that it
// gets.
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

    // The player asks. A request that comes too soon after an answer is not lost: it is due later.
    void request(Clock::time_point now) {
        if (!due_) {
            due_ = last_ ? std::max(now, *last_ + kInterval) : now;
        }
    }

    // When a keyframe is to be sent; nothing where none is asked for.
    [[nodiscard]] std::optional<Clock::time_point> due() const { return due_; }

    // One is sent.
    void answer(Clock::time_point now) {
        last_ = now;
        due_.reset();
    }

  private:
    std::optional<Clock::time_point> last_;
    std::optional<Clock::time_point> due_;
};

}  // namespace vesper::tools
