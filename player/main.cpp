// The player process: start-up, one single-threaded loop, shut-down. It ends with status 0 when the
// user closes the window, and with status 1 when start-up fails.
#include <SDL2/SDL.h>
#include <fcntl.h>
#include <unistd.h>

extern "C" {
#include <libavutil/log.h>
}

#include <cstdio>
#include <string>

#include "client/renderer_choice.h"
#include "client/video_receiver.h"
#include "net/stream_datagrams.h"
#include "net/udp_socket.h"
#include "player/args.h"
#include "player/control_bar.h"
#include "player/player_state.h"
#include "player/window_input.h"

using vesper::UDPSocket;
using vesper::client::VideoReceiver;

namespace {

// Longest wait for a datagram in one pass: long enough not to spin, short enough to answer the
// mouse at once.
constexpr int kReceiveWait = 5;  // ms

// The bar disappears this long after the last activity.
constexpr std::uint32_t kBarTimeout = 2000;  // ms

// The first activity is dated this far ahead; see hide_idle_bar().
constexpr std::uint32_t kBarStartLead = 3000;  // ms

// Yields the processor once a pass, even when datagrams keep the receive from waiting.
constexpr std::uint32_t kPassPause = 1;  // ms

// A descriptor that the parent closed would be the next one that anything opens: the window
// system's connection, into which our lines would then go. open() takes the lowest that is free.
void fill_standard_descriptors() {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) < 0) {
            open("/dev/null", O_RDWR);
        }
    }
}

void prepare_process() {
    fill_standard_descriptors();
    // A parent reads our output through a pipe, where it would be fully buffered.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    // SIGINT and SIGTERM keep their default action; SDL would turn them into quit events,
    // and would let an environment variable outvote a hint of lower priority.
    SDL_SetHintWithPriority(SDL_HINT_NO_SIGNAL_HANDLERS, "1", SDL_HINT_OVERRIDE);
    // Windows are seldom as large as their stream, and SDL's own default drops whole rows and
    // columns. At default priority the variable in the environment wins.
    SDL_SetHintWithPriority(SDL_HINT_RENDER_SCALE_QUALITY, "linear", SDL_HINT_DEFAULT);
    // libavcodec and libswscale would write lines of their own for every damaged frame.
    av_log_set_level(AV_LOG_QUIET);
}

void print_usage(const char* command) {
    std::fprintf(stderr,
                 "Usage: %s --port <PORT> [--streamer-id <ID>] [--width <W>] [--height <H>] "
                 "[--username <NAME>] [--has-audio]\n",
                 command);
}

void show_title(SDL_Window* window, const std::string& username) {
    if (window != nullptr) {
        SDL_SetWindowTitle(window, ("Stream: " + username).c_str());
    }
}

void handle_events(WindowInput& input) {
    SDL_Event event;
    while (SDL_PollEvent(&event) != 0) {
        input.handle_event(event);
    }
}

// At most one datagram a pass: a burst waits in the socket's buffer while the window stays alive.
void receive_datagram(PlayerState& state, UDPSocket& socket, VideoReceiver& receiver) {
    const int length =
        socket.recv(state.recv_buffer.data(), state.recv_buffer.size(), kReceiveWait);
    if (length < vesper::kPacketHeaderSize) {
        return;
    }
    const std::uint8_t* datagram = state.recv_buffer.data();
    if ((vesper::read_packet_header(datagram).flags & vesper::kScreenAudioFlag) != 0) {
        receiver.handle_screen_audio(datagram, length);
    } else {
        receiver.handle_fragment(datagram, length);
    }
}

// Without a parent the receiver is not even asked: its request stays pending.
void request_keyframe(const Args& args, UDPSocket& socket, VideoReceiver& receiver) {
    if (args.parent_port == 0 || !receiver.needs_keyframe_request()) {
        return;
    }
    socket.send(vesper::kKeyframeRequest.data(), vesper::kKeyframeRequest.size(),
                vesper::kParentHost, args.parent_port);
    std::printf("[VideoPlayer] Sent keyframe request to parent (port %u)\n",
                unsigned{args.parent_port});
}

// The unsigned difference is intended: at start the last activity lies in the future, the
// difference wraps to a large number, and the bar disappears after the first pass unless the user
// did something.
void hide_idle_bar(PlayerState& state) {
    if (!state.bar_visible || state.volume_dragging) {
        return;
    }
    const std::uint32_t idle_ms = SDL_GetTicks() - state.bar_last_activity_ms;
    if (idle_ms > kBarTimeout) {
        state.bar_visible = false;
    }
}

}  // namespace

int main(int argc, char** argv) {
    prepare_process();

    Args args;
    if (!parse_args(argc, argv, args)) {
        print_usage(argv[0]);
        return 1;
    }
    std::printf("[VideoPlayer] Starting on port %u for streamer %u (%s, %dx%d, audio=%s)\n",
                unsigned{args.port}, args.streamer_id, args.username.c_str(), args.width,
                args.height, args.has_audio ? "yes" : "no");

    if (SDL_Init(SDL_INIT_VIDEO | SDL_INIT_AUDIO) < 0) {
        std::fprintf(stderr, "[VideoPlayer] SDL_Init failed: %s\n", SDL_GetError());
        return 1;
    }
    vesper::client::choose_renderer();

    // Not stopped before SDL_Quit() on any path below: its destructor does that on the way out, and
    // knows that SDL may have released window, renderer and texture by then.
    VideoReceiver receiver;
    if (!receiver.init_for_udp(args.width, args.height)) {
        std::fprintf(stderr, "[VideoPlayer] Failed to initialize video receiver\n");
        SDL_Quit();
        return 1;
    }
    if (args.has_audio) {
        receiver.enable_audio(true);  // without a sound device the picture still plays
    }

    socket_init();
    UDPSocket socket;
    if (!socket.bind(args.port)) {
        std::fprintf(stderr, "[VideoPlayer] Failed to bind UDP socket to port %u\n",
                     unsigned{args.port});
        SDL_Quit();
        return 1;
    }
    std::printf("[VideoPlayer] Listening on UDP port %u\n", unsigned{args.port});

    PlayerState state;
    WindowInput input(args, state, receiver, socket);
    state.muted = args.audio_muted;
    state.volume = args.audio_volume;
    input.apply_audio_state();
    state.window = SDL_GetWindowFromID(receiver.get_window_id());
    show_title(state.window, args.username);
    receiver.set_overlay_callback([&state](SDL_Renderer* renderer, int w, int h) {
        if (state.bar_visible) {
            render_audio_bar(renderer, w, h, state.muted, state.volume, state.is_fullscreen);
        }
    });
    state.bar_last_activity_ms = SDL_GetTicks() + kBarStartLead;

    while (!state.quit_requested) {
        handle_events(input);
        receive_datagram(state, socket, receiver);
        request_keyframe(args, socket, receiver);
        receiver.render();
        hide_idle_bar(state);
        SDL_Delay(kPassPause);
    }

    std::printf("[VideoPlayer] Shutting down\n");
    socket_cleanup();
    SDL_Quit();
    return 0;
}
