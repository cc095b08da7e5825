// What a parent has to expect of the player as a whole: a stream whose size changes, a still
// picture, the end of the window system.
#include <csignal>
#include <optional>
#include <string>

#include "tests/e2e/player_fixture.h"
#include "tests/e2e/wayland_compositor.h"

namespace vesper::test {

namespace {

constexpr Color kBlack{};
constexpr Color kGrey{.red = 160, .green = 160, .blue = 160};
constexpr Color kRed{.red = 200, .green = 30, .blue = 30};
constexpr Color kGreen{.red = 30, .green = 150, .blue = 30};
constexpr Color kBlue{.red = 30, .green = 60, .blue = 200};

}  // namespace

// A stream of kPictureSize whose pictures become `size` while it runs. Nothing is printed and
// nothing asked for: the fixture compares all that the player prints at its end.
class SizeChange : public PlayerTest {
  protected:
    void show_a_stream() {
        start_player();
        show_first_picture(flat_picture(kRed));
        // The decoder delivers each picture when the next frame arrives: blue is not shown yet.
        send(video.frame(flat_picture(kGreen), false));
        send(video.frame(flat_picture(kBlue), false));
        expect_color(kMiddle, kGreen);
    }

    // The first frame of the new size brings the last picture of the old one. Once that is seen,
    // the player's buffers have blue and green, however many frames it decodes at a time.
    void change_size(Extent size) {
        ASSERT_TRUE(encoder_.open({.width = size.width, .height = size.height}));
        send(video.packetize(encoder_.encode(flat_picture(kGrey, size), true)));
        expect_color(kMiddle, kBlue);
    }

    // One frame more, of the new size. As a rule the player shows the one before it.
    void show_once(const tools::Picture& picture) {
        send(video.packetize(encoder_.encode(picture, false)));
    }

    void TearDown() override {
        PlayerTest::TearDown();
        EXPECT_TRUE(parent.has_no_message());
    }

    static constexpr Point kMiddle{.x = 200, .y = 120};

  private:
    tools::Vp8Encoder encoder_;
};

TEST_F(SizeChange, SmallerPictureLiesAtTheTopLeftAboveTheOldOneWithBlackBesideIt) {
    constexpr Extent kQuarter{.width = 200, .height = 120};
    show_a_stream();
    change_size(kQuarter);
    for (int i = 0; i < 3; ++i) {  // both of the player's buffers have one
        show_once(flat_picture(kGrey, kQuarter));
    }
    expect_color({.x = 100, .y = 60}, kGrey);
    expect_color({.x = 300, .y = 60}, kBlack);
    EXPECT_TRUE(eventually([this] {
        return shows_color({.x = 100, .y = 180}, kBlue) ||
               shows_color({.x = 100, .y = 180}, kGreen);
    }));
}

TEST_F(SizeChange, OfATallerPictureNothingIsSeenButTheLastTwoInTurn) {
    constexpr Extent kTall{.width = 400, .height = 480};
    show_a_stream();
    change_size(kTall);
    for (const Color old : {kGreen, kBlue, kGreen, kBlue}) {
        EXPECT_TRUE(eventually([&] {
            show_once(flat_picture(kGrey, kTall));
            EXPECT_FALSE(shows_color(kMiddle, kGrey));
            return shows_color(kMiddle, old);
        }));
    }
}

TEST_F(SizeChange, OfAWiderPictureTheLeftPartFillsTheWindow) {
    constexpr Extent kWide{.width = 800, .height = 240};
    show_a_stream();
    change_size(kWide);
    const tools::Picture fields = fields_picture(kWide);
    for (int i = 0; i < 3; ++i) {
        show_once(fields);
    }
    // Its fields are twice as wide as those of a picture of the stream's size.
    for (const Point point : {Point{40, 40}, Point{120, 120}, Point{200, 200}, Point{390, 40}}) {
        expect_color(point, field_color({.x = point.x / 2, .y = point.y}));
    }
}

using Wire = PlayerTest;

TEST_F(Wire, KeyframeRepeatedUnchangedIsShownAtOnce) {
    start_player();
    tools::Vp8Encoder encoder;
    ASSERT_TRUE(encoder.open(kSmallStream));
    const auto frame = encoder.encode(flat_picture(kRed), true);
    send(video.packetize(frame));
    failure_text += "[VideoReceiver] VP8 receive_frame error: -11\n";
    expect_keyframe_request();
    EXPECT_FALSE(shows_color({.x = 200, .y = 120}, kRed));
    send(video.packetize(frame));
    expect_color({.x = 200, .y = 120}, kRed);
}

// SDL would otherwise go on to drivers without a display.
TEST_F(Wire, WithNamedWindowSystemsButNoDisplayThePlayerEndsWithStatusOne) {
    environment["DISPLAY"] = ":no-such-display";
    environment["WAYLAND_DISPLAY"] = "no-such-compositor";
    environment["XDG_RUNTIME_DIR"] = directory.path();
    environment["SDL_VIDEODRIVER"] = "wayland,x11";
    run_player({"--port", std::to_string(port)});
    EXPECT_EQ(player->wait_for_end(), (Ending{.status = 1}));
    EXPECT_EQ(player->err(), "[VideoPlayer] SDL_Init failed: wayland,x11 not available\n");
}

TEST_F(Wire, EndOfTheXServerEndsThePlayerWithStatusOne) {
    ChildProcess server(
        {"Xvfb", "-displayfd", "1", "-screen", "0", "640x480x24", "-nolisten", "tcp"});
    ASSERT_TRUE(eventually([&] { return server.out().ends_with('\n'); }));
    environment["DISPLAY"] = ":" + server.out().substr(0, server.out().size() - 1);
    // Xlib ends the process on the spot: what is not freed then is not a leak.
    environment["ASAN_OPTIONS"] += ":detect_leaks=0";
    environment["TSAN_OPTIONS"] += ":report_thread_leaks=0";
    start_player_anywhere();
    server.send_signal(SIGTERM);
    EXPECT_EQ(player->wait_for_end(), (Ending{.status = 1}));
    EXPECT_EQ(player->out(), start_up_text());
}

TEST_F(Wire, EndOfTheWaylandCompositorLooksLikeAWindowThatIsClosed) {
    environment["SDL_VIDEODRIVER"] = "wayland";
    environment["SDL_FRAMEBUFFER_ACCELERATION"] = "1";
    environment["MESA_SHADER_CACHE_DISABLE"] = "true";
    environment["SDL_VIDEO_WAYLAND_ALLOW_LIBDECOR"] = "0";
    std::optional<WaylandCompositor> compositor;
    compositor.emplace(display, directory.path());
    environment.insert(compositor->environment().begin(), compositor->environment().end());
    start_player_anywhere();
    compositor.reset();
    expect_end_of_normal_run();
}

}  // namespace vesper::test
