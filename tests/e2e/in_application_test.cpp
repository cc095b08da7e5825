// examples/in_application with two streams. VESPER_IN_APPLICATION in the environment names another
// build of it.
#include <gtest/gtest.h>

#include <cstdlib>

#include "net/stream_datagrams.h"
#include "tests/e2e/player_fixture.h"
#include "tests/support/numbered_addresses.h"

namespace vesper::test {

namespace {

constexpr Extent kStreamSize{.width = 640, .height = 360};
constexpr Point kCenterOfStream{.x = 320, .y = 180};
constexpr Color kRed{.red = 200, .green = 40, .blue = 40};
constexpr Color kBlue{.red = 40, .green = 40, .blue = 200};
constexpr Color kYellow{.red = 200, .green = 200, .blue = 40};

// The application's window has a field for each stream.
constexpr Point kFirstField{.x = 50, .y = 50};
constexpr Point kSecondField{.x = 150, .y = 50};
constexpr Color kLive{.red = 0, .green = 160, .blue = 0};
constexpr Color kOver{.red = 160, .green = 160, .blue = 160};

std::string program() {
    const char* other = std::getenv("VESPER_IN_APPLICATION");
    return other != nullptr ? other : VESPER_IN_APPLICATION;
}

// A stream, and the window that shows it.
struct Stream {
    std::string name;
    std::uint16_t port = tools::free_port();
    Parent parent;
    VideoSource video;
    std::optional<PlayerWindow> window;

    explicit Stream(std::string streamer) : name(std::move(streamer)) {}

    [[nodiscard]] std::string argument() const {
        return std::to_string(port) + ":" + std::to_string(parent.port()) + ":" + name;
    }

    void show(Color color) {
        EXPECT_TRUE(parent.send(video.show(flat_picture(color)), port)) << name;
    }

    // The decoder reports an error for a stream's first frame.
    void expect_keyframe_request() {
        EXPECT_EQ(parent.next_message(), Message(kKeyframeRequest.begin(), kKeyframeRequest.end()))
            << name;
    }
};

bool is_inside(int x, int y, int left, int top, int width, int height) {
    return x >= left && x < left + width && y >= top && y < top + height;
}

// What the stream-ended overlay makes of one pixel of a picture in one colour: dimmed, with a white
// frame three pixels wide about a box of 400 x 80 in the middle, and a light grey mark of 24 x 24.
Color under_overlay(Color picture, int x, int y) {
    if (is_inside(x, y, 308, 168, 24, 24)) {
        return {.red = 200, .green = 200, .blue = 200};
    }
    if (is_inside(x, y, 118, 138, 404, 84) && !is_inside(x, y, 121, 141, 398, 78)) {
        return {.red = 255, .green = 255, .blue = 255};
    }
    const auto dimmed = [](int value) { return value * (255 - 180) / 255; };
    return {dimmed(picture.red), dimmed(picture.green), dimmed(picture.blue)};
}

bool shows_overlay_over(const PlayerWindow& window, Color picture) {
    const Screenshot shot = window.screenshot();
    if (shot.size != kStreamSize || shot.pixels.empty()) {
        return false;
    }
    for (int y = 0; y < shot.size.height; ++y) {
        for (int x = 0; x < shot.size.width; ++x) {
            if (!is_near(shot.at({x, y}), under_overlay(picture, x, y))) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace

class InApplication : public PlayerTest {
  protected:
    // Both streams on the screen, side by side: no window covers another.
    void SetUp() override {
        // No stream falls silent, however long this test is kept from sending.
        preload(environment, VESPER_SIGNS_OF_LIFE);
        player.emplace(std::vector<std::string>{program(), ann_.argument(), bob_.argument()},
                       environment);
        // SDL replaces a window when the renderer wants another kind of it, so nothing is moved
        // before both streams have started: SDL's dummy has one device, which the first has by
        // then.
        ASSERT_TRUE(eventually([this] { return player->err() == kNoDeviceForTheSecondText; }));
        ann_.window.emplace(display, player->pid(), "Stream: Ann");
        bob_.window.emplace(display, player->pid(), "Stream: Bob");
        window.emplace(display, player->pid(), "Streams");
        ann_.window->move({.x = 0, .y = 0});
        bob_.window->move({.x = 384, .y = 400});
        window->move({.x = 0, .y = 500});
        ann_.show(kRed);
        bob_.show(kBlue);
        expect(*ann_.window, kCenterOfStream, kRed);
        expect(*bob_.window, kCenterOfStream, kBlue);
        ann_.expect_keyframe_request();
        bob_.expect_keyframe_request();
    }

    void TearDown() override {}

    static void expect(const PlayerWindow& window, Point point, Color color) {
        EXPECT_TRUE(eventually([&] { return is_near(window.screenshot().at(point), color); }))
            << window.title() << " at " << point << ": " << window.screenshot().at(point)
            << ", not " << color;
    }

    void let_ann_fall_silent() {
        ann_.parent.send_now({0, 0}, ann_.port);  // two bytes: no more signs of life
        EXPECT_TRUE(eventually([this] { return shows_overlay_over(*ann_.window, kRed); }));
    }

    void close_ann() {
        ann_.window->close();
        EXPECT_TRUE(eventually([this] { return !ann_.window->is_on_screen(); }));
    }

    void expect_clean_end(const std::string& text_after_start_up) {
        window->close();
        EXPECT_EQ(player->wait_for_end(), Ending{});
        // Only the first stream is heard.
        EXPECT_EQ(with_numbered_addresses(player->out()),
                  "[VideoReceiver] Started: watching Ann (640x360)\n"
                  "[Audio] Opened playback device: 48000 Hz, 2 ch, 960 samples\n"
                  "[VideoReceiver] Screen audio enabled (stereo, 48kHz)\n"
                  "[VideoReceiver] Started: watching Bob (640x360)\n" +
                      text_after_start_up);
        EXPECT_EQ(player->err(), std::string(kNoDeviceForTheSecondText) +
                                     "[VideoReceiver] VP8 receive_frame error: -11\n"
                                     "[VideoReceiver] VP8 receive_frame error: -11\n");
    }

    static std::string condemned_text(int uid) {
        return "[RECV UPDATE] uid=" + std::to_string(uid) + " SKIPPED: condemned\n";
    }

    static constexpr auto kNoDeviceForTheSecondText =
        "[Audio] Failed to open device: Audio device already open\n"
        "[VideoReceiver] Failed to open screen audio playback device\n";
    static constexpr auto kEndedText =
        "[VideoReceiver] Stream marked as ended, decode thread signaled to stop\n";

    // The application's own window has the id 1.
    static constexpr int kAnn = 1;
    static constexpr int kAnnsWindow = 2;
    static constexpr int kBob = 2;
    static constexpr int kBobsWindow = 3;

    Stream ann_{"Ann"};
    Stream bob_{"Bob"};
};

TEST_F(InApplication, EndsCleanlyWhileStreamsRun) {
    expect(*window, kFirstField, kLive);
    expect(*window, kSecondField, kLive);
    expect_clean_end(destructor_text(kAnn, kAnnsWindow) + destructor_text(kBob, kBobsWindow, 4));
}

TEST_F(InApplication, ShowsThatASilentStreamHasEndedAndGoesOnWithTheOther) {
    let_ann_fall_silent();
    expect(*window, kFirstField, kOver);
    bob_.show(kYellow);
    expect(*bob_.window, kCenterOfStream, kYellow);
    expect(*window, kSecondField, kLive);
    expect_clean_end(kEndedText + destructor_text(kAnn, kAnnsWindow) +
                     destructor_text(kBob, kBobsWindow, 4));
}

TEST_F(InApplication, ClosingTheWindowOfALiveStreamEndsThatStreamOnly) {
    close_ann();
    bob_.show(kYellow);
    expect(*bob_.window, kCenterOfStream, kYellow);
    expect(*window, kFirstField, kLive);  // Bob's now
    expect_clean_end(condemned_text(kAnn) + destructor_text(kAnn, kAnnsWindow) +
                     destructor_text(kBob, kBobsWindow, 4));
}

TEST_F(InApplication, ClosingTheWindowOfAnEndedStreamTakesItAway) {
    let_ann_fall_silent();
    close_ann();
    bob_.show(kYellow);
    expect(*bob_.window, kCenterOfStream, kYellow);
    expect_clean_end(kEndedText + condemned_text(kAnn) + destructor_text(kAnn, kAnnsWindow) +
                     destructor_text(kBob, kBobsWindow, 4));
}

}  // namespace vesper::test
