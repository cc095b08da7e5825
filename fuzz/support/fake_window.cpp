#include "fuzz/support/fake_window.h"

#include <SDL2/SDL_mouse.h>
#include <sys/socket.h>

#include <span>

#include "fuzz/support/require.h"

namespace vesper::fuzz {

FakeDesktop& fake_desktop() {
    static FakeDesktop desktop;
    return desktop;
}

SDL_Window* fake_window() {
    static char window;
    return reinterpret_cast<SDL_Window*>(&window);
}

}  // namespace vesper::fuzz

// NOLINTBEGIN: the names are the linker's.
using namespace vesper::fuzz;

extern "C" {

// SDL writes nothing for a window that it does not know.
void __wrap_SDL_GetWindowSize(SDL_Window* window, int* w, int* h) {
    if (window == fake_window()) {
        *w = fake_desktop().width;
        *h = fake_desktop().height;
    }
}

void __wrap_SDL_GetWindowPosition(SDL_Window*, int* x, int* y) {
    *x = 0;
    *y = 0;
}

Uint32 __wrap_SDL_GetMouseState(int* x, int* y) {
    *x = fake_desktop().mouse_x;
    *y = fake_desktop().mouse_y;
    return 0;
}

int __wrap_SDL_SetWindowFullscreen(SDL_Window* window, Uint32 flags) {
    FakeDesktop& desktop = fake_desktop();
    require(window == fake_window(), "fullscreen is for a window");
    require((flags == SDL_WINDOW_FULLSCREEN_DESKTOP) != desktop.fullscreen,
            "fullscreen is entered and left in turns");
    desktop.fullscreen = flags != 0;
    if (desktop.fullscreen) {
        desktop.width_before_fullscreen = desktop.width;
        desktop.height_before_fullscreen = desktop.height;
    }
    return 0;
}

void __wrap_SDL_SetWindowSize(SDL_Window*, int w, int h) {
    FakeDesktop& desktop = fake_desktop();
    require(w == desktop.width_before_fullscreen && h == desktop.height_before_fullscreen,
            "the window gets its size back");
    desktop.width = w;
    desktop.height = h;
}

void __wrap_SDL_SetWindowPosition(SDL_Window*, int, int) {}

ssize_t __wrap_sendto(int, const void* data, size_t length, int, const sockaddr*, socklen_t) {
    const auto report =
        vesper::read_audio_state(std::span(static_cast<const std::uint8_t*>(data), length));
    require(report.has_value(), "only audio states are sent");
    ++fake_desktop().reports;
    fake_desktop().last_report = *report;
    return static_cast<ssize_t>(length);
}

}  // extern "C"
// NOLINTEND
