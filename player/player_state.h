// The state that the main loop and the window's controls share. Main thread only.
#pragma once

#include <SDL2/SDL_video.h>

#include <array>
#include <cstddef>
#include <cstdint>

struct PlayerState {
    // One datagram; no UDP datagram is longer than 65535 bytes.
    static constexpr std::size_t kRecvBufferSize = 65536;  // bytes
    std::array<std::uint8_t, kRecvBufferSize> recv_buffer;

    SDL_Window* window = nullptr;  // the receiver's window, not owned; may be null
    bool quit_requested = false;   // ends the loop after the current pass

    bool muted = false;
    float volume = 1.0F;  // as chosen, 0.0 to 1.0; kept while muted

    bool bar_visible = true;
    std::uint32_t bar_last_activity_ms = 0;  // SDL ticks, ms; ahead of time at start
    bool volume_dragging = false;            // left button pressed on the slider, not yet released

    bool is_fullscreen = false;
    int saved_window_x = 0;  // window before fullscreen, screen coordinates and pixels
    int saved_window_y = 0;
    int saved_window_w = 0;
    int saved_window_h = 0;

    float zoom_level = 1.0F;  // magnification, 1.0 to 10.0
    // Centre of the view as a fraction of the frame. Panning keeps it within 0.0 to 1.0; zooming
    // out moves it away from the pointer, beyond these bounds if need be, and zooming in moves it
    // towards the pointer. Only the rectangle computed from it is clamped.
    float zoom_center_x = 0.5F;
    float zoom_center_y = 0.5F;
    bool panning = false;  // right button pressed while zoomed, not yet released
    int pan_last_x = 0;    // last mouse position while panning, window pixels
    int pan_last_y = 0;
};
