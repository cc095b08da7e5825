// The newest picture on the window: render(), update() and the stream-ended overlay.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "client/picture_format.h"
#include "client/video_receiver.h"
#include "tests/support/guarded_memory.h"
#include "tests/support/hook.h"
#include "tests/support/transcript.h"
#include "tests/support/video_receiver_peer.h"

// clang-format off: one hook a line
VESPER_HOOK(fflush, int, (FILE * stream), (stream))
VESPER_HOOK(SDL_UpdateTexture, int,
            (SDL_Texture * texture, const SDL_Rect* area, const void* pixels, int pitch),
            (texture, area, pixels, pitch))
VESPER_HOOK(SDL_RenderClear, int, (SDL_Renderer * renderer), (renderer))
VESPER_HOOK(SDL_RenderCopy, int,
            (SDL_Renderer * renderer, SDL_Texture* texture, const SDL_Rect* from,
             const SDL_Rect* to),
            (renderer, texture, from, to))
VESPER_HOOK(SDL_RenderPresent, void, (SDL_Renderer * renderer), (renderer))
VESPER_HOOK(SDL_GetWindowSize, void, (SDL_Window * window, int* w, int* h), (window, w, h))
VESPER_HOOK(SDL_GetRendererOutputSize, int, (SDL_Renderer * renderer, int* w, int* h),
            (renderer, w, h))
VESPER_HOOK(SDL_SetRenderDrawBlendMode, int, (SDL_Renderer * renderer, SDL_BlendMode mode),
            (renderer, mode))
VESPER_HOOK(SDL_SetRenderDrawColor, int,
            (SDL_Renderer * renderer, Uint8 r, Uint8 g, Uint8 b, Uint8 a), (renderer, r, g, b, a))
VESPER_HOOK(SDL_RenderFillRect, int, (SDL_Renderer * renderer, const SDL_Rect* area),
            (renderer, area))
VESPER_HOOK(SDL_RenderDrawRect, int, (SDL_Renderer * renderer, const SDL_Rect* area),
            (renderer, area))
// clang-format on

namespace vesper::client {
namespace {

using test::HookedTest;
using test::Transcript;

// Stand-ins for SDL's objects.
auto* const kWindow = reinterpret_cast<SDL_Window*>(0x1000);
auto* const kRenderer = reinterpret_cast<SDL_Renderer*>(0x2000);
auto* const kTexture = reinterpret_cast<SDL_Texture*>(0x3000);

constexpr int kStreamWidth = 16;
constexpr int kStreamHeight = 9;

std::string text_of(const SDL_Rect* area) {
    if (area == nullptr) {
        return "all";
    }
    return "{" + std::to_string(area->x) + ", " + std::to_string(area->y) + ", " +
           std::to_string(area->w) + ", " + std::to_string(area->h) + "}";
}

// A live receiver whose drawing calls are entered and go nowhere.
class Presentation : public HookedTest {
  protected:
    void SetUp() override {
        hook_fflush = [this](FILE* stream) {
            transcript.note("flush");
            return __real_fflush(stream);
        };
        hook_SDL_UpdateTexture = [this](SDL_Texture* texture, const SDL_Rect* area,
                                        const void* pixels, int pitch) {
            EXPECT_EQ(texture, kTexture);
            EXPECT_EQ(pixels, peer.picture().data());
            transcript.note("SDL_UpdateTexture(%s, pitch %d)", text_of(area).c_str(), pitch);
            EXPECT_FALSE(picture_is_free());
            EXPECT_TRUE(peer.picture_ready()) << "cleared after the upload";
            return 0;
        };
        hook_SDL_RenderClear = [this](SDL_Renderer* renderer) {
            EXPECT_EQ(renderer, kRenderer);
            EXPECT_TRUE(picture_is_free());
            transcript.note("SDL_RenderClear");
            return 0;
        };
        hook_SDL_RenderCopy = [this](SDL_Renderer* renderer, SDL_Texture* texture,
                                     const SDL_Rect* from, const SDL_Rect* to) {
            EXPECT_EQ(renderer, kRenderer);
            EXPECT_EQ(texture, kTexture);
            transcript.note("SDL_RenderCopy(%s, %s)", text_of(from).c_str(), text_of(to).c_str());
            return 0;
        };
        hook_SDL_RenderPresent = [this](SDL_Renderer* renderer) {
            EXPECT_EQ(renderer, kRenderer);
            transcript.note("SDL_RenderPresent");
        };
        hook_sizes();
        hook_drawing();
        peer.uid() = 7;
        peer.frame_width() = kStreamWidth;
        peer.frame_height() = kStreamHeight;
        peer.window() = kWindow;
        peer.renderer() = kRenderer;
        peer.texture() = kTexture;
        peer.picture().resize(kStreamWidth * kStreamHeight * 4);
        peer.running() = true;
    }

    void hook_sizes() {
        hook_SDL_GetWindowSize = [this](SDL_Window* window, int* w, int* h) {
            EXPECT_EQ(window, kWindow);
            transcript.note("SDL_GetWindowSize");
            *w = 640;
            *h = 480;
        };
        hook_SDL_GetRendererOutputSize = [this](SDL_Renderer* renderer, int* w, int* h) {
            EXPECT_EQ(renderer, kRenderer);
            transcript.note("SDL_GetRendererOutputSize");
            *w = output_width;
            *h = output_height;
            return 0;
        };
    }

    void hook_drawing() {
        hook_SDL_SetRenderDrawBlendMode = [this](SDL_Renderer* renderer, SDL_BlendMode mode) {
            EXPECT_EQ(renderer, kRenderer);
            transcript.note("SDL_SetRenderDrawBlendMode(%s)",
                            mode == SDL_BLENDMODE_BLEND ? "blend" : "other");
            return 0;
        };
        hook_SDL_SetRenderDrawColor = [this](SDL_Renderer* renderer, int r, int g, int b, int a) {
            EXPECT_EQ(renderer, kRenderer);
            transcript.note("SDL_SetRenderDrawColor(%d, %d, %d, %d)", r, g, b, a);
            return 0;
        };
        hook_SDL_RenderFillRect = [this](SDL_Renderer* renderer, const SDL_Rect* area) {
            EXPECT_EQ(renderer, kRenderer);
            transcript.note("SDL_RenderFillRect(%s)", text_of(area).c_str());
            return 0;
        };
        hook_SDL_RenderDrawRect = [this](SDL_Renderer* renderer, const SDL_Rect* area) {
            EXPECT_EQ(renderer, kRenderer);
            transcript.note("SDL_RenderDrawRect(%s)", text_of(area).c_str());
            return 0;
        };
    }

    // Whether another thread gets picture_mutex.
    bool picture_is_free() {
        bool got = false;
        std::thread([&] {
            got = peer.picture_mutex().try_lock();
            if (got) {
                peer.picture_mutex().unlock();
            }
        }).join();
        return got;
    }

    void end_stream() {
        receiver.mark_stream_ended();
        static_cast<void>(transcript.take());
    }

    void set_recording_callback() {
        receiver.set_overlay_callback([this](SDL_Renderer* renderer, int w, int h) {
            EXPECT_EQ(renderer, kRenderer);
            transcript.note("callback(%d, %d)", w, h);
        });
    }

    int output_width = 1280;
    int output_height = 720;
    Transcript transcript;
    VideoReceiver receiver;
    VideoReceiverPeer peer{receiver};
};

constexpr auto kWholePicture =
    "SDL_RenderClear\n"
    "SDL_RenderCopy(all, all)\n"
    "SDL_RenderPresent\n";

constexpr auto kUploadAndWholePicture =
    "SDL_UpdateTexture(all, pitch 64)\n"
    "SDL_RenderClear\n"
    "SDL_RenderCopy(all, all)\n"
    "SDL_RenderPresent\n";

constexpr auto kEndedOverlay =
    "SDL_GetRendererOutputSize\n"
    "SDL_SetRenderDrawBlendMode(blend)\n"
    "SDL_SetRenderDrawColor(0, 0, 0, 180)\n"
    "SDL_RenderFillRect({0, 0, 1280, 720})\n"
    "SDL_SetRenderDrawColor(255, 255, 255, 255)\n"
    "SDL_RenderDrawRect({440, 320, 400, 80})\n"
    "SDL_RenderDrawRect({439, 319, 402, 82})\n"
    "SDL_RenderDrawRect({438, 318, 404, 84})\n"
    "SDL_SetRenderDrawColor(200, 200, 200, 255)\n"
    "SDL_RenderFillRect({628, 348, 24, 24})\n";

// ---- render ----

TEST_F(Presentation, RenderPresentsTheTextureAgainWithoutANewPicture) {
    receiver.render();
    EXPECT_EQ(transcript.take(), kWholePicture);
}

TEST_F(Presentation, APictureIsNewUntilItIsShownOrTheStreamHasEnded) {
    EXPECT_FALSE(receiver.has_new_picture());
    for (const bool with_update : {false, true}) {
        peer.picture_ready() = true;
        EXPECT_TRUE(receiver.has_new_picture());
        with_update ? receiver.update() : receiver.render();
        EXPECT_FALSE(receiver.has_new_picture());
    }
    peer.picture_ready() = true;
    peer.running() = false;
    EXPECT_FALSE(receiver.has_new_picture());
}

TEST_F(Presentation, RenderUploadsANewPictureOnceUnderItsLock) {
    peer.picture_ready() = true;
    receiver.render();
    EXPECT_EQ(transcript.take(), kUploadAndWholePicture);
    EXPECT_FALSE(peer.picture_ready());
    receiver.render();
    EXPECT_EQ(transcript.take(), kWholePicture);
}

TEST_F(Presentation, RenderCopiesTheZoomedPartOverTheWholeTarget) {
    receiver.set_zoom_rect(true, 100, 50, 640, 360);
    receiver.render();
    EXPECT_EQ(transcript.take(),
              "SDL_RenderClear\n"
              "SDL_RenderCopy({100, 50, 640, 360}, all)\n"
              "SDL_RenderPresent\n");
}

TEST_F(Presentation, RenderCopiesAZoomedPartOfASinglePixel) {
    receiver.set_zoom_rect(true, 0, 0, 1, 1);
    receiver.render();
    EXPECT_EQ(transcript.take(),
              "SDL_RenderClear\n"
              "SDL_RenderCopy({0, 0, 1, 1}, all)\n"
              "SDL_RenderPresent\n");
}

TEST_F(Presentation, ZoomSwitchedOffShowsTheWholePicture) {
    receiver.set_zoom_rect(false, 100, 50, 640, 360);
    receiver.render();
    EXPECT_EQ(transcript.take(), kWholePicture);
}

TEST_F(Presentation, ZoomOfWidthZeroShowsTheWholePicture) {
    receiver.set_zoom_rect(true, 100, 50, 0, 360);
    receiver.render();
    EXPECT_EQ(transcript.take(), kWholePicture);
}

TEST_F(Presentation, ZoomOfHeightZeroShowsTheWholePicture) {
    receiver.set_zoom_rect(true, 100, 50, 640, 0);
    receiver.render();
    EXPECT_EQ(transcript.take(), kWholePicture);
}

TEST_F(Presentation, ZoomRectangleIsStoredUnchecked) {
    receiver.set_zoom_rect(true, -1, -2, -3, 100000);
    EXPECT_TRUE(peer.zoom_enabled());
    EXPECT_EQ(peer.zoom_x(), -1);
    EXPECT_EQ(peer.zoom_y(), -2);
    EXPECT_EQ(peer.zoom_w(), -3);
    EXPECT_EQ(peer.zoom_h(), 100000);
}

TEST_F(Presentation, CallbackIsCalledLastWithTheWindowsSizeNotTheOutputs) {
    set_recording_callback();
    receiver.render();
    EXPECT_EQ(transcript.take(),
              "SDL_RenderClear\n"
              "SDL_RenderCopy(all, all)\n"
              "SDL_GetWindowSize\n"
              "callback(640, 480)\n"
              "SDL_RenderPresent\n");
}

TEST_F(Presentation, EmptyCallbackSwitchesTheOverlayOff) {
    set_recording_callback();
    receiver.set_overlay_callback({});
    receiver.render();
    EXPECT_EQ(transcript.take(), kWholePicture);
}

TEST_F(Presentation, EndedStreamUploadsNothingAndDrawsItsOverlayUnderTheCallback) {
    end_stream();
    peer.picture_ready() = true;
    set_recording_callback();
    receiver.set_zoom_rect(true, 1, 2, 3, 4);
    receiver.render();
    EXPECT_EQ(transcript.take(), std::string("SDL_RenderClear\n"
                                             "SDL_RenderCopy({1, 2, 3, 4}, all)\n") +
                                     kEndedOverlay +
                                     "SDL_GetWindowSize\n"
                                     "callback(640, 480)\n"
                                     "SDL_RenderPresent\n");
    EXPECT_TRUE(peer.picture_ready());
}

TEST_F(Presentation, EndedFlagOfALiveReceiverDrawsTheOverlayOverNewPictures) {
    peer.stream_ended() = true;
    peer.picture_ready() = true;
    receiver.render();
    EXPECT_EQ(transcript.take(), std::string("SDL_UpdateTexture(all, pitch 64)\n"
                                             "SDL_RenderClear\n"
                                             "SDL_RenderCopy(all, all)\n") +
                                     kEndedOverlay + "SDL_RenderPresent\n");
}

TEST_F(Presentation, RenderDrawsNothingBeforeStartUpAndAfterAStop) {
    peer.running() = false;
    peer.picture_ready() = true;
    set_recording_callback();
    receiver.render();
    EXPECT_EQ(transcript.take(), "");
    EXPECT_TRUE(peer.picture_ready());
}

TEST_F(Presentation, RenderReturnsSilentlyWithoutAnyOneOfTheSdlObjects) {
    peer.picture_ready() = true;
    peer.window() = nullptr;
    receiver.render();
    peer.window() = kWindow;
    peer.renderer() = nullptr;
    receiver.render();
    peer.renderer() = kRenderer;
    peer.texture() = nullptr;
    receiver.render();
    EXPECT_EQ(transcript.take(), "");
}

TEST_F(Presentation, RenderDrawsACondemnedReceiver) {
    receiver.set_condemned(true);
    receiver.render();
    EXPECT_EQ(transcript.take(), kWholePicture);
}

// ---- update ----

TEST_F(Presentation, UpdateIgnoresZoomAndCallback) {
    receiver.set_zoom_rect(true, 100, 50, 640, 360);
    set_recording_callback();
    peer.picture_ready() = true;
    receiver.update();
    EXPECT_EQ(transcript.take(), kUploadAndWholePicture);
    EXPECT_FALSE(peer.picture_ready());
    receiver.update();
    EXPECT_EQ(transcript.take(), kWholePicture);
}

TEST_F(Presentation, UpdateOfAnEndedStreamDrawsTheOverlayOverTheLastPicture) {
    end_stream();
    peer.picture_ready() = true;
    set_recording_callback();
    receiver.update();
    EXPECT_EQ(transcript.take(), std::string("SDL_RenderClear\n"
                                             "SDL_RenderCopy(all, all)\n") +
                                     kEndedOverlay + "SDL_RenderPresent\n");
    EXPECT_TRUE(peer.picture_ready());
}

TEST_F(Presentation, UpdateDrawsNothingBeforeStartUpAndAfterAStop) {
    peer.running() = false;
    receiver.update();
    EXPECT_EQ(transcript.take(), "");
}

TEST_F(Presentation, UpdateSkipsACondemnedReceiverWithALineEveryTime) {
    receiver.set_condemned(true);
    receiver.update();
    receiver.update();
    EXPECT_EQ(transcript.take(),
              "out: [RECV UPDATE] uid=7 SKIPPED: condemned\n"
              "out: [RECV UPDATE] uid=7 SKIPPED: condemned\n");
}

TEST_F(Presentation, UpdateSkipsWithALineEveryTimeWithoutAnyOneOfTheSdlObjects) {
    peer.window() = nullptr;
    receiver.update();
    receiver.update();
    peer.window() = kWindow;
    peer.renderer() = nullptr;
    receiver.update();
    peer.renderer() = kRenderer;
    peer.texture() = nullptr;
    receiver.update();
    EXPECT_EQ(transcript.take(),
              "out: [RECV UPDATE] uid=7 SKIPPED: null SDL (window=(nil), renderer=0x2000, "
              "texture=0x3000)\n"
              "out: [RECV UPDATE] uid=7 SKIPPED: null SDL (window=(nil), renderer=0x2000, "
              "texture=0x3000)\n"
              "out: [RECV UPDATE] uid=7 SKIPPED: null SDL (window=0x1000, renderer=(nil), "
              "texture=0x3000)\n"
              "out: [RECV UPDATE] uid=7 SKIPPED: null SDL (window=0x1000, renderer=0x2000, "
              "texture=(nil))\n");
}

TEST_F(Presentation, UpdateReportsCondemnedBeforeMissingSdlObjects) {
    receiver.set_condemned(true);
    peer.window() = nullptr;
    receiver.update();
    EXPECT_EQ(transcript.take(), "out: [RECV UPDATE] uid=7 SKIPPED: condemned\n");
}

// ---- the stream-ended overlay ----

TEST_F(Presentation, EndedOverlayDimsFramesAndMarksTheCentre) {
    receiver.render_stream_ended_overlay();
    EXPECT_EQ(transcript.take(), kEndedOverlay);
}

TEST_F(Presentation, EndedBoxKeepsItsMarginInANarrowOutput) {
    output_width = 320;
    output_height = 241;
    receiver.render_stream_ended_overlay();
    EXPECT_EQ(transcript.take(),
              "SDL_GetRendererOutputSize\n"
              "SDL_SetRenderDrawBlendMode(blend)\n"
              "SDL_SetRenderDrawColor(0, 0, 0, 180)\n"
              "SDL_RenderFillRect({0, 0, 320, 241})\n"
              "SDL_SetRenderDrawColor(255, 255, 255, 255)\n"
              "SDL_RenderDrawRect({50, 80, 220, 80})\n"
              "SDL_RenderDrawRect({49, 79, 222, 82})\n"
              "SDL_RenderDrawRect({48, 78, 224, 84})\n"
              "SDL_SetRenderDrawColor(200, 200, 200, 255)\n"
              "SDL_RenderFillRect({148, 108, 24, 24})\n");
}

TEST_F(Presentation, EndedBoxIsWidestInAnOutputOf500Pixels) {
    output_width = 499;
    receiver.render_stream_ended_overlay();
    EXPECT_NE(transcript.take().find("SDL_RenderDrawRect({50, 320, 399, 80})\n"),
              std::string::npos);
    output_width = 500;
    receiver.render_stream_ended_overlay();
    EXPECT_NE(transcript.take().find("SDL_RenderDrawRect({50, 320, 400, 80})\n"),
              std::string::npos);
}

TEST_F(Presentation, EndedBoxOfNegativeWidthIsDrawnAsItIs) {
    output_width = 15;
    output_height = 15;
    receiver.render_stream_ended_overlay();
    // Halves are cut off toward zero: (15 - 80) / 2 is -32, (15 - 24) / 2 is -4.
    EXPECT_EQ(transcript.take(),
              "SDL_GetRendererOutputSize\n"
              "SDL_SetRenderDrawBlendMode(blend)\n"
              "SDL_SetRenderDrawColor(0, 0, 0, 180)\n"
              "SDL_RenderFillRect({0, 0, 15, 15})\n"
              "SDL_SetRenderDrawColor(255, 255, 255, 255)\n"
              "SDL_RenderDrawRect({50, -32, -85, 80})\n"
              "SDL_RenderDrawRect({49, -33, -83, 82})\n"
              "SDL_RenderDrawRect({48, -34, -81, 84})\n"
              "SDL_SetRenderDrawColor(200, 200, 200, 255)\n"
              "SDL_RenderFillRect({-4, -4, 24, 24})\n");
}

// ---- with SDL's software renderer ----

constexpr int kRealWidth = 1280;
constexpr int kRealHeight = 720;

struct Pixel {
    int r, g, b;
    bool operator==(const Pixel&) const = default;
};

void PrintTo(const Pixel& pixel, std::ostream* out) {
    *out << pixel.r << ", " << pixel.g << ", " << pixel.b;
}

class PresentationWithSdl : public HookedTest {
  protected:
    void SetUp() override {
        SDL_setenv("SDL_VIDEODRIVER", "dummy", 1);
        ASSERT_EQ(SDL_Init(SDL_INIT_VIDEO), 0) << SDL_GetError();
        ASSERT_TRUE(receiver.start(7, "nia", kRealWidth, kRealHeight, nullptr));
        publish_pattern();
        // Called with everything drawn, right before it is presented.
        receiver.set_overlay_callback([this](SDL_Renderer* renderer, int, int) {
            SDL_GetRendererOutputSize(renderer, &width, &height);
            pixels.resize(static_cast<std::size_t>(width * height));
            EXPECT_EQ(SDL_RenderReadPixels(renderer, nullptr, SDL_PIXELFORMAT_ARGB8888,
                                           pixels.data(), width * 4),
                      0);
        });
    }
    void TearDown() override {
        receiver.stop();
        SDL_Quit();
        HookedTest::TearDown();
    }

    // The stream's picture at x, y: no two of its pixels are equal.
    static Pixel pattern(int x, int y) {
        return {.r = x % 256, .g = y % 256, .b = x / 256 * 16 + y / 256};
    }
    void publish_pattern() {
        const std::lock_guard lock(peer.picture_mutex());
        std::uint8_t* byte = peer.picture().data();
        for (int y = 0; y < kRealHeight; ++y) {
            for (int x = 0; x < kRealWidth; ++x) {
                const Pixel pixel = pattern(x, y);
                *byte++ = static_cast<std::uint8_t>(pixel.b);
                *byte++ = static_cast<std::uint8_t>(pixel.g);
                *byte++ = static_cast<std::uint8_t>(pixel.r);
                *byte++ = 255;
            }
        }
        peer.picture_ready() = true;
    }
    Pixel drawn(int x, int y) const {
        const std::uint32_t argb = pixels[static_cast<std::size_t>(y * width + x)];
        return {.r = static_cast<int>(argb >> 16 & 255),
                .g = static_cast<int>(argb >> 8 & 255),
                .b = static_cast<int>(argb & 255)};
    }

    std::vector<std::uint32_t> pixels;
    int width = 0;  // of the renderer's output
    int height = 0;
    VideoReceiver receiver;
    VideoReceiverPeer peer{receiver};
};

TEST_F(PresentationWithSdl, PictureOfTheWindowsSizeIsShownPixelByPixel) {
    receiver.render();
    ASSERT_EQ(width, kRealWidth);
    ASSERT_EQ(height, kRealHeight);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            ASSERT_EQ(drawn(x, y), pattern(x, y)) << "at " << x << ", " << y;
        }
    }
}

TEST_F(PresentationWithSdl, ZoomedQuarterFillsTheWindow) {
    receiver.set_zoom_rect(true, 100, 50, 640, 360);
    receiver.render();
    ASSERT_EQ(width, kRealWidth);
    ASSERT_EQ(height, kRealHeight);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            ASSERT_EQ(drawn(x, y), pattern(100 + x / 2, 50 + y / 2)) << "at " << x << ", " << y;
        }
    }
}

TEST_F(PresentationWithSdl, PictureIsStretchedToAWindowOfAnotherShapeWithoutLetterbox) {
    SDL_SetWindowSize(peer.window(), 800, 800);
    SDL_PumpEvents();
    receiver.render();
    ASSERT_EQ(width, 800);
    ASSERT_EQ(height, 800);
    // Nearest pixel: 1.6 picture pixels a column, 0.9 a row.
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const int picture_x = drawn(x, y).r + drawn(x, y).b / 16 * 256;
            const int picture_y = drawn(x, y).g + drawn(x, y).b % 16 * 256;
            ASSERT_NEAR(picture_x, x * 1.6, 1.7) << "at " << x << ", " << y;
            ASSERT_NEAR(picture_y, y * 0.9, 1.0) << "at " << x << ", " << y;
        }
    }
}

// SDL copies rows with vector code, which the sanitizers do not see.
TEST(PresentationMemory, UploadReadsNoFurtherThanThePicture) {
    SDL_setenv("SDL_VIDEODRIVER", "dummy", 1);
    ASSERT_EQ(SDL_Init(SDL_INIT_VIDEO), 0) << SDL_GetError();
    int uploads = 0;
    hook_SDL_UpdateTexture = [&uploads](SDL_Texture* texture, const SDL_Rect* area,
                                        const void* pixels, int pitch) {
        int width = 0;
        int height = 0;
        SDL_QueryTexture(texture, nullptr, nullptr, &width, &height);
        const test::GuardedMemory<std::uint8_t> guarded(picture_size(width, height));
        std::memcpy(guarded.data(), pixels, guarded.size());
        ++uploads;
        return __real_SDL_UpdateTexture(texture, area, guarded.data(), pitch);
    };
    for (int width = 1; width <= 40; ++width) {
        for (const int height : {1, 2, 7}) {
            VideoReceiver receiver;
            ASSERT_TRUE(receiver.start(7, "nia", width, height, nullptr));
            VideoReceiverPeer(receiver).picture_ready() = true;
            receiver.render();
            receiver.stop();
        }
    }
    EXPECT_EQ(uploads, 120);
    hook_SDL_UpdateTexture = nullptr;
    SDL_Quit();
}

TEST_F(PresentationWithSdl, EndedStreamKeepsTheLastUploadedPictureDimmed) {
    receiver.render();
    receiver.mark_stream_ended();
    {
        const std::lock_guard lock(peer.picture_mutex());
        peer.picture().assign(peer.picture().size(), 255);  // decoded, but never uploaded
        peer.picture_ready() = true;
    }
    receiver.render();
    for (const auto& [x, y] : {std::array{10, 10}, std::array{700, 200}, std::array{1270, 710}}) {
        const Pixel original = pattern(x, y);
        constexpr double kLeft = 75.0 / 255;  // of the light, under black of opacity 180
        EXPECT_NEAR(drawn(x, y).r, original.r * kLeft, 2) << "at " << x << ", " << y;
        EXPECT_NEAR(drawn(x, y).g, original.g * kLeft, 2) << "at " << x << ", " << y;
        EXPECT_NEAR(drawn(x, y).b, original.b * kLeft, 2) << "at " << x << ", " << y;
    }
    EXPECT_EQ(drawn(440, 320), (Pixel{255, 255, 255})) << "the frame";
    EXPECT_EQ(drawn(438, 318), (Pixel{255, 255, 255})) << "its outermost line";
    EXPECT_NE(drawn(437, 317), (Pixel{255, 255, 255})) << "beside it";
    EXPECT_EQ(drawn(640, 360), (Pixel{200, 200, 200})) << "the centre mark";
}

}  // namespace
}  // namespace vesper::client
