// The picture reaches the edges of the window, whatever its size: libraries work in blocks, and
// what is left over of a size that is no multiple of theirs is easily left out.
#include <cstdint>
#include <optional>
#include <string>
#include <tuple>

#include "tests/e2e/live_stream_fixture.h"
#include "tests/e2e/wayland_compositor.h"

namespace vesper::test {

namespace {

constexpr Color kBright{.red = 220, .green = 120, .blue = 60};

// How the window gets onto the screen.
constexpr auto kSoftwareOnX11 = "SoftwareOnX11";
constexpr auto kOpenGlOnX11 = "OpenGlOnX11";
constexpr auto kWayland = "Wayland";

}  // namespace

class PictureEdges : public LiveStreamTest,
                     public testing::WithParamInterface<std::tuple<const char*, Extent>> {
  protected:
    PictureEdges()
        : LiveStreamTest({.width = std::get<1>(GetParam()).width,
                          .height = std::get<1>(GetParam()).height,
                          .bitrate = 8'000'000}) {}

    void SetUp() override {
        const std::string way = std::get<0>(GetParam());
        if (way == kOpenGlOnX11) {
            environment["SDL_RENDER_DRIVER"] = "opengl";
        } else if (way == kWayland) {
            // The kiosk gives the player all of its own window.
            compositor_.emplace(display, directory.path(), "kiosk-shell.so");
            environment.insert(compositor_->environment().begin(),
                               compositor_->environment().end());
            environment["SDL_VIDEODRIVER"] = "wayland";
            environment.erase("SDL_RENDER_DRIVER");
            environment.erase("SDL_FRAMEBUFFER_ACCELERATION");
            environment["SDL_VIDEO_WAYLAND_ALLOW_LIBDECOR"] = "0";
        }
    }

    void start() {
        if (!compositor_) {
            start_player();
            return;
        }
        start_player_anywhere();
        window.emplace(display, 0, WaylandCompositor::kWindowTitle);
    }

    void end() {
        if (!compositor_) {
            expect_explained_end();
            return;
        }
        player->send_signal(SIGTERM);
        EXPECT_EQ(player->wait_for_end(), (Ending{.status = 0, .signal = SIGTERM}));
    }

  private:
    std::optional<WaylandCompositor> compositor_;
};

TEST_P(PictureEdges, LastColumnAndLastRowOfTheWindowAreThePictures) {
    ASSERT_NO_FATAL_FAILURE(start());
    const tools::Picture picture = flat_picture(kBright, stream_size);
    show_picture(picture);
    std::uint64_t answered = 0;  // keyframe requests: a busy player may drop a large picture
    std::optional<Point> found;
    EXPECT_TRUE(eventually([&] {
        live.take_messages();
        if (answered != live.counters().keyframe_requests) {
            answered = live.counters().keyframe_requests;
            show_picture(picture);
        }
        found = window->screenshot().fault_at_edge(kBright);
        return !found;
    })) << "not so at "
        << *found;
    end();
}

INSTANTIATE_TEST_SUITE_P(, PictureEdges,
                         testing::Combine(testing::Values(kSoftwareOnX11, kOpenGlOnX11, kWayland),
                                          testing::Values(Extent{.width = 854, .height = 480},
                                                          Extent{.width = 1366, .height = 768},
                                                          Extent{.width = 390, .height = 844},
                                                          Extent{.width = 1080, .height = 1920},
                                                          Extent{.width = 640, .height = 360},
                                                          Extent{.width = 500, .height = 500},
                                                          Extent{.width = 175, .height = 143})),
                         [](const auto& parameters) {
                             const Extent size = std::get<1>(parameters.param);
                             return std::string(std::get<0>(parameters.param)) + "_" +
                                    std::to_string(size.width) + "x" + std::to_string(size.height);
                         });

}  // namespace vesper::test
