// The control bar, the audio keys, and their reports to the parent.
#include "tests/e2e/player_fixture.h"

namespace vesper::test {

namespace {

constexpr Color kPicture{.red = 60, .green = 160, .blue = 220};

// Points of the control bar in a window of kPictureSize.
constexpr int kBarY = kPictureSize.height - 18;
constexpr int kTrackX = 48;
constexpr int kTrackLength = 300;
constexpr Point kMuteButton{.x = 20, .y = kBarY};

Point slider_at(double volume) {
    return {.x = kTrackX + static_cast<int>(kTrackLength * volume), .y = kBarY};
}

}  // namespace

class Controls : public PlayerTest {
  protected:
    void start_player_with_picture(const std::vector<std::string>& more) {
        start_player(more);
        show_first_picture(flat_picture(kPicture));
        expect_color(kBarPoint, kPicture);
    }

    // With a bar that stays.
    void start_player_with_bar(const std::vector<std::string>& more) {
        keep_bar();
        start_player_with_picture(more);
        window->move_pointer({.x = 200, .y = 100});
        EXPECT_TRUE(eventually([this] { return bar_is_visible_over(kPicture); }));
    }
};

TEST_F(Controls, BarComesWithMotionAndGoesAfterTwoSeconds) {
    start_player_with_picture({});
    // Moves until the bar is seen: whoever looks later than two seconds after a motion sees none.
    Point pointer{.x = 200, .y = 100};
    std::chrono::steady_clock::time_point moved;
    EXPECT_TRUE(eventually([&] {
        pointer.x ^= 1;
        moved = std::chrono::steady_clock::now();
        window->move_pointer(pointer);
        return bar_is_visible_over(kPicture);
    }));
    EXPECT_TRUE(eventually([this] { return !bar_is_visible_over(kPicture); }));
    EXPECT_GT(std::chrono::steady_clock::now() - moved, std::chrono::milliseconds(2000));
    expect_color(kBarPoint, kPicture);
}

TEST_F(Controls, BarShowsVolumeAndMute) {
    start_player_with_bar({"--has-audio", "--audio-volume", "0.5"});
    constexpr Color kLevel{.red = 100, .green = 180, .blue = 255};
    constexpr Color kTrack{.red = 80, .green = 80, .blue = 80};
    constexpr Color kWhite{.red = 255, .green = 255, .blue = 255};
    constexpr Color kMuted{.red = 200, .green = 60, .blue = 60};
    expect_color({.x = 15, .y = kBarY - 4}, kWhite);  // speaker
    expect_color(slider_at(0.25), kLevel);
    expect_color(slider_at(0.5), kWhite);  // knob
    expect_color(slider_at(0.75), kTrack);
    window->press_key("m");
    expect_color({.x = 15, .y = kBarY - 4}, kMuted);
    expect_color(slider_at(0.25), kTrack);
}

TEST_F(Controls, KeyMFlipsMuteAndKeepsTheVolume) {
    keep_bar();
    start_player_with_picture({"--has-audio", "--audio-volume", "0.5"});
    window->press_key("m");
    EXPECT_EQ(parent.next_message(),
              (Message{0x41, 0x55, 0x44, 0x53, 0x01, 0x00, 0x00, 0x00, 0x3F}));
    window->press_key("m");
    EXPECT_EQ(parent.next_message(),
              (Message{0x41, 0x55, 0x44, 0x53, 0x00, 0x00, 0x00, 0x00, 0x3F}));
    EXPECT_TRUE(eventually([this] { return bar_is_visible_over(kPicture); }));
}

TEST_F(Controls, KeysUpAndDownStepTheVolumeAndStopAtItsEnds) {
    start_player_with_picture({"--has-audio", "--audio-volume", "0.92"});
    window->press_key("Up");
    EXPECT_EQ(parent.next_message(), audio_state(false, 0.92F + 0.05F));
    window->press_key("Up");
    EXPECT_EQ(parent.next_message(), audio_state(false, 1.0F));
    window->press_key("Down");
    EXPECT_EQ(parent.next_message(), audio_state(false, 1.0F - 0.05F));
    window->press_key("m");
    EXPECT_EQ(parent.next_message(), audio_state(true, 1.0F - 0.05F));
    window->press_key("Down");
    EXPECT_EQ(parent.next_message(), audio_state(true, 1.0F - 0.05F - 0.05F));
}

TEST_F(Controls, StartUpAudioStateIsNotSent) {
    start_player_with_picture({"--has-audio", "--audio-volume", "0.3", "--audio-muted"});
    window->press_key("m");
    EXPECT_EQ(parent.next_message(), audio_state(false, 0.3F));
}

TEST_F(Controls, ClickOnTheSpeakerFlipsMute) {
    start_player_with_bar({"--has-audio"});
    window->click(kMuteButton);
    EXPECT_EQ(parent.next_message(), audio_state(true, 1.0F));
    window->click({.x = 43, .y = kPictureSize.height - 36});  // the button's last pixel
    EXPECT_EQ(parent.next_message(), audio_state(false, 1.0F));
}

TEST_F(Controls, ClickOnTheSliderSetsTheVolume) {
    start_player_with_bar({"--has-audio"});
    window->click(slider_at(0.5));
    EXPECT_EQ(parent.next_message(), audio_state(false, 0.5F));
    window->click(slider_at(0.0));
    EXPECT_EQ(parent.next_message(), audio_state(false, 0.0F));
    window->click(slider_at(1.0));
    EXPECT_EQ(parent.next_message(), audio_state(false, 1.0F));
}

TEST_F(Controls, ClicksBesideTheButtonsDoNothing) {
    start_player_with_bar({"--has-audio"});
    window->click({.x = 46, .y = kBarY});                     // between speaker and slider
    window->click({.x = 354, .y = kBarY});                    // right of the slider
    window->click({.x = 20, .y = kPictureSize.height - 37});  // just above the bar
    window->click(slider_at(0.25));
    EXPECT_EQ(parent.next_message(), audio_state(false, 0.25F));
}

TEST_F(Controls, DragReportsEveryMotionUntilTheButtonIsReleased) {
    start_player_with_bar({"--has-audio"});
    window->press_button(slider_at(0.5), 1);
    EXPECT_EQ(parent.next_message(), audio_state(false, 0.5F));
    window->move_pointer(slider_at(0.75));
    EXPECT_EQ(parent.next_message(), audio_state(false, 0.75F));
    window->move_pointer({.x = 10, .y = 50});  // anywhere: only x counts, and it is clamped
    EXPECT_EQ(parent.next_message(), audio_state(false, 0.0F));
    window->release_button(1);
    window->move_pointer(slider_at(0.75));
    window->press_key("m");
    EXPECT_EQ(parent.next_message(), audio_state(true, 0.0F));
    expect_clean_end();
    EXPECT_TRUE(parent.has_no_message());
}

TEST_F(Controls, BarStaysWhileTheSliderIsHeld) {
    start_player_with_bar({"--has-audio"});
    window->press_button(slider_at(0.5), 1);
    EXPECT_EQ(parent.next_message(), audio_state(false, 0.5F));
    let_bar_go();
    // Nothing signals that nothing happens: watch for longer than the bar would otherwise stay.
    EXPECT_FALSE(eventually([this] { return !bar_is_visible_over(kPicture); },
                            std::chrono::milliseconds(2500)));
    window->release_button(1);
    EXPECT_TRUE(eventually([this] { return !bar_is_visible_over(kPicture); }));
}

TEST_F(Controls, WithoutSoundTheBarIsDrawnAndItsControlsAreSilent) {
    start_player_with_bar({});
    window->click(kMuteButton);
    constexpr Color kLevel{.red = 100, .green = 180, .blue = 255};
    expect_color(slider_at(0.25), kLevel);
    window->click(slider_at(0.1));
    window->press_key("m");
    window->press_key("Down");
    window->press_key("Up");
    expect_color(slider_at(0.25), kLevel);  // still full volume
    expect_clean_end();
    EXPECT_TRUE(parent.has_no_message());
}

}  // namespace vesper::test
