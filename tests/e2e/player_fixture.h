// The fixture of the end-to-end tests: one player process in one window on one display, with a
// parent application's socket at the other end.
//
// A test ends with the window being closed, and with the player's whole output compared: what it
// expects beyond start-up and shut-down it adds to progress_text and failure_text. Where the output
// depends on the machine's speed, a test compares the exit status alone. A sanitizer's report
// changes both and fails the test. What the player wrote is printed if the test fails.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tests/e2e/parent.h"
#include "tests/e2e/player_window.h"
#include "tests/e2e/test_stream.h"
#include "tests/e2e/virtual_display.h"
#include "tests/support/child_process.h"
#include "tests/support/eventually.h"
#include "tests/support/temporary_folder.h"
#include "tools/stream/free_port.h"

namespace vesper::test {

// The environment of every program of this tree: what CTest has preloaded into it, and what the
// sanitizers do. One that reports something ends the program with status 99, which the program
// itself never does.
[[nodiscard]] ChildProcess::Environment program_environment();

// The environment of a player on `display`: SDL's software renderer, without GL beneath it, makes
// the same drawing calls without a GL driver's threads, on a machine that runs many tests at once.
// Without sound hardware it plays into SDL's dummy driver.
[[nodiscard]] ChildProcess::Environment player_environment(const VirtualDisplay& display);

class PlayerTest : public testing::Test {
  protected:
    // `stream` describes what `video` makes, and is passed to the player.
    explicit PlayerTest(const tools::Vp8Settings& stream = kSmallStream);
    ~PlayerTest() override;
    void TearDown() override;

    // Runs the player with exactly these arguments, without waiting for anything.
    void run_player(const std::vector<std::string>& arguments,
                    ChildProcess::Output output = ChildProcess::Output::Separate);

    // Runs the player for a stream of stream_size with `more` arguments, and waits until it
    // listens and its window is on the screen. Throws std::runtime_error when it does not come to
    // that: nothing that a test does next would make sense.
    void start_player(const std::vector<std::string>& more = {});

    // The same for any window system: waits only until the player listens.
    void start_player_anywhere(const std::vector<std::string>& more = {});

    // Closes the window and compares everything: the exit status and both outputs.
    void expect_clean_end();

    // Waits for an end that something else brings about, and compares everything.
    void expect_end_of_normal_run();

    // Sends to the player, which has taken everything when the call returns.
    void send(const std::vector<tools::Datagram>& datagrams);

    // Lets the player show the stream's first picture. The decoder delivers each picture one frame
    // late and reports an error for the first, so a keyframe request arrives as well.
    void show_first_picture(const tools::Picture& picture);
    void show_picture(const tools::Picture& picture) { send(video.show(picture)); }

    // Expects the next message to the parent to be a keyframe request, and its progress line.
    void expect_keyframe_request();

    [[nodiscard]] std::string keyframe_request_line() const;

    // Waits until the window shows the colour at this point of it.
    void expect_color(Point point, Color color);
    [[nodiscard]] bool shows_color(Point point, Color color) const;

    // The control bar darkens what is beneath it. A point of it that nothing else is drawn on, in a
    // window of kPictureSize.
    static constexpr Point kBarPoint{.x = 354, .y = 210};
    [[nodiscard]] bool bar_is_visible_over(Color picture) const;

    // For a player that is started afterwards: the bar stays once it has come, so that no click is
    // lost, and the bar is seen, however slow the player and the test are.
    void keep_bar();
    // After keep_bar(): counts the bar's time again, from SDL's start on. An idle bar disappears
    // once those two seconds have passed: at once, if the player has run for longer.
    void let_bar_go();

    // Texts, each a list of whole lines.
    [[nodiscard]] std::string start_up_text() const;
    [[nodiscard]] static std::string shut_down_text();
    // Of a live receiver; its window, renderer and texture are the `first_address`-th address of
    // the whole text and the two after it.
    [[nodiscard]] static std::string destructor_text(int uid = 0, int window_id = 1,
                                                     int first_address = 1);
    // Of a receiver whose set-up failed after its window was made.
    [[nodiscard]] static std::string destructor_text_without_stream();

    VirtualDisplay display;
    const Extent stream_size;
    Parent parent;
    const std::uint16_t port = tools::free_port();  // the player's
    ChildProcess::Environment environment;
    VideoSource video;
    TemporaryFolder directory;

    std::optional<ChildProcess> player;
    std::optional<PlayerWindow> window;

    bool has_audio = false;  // the player was started with --has-audio
    bool has_sound_device = true;
    std::string progress_text;  // expected on standard output between start-up and shut-down
    std::string failure_text;   // expected on standard error
};

}  // namespace vesper::test
