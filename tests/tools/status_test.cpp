#include "tools/parent/status.h"

#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

#include "tests/support/captured_output.h"

namespace vesper::tools {
namespace {

using test::Printed;
using test::printed_by;
using Seconds = std::chrono::duration<double>;

Figures figures(double seconds) {
    Figures result;
    result.time = Seconds(seconds);
    result.frames = static_cast<std::uint64_t>(seconds * 30);
    result.bytes = static_cast<std::uint64_t>(seconds * 125'000);
    result.datagrams = static_cast<std::uint64_t>(seconds * 100);
    result.audio = {AudioState{.muted = false, .volume = 0.7F}};
    return result;
}

constexpr const char* kAfterOneSecond =
    "0:01  30.0 fps  1000 kbit/s  100 sent, 0 dropped  0 KFRQ  volume 70 %";

TEST(StatusText, TheRatesAreThoseOfThePeriod) {
    Figures now = figures(62);
    now.frames = figures(60).frames + 20;
    now.impaired.lost = 5;
    now.keyframe_requests = 3;
    EXPECT_EQ(status_text(figures(60), now),
              "1:02  10.0 fps  1000 kbit/s  6200 sent, 5 dropped  3 KFRQ  volume 70 %");
}

TEST(StatusText, ReportsWhatThePlayersBufferHadNoRoomFor) {
    Figures now = figures(1);
    now.overflowed = 12;
    EXPECT_EQ(
        status_text({}, now),
        "0:01  30.0 fps  1000 kbit/s  100 sent, 0 dropped, 12 overflowed  0 KFRQ  volume 70 %");
}

TEST(StatusText, CountsTheRequestsThatNoKeyframeFollowed) {
    Figures now = figures(1);
    now.keyframe_requests = 3;
    now.unanswered = 2;
    EXPECT_EQ(status_text({}, now),
              "0:01  30.0 fps  1000 kbit/s  100 sent, 0 dropped  3 KFRQ (2 unanswered)  "
              "volume 70 %");
}

TEST(StatusText, NamesEachPlayersVolume) {
    Figures now = figures(1);
    now.audio = {AudioState{.muted = true, .volume = 1.0F}, std::nullopt};
    EXPECT_EQ(status_text({}, now),
              "0:01  30.0 fps  1000 kbit/s  100 sent, 0 dropped  0 KFRQ  volume 100 % muted, not "
              "reported");
}

TEST(SummaryText, IsShortWhereNothingWentWrong) {
    EXPECT_EQ(summary_text(figures(10)),
              "0:10  30.0 fps  1000 kbit/s  300 frames in 1000 datagrams, 0 keyframes asked "
              "for");
}

TEST(SummaryText, NamesEverythingThatHappened) {
    Figures all = figures(10);
    all.keyframe_requests = 1;
    all.impaired = {.lost = 2, .duplicated = 3, .reordered = 4, .corrupted = 5, .truncated = 6};
    all.overflowed = 7;
    all.send_failures = 8;
    all.skipped = 9;
    EXPECT_EQ(summary_text(all),
              "0:10  30.0 fps  1000 kbit/s  300 frames in 1000 datagrams, 1 keyframes asked "
              "for, 2 dropped on purpose, 3 doubled, 4 reordered, 5 corrupted, 6 cut short, 7 lost "
              "because a player's buffer was full, 8 not taken by the system, 9 pictures skipped "
              "because encoding fell behind");
}

TEST(StatusReporter, PrintsOncePerSecond) {
    StatusReporter reporter(false);
    EXPECT_EQ(printed_by([&] {
                  reporter.update(figures(0));
                  reporter.update(figures(0.5));
                  reporter.update(figures(1));
                  reporter.update(figures(1.5));
              }),
              (Printed{.out = std::string("[Parent] ") + kAfterOneSecond + "\n", .err = ""}));
}

TEST(StatusReporter, PrintsAtOnceWhatAPlayerReports) {
    StatusReporter reporter(false);
    Figures muted = figures(0.5);
    muted.audio = {AudioState{.muted = true, .volume = 0.7F}};
    Figures asked = muted;
    asked.keyframe_requests = 1;
    EXPECT_EQ(printed_by([&] {
                  reporter.update(figures(0));
                  reporter.update(muted);
                  reporter.update(muted);
                  reporter.update(asked);
              }),
              (Printed{.out = "[Parent] 0:00  30.0 fps  1000 kbit/s  50 sent, 0 dropped  0 KFRQ  "
                              "volume 70 % muted\n"
                              "[Parent] 0:00  30.0 fps  1000 kbit/s  50 sent, 0 dropped  1 KFRQ  "
                              "volume 70 % muted\n",
                       .err = ""}));
}

TEST(StatusReporter, KeepsTheStatusInPlaceBelowThePlayersLines) {
    StatusReporter reporter(true);
    const std::string status = kAfterOneSecond;
    const std::string clear = "\r\033[K";
    EXPECT_EQ(printed_by([&] {
                  reporter.print(stdout, "before");
                  reporter.update(figures(1));
                  reporter.print(stdout, "a line");
                  reporter.print(stderr, "an error");
                  reporter.finish(figures(1));
              }),
              (Printed{.out = "before\n" + status + clear + "a line\n" + status + clear + status +
                              clear + "[Parent] " + summary_text(figures(1)) + "\n",
                       .err = "an error\n"}));
}

// What is written to standard output while it is a terminal of so many columns.
std::string shown_by_terminal(std::uint16_t columns, const std::function<void()>& write_something) {
    int terminal = -1;
    int program = -1;
    winsize size{};
    size.ws_row = 24;
    size.ws_col = columns;
    EXPECT_EQ(openpty(&terminal, &program, nullptr, nullptr, &size), 0);
    std::fflush(stdout);
    const int before = dup(STDOUT_FILENO);
    dup2(program, STDOUT_FILENO);
    write_something();
    std::fflush(stdout);
    dup2(before, STDOUT_FILENO);
    std::array<char, 4096> buffer{};
    const ssize_t length = read(terminal, buffer.data(), buffer.size());
    for (const int fd : {before, program, terminal}) {
        close(fd);
    }
    return {buffer.data(), static_cast<std::size_t>(std::max(length, ssize_t{0}))};
}

TEST(StatusReporter, CutsTheStatusAtTheTerminalsEdge) {
    const std::string text = kAfterOneSecond;
    for (const std::uint16_t columns : std::initializer_list<std::uint16_t>{10, 40, 80}) {
        StatusReporter reporter(true);
        EXPECT_EQ(shown_by_terminal(columns, [&] { reporter.update(figures(1)); }),
                  text.substr(0, columns - 1U));
    }
}

TEST(StatusText, FitsAnOrdinaryTerminal) {
    Figures now = figures(62);
    now.datagrams = 9999;
    now.impaired.lost = 99;
    now.keyframe_requests = 9;
    now.audio = {AudioState{.muted = true, .volume = 1.0F}};
    EXPECT_LT(status_text(figures(61), now).size(), 80U);
}

}  // namespace
}  // namespace vesper::tools
