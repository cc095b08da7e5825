// What vesper-parent prints while it runs: one status line that a terminal shows in place, the
// lines of the players above it, and a summary at the end.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "net/stream_datagrams.h"
#include "tools/stream/impairments.h"

namespace vesper::tools {

// All streams together, since the start.
struct Figures {
    std::chrono::duration<double> time{0};
    std::uint64_t frames = 0;
    std::uint64_t bytes = 0;
    std::uint64_t datagrams = 0;
    std::uint64_t send_failures = 0;
    std::uint64_t skipped = 0;            // pictures left out because encoding fell behind
    std::uint64_t keyframe_requests = 0;  // that players sent
    std::uint64_t unanswered = 0;         // of these, those that no keyframe followed
    Impairments::Counters impaired;
    // Datagrams that found a player's receive buffer full, since it began to listen.
    std::uint64_t overflowed = 0;
    std::vector<std::optional<AudioState>> audio;  // of each player, as last reported
};

// "0:12  30.0 fps  1480 kbit/s  2400 sent, 24 dropped  1 KFRQ  volume 100 % muted": the time, the
// rates between `before` and `now`, datagrams, those dropped on purpose, those that a player's
// buffer had no room for (where there are any), keyframes that players asked for, and what they
// last reported. Of one player and its first minutes a terminal of 80 columns shows all of it; the
// volume is what it cuts off first.
[[nodiscard]] std::string status_text(const Figures& before, const Figures& now);

// The whole run, several words to each figure; those that are 0 only where that is news.
[[nodiscard]] std::string summary_text(const Figures& figures);

// Prints on standard output. One thread uses it.
class StatusReporter {
  public:
    // `in_place`: the status line is updated in place, as a terminal allows, and cut at its edge.
    // Otherwise each is a line of its own.
    explicit StatusReporter(bool in_place) : in_place_(in_place) {}

    // Shows the figures: once a second, and at once when a player reported or asked for something.
    void update(const Figures& figures);

    // A line of its own on `stream`, above the status line.
    void print(std::FILE* stream, std::string_view line);

    // Removes the status line for good and prints the summary.
    void finish(const Figures& figures);

  private:
    void clear();
    void show();

    bool in_place_;
    bool shown_ = false;  // a status line is on the screen
    std::string text_;
    Figures before_;  // where the rates' period began
    Figures last_;
};

}  // namespace vesper::tools
