// Chooses the SDL renderer that suits the machine best.
//
// SDL considers OpenGL drawn in software an accelerated renderer. On a machine without a graphics
// device it makes a pass of the main loop cost three times what SDL's own software renderer costs,
// and three times the memory. But that renderer, by default, takes a detour through OpenGL to reach
// an X11 window. So two hints belong together, and only there.
#pragma once

#include <filesystem>

namespace vesper::client {

// Whether `devices`, the system's folder of devices, has one that draws: a render node of a kernel
// driver (dri/renderD*) or one of NVIDIA's own driver (nvidia*). A folder that cannot be read has
// none. Any thread.
[[nodiscard]] bool has_graphics_device(const std::filesystem::path& devices = "/dev");

// Where SDL's video driver is x11 and there is no graphics device, makes SDL's own software
// renderer the one that SDL_CreateRenderer() returns, even when it is asked for an accelerated
// one, and lets it draw straight into the window (SDL_HINT_RENDER_DRIVER,
// SDL_HINT_FRAMEBUFFER_ACCELERATION). Does nothing anywhere else: Wayland's windows have no surface
// of their own, so there the software renderer needs OpenGL to reach them.
//
// The hints are of default priority: environment variables of their names (SDL_RENDER_DRIVER,
// SDL_FRAMEBUFFER_ACCELERATION) and hints that the application has set itself take precedence. They
// apply to every renderer that the process makes from then on.
//
// Call it between SDL_Init() and the first window, on the thread of these; without a video driver
// it does nothing. Prints nothing.
void choose_renderer(const std::filesystem::path& devices = "/dev");

}  // namespace vesper::client
