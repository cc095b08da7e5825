// The window's mouse and keyboard: zoom, pan, fullscreen, the control bar's buttons and slider.
//
// Every change of the audio state is applied to the receiver at once (volume 0 while muted) and
// reported to the parent application, slider drags at every motion.
//
//   mouse motion               shows the bar; continues a pan or a drag of the slider
//   wheel                      zooms about the pointer
//   right button, drag         pans the zoomed view
//   left button on the bar     mute button, slider (both only with audio), fullscreen button
//   double click above it      fullscreen
//   f, F11; Escape             fullscreen; back to the window
//   r                          the whole picture
//   m, Up, Down                mute, volume (only with audio)
//
// Main thread only; prints nothing and fails silently: a null window disables everything but the
// keys for sound, a frame without size disables zoom and pan, parent port 0 disables the reports.
#pragma once

#include <SDL2/SDL_events.h>

#include <cstdint>

#include "client/video_receiver.h"
#include "net/udp_socket.h"
#include "player/args.h"
#include "player/player_state.h"

// Sends the audio state message to 127.0.0.1:`parent_port`: `muted` and the chosen `volume`, which
// is sent even while muted. Does nothing for port 0. The send's result is ignored.
void send_audio_state(vesper::UDPSocket& socket, std::uint16_t parent_port, bool muted,
                      float volume);

// Works on the state, receiver and socket of the main loop; owns nothing.
class WindowInput {
  public:
    WindowInput(const Args& args, PlayerState& state, vesper::client::VideoReceiver& receiver,
                vesper::UDPSocket& socket)
        : args_(args), state_(state), receiver_(receiver), socket_(socket) {}

    // Acts on one polled event. Window ids, key repeats and modifiers are ignored.
    void handle_event(const SDL_Event& event);

    // Pushes zoom level and centre into the receiver as a rectangle inside the frame.
    void apply_zoom();

    // Switches between desktop fullscreen and the window's earlier size and position.
    void toggle_fullscreen();

    // Sets the receiver's volume to the chosen one, or to 0 while muted.
    void apply_audio_state();

  private:
    struct Size {
        int w = 0;
        int h = 0;
        [[nodiscard]] bool is_positive() const { return w > 0 && h > 0; }
    };
    [[nodiscard]] Size window_size() const;  // window pixels
    [[nodiscard]] Size frame_size() const;   // stream pixels

    void show_bar();
    void toggle_mute();
    void change_volume(float volume);
    void set_volume_from_slider(int x, int window_width);
    void report_audio_state();
    void center_view();

    void on_wheel(const SDL_MouseWheelEvent& wheel);
    void on_motion(const SDL_MouseMotionEvent& motion);
    void pan(const SDL_MouseMotionEvent& motion);
    void on_right_button_down(const SDL_MouseButtonEvent& button);
    void on_left_button_down(const SDL_MouseButtonEvent& button);
    void on_bar_click(int x, int window_width);  // left of the fullscreen button
    void on_key(SDL_Keycode key);

    const Args& args_;
    PlayerState& state_;
    vesper::client::VideoReceiver& receiver_;
    vesper::UDPSocket& socket_;
};
