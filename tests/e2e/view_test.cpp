// Zoom, pan and fullscreen, by the pixels that they move.
#include <sstream>
#include <string>

#include "tests/e2e/player_fixture.h"

namespace vesper::test {

namespace {

// Where four fields meet.
constexpr Point kCrossing{.x = 2 * kFieldSize, .y = kFieldSize};

// Clear of the crossing after any zoom of these tests, and inside the same fields.
constexpr int kAside = 14;  // pixels

constexpr int kRightButton = 3;

Point moved(Point point, int dx, int dy) {
    return {.x = point.x + dx, .y = point.y + dy};
}

}  // namespace

class View : public PlayerTest {
  protected:
    void start_player_with_fields(const std::vector<std::string>& more = {}) {
        start_player(more);
        show_first_picture(fields_picture());
        expect_unzoomed();
    }

    // The four fields around `crossing` of the picture meet at `point` of the window.
    void expect_crossing_at(Point point, Point crossing) {
        for (const int dy : {-kAside, kAside}) {
            for (const int dx : {-kAside, kAside}) {
                expect_color(moved(point, dx, dy), field_color(moved(crossing, dx, dy)));
            }
        }
    }

    // All crossings are where the stream has them.
    void expect_unzoomed() {
        for (int y = kFieldSize; y < kPictureSize.height; y += kFieldSize) {
            for (int x = kFieldSize; x < kPictureSize.width; x += kFieldSize) {
                expect_crossing_at({.x = x, .y = y}, {.x = x, .y = y});
            }
        }
    }
};

TEST_F(View, WheelAtTheCentreShowsTheMiddleOfThePicture) {
    start_player_with_fields();
    window->wheel_up({.x = 200, .y = 120});
    // 320x192 of the picture from (40, 24), enlarged 1.25 times.
    expect_crossing_at({.x = 150, .y = 70}, {.x = 160, .y = 80});
    expect_crossing_at({.x = 250, .y = 170}, {.x = 240, .y = 160});
    expect_crossing_at({.x = 50, .y = 70}, {.x = 80, .y = 80});
}

TEST_F(View, WheelKeepsThePointUnderThePointer) {
    start_player_with_fields();
    for (int step = 0; step < 3; ++step) {
        window->wheel_up(kCrossing);
    }
    // Enlarged 1.953 times about the crossing: the next crossing is 156 pixels away, not 80.
    expect_crossing_at(moved(kCrossing, 156, 0), {.x = 240, .y = 80});
    expect_crossing_at(kCrossing, kCrossing);
}

TEST_F(View, WheelBackReturnsToTheWholePicture) {
    start_player_with_fields();
    window->wheel_up(kCrossing);
    expect_crossing_at(moved(kCrossing, 100, 0), {.x = 240, .y = 80});
    window->wheel_down(kCrossing);
    expect_unzoomed();
}

TEST_F(View, RightDragMovesThePictureWithThePointer) {
    start_player_with_fields();
    window->wheel_up(kCrossing);
    window->wheel_up(kCrossing);
    expect_crossing_at(moved(kCrossing, 125, 0), {.x = 240, .y = 80});
    window->press_button(kCrossing, kRightButton);
    window->move_pointer(moved(kCrossing, 30, 20));
    expect_crossing_at(moved(kCrossing, 30, 20), kCrossing);
    window->release_button(kRightButton);
    window->move_pointer(moved(kCrossing, -60, -40));
    // When the zoom shows, the player has taken that motion. The crossing is then 1.25 times as
    // far from the pointer.
    window->wheel_up(moved(kCrossing, -60, -40));
    expect_crossing_at(moved(kCrossing, -60 + 112, -40 + 75), kCrossing);
}

TEST_F(View, RightDragDoesNotMoveTheWholePicture) {
    start_player_with_fields({"--has-audio"});
    window->press_button(kCrossing, kRightButton);
    window->move_pointer(moved(kCrossing, 60, 40));
    // When the player answers the key, it has taken the drag. What came of that is seen in pictures
    // that it shows later: another one, then the fields again.
    window->press_key("m");
    ASSERT_EQ(parent.next_message(), audio_state(true, 1.0F));
    constexpr Color kOther{.red = 60, .green = 160, .blue = 220};
    show_picture(flat_picture(kOther));
    expect_color(kCrossing, kOther);
    show_picture(fields_picture());
    expect_unzoomed();
    // Nor is the drag made up for when the picture can move.
    window->release_button(kRightButton);
    window->wheel_up(kCrossing);
    expect_crossing_at(moved(kCrossing, 100, 0), {.x = 240, .y = 80});
    expect_crossing_at(kCrossing, kCrossing);
}

TEST_F(View, KeyRResetsTheZoom) {
    start_player_with_fields();
    window->wheel_up(kCrossing);
    expect_crossing_at(moved(kCrossing, 100, 0), {.x = 240, .y = 80});
    window->press_key("r");
    expect_unzoomed();
}

// Fullscreen is the window manager's work.
class FullscreenWindow : public View {
  protected:
    void SetUp() override {
        display.run_window_manager();
        // Two clicks are a double click however long the player takes from one to the other.
        environment["SDL_MOUSE_DOUBLE_CLICK_TIME"] = "600000";  // ms
        keep_bar();
        start_player_with_fields();
        saved_size_ = window->size();
        saved_position_ = window->position();
    }

    void expect_fullscreen() {
        EXPECT_TRUE(eventually([this] {
            return window->size() == VirtualDisplay::kSize && window->position() == Point{};
        })) << window->size()
            << " at " << window->position();
        // The corner fields are in the corners of the screen.
        expect_color({.x = 2, .y = 2}, field_color({.x = 0, .y = 0}));
        expect_color({.x = VirtualDisplay::kSize.width - 3, .y = 2},
                     field_color({.x = 399, .y = 0}));
    }

    void expect_window() {
        EXPECT_TRUE(eventually([this] { return has_saved_geometry(); })) << geometry();
        expect_crossing_at(kCrossing, kCrossing);
        // The right geometry may have been one on the way to a wrong one: once the player has
        // zoomed, it has asked the window manager for everything.
        window->wheel_up(kCrossing);
        expect_crossing_at(moved(kCrossing, 100, 0), {.x = 240, .y = 80});
        display.wait_for_window_manager();
        EXPECT_TRUE(has_saved_geometry()) << geometry();
    }

  private:
    [[nodiscard]] bool has_saved_geometry() const {
        return window->size() == saved_size_ && window->position() == saved_position_;
    }
    [[nodiscard]] std::string geometry() const {
        std::ostringstream text;
        text << window->size() << " at " << window->position() << ", saved were " << saved_size_
             << " at " << saved_position_;
        return text.str();
    }

    Extent saved_size_;
    Point saved_position_;
};

TEST_F(FullscreenWindow, KeyFGoesThereAndBack) {
    window->press_key("f");
    expect_fullscreen();
    window->press_key("f");
    expect_window();
}

TEST_F(FullscreenWindow, KeyF11GoesThereAndEscapeComesBack) {
    window->press_key("F11");
    expect_fullscreen();
    window->press_key("Escape");
    expect_window();
}

TEST_F(FullscreenWindow, EscapeInAWindowDoesNothing) {
    window->press_key("Escape");
    window->press_key("F11");
    expect_fullscreen();
    window->press_key("F11");
    expect_window();
}

TEST_F(FullscreenWindow, DoubleClickOnThePictureGoesThereAndBack) {
    window->double_click({.x = 100, .y = 100});
    expect_fullscreen();
    window->double_click({.x = 500, .y = 100});
    expect_window();
}

TEST_F(FullscreenWindow, ButtonOfTheBarWorksWithoutSound) {
    window->click({.x = kPictureSize.width - 24, .y = kPictureSize.height - 18});
    expect_fullscreen();
    window->click({.x = VirtualDisplay::kSize.width - 24, .y = VirtualDisplay::kSize.height - 18});
    expect_window();
}

}  // namespace vesper::test
