#include "player/control_bar.h"

#include <SDL2/SDL.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <limits>
#include <string>
#include <vector>

#include "tests/support/captured_output.h"
#include "tests/support/hook.h"

VESPER_HOOK(SDL_SetRenderDrawBlendMode, int, (SDL_Renderer * renderer, SDL_BlendMode mode),
            (renderer, mode))
VESPER_HOOK(SDL_SetRenderDrawColor, int,
            (SDL_Renderer * renderer, Uint8 r, Uint8 g, Uint8 b, Uint8 a), (renderer, r, g, b, a))
VESPER_HOOK(SDL_RenderFillRect, int, (SDL_Renderer * renderer, const SDL_Rect* rect),
            (renderer, rect))
VESPER_HOOK(SDL_RenderDrawLine, int, (SDL_Renderer * renderer, int x1, int y1, int x2, int y2),
            (renderer, x1, y1, x2, y2))

namespace {

using testing::ElementsAreArray;

using Calls = std::vector<std::string>;

Calls operator+(Calls calls, const Calls& more) {
    calls.insert(calls.end(), more.begin(), more.end());
    return calls;
}

// Most bars here are drawn in a window 300 high: the bar begins at 264, its centre line is at 282.
constexpr int kHeight = 300;

Calls background(int w) {
    return {"blend 1", "color 0 0 0 180", "rect 0 264 " + std::to_string(w) + " 36"};
}

Calls speaker(const std::string& color) {
    return {"color " + color,     "rect 12 277 8 10",   "line 20 277 20 287", "line 21 277 21 287",
            "line 22 276 22 288", "line 23 276 23 288", "line 24 275 24 289", "line 25 275 25 289",
            "line 26 274 26 290", "line 27 274 27 290"};
}
const std::string kWhite = "255 255 255 255";
const std::string kRed = "200 60 60 255";

const Calls kWaveColor = {"color 180 180 180 200"};
const Calls kInnerWaves = {"line 30 278 32 276", "line 30 286 32 288"};
const Calls kOuterWaves = {"line 33 276 36 273", "line 33 288 36 291"};
const Calls kMuteStroke = {"color 255 80 80 255", "line 8 294 36 270", "line 9 294 37 270"};

Calls slider(int track, int fill, int knob_x) {
    return {"color 80 80 80 255",    "rect 48 279 " + std::to_string(track) + " 6",
            "color 100 180 255 255", "rect 48 279 " + std::to_string(fill) + " 6",
            "color 255 255 255 255", "rect " + std::to_string(knob_x) + " 276 12 12"};
}

// The icon to enter fullscreen in a window 400 wide.
const Calls kEnterFullscreen = {
    "color 200 200 200 255", "line 368 276 372 276", "line 368 276 368 280",
    "line 384 276 380 276",  "line 384 276 384 280", "line 368 288 372 288",
    "line 368 288 368 284",  "line 384 288 380 288", "line 384 288 384 284"};
const Calls kLeaveFullscreen = {
    "color 200 200 200 255", "line 372 276 368 276", "line 372 276 372 280",
    "line 380 276 384 276",  "line 380 276 380 280", "line 372 288 368 288",
    "line 372 288 372 284",  "line 380 288 384 288", "line 380 288 380 284"};

// Records every drawing call.
class ControlBar : public vesper::test::HookedTest {
  protected:
    void SetUp() override { record_calls(0); }

    void record_calls(int result) {
        const auto record = [this, result](SDL_Renderer* renderer, const std::string& name,
                                           std::initializer_list<int> arguments) {
            EXPECT_EQ(renderer, this->renderer());
            std::string call = name;
            for (const int argument : arguments) {
                call += " " + std::to_string(argument);
            }
            calls_.push_back(call);
            return result;
        };
        hook_SDL_SetRenderDrawBlendMode = [record](SDL_Renderer* r, SDL_BlendMode mode) {
            return record(r, "blend", {mode});
        };
        hook_SDL_SetRenderDrawColor = [record](SDL_Renderer* to, Uint8 r, Uint8 g, Uint8 b,
                                               Uint8 a) {
            return record(to, "color", {r, g, b, a});
        };
        hook_SDL_RenderFillRect = [record](SDL_Renderer* r, const SDL_Rect* rect) {
            return record(r, "rect", {rect->x, rect->y, rect->w, rect->h});
        };
        hook_SDL_RenderDrawLine = [record](SDL_Renderer* r, int x1, int y1, int x2, int y2) {
            return record(r, "line", {x1, y1, x2, y2});
        };
    }

    Calls draw(int w, int h, bool muted, float volume, bool fullscreen) {
        calls_.clear();
        EXPECT_EQ(vesper::test::printed_by(
                      [&] { render_audio_bar(renderer(), w, h, muted, volume, fullscreen); }),
                  vesper::test::Printed{});
        return calls_;
    }
    Calls draw_audible(float volume) { return draw(400, kHeight, false, volume, false); }

    // Never dereferenced.
    SDL_Renderer* renderer() { return reinterpret_cast<SDL_Renderer*>(&place_); }

  private:
    std::max_align_t place_{};
    Calls calls_;
};

TEST_F(ControlBar, FullVolumeShowsBothWavesAndAFullSlider) {
    EXPECT_THAT(draw_audible(1.0F),
                ElementsAreArray(background(400) + speaker(kWhite) + kWaveColor + kInnerWaves +
                                 kOuterWaves + slider(300, 300, 342) + kEnterFullscreen));
}

TEST_F(ControlBar, ThreeQuartersShowsBothWaves) {
    EXPECT_THAT(draw_audible(0.75F),
                ElementsAreArray(background(400) + speaker(kWhite) + kWaveColor + kInnerWaves +
                                 kOuterWaves + slider(300, 225, 267) + kEnterFullscreen));
}

TEST_F(ControlBar, JustAboveOneHalfShowsBothWaves) {
    EXPECT_THAT(draw_audible(std::nextafter(0.5F, 1.0F)),
                ElementsAreArray(background(400) + speaker(kWhite) + kWaveColor + kInnerWaves +
                                 kOuterWaves + slider(300, 150, 192) + kEnterFullscreen));
}

TEST_F(ControlBar, OneHalfShowsTheInnerWavesOnly) {
    EXPECT_THAT(draw_audible(0.5F),
                ElementsAreArray(background(400) + speaker(kWhite) + kWaveColor + kInnerWaves +
                                 slider(300, 150, 192) + kEnterFullscreen));
}

TEST_F(ControlBar, JustAboveAFifthShowsTheInnerWaves) {
    EXPECT_THAT(draw_audible(std::nextafter(0.2F, 1.0F)),
                ElementsAreArray(background(400) + speaker(kWhite) + kWaveColor + kInnerWaves +
                                 slider(300, 60, 102) + kEnterFullscreen));
}

// The nearest single-precision number to one fifth lies above it; only a comparison in single
// precision calls the two equal. The waves' colour is set even though none is drawn.
TEST_F(ControlBar, AFifthShowsNoWavesButSetsTheirColor) {
    EXPECT_THAT(draw_audible(0.2F),
                ElementsAreArray(background(400) + speaker(kWhite) + kWaveColor +
                                 slider(300, 60, 102) + kEnterFullscreen));
}

TEST_F(ControlBar, TheSmallestVolumeSetsTheWaveColor) {
    EXPECT_THAT(draw_audible(std::numeric_limits<float>::denorm_min()),
                ElementsAreArray(background(400) + speaker(kWhite) + kWaveColor +
                                 slider(300, 0, 42) + kEnterFullscreen));
}

TEST_F(ControlBar, SilenceShowsAWhiteSpeakerAndAnEmptySlider) {
    EXPECT_THAT(draw_audible(0.0F), ElementsAreArray(background(400) + speaker(kWhite) +
                                                     slider(300, 0, 42) + kEnterFullscreen));
}

TEST_F(ControlBar, MinusZeroIsSilence) {
    EXPECT_THAT(draw_audible(-0.0F), ElementsAreArray(background(400) + speaker(kWhite) +
                                                      slider(300, 0, 42) + kEnterFullscreen));
}

TEST_F(ControlBar, NanShowsAsAnEmptySlider) {
    EXPECT_THAT(draw_audible(std::numeric_limits<float>::quiet_NaN()),
                ElementsAreArray(background(400) + speaker(kWhite) + slider(300, 0, 42) +
                                 kEnterFullscreen));
}

// The empty level is drawn as a rectangle without width, the knob at the track's start.
TEST_F(ControlBar, MutedShowsAStruckOutRedSpeakerAndAnEmptySlider) {
    const Calls muted = background(400) + speaker(kRed) + kMuteStroke + slider(300, 0, 42);
    for (const float volume : {0.8F, 0.0F, 1.0F, std::numeric_limits<float>::quiet_NaN()}) {
        EXPECT_THAT(draw(400, kHeight, true, volume, false),
                    ElementsAreArray(muted + kEnterFullscreen));
    }
    EXPECT_THAT(draw(400, kHeight, true, 0.8F, true), ElementsAreArray(muted + kLeaveFullscreen));
}

TEST_F(ControlBar, FullscreenTurnsTheIconsMarksOutward) {
    EXPECT_THAT(draw(400, kHeight, false, 0.5F, true),
                ElementsAreArray(background(400) + speaker(kWhite) + kWaveColor + kInnerWaves +
                                 slider(300, 150, 192) + kLeaveFullscreen));
}

// ---- the slider's length and level ----

class ControlBarSlider : public ControlBar {
  protected:
    // The slider's part of a bar that shows no waves.
    Calls slider_of(int w, float volume) {
        const Calls calls = draw(w, kHeight, false, volume, false);
        const Calls before =
            background(w) + speaker(kWhite) + (volume > 0.0F ? kWaveColor : Calls{});
        EXPECT_EQ(calls.size(), before.size() + 6 + kEnterFullscreen.size());
        return {calls.begin() + static_cast<std::ptrdiff_t>(before.size()),
                calls.begin() + static_cast<std::ptrdiff_t>(before.size()) + 6};
    }
};

TEST_F(ControlBarSlider, TrackTakesWhatTheWindowLeavesUpToThreeHundred) {
    EXPECT_EQ(slider_of(1920, 0.0F), slider(300, 0, 42));
    EXPECT_EQ(slider_of(371, 0.0F), slider(300, 0, 42));
    EXPECT_EQ(slider_of(370, 0.0F), slider(300, 0, 42));
    EXPECT_EQ(slider_of(369, 0.0F), slider(299, 0, 42));
    EXPECT_EQ(slider_of(200, 0.0F), slider(130, 0, 42));
}

TEST_F(ControlBarSlider, TrackIsAtLeastForty) {
    EXPECT_EQ(slider_of(111, 0.0F), slider(41, 0, 42));
    EXPECT_EQ(slider_of(110, 0.0F), slider(40, 0, 42));
    EXPECT_EQ(slider_of(100, 0.0F), slider(40, 0, 42));
    EXPECT_EQ(slider_of(0, 0.0F), slider(40, 0, 42));
}

TEST_F(ControlBarSlider, LevelIsTruncated) {
    EXPECT_EQ(slider_of(400, 0.199F), slider(300, 59, 101));  // 59.7
    EXPECT_EQ(slider_of(100, 0.15F), slider(40, 6, 48));
    EXPECT_EQ(slider_of(100, 0.124F), slider(40, 4, 46));  // 4.96
}

// In double precision 300 times the float nearest to 0.01 is a little less than 3.
TEST_F(ControlBarSlider, LevelIsComputedInSinglePrecision) {
    EXPECT_EQ(slider_of(400, 0.01F), slider(300, 3, 45));
}

// ---- windows of other sizes ----

TEST_F(ControlBar, IsPlacedFromTheWindowsBottomAndRightEdges) {
    EXPECT_THAT(draw(200, 720, true, 0.8F, true), ElementsAreArray({"blend 1",
                                                                    "color 0 0 0 180",
                                                                    "rect 0 684 200 36",
                                                                    "color 200 60 60 255",
                                                                    "rect 12 697 8 10",
                                                                    "line 20 697 20 707",
                                                                    "line 21 697 21 707",
                                                                    "line 22 696 22 708",
                                                                    "line 23 696 23 708",
                                                                    "line 24 695 24 709",
                                                                    "line 25 695 25 709",
                                                                    "line 26 694 26 710",
                                                                    "line 27 694 27 710",
                                                                    "color 255 80 80 255",
                                                                    "line 8 714 36 690",
                                                                    "line 9 714 37 690",
                                                                    "color 80 80 80 255",
                                                                    "rect 48 699 130 6",
                                                                    "color 100 180 255 255",
                                                                    "rect 48 699 0 6",
                                                                    "color 255 255 255 255",
                                                                    "rect 42 696 12 12",
                                                                    "color 200 200 200 255",
                                                                    "line 172 696 168 696",
                                                                    "line 172 696 172 700",
                                                                    "line 180 696 184 696",
                                                                    "line 180 696 180 700",
                                                                    "line 172 708 168 708",
                                                                    "line 172 708 172 704",
                                                                    "line 180 708 184 708",
                                                                    "line 180 708 180 704"}));
}

TEST_F(ControlBar, IsDrawnEvenInAWindowWithoutSize) {
    EXPECT_THAT(draw(0, 0, false, 1.0F, false), ElementsAreArray({"blend 1",
                                                                  "color 0 0 0 180",
                                                                  "rect 0 -36 0 36",
                                                                  "color 255 255 255 255",
                                                                  "rect 12 -23 8 10",
                                                                  "line 20 -23 20 -13",
                                                                  "line 21 -23 21 -13",
                                                                  "line 22 -24 22 -12",
                                                                  "line 23 -24 23 -12",
                                                                  "line 24 -25 24 -11",
                                                                  "line 25 -25 25 -11",
                                                                  "line 26 -26 26 -10",
                                                                  "line 27 -26 27 -10",
                                                                  "color 180 180 180 200",
                                                                  "line 30 -22 32 -24",
                                                                  "line 30 -14 32 -12",
                                                                  "line 33 -24 36 -27",
                                                                  "line 33 -12 36 -9",
                                                                  "color 80 80 80 255",
                                                                  "rect 48 -21 40 6",
                                                                  "color 100 180 255 255",
                                                                  "rect 48 -21 40 6",
                                                                  "color 255 255 255 255",
                                                                  "rect 82 -24 12 12",
                                                                  "color 200 200 200 255",
                                                                  "line -32 -24 -28 -24",
                                                                  "line -32 -24 -32 -20",
                                                                  "line -16 -24 -20 -24",
                                                                  "line -16 -24 -16 -20",
                                                                  "line -32 -12 -28 -12",
                                                                  "line -32 -12 -32 -16",
                                                                  "line -16 -12 -20 -12",
                                                                  "line -16 -12 -16 -16"}));
}

TEST_F(ControlBar, IsDrawnWholeEvenIfSdlFails) {
    const Calls accepted = draw_audible(0.75F);
    record_calls(-1);
    EXPECT_EQ(draw_audible(0.75F), accepted);
}

}  // namespace
