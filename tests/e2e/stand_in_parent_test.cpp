// What a viewer sees when vesper-parent starts the player.
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "tests/e2e/player_fixture.h"
#include "tests/e2e/player_window.h"
#include "tests/e2e/printed_on_failure.h"
#include "tests/e2e/virtual_display.h"
#include "tests/support/child_process.h"
#include "tests/support/eventually.h"
#include "tests/support/temporary_folder.h"
#include "tests/tools/command.h"
#include "tests/tools/delayed_capture.h"
#include "tests/tools/media_file.h"

namespace vesper::test {
namespace {

constexpr Color kRed{.red = 255, .green = 0, .blue = 0};
constexpr Color kGreen{.red = 0, .green = 255, .blue = 0};
constexpr Color kYellow{.red = 255, .green = 255, .blue = 0};
constexpr Color kBlue{.red = 0, .green = 0, .blue = 255};
constexpr Color kMagenta{.red = 255, .green = 0, .blue = 255};
constexpr Color kCyan{.red = 0, .green = 255, .blue = 255};

// vesper-parent on a display of its own, with one player.
class StandInParent {
  public:
    explicit StandInParent(const std::vector<std::string>& options)
        : process_(command(options), player_environment(display_)) {
        std::optional<pid_t> player;
        EXPECT_TRUE(eventually([&] { return (player = player_pid()).has_value(); }));
        window_.emplace(display_, player.value_or(-1));
    }

    [[nodiscard]] const VirtualDisplay& display() const { return display_; }
    [[nodiscard]] const PlayerWindow& window() const { return *window_; }
    [[nodiscard]] ChildProcess& process() { return process_; }

    // Whether the window comes to show this colour at this point.
    [[nodiscard]] bool shows(Point point, Color color) const {
        return eventually([&] { return is_near(window_->screenshot().at(point), color); });
    }

    // Whether the output contains this, now or soon.
    [[nodiscard]] bool prints(const std::string& text) {
        return eventually([&] { return process_.out().find(text) != std::string::npos; });
    }

    // The same for the test picture of 480x240: its six stripes, at points that nothing else covers
    // for long.
    [[nodiscard]] bool shows_test_picture() const {
        return shows({40, 230}, kRed) && shows({120, 230}, kGreen) && shows({200, 230}, kYellow) &&
               shows({280, 230}, kBlue) && shows({360, 230}, kMagenta) && shows({440, 230}, kCyan);
    }

  private:
    static std::vector<std::string> command(const std::vector<std::string>& options) {
        std::vector<std::string> words = {VESPER_PARENT};
        words.insert(words.end(), options.begin(), options.end());
        return words;
    }

    [[nodiscard]] std::optional<pid_t> player_pid() const {
        const std::string pid = std::to_string(process_.pid());
        std::ifstream children("/proc/" + pid + "/task/" + pid + "/children");
        pid_t player = 0;
        return children >> player ? std::optional(player) : std::nullopt;
    }

    VirtualDisplay display_;
    ChildProcess process_;
    PrintedOnFailure printed_{process_};
    std::optional<PlayerWindow> window_;
};

TEST(StandInParentTest, ShowsItsTestPicture) {
    const StandInParent parent({"--size", "480x240"});
    EXPECT_TRUE(parent.shows_test_picture());
}

std::string size_text(Extent size) {
    return std::to_string(size.width) + "x" + std::to_string(size.height);
}

// Libraries work in blocks, and none of these sizes is a multiple of theirs.
class StandInParentSizes : public testing::TestWithParam<Extent> {};

// All stripes reach the bottom, and the last one the right.
TEST_P(StandInParentSizes, ShowsItsTestPictureUpToItsEdges) {
    const StandInParent parent({"--size", size_text(GetParam())});
    const Extent window = parent.window().size();
    const int right = window.width - 1;
    const int bottom = window.height - 1;
    int stripe = 0;
    for (const Color& color : {kRed, kGreen, kYellow, kBlue, kMagenta, kCyan}) {
        EXPECT_TRUE(parent.shows({window.width * (2 * stripe + 1) / 12, bottom}, color)) << stripe;
        ++stripe;
    }
    for (const int y : {bottom / 4, bottom / 2, bottom}) {
        EXPECT_TRUE(parent.shows({right, y}, kCyan)) << y;
    }
}

INSTANTIATE_TEST_SUITE_P(, StandInParentSizes,
                         testing::Values(Extent{.width = 122, .height = 90},
                                         Extent{.width = 174, .height = 142},
                                         Extent{.width = 390, .height = 844},
                                         Extent{.width = 854, .height = 480}),
                         [](const auto& size) { return size_text(size.param); });

// Options under which the viewer sees the same.
struct Way {
    const char* name;
    std::vector<std::string> options;
};

void PrintTo(const Way& way, std::ostream* stream) {
    *stream << testing::PrintToString(way.options);
}

class StandInParentWays : public testing::TestWithParam<Way> {};

TEST_P(StandInParentWays, ShowsItsTestPicture) {
    std::vector<std::string> options = {"--size", "480x240"};
    options.insert(options.end(), GetParam().options.begin(), GetParam().options.end());
    const StandInParent parent(options);
    EXPECT_TRUE(parent.shows_test_picture());
}

INSTANTIATE_TEST_SUITE_P(All, StandInParentWays,
                         testing::Values(Way{"WithLittleDelay", {"--low-delay"}},
                                         Way{"InBursts", {"--burst"}},
                                         Way{"Slowly", {"--fps", "2"}},
                                         Way{"InAPlayerNamed", {"--player", VESPER_PLAYER}},
                                         Way{"OverABadLink",
                                             {"--loss", "2", "--duplicate", "5", "--reorder", "5",
                                              "--corrupt", "1", "--truncate", "1", "--jitter", "5",
                                              "--seed", "3", "--keyframe-interval", "10"}}),
                         [](const auto& way) { return way.param.name; });

// The second run has no options about the picture: the capture determines it. A capture answers no
// keyframe request, so it holds keyframes enough for a player that gives up the first of them.
TEST(StandInParentTest, ShowsACapture) {
    const TemporaryFolder folder;
    const std::string path = folder.file("stream.pcap");
    {
        const VirtualDisplay display;
        ChildProcess captured({VESPER_PARENT, "--size", "480x240", "--fps", "10",
                               "--keyframe-interval", "3", "--seconds", "4", "--capture", path},
                              player_environment(display));
        ASSERT_EQ(captured.wait_for_end(), Ending{});
    }
    delay_last_datagram(path);  // the window stays for as long as the test looks at it
    StandInParent parent({"--replay", path, "--speed", "0.5"});
    EXPECT_TRUE(parent.prints("(stream.pcap, 480x240, audio=yes)\n"));
    EXPECT_TRUE(parent.shows_test_picture());
}

TEST(StandInParentTest, FeedsAPlayerThatRunsAlready) {
    const VirtualDisplay display;
    const std::string port = std::to_string(tools::free_port());
    const std::string parent_port = std::to_string(tools::free_port());
    ChildProcess player({VESPER_PLAYER, "--port", port, "--parent-port", parent_port, "--width",
                         "480", "--height", "240"},
                        player_environment(display));
    const PlayerWindow window(display, player.pid());
    const ChildProcess parent(
        {VESPER_PARENT, "--to", port, "--listen", parent_port, "--size", "480x240"},
        program_environment());
    EXPECT_TRUE(eventually([&] { return is_near(window.screenshot().at({40, 230}), kRed); }));
    EXPECT_TRUE(eventually([&] {
        return player.out().find("Sent keyframe request to parent (port " + parent_port) !=
               std::string::npos;
    }));
}

TEST(StandInParentTest, DescribesTheStreamToThePlayer) {
    StandInParent parent({"--size", "480x240", "--username", "Ann", "--no-sound"});
    EXPECT_TRUE(parent.prints("for streamer 1 (Ann, 480x240, audio=no)\n"));
    EXPECT_TRUE(eventually([&] { return parent.window().title() == "Stream: Ann"; }));
}

TEST(StandInParentTest, EndsThePlayerAfterTheSecondsAskedFor) {
    const VirtualDisplay display;
    ChildProcess parent({VESPER_PARENT, "--size", "480x240", "--seconds", "1"},
                        player_environment(display));
    EXPECT_EQ(parent.wait_for_end(), (Ending{.status = 0, .signal = 0}));
    EXPECT_NE(parent.out().find("[VideoPlayer] Listening on UDP port "), std::string::npos);
}

TEST(StandInParentTest, ShowsAFile) {
    const TemporaryFolder folder;
    const std::string path = folder.file("grey.mkv");
    ASSERT_TRUE(write_media_file(path, {.width = 320, .height = 240, .luma = 126}));
    const StandInParent parent({"--size", "320x240", "--file", path, "--loop"});
    EXPECT_TRUE(parent.shows({160, 120}, {.red = 128, .green = 128, .blue = 128}));
}

// A film and a stream of the same shape, so that the film has no black beside it.
struct Scaling {
    Extent film;
    Extent stream;
};

void PrintTo(const Scaling& scaling, std::ostream* stream) {
    *stream << scaling.film << " to " << scaling.stream;
}

class StandInParentFilm : public testing::TestWithParam<Scaling> {};

TEST_P(StandInParentFilm, IsShownUpToItsEdges) {
    const TemporaryFolder folder;
    const std::string path = folder.file("film.mkv");
    // The colour source makes only even sizes.
    make_media("-f lavfi -i color=0xDC783C:rate=5 -t 1 -vf scale=" + size_text(GetParam().film) +
                   ",setsar=1 -c:v libvpx -b:v 1M",
               path);
    const StandInParent parent({"--size", size_text(GetParam().stream), "--file", path, "--loop"});
    std::optional<Point> fault;
    EXPECT_TRUE(eventually([&] {
        const Color color{.red = 0xDC, .green = 0x78, .blue = 0x3C};
        return !(fault = parent.window().screenshot().fault_at_edge(color));
    })) << "not so at "
        << *fault;
}

INSTANTIATE_TEST_SUITE_P(
    , StandInParentFilm,
    testing::Values(
        Scaling{.film = {.width = 183, .height = 135}, .stream = {.width = 122, .height = 90}},
        Scaling{.film = {.width = 195, .height = 422}, .stream = {.width = 390, .height = 844}},
        Scaling{.film = {.width = 61, .height = 45}, .stream = {.width = 854, .height = 630}}),
    [](const auto& scaling) {
        return size_text(scaling.param.film) + "To" + size_text(scaling.param.stream);
    });

class StandInParentScreen : public testing::TestWithParam<Extent> {};

// The other display's window is in its middle, and smaller here than there.
TEST_P(StandInParentScreen, IsShown) {
    const std::string size = size_text(GetParam());
    const StandInParent shown({"--size", "480x240"});
    ASSERT_TRUE(shown.shows({120, 230}, kGreen));
    const Point corner = shown.window().position();
    const auto here = [&](int x, int y) {
        return Point{.x = (corner.x + x) * GetParam().width / VirtualDisplay::kSize.width,
                     .y = (corner.y + y) * GetParam().height / VirtualDisplay::kSize.height};
    };
    StandInParent parent(
        {"--size", size, "--screen", shown.display().name(), "--bitrate", "3000000"});
    EXPECT_TRUE(parent.prints("(Screen " + shown.display().name() + ", " + size + ", audio=no)\n"));
    EXPECT_TRUE(parent.shows(here(120, 230), kGreen));
    EXPECT_TRUE(parent.shows(here(280, 230), kBlue));
    EXPECT_TRUE(parent.shows({2, 100}, {}));
}

INSTANTIATE_TEST_SUITE_P(, StandInParentScreen,
                         testing::Values(Extent{.width = 512, .height = 384},
                                         Extent{.width = 390, .height = 292}),
                         [](const auto& size) { return size_text(size.param); });

// In a picture two columns wide, less than one row is left of this screen.
TEST(StandInParentTest, AScreenThatDoesNotFitIsRefused) {
    const VirtualDisplay display({.width = 2000, .height = 100});
    ChildProcess parent({VESPER_PARENT, "--size", "2x320", "--screen", display.name()},
                        player_environment(display));
    EXPECT_EQ(parent.wait_for_end(), (Ending{.status = 2, .signal = 0}));
    EXPECT_EQ(parent.out(), "");
    EXPECT_EQ(parent.err(),
              "cannot grab the display \"" + display.name() + "\": Invalid argument\n");
}

TEST(StandInParentTest, AScreenThatGoesAwayEndsTheStreamWithALine) {
    std::optional<VirtualDisplay> shown(std::in_place);
    const std::string name = shown->name();
    StandInParent parent({"--size", "480x240", "--screen", name});
    EXPECT_TRUE(parent.prints("(Screen " + name + ", 480x240, audio=no)\n"));
    shown.reset();
    EXPECT_EQ(parent.process().wait_for_end(), (Ending{.status = 0, .signal = 0}));
    EXPECT_NE(parent.process().err().find("cannot read the display \"" + name + "\" any further: "),
              std::string::npos)
        << parent.process().err();
}

TEST(StandInParentTest, EndsWithStatusZeroWhenTheWindowIsClosed) {
    StandInParent parent({"--size", "480x240"});
    ASSERT_TRUE(parent.shows({40, 230}, kRed));
    parent.window().close();
    EXPECT_EQ(parent.process().wait_for_end(), (Ending{.status = 0, .signal = 0}));
}

TEST(StandInParentTest, ReportsTheVolumeThatTheViewerChose) {
    StandInParent parent({"--size", "480x240", "--volume", "0.5", "--muted"});
    ASSERT_TRUE(parent.shows({40, 230}, kRed));
    parent.window().press_key("Up");
    EXPECT_TRUE(parent.prints("  volume 55 % muted\n"));
    parent.window().press_key("m");
    EXPECT_TRUE(parent.prints("  volume 55 %\n"));
}

}  // namespace
}  // namespace vesper::test
