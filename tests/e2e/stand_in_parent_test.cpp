// What a viewer sees when vesper-parent starts the player.
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "tests/e2e/child_process.h"
#include "tests/e2e/eventually.h"
#include "tests/e2e/player_test.h"
#include "tests/e2e/player_window.h"
#include "tests/e2e/virtual_display.h"
#include "tests/support/temporary_folder.h"
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
    std::optional<PlayerWindow> window_;
};

// The test picture's six stripes, where nothing else stands for long.
TEST(StandInParentTest, ShowsItsTestPicture) {
    const StandInParent parent({"--size", "480x240"});
    EXPECT_TRUE(parent.shows({40, 230}, kRed));
    EXPECT_TRUE(parent.shows({120, 230}, kGreen));
    EXPECT_TRUE(parent.shows({200, 230}, kYellow));
    EXPECT_TRUE(parent.shows({280, 230}, kBlue));
    EXPECT_TRUE(parent.shows({360, 230}, kMagenta));
    EXPECT_TRUE(parent.shows({440, 230}, kCyan));
}

TEST(StandInParentTest, ShowsAFile) {
    const TemporaryFolder folder;
    const std::string path = folder.file("grey.mkv");
    ASSERT_TRUE(write_media_file(path, {.width = 320, .height = 240, .luma = 126}));
    const StandInParent parent({"--size", "320x240", "--file", path, "--loop"});
    EXPECT_TRUE(parent.shows({160, 120}, {.red = 128, .green = 128, .blue = 128}));
}

// The other display's window is in its middle, and half as large here as there.
TEST(StandInParentTest, ShowsAScreen) {
    const StandInParent shown({"--size", "480x240"});
    ASSERT_TRUE(shown.shows({120, 230}, kGreen));
    const Point corner = shown.window().position();
    const StandInParent parent(
        {"--size", "512x384", "--screen", shown.display().name(), "--bitrate", "3000000"});
    EXPECT_TRUE(parent.shows({(corner.x + 120) / 2, (corner.y + 230) / 2}, kGreen));
    EXPECT_TRUE(parent.shows({(corner.x + 280) / 2, (corner.y + 230) / 2}, kBlue));
    EXPECT_TRUE(parent.shows({2, 100}, {}));
}

TEST(StandInParentTest, EndsWithStatusZeroWhenTheWindowIsClosed) {
    StandInParent parent({"--size", "480x240"});
    ASSERT_TRUE(parent.shows({40, 230}, kRed));
    parent.window().close();
    EXPECT_EQ(parent.process().wait_for_end(), (Ending{.status = 0, .signal = 0}));
}

TEST(StandInParentTest, ReportsTheVolumeThatTheViewerChose) {
    StandInParent parent({"--size", "480x240", "--volume", "0.5"});
    ASSERT_TRUE(parent.shows({40, 230}, kRed));
    parent.window().press_key("Up");
    parent.window().press_key("m");
    EXPECT_TRUE(eventually(
        [&] { return parent.process().out().find("  volume 55 % muted\n") != std::string::npos; }));
}

}  // namespace
}  // namespace vesper::test
