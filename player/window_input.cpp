#include "player/window_input.h"

#include <SDL2/SDL.h>

#include <algorithm>
#include <cmath>

#include "net/stream_datagrams.h"
#include "player/control_bar_layout.h"

namespace {

constexpr float kMinZoom = 1.0F;      // the whole picture
constexpr float kMaxZoom = 10.0F;     // beyond that a face is a few coloured squares
constexpr float kZoomStep = 1.25F;    // three steps about double the picture
constexpr float kVolumeStep = 0.05F;  // twenty key presses from silence to full
constexpr int kDoubleClick = 2;       // SDL's click count; the third press of a triple click has 3

// Left or top edge of a view of `view` pixels centred at `center` (0.0 to 1.0) of a frame of
// `frame` pixels; may lie outside the frame. Fused, so that the product is not rounded before the
// subtraction.
float view_edge(float center, int frame, int view) {
    return std::fma(center, static_cast<float>(frame), -(static_cast<float>(view) / 2.0F));
}

// Pixels of a frame of `frame` pixels that are in view at magnification `zoom`.
int view_size(int frame, float zoom) {
    return static_cast<int>(static_cast<float>(frame) / zoom);
}

// Where the pointer at `mouse` of a window of `window` pixels points to, 0.0 to 1.0 of the frame.
float frame_point(float center, int frame, float zoom, int mouse, int window) {
    const int view = view_size(frame, zoom);
    float edge = std::max(view_edge(center, frame, view), 0.0F);
    if (edge + static_cast<float>(view) > static_cast<float>(frame)) {
        edge = static_cast<float>(frame - view);
    }
    const float across = static_cast<float>(mouse) / static_cast<float>(window);
    return (edge + static_cast<float>(view) * across) / static_cast<float>(frame);
}

// One axis of the zoom rectangle, inside the frame.
struct ViewSpan {
    int start;  // stream pixels
    int size;   // stream pixels, at least 1
};

ViewSpan view_span(float center, int frame, float zoom) {
    const int size = std::max(view_size(frame, zoom), 1);
    // Clamped first: the wheel can move the centre so far out of the frame that the edge does not
    // fit an int.
    const float edge =
        std::clamp(view_edge(center, frame, size), 0.0F, static_cast<float>(frame - size));
    // And clamped as an int: a float above 2^24 may have been rounded up.
    return {.start = std::min(static_cast<int>(edge), frame - size), .size = size};
}

}  // namespace

void send_audio_state(vesper::UDPSocket& socket, std::uint16_t parent_port, bool muted,
                      float volume) {
    if (parent_port == 0) {
        return;
    }
    const auto message = vesper::make_audio_state({.muted = muted, .volume = volume});
    socket.send(message.data(), message.size(), vesper::kParentHost, parent_port);
}

void WindowInput::handle_event(const SDL_Event& event) {
    switch (event.type) {
        case SDL_QUIT:
            state_.quit_requested = true;
            break;
        case SDL_WINDOWEVENT:
            if (event.window.event == SDL_WINDOWEVENT_CLOSE) {
                state_.quit_requested = true;
            }
            break;
        case SDL_MOUSEWHEEL:
            on_wheel(event.wheel);
            break;
        case SDL_MOUSEMOTION:
            on_motion(event.motion);
            break;
        case SDL_MOUSEBUTTONDOWN:
            if (event.button.button == SDL_BUTTON_RIGHT) {
                on_right_button_down(event.button);
            } else if (event.button.button == SDL_BUTTON_LEFT) {
                on_left_button_down(event.button);
            }
            break;
        case SDL_MOUSEBUTTONUP:
            if (event.button.button == SDL_BUTTON_RIGHT) {
                state_.panning = false;
            } else if (event.button.button == SDL_BUTTON_LEFT) {
                state_.volume_dragging = false;
            }
            break;
        case SDL_KEYDOWN:
            on_key(event.key.keysym.sym);
            break;
        default:
            break;
    }
}

void WindowInput::apply_zoom() {
    const Size frame = frame_size();
    if (!frame.is_positive() || state_.zoom_level <= kMinZoom) {
        receiver_.set_zoom_rect(false, 0, 0, 0, 0);
        return;
    }
    const ViewSpan x = view_span(state_.zoom_center_x, frame.w, state_.zoom_level);
    const ViewSpan y = view_span(state_.zoom_center_y, frame.h, state_.zoom_level);
    receiver_.set_zoom_rect(true, x.start, y.start, x.size, y.size);
}

void WindowInput::toggle_fullscreen() {
    SDL_Window* window = state_.window;
    if (window == nullptr) {
        return;
    }
    if (state_.is_fullscreen) {
        SDL_SetWindowFullscreen(window, 0);
        SDL_SetWindowSize(window, state_.saved_window_w, state_.saved_window_h);
        SDL_SetWindowPosition(window, state_.saved_window_x, state_.saved_window_y);
    } else {
        SDL_GetWindowPosition(window, &state_.saved_window_x, &state_.saved_window_y);
        SDL_GetWindowSize(window, &state_.saved_window_w, &state_.saved_window_h);
        SDL_SetWindowFullscreen(window, SDL_WINDOW_FULLSCREEN_DESKTOP);
    }
    // Flipped even if SDL fails: the next press then tries the other way.
    state_.is_fullscreen = !state_.is_fullscreen;
}

void WindowInput::apply_audio_state() {
    receiver_.set_audio_volume(state_.muted ? 0.0F : state_.volume);
}

WindowInput::Size WindowInput::window_size() const {
    Size size;
    SDL_GetWindowSize(state_.window, &size.w, &size.h);
    return size;
}

WindowInput::Size WindowInput::frame_size() const {
    return {.w = receiver_.frame_width(), .h = receiver_.frame_height()};
}

void WindowInput::show_bar() {
    state_.bar_visible = true;
    state_.bar_last_activity_ms = SDL_GetTicks();
}

void WindowInput::toggle_mute() {
    state_.muted = !state_.muted;
    apply_audio_state();
    report_audio_state();
}

// While muted the receiver stays silent, but the choice is reported to the parent.
void WindowInput::change_volume(float volume) {
    state_.volume = volume;
    if (!state_.muted) {
        apply_audio_state();
    }
    report_audio_state();
}

void WindowInput::set_volume_from_slider(int x, int window_width) {
    change_volume(control_bar::volume_at(x, window_width));
}

void WindowInput::report_audio_state() {
    send_audio_state(socket_, args_.parent_port, state_.muted, state_.volume);
}

void WindowInput::center_view() {
    state_.zoom_center_x = 0.5F;
    state_.zoom_center_y = 0.5F;
}

// Zooms one step, however far the wheel turned, keeping the frame point under the pointer in place.
void WindowInput::on_wheel(const SDL_MouseWheelEvent& wheel) {
    int mouse_x = 0;
    int mouse_y = 0;
    SDL_GetMouseState(&mouse_x, &mouse_y);
    const Size window = window_size();
    const Size frame = frame_size();
    if (!window.is_positive() || !frame.is_positive()) {
        return;
    }
    const float old_zoom = state_.zoom_level;
    const float shown_zoom = std::max(old_zoom, kMinZoom);
    const float point_x = frame_point(state_.zoom_center_x, frame.w, shown_zoom, mouse_x, window.w);
    const float point_y = frame_point(state_.zoom_center_y, frame.h, shown_zoom, mouse_y, window.h);

    if (wheel.y > 0) {
        state_.zoom_level *= kZoomStep;
    } else if (wheel.y < 0) {
        state_.zoom_level /= kZoomStep;
    }
    state_.zoom_level = std::clamp(state_.zoom_level, kMinZoom, kMaxZoom);

    if (state_.zoom_level <= kMinZoom) {
        center_view();
    } else {
        const float t = 1.0F - old_zoom / state_.zoom_level;
        state_.zoom_center_x += t * (point_x - state_.zoom_center_x);
        state_.zoom_center_y += t * (point_y - state_.zoom_center_y);
    }
    apply_zoom();
}

void WindowInput::on_motion(const SDL_MouseMotionEvent& motion) {
    show_bar();
    if (state_.panning && state_.zoom_level > kMinZoom) {
        pan(motion);
    }
    if (args_.has_audio && state_.volume_dragging && state_.window != nullptr) {
        set_volume_from_slider(motion.x, window_size().w);
    }
}

void WindowInput::pan(const SDL_MouseMotionEvent& motion) {
    const Size window = window_size();
    if (!window.is_positive() || !frame_size().is_positive()) {
        return;
    }
    const auto dx = static_cast<float>(motion.x - state_.pan_last_x);
    const auto dy = static_cast<float>(motion.y - state_.pan_last_y);
    state_.zoom_center_x -= dx / static_cast<float>(window.w) / state_.zoom_level;
    state_.zoom_center_y -= dy / static_cast<float>(window.h) / state_.zoom_level;
    state_.zoom_center_x = std::clamp(state_.zoom_center_x, 0.0F, 1.0F);
    state_.zoom_center_y = std::clamp(state_.zoom_center_y, 0.0F, 1.0F);
    state_.pan_last_x = motion.x;
    state_.pan_last_y = motion.y;
    apply_zoom();
}

void WindowInput::on_right_button_down(const SDL_MouseButtonEvent& button) {
    if (state_.zoom_level > kMinZoom) {
        state_.panning = true;
        state_.pan_last_x = button.x;
        state_.pan_last_y = button.y;
    }
}

// While the bar is hidden, neither clicks nor double clicks do anything. The fullscreen button is
// tested first, because in a narrow window the slider reaches under it.
void WindowInput::on_left_button_down(const SDL_MouseButtonEvent& button) {
    if (!state_.bar_visible || state_.window == nullptr) {
        return;
    }
    const Size window = window_size();
    if (button.y < control_bar::top(window.h)) {
        if (button.clicks == kDoubleClick) {
            toggle_fullscreen();
        }
    } else if (button.x < control_bar::fullscreen_button_left(window.w)) {
        on_bar_click(button.x, window.w);
    } else {
        toggle_fullscreen();
    }
}

void WindowInput::on_bar_click(int x, int window_width) {
    if (!args_.has_audio) {
        return;
    }
    if (x < control_bar::kMuteButtonRight) {
        toggle_mute();
    } else if (control_bar::is_on_track(x, window_width)) {
        set_volume_from_slider(x, window_width);
        state_.volume_dragging = true;
    }
}

void WindowInput::on_key(SDL_Keycode key) {
    switch (key) {
        case SDLK_f:
        case SDLK_F11:
            toggle_fullscreen();
            break;
        case SDLK_ESCAPE:
            if (state_.is_fullscreen) {
                toggle_fullscreen();
            }
            break;
        case SDLK_r:
            state_.zoom_level = kMinZoom;
            center_view();
            apply_zoom();
            break;
        case SDLK_m:
            if (args_.has_audio) {
                toggle_mute();
                show_bar();
            }
            break;
        case SDLK_UP:
            if (args_.has_audio) {
                change_volume(std::min(state_.volume + kVolumeStep, 1.0F));
                show_bar();
            }
            break;
        case SDLK_DOWN:
            if (args_.has_audio) {
                change_volume(std::max(state_.volume - kVolumeStep, 0.0F));
                show_bar();
            }
            break;
        default:
            break;
    }
}
