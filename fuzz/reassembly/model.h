// A model of reassembly, written for simplicity alone: what the receiver must do with a datagram,
// for comparison with what it does. Shares no code with it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace vesper::fuzz {

using Time = std::chrono::steady_clock::time_point;

// How often each rule applied, to show whether a run is meaningful.
struct RulesMet {
    std::uint64_t malformed = 0;
    std::uint64_t older_than_the_last_completed = 0;
    std::uint64_t frames_begun = 0;
    std::uint64_t begun_again = 0;  // the last completed frame
    std::uint64_t evictions_at_60_frames = 0;
    std::uint64_t evictions_at_the_byte_limit = 0;
    std::uint64_t beyond_the_frame = 0;
    std::uint64_t copies = 0;
    std::uint64_t other_counts = 0;  // stored although their count is not the frame's
    std::uint64_t frames_completed = 0;
    std::uint64_t largest_frames = 0;  // 1000 fragments
    std::uint64_t pushed_out_of_the_ring = 0;
    std::uint64_t given_up_at_a_completion = 0;
    std::uint64_t kept_at_exactly_250_ms = 0;
    std::uint64_t dropped_overdue = 0;
    std::uint64_t dropped_1_ns_overdue = 0;
    std::uint64_t keyframe_requests = 0;
};

class ReassemblyModel {
  public:
    // Counts what it meets in `met`, beside what others counted there.
    explicit ReassemblyModel(RulesMet& met) : met_(met) {}

    struct Frame {
        int total = 0;
        Time first_seen;
        std::map<int, std::string> fragments;
    };

    // `gone` are the frames, ascending, that the receiver may have evicted: any choice is right.
    void take(std::span<const std::uint8_t> datagram, Time now, std::vector<std::uint32_t> gone);

    // Of the frames' slots.
    [[nodiscard]] std::uint64_t bytes_held() const;

    // Whether a new frame would make others go.
    [[nodiscard]] bool is_full() const;

    bool running = true;
    std::map<std::uint32_t, Frame> frames;
    std::uint32_t last_completed = 0;
    std::deque<std::string> ring;  // oldest first
    std::uint64_t frames_completed = 0;
    bool keyframe_needed = false;

    // What the last call did.
    bool completed = false;
    bool frames_changed = false;     // one was begun or ended
    std::vector<std::string> lines;  // of dropped frames by number, then the request

  private:
    void complete(std::uint32_t id);
    void drop_overdue(Time now);

    RulesMet& met_;
};

}  // namespace vesper::fuzz
