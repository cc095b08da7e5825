// A fake window, mouse and parent, reached through the linker's --wrap: of any size, anywhere.
#pragma once

#include <SDL2/SDL_video.h>

#include <array>
#include <cstdint>

#include "net/stream_datagrams.h"

namespace vesper::fuzz {

struct FakeDesktop {
    int width = 0;  // of the window
    int height = 0;
    int mouse_x = 0;  // in the window
    int mouse_y = 0;
    bool fullscreen = false;
    int width_before_fullscreen = 0;
    int height_before_fullscreen = 0;
    std::uint64_t reports = 0;  // audio states sent
    AudioState last_report;
};

// The one desktop; the input's thread only.
[[nodiscard]] FakeDesktop& fake_desktop();

// Its window: a handle only, never dereferenced.
[[nodiscard]] SDL_Window* fake_window();

}  // namespace vesper::fuzz
