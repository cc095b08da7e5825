#include "client/renderer_choice.h"

#include <SDL2/SDL.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/captured_output.h"
#include "tests/support/hook.h"
#include "tests/support/temporary_folder.h"

VESPER_HOOK(SDL_GetCurrentVideoDriver, const char*, (), ())
VESPER_HOOK(SDL_SetHintWithPriority, SDL_bool,
            (const char* name, const char* value, SDL_HintPriority priority),
            (name, value, priority))

namespace vesper::client {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr auto kDevices = {"dri/renderD128", "dri/renderD129", "nvidia0", "nvidiactl"};
constexpr auto kOtherDevices = {"dri/card0",   "dri/controlD64", "dri/by-path/renderD128",
                                "fb0",         "renderD128",     "tty0",
                                "dri/nvidia0", "dri/render"};

class RendererChoice : public test::HookedTest {
  protected:
    void add(const std::string& device) {
        const std::filesystem::path file = devices_.path() / device;
        std::filesystem::create_directories(file.parent_path());
        ASSERT_TRUE(std::ofstream(file).good());
    }

    // The calls that set a hint.
    std::vector<std::string> hints_on(const char* video_driver) {
        std::vector<std::string> hints;
        hook_SDL_GetCurrentVideoDriver = [video_driver] { return video_driver; };
        hook_SDL_SetHintWithPriority = [&hints](const char* name, const char* value,
                                                SDL_HintPriority priority) {
            hints.push_back(std::string(name) + "=" + value + " " + std::to_string(priority));
            return SDL_TRUE;
        };
        EXPECT_EQ(test::printed_by([this] { choose_renderer(devices_.path()); }), test::Printed{});
        return hints;
    }

    test::TemporaryFolder devices_;
};

// SDL's lowest priority; by value, because the tests compare texts.
static_assert(SDL_HINT_DEFAULT == 0);

TEST_F(RendererChoice, IsSoftwareWithoutADeviceOnX11) {
    EXPECT_FALSE(has_graphics_device(devices_.path()));
    EXPECT_THAT(hints_on("x11"),
                ElementsAre("SDL_RENDER_DRIVER=software 0", "SDL_FRAMEBUFFER_ACCELERATION=0 0"));
}

TEST_F(RendererChoice, IsSdlsOnOtherWindowSystems) {
    for (const char* driver : {"wayland", "offscreen", "dummy", "KMSDRM", "x11vnc", "cocoa", ""}) {
        EXPECT_THAT(hints_on(driver), IsEmpty()) << driver;
    }
}

TEST_F(RendererChoice, IsSdlsWithoutAVideoDriver) {
    EXPECT_THAT(hints_on(nullptr), IsEmpty());
}

TEST_F(RendererChoice, IsSdlsWithADevice) {
    for (const char* device : kDevices) {
        add(device);
        EXPECT_TRUE(has_graphics_device(devices_.path())) << device;
        for (const char* driver : {"x11", "wayland"}) {
            EXPECT_THAT(hints_on(driver), IsEmpty()) << device << ' ' << driver;
        }
        std::filesystem::remove(devices_.path() / device);
    }
}

TEST_F(RendererChoice, IsSdlsWithDevicesOfBothKinds) {
    add("dri/renderD128");
    add("nvidia0");
    EXPECT_TRUE(has_graphics_device(devices_.path()));
    EXPECT_THAT(hints_on("x11"), IsEmpty());
}

// A card node alone shows a picture and draws none: what a virtual machine's display adapter has.
TEST_F(RendererChoice, IsSoftwareBesideDevicesThatDoNotDraw) {
    for (const char* device : kOtherDevices) {
        add(device);
        EXPECT_FALSE(has_graphics_device(devices_.path())) << device;
    }
    EXPECT_THAT(hints_on("x11"), testing::SizeIs(2));
}

TEST_F(RendererChoice, IsSdlsWithADeviceAmongOthers) {
    for (const char* device : kOtherDevices) {
        add(device);
    }
    add("dri/renderD128");
    EXPECT_TRUE(has_graphics_device(devices_.path()));
    EXPECT_THAT(hints_on("x11"), IsEmpty());
}

TEST_F(RendererChoice, IsSoftwareWhereTheFolderCannotBeRead) {
    add("dri");  // no folder
    EXPECT_FALSE(has_graphics_device(devices_.path()));
    EXPECT_FALSE(has_graphics_device(devices_.path() / "missing"));
    EXPECT_THAT(hints_on("x11"), testing::SizeIs(2));
}

// With SDL's real hints.
class RendererHints : public test::HookedTest {
  protected:
    void SetUp() override {
        hook_SDL_GetCurrentVideoDriver = [] { return "x11"; };
        SDL_ClearHints();
        unset_environment();
    }
    void TearDown() override {
        SDL_ClearHints();
        unset_environment();
        HookedTest::TearDown();
    }

    static void unset_environment() {
        unsetenv(SDL_HINT_RENDER_DRIVER);
        unsetenv(SDL_HINT_FRAMEBUFFER_ACCELERATION);
    }

    test::TemporaryFolder devices_;
};

TEST_F(RendererHints, AreSet) {
    choose_renderer(devices_.path());
    EXPECT_STREQ(SDL_GetHint(SDL_HINT_RENDER_DRIVER), "software");
    EXPECT_STREQ(SDL_GetHint(SDL_HINT_FRAMEBUFFER_ACCELERATION), "0");
}

TEST_F(RendererHints, LoseToTheEnvironment) {
    ASSERT_EQ(setenv(SDL_HINT_RENDER_DRIVER, "opengl", 1), 0);
    ASSERT_EQ(setenv(SDL_HINT_FRAMEBUFFER_ACCELERATION, "1", 1), 0);
    choose_renderer(devices_.path());
    EXPECT_STREQ(SDL_GetHint(SDL_HINT_RENDER_DRIVER), "opengl");
    EXPECT_STREQ(SDL_GetHint(SDL_HINT_FRAMEBUFFER_ACCELERATION), "1");
}

TEST_F(RendererHints, LoseToTheApplicationsOwn) {
    SDL_SetHint(SDL_HINT_RENDER_DRIVER, "opengl");
    choose_renderer(devices_.path());
    EXPECT_STREQ(SDL_GetHint(SDL_HINT_RENDER_DRIVER), "opengl");
    EXPECT_STREQ(SDL_GetHint(SDL_HINT_FRAMEBUFFER_ACCELERATION), "0");
}

}  // namespace
}  // namespace vesper::client
