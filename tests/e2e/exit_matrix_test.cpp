// Every way out of the player, on every window system and renderer, and with the renderer that the
// player and SDL choose where the environment names none. By the time the player's
// window, renderer and texture are to be released, SDL has unloaded the driver that they belong to:
// each pair of drivers has its own way of taking that amiss.
#include <csignal>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>

#include "client/renderer_choice.h"
#include "tests/e2e/player_fixture.h"
#include "tests/e2e/wayland_compositor.h"
#include "tests/support/numbered_addresses.h"

namespace vesper::test {

constexpr auto kVideoDrivers = {"x11", "wayland", "offscreen", "dummy"};
constexpr auto kRenderers = {"opengl", "opengles2", "software"};
constexpr auto kAsItComes = "as_it_comes";  // no renderer named

class ExitMatrixTest : public PlayerTest {
  protected:
    ExitMatrixTest() {
        // Without it SDL's software renderer has nothing to draw on under Wayland.
        environment["SDL_FRAMEBUFFER_ACCELERATION"] = "1";
        preload(environment, VESPER_SHUT_DOWN_PROBE);
        environment["VESPER_RENDERER_FILE"] = renderer_file();
        // Keeps the drivers' own files out of the user's home folder.
        environment["MESA_SHADER_CACHE_DISABLE"] = "true";
        // It writes lines of its own where its decorations are not installed.
        environment["SDL_VIDEO_WAYLAND_ALLOW_LIBDECOR"] = "0";
    }

    void use(const std::string& video_driver, const std::string& renderer) {
        environment["SDL_VIDEODRIVER"] = video_driver;
        if (renderer == kAsItComes) {
            environment.erase("SDL_RENDER_DRIVER");
            environment.erase("SDL_FRAMEBUFFER_ACCELERATION");
        } else {
            environment["SDL_RENDER_DRIVER"] = renderer;
        }
        if (video_driver == "wayland" && !compositor_) {
            compositor_.emplace(display, directory.path());
            environment.insert(compositor_->environment().begin(),
                               compositor_->environment().end());
        }
    }

    // As SDL calls the renderer that the player got; empty when it got none.
    [[nodiscard]] std::string renderer_in_use() const {
        std::ifstream file(renderer_file());
        return {std::istreambuf_iterator<char>(file), {}};
    }

    [[nodiscard]] std::string renderer_file() const { return directory.path() / "renderer"; }

  private:
    std::optional<WaylandCompositor> compositor_;
};

class ExitMatrix : public ExitMatrixTest,
                   public testing::WithParamInterface<std::tuple<const char*, const char*>> {
  protected:
    void SetUp() override { use(video_driver(), renderer()); }

    static std::string video_driver() { return std::get<0>(GetParam()); }
    static std::string renderer() { return std::get<1>(GetParam()); }

    // What runs and ends in this cell does so in the next one, too. It is checked even so, before
    // the test is reported as skipped.
    void TearDown() override {
        PlayerTest::TearDown();
        if (renderer() == kAsItComes) {
            EXPECT_NE(renderer_in_use(), "");
        } else if (renderer_in_use() != renderer()) {
            EXPECT_EQ(renderer_in_use(), "software");
            GTEST_SKIP() << "no such cell here: on " << video_driver() << " SDL has no "
                         << renderer() << " and falls back to software";
        }
    }

    // Shows a picture, so that every object of the stream has been used when the end comes.
    void start_and_show_a_picture() {
        start_player_anywhere({"--has-audio"});
        show_first_picture(fields_picture());
        EXPECT_TRUE(eventually([this] { return player->out() == start_up_text() + progress_text; }))
            << player->out();
    }

    void end_normally() {
        if (video_driver() == "x11") {
            window.emplace(display, player->pid());
            window->close();
        } else {
            player->send_signal(SIGUSR1);
        }
    }
};

TEST_P(ExitMatrix, NormalEndReportsEveryStepAndHasStatusZero) {
    start_and_show_a_picture();
    end_normally();
    expect_end_of_normal_run();
}

TEST_P(ExitMatrix, PortInUseTearsEverythingDownAndHasStatusOne) {
    UDPSocket occupant;
    ASSERT_TRUE(occupant.bind(port));
    run_player({"--port", std::to_string(port)});
    EXPECT_EQ(player->wait_for_end(), (Ending{.status = 1}));
    EXPECT_EQ(with_numbered_addresses(player->out()),
              "[VideoPlayer] Starting on port " + std::to_string(port) +
                  " for streamer 0 (Unknown, 1280x720, audio=no)\n"
                  "[VideoReceiver] Standalone initialized (1280x720)\n" +
                  destructor_text());
    EXPECT_EQ(player->err(),
              "[UDPSocket] bind() failed: Address already in use\n"
              "[VideoPlayer] Failed to bind UDP socket to port " +
                  std::to_string(port) + "\n");
}

TEST_P(ExitMatrix, StreamWithoutWidthTearsDownNothingAndHasStatusOne) {
    run_player({"--port", std::to_string(port), "--width", "0"});
    EXPECT_EQ(player->wait_for_end(), (Ending{.status = 1}));
    EXPECT_EQ(player->out(), "[VideoPlayer] Starting on port " + std::to_string(port) +
                                 " for streamer 0 (Unknown, 0x720, audio=no)\n" +
                                 destructor_text_without_stream());
    EXPECT_EQ(player->err(),
              "[VideoReceiver] Failed to create texture: Texture dimensions can't be 0\n"
              "[VideoPlayer] Failed to initialize video receiver\n");
}

TEST_P(ExitMatrix, SignalsEndThePlayerWithoutShutDownLines) {
    for (const int signal : {SIGTERM, SIGINT}) {
        start_player_anywhere({"--has-audio"});
        player->send_signal(signal);
        EXPECT_EQ(player->wait_for_end(), (Ending{.status = 0, .signal = signal}));
        EXPECT_EQ(player->out(), start_up_text());
        EXPECT_EQ(player->err(), "");
    }
}

INSTANTIATE_TEST_SUITE_P(, ExitMatrix,
                         testing::Combine(testing::ValuesIn(kVideoDrivers),
                                          testing::Values("opengl", "opengles2", "software",
                                                          kAsItComes)),
                         [](const auto& cell) {
                             return std::string(std::get<0>(cell.param)) + "_" +
                                    std::get<1>(cell.param);
                         });

TEST_F(ExitMatrixTest, TheRendererOnX11WithoutAGraphicsDeviceIsSdlsOwn) {
    if (client::has_graphics_device()) {
        GTEST_SKIP() << "this machine has a graphics device";
    }
    use("x11", kAsItComes);
    start_player_anywhere({});
    EXPECT_EQ(renderer_in_use(), "software");
    player.reset();
}

// A renderer that is asked for and missing is SDL's software renderer, so a cell of the matrix is
// there when the player got what was asked for.
TEST_F(ExitMatrixTest, ATableShowsWhichCellsExistHere) {
    std::ostringstream table;
    for (const char* video_driver : kVideoDrivers) {
        table << "  " << std::left << std::setw(12) << video_driver;
        for (const std::string renderer : kRenderers) {
            use(video_driver, renderer);
            start_player_anywhere({});
            const std::string in_use = renderer_in_use();
            EXPECT_TRUE(in_use == renderer || in_use == "software") << in_use;
            table << std::setw(12) << (in_use == renderer ? renderer : "-");
            player.reset();
        }
        table << '\n';
    }
    std::cout << table.str();
}

}  // namespace vesper::test
