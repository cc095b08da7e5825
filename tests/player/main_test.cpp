// The process's main function, compiled as player_main(), against recorded calls.
//
// Unless a test arranges otherwise, SDL, the receiver and the socket are not really called: each
// call is recorded, in one list together with the lines that main prints.
#include <SDL2/SDL.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "client/renderer_choice.h"
#include "client/video_receiver.h"
#include "net/stream_datagrams.h"
#include "net/udp_socket.h"
#include "player/player_state.h"
#include "tests/support/captured_output.h"
#include "tests/support/hook.h"
#include "tests/support/video_receiver_peer.h"
#include "tools/stream/free_port.h"

int player_main(int argc, char** argv);

using vesper::UDPSocket;
using vesper::client::VideoReceiver;

// ---- SDL and the C library ----

VESPER_HOOK(SDL_SetHintWithPriority, SDL_bool,
            (const char* name, const char* value, SDL_HintPriority priority),
            (name, value, priority))
VESPER_HOOK(av_log_set_level, void, (int level), (level))
VESPER_HOOK(SDL_Init, int, (Uint32 flags), (flags))
VESPER_HOOK(SDL_Quit, void, (), ())
VESPER_HOOK(SDL_GetWindowFromID, SDL_Window*, (Uint32 id), (id))
VESPER_HOOK(SDL_SetWindowTitle, void, (SDL_Window * window, const char* title), (window, title))
VESPER_HOOK(SDL_PollEvent, int, (SDL_Event * event), (event))
VESPER_HOOK(SDL_GetTicks, Uint32, (), ())
VESPER_HOOK(SDL_Delay, void, (Uint32 ms), (ms))
VESPER_HOOK(SDL_GetWindowSize, void, (SDL_Window * window, int* w, int* h), (window, w, h))
VESPER_HOOK(sendto, ssize_t,
            (int fd, const void* data, std::size_t len, int flags, const struct sockaddr* address,
             unsigned size),
            (fd, data, len, flags, address, size))

// ---- the other rooms: C++ functions under the names that the linker knows them by ----

VESPER_HOOK(_ZN6vesper6client15choose_rendererERKNSt10filesystem7__cxx114pathE, void,
            (const std::filesystem::path& devices), (devices))
VESPER_HOOK(_ZN6vesper6client13VideoReceiver12init_for_udpEii, bool,
            (VideoReceiver * self, int width, int height), (self, width, height))
VESPER_HOOK(_ZN6vesper6client13VideoReceiver12enable_audioEb, void,
            (VideoReceiver * self, bool enable), (self, enable))
VESPER_HOOK(_ZN6vesper6client13VideoReceiver16set_audio_volumeEf, void,
            (VideoReceiver * self, float volume), (self, volume))
VESPER_HOOK(
    _ZN6vesper6client13VideoReceiver20set_overlay_callbackESt8functionIFvP12SDL_RendereriiEE, void,
    (VideoReceiver * self, VideoReceiver::OverlayCallback callback), (self, callback))
VESPER_HOOK(_ZN6vesper6client13VideoReceiver15handle_fragmentEPKhi, void,
            (VideoReceiver * self, const std::uint8_t* data, int len), (self, data, len))
VESPER_HOOK(_ZN6vesper6client13VideoReceiver19handle_screen_audioEPKhi, void,
            (VideoReceiver * self, const std::uint8_t* data, int len), (self, data, len))
VESPER_HOOK(_ZN6vesper6client13VideoReceiver22needs_keyframe_requestEv, bool,
            (VideoReceiver * self), (self))
VESPER_HOOK(_ZN6vesper6client13VideoReceiver6renderEv, void, (VideoReceiver * self), (self))
VESPER_HOOK(_ZN6vesper6client13VideoReceiverD1Ev, void, (VideoReceiver * self), (self))
VESPER_HOOK(_Z11socket_initv, bool, (), ())
VESPER_HOOK(_Z14socket_cleanupv, void, (), ())
VESPER_HOOK(_ZN6vesper9UDPSocket4bindEt, bool, (UDPSocket * self, std::uint16_t port), (self, port))
VESPER_HOOK(_ZN6vesper9UDPSocket4recvEPvmi, int,
            (UDPSocket * self, void* buffer, std::size_t capacity, int timeout_ms),
            (self, buffer, capacity, timeout_ms))
VESPER_HOOK(_ZN6vesper9UDPSocket4sendEPKvmPKct, int,
            (UDPSocket * self, const void* data, std::size_t len, const char* host,
             std::uint16_t port),
            (self, data, len, host, port))
VESPER_HOOK(_ZN6vesper9UDPSocketD1Ev, void, (UDPSocket * self), (self))
VESPER_HOOK(_Z16render_audio_barP12SDL_Rendereriibfb, void,
            (SDL_Renderer * renderer, int w, int h, bool muted, float volume, bool fullscreen),
            (renderer, w, h, muted, volume, fullscreen))

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::Not;
using vesper::client::VideoReceiverPeer;

auto& hook_choose_renderer =
    hook__ZN6vesper6client15choose_rendererERKNSt10filesystem7__cxx114pathE;
auto& hook_init_for_udp = hook__ZN6vesper6client13VideoReceiver12init_for_udpEii;
auto& hook_enable_audio = hook__ZN6vesper6client13VideoReceiver12enable_audioEb;
auto& hook_set_audio_volume = hook__ZN6vesper6client13VideoReceiver16set_audio_volumeEf;
auto& hook_set_overlay_callback =
    hook__ZN6vesper6client13VideoReceiver20set_overlay_callbackESt8functionIFvP12SDL_RendereriiEE;
auto& hook_handle_fragment = hook__ZN6vesper6client13VideoReceiver15handle_fragmentEPKhi;
auto& hook_handle_screen_audio = hook__ZN6vesper6client13VideoReceiver19handle_screen_audioEPKhi;
auto& hook_needs_keyframe_request = hook__ZN6vesper6client13VideoReceiver22needs_keyframe_requestEv;
auto& hook_render = hook__ZN6vesper6client13VideoReceiver6renderEv;
auto& hook_receiver_destructor = hook__ZN6vesper6client13VideoReceiverD1Ev;
auto& hook_socket_init = hook__Z11socket_initv;
auto& hook_socket_cleanup = hook__Z14socket_cleanupv;
auto& hook_socket_bind = hook__ZN6vesper9UDPSocket4bindEt;
auto& hook_socket_recv = hook__ZN6vesper9UDPSocket4recvEPvmi;
auto& hook_socket_send = hook__ZN6vesper9UDPSocket4sendEPKvmPKct;
auto& hook_socket_destructor = hook__ZN6vesper9UDPSocketD1Ev;
auto& hook_render_audio_bar = hook__Z16render_audio_barP12SDL_Rendereriibfb;

using Calls = std::vector<std::string>;
using Datagram = std::vector<std::uint8_t>;

constexpr Uint32 kWindowId = 77;
constexpr int kGenerousWait = 10'000;  // ms

// Passes after which a run that does not end by itself is ended.
constexpr int kMostPasses = 10'000;

SDL_Event event_of(Uint32 type) {
    SDL_Event event{};
    event.type = type;
    return event;
}

SDL_Event key_event(SDL_Keycode key) {
    SDL_Event event = event_of(SDL_KEYDOWN);
    event.key.keysym.sym = key;
    return event;
}

SDL_Event left_press(int x, int y) {
    SDL_Event event = event_of(SDL_MOUSEBUTTONDOWN);
    event.button.button = SDL_BUTTON_LEFT;
    event.button.x = x;
    event.button.y = y;
    event.button.clicks = 1;
    return event;
}

// Joins the parts of one call's text.
template <typename... Parts>
std::string text(const Parts&... parts) {
    std::ostringstream stream;
    (stream << ... << parts);
    return stream.str();
}

class PlayerMain : public vesper::test::HookedTest {
  protected:
    void SetUp() override {
        hook_sdl();
        hook_receiver();
        hook_socket();
    }

    void hook_sdl() {
        hook_SDL_SetHintWithPriority = [this](const char* name, const char* value,
                                              SDL_HintPriority priority) {
            record("SDL_SetHintWithPriority ", name, ' ', value, ' ', priority);
            return SDL_TRUE;
        };
        hook_av_log_set_level = [this](int level) { record("av_log_set_level ", level); };
        hook_SDL_Init = [this](Uint32 flags) {
            record("SDL_Init ", flags);
            return sdl_init_result_;
        };
        hook_SDL_Quit = [this] { record("SDL_Quit"); };
        hook_SDL_GetWindowFromID = [this](Uint32 id) {
            record("SDL_GetWindowFromID ", id);
            return window_;
        };
        hook_SDL_SetWindowTitle = [this](SDL_Window* window, const char* title) {
            EXPECT_EQ(window, window_);
            record("SDL_SetWindowTitle ", title);
        };
        hook_SDL_PollEvent = [this](SDL_Event* event) { return poll_event(event); };
        hook_SDL_GetTicks = [this] {
            record("SDL_GetTicks");
            return now_;
        };
        hook_SDL_Delay = [this](Uint32 ms) {
            record("SDL_Delay ", ms);
            if (++pass_ < static_cast<int>(pass_times_.size())) {
                now_ = pass_times_.at(static_cast<std::size_t>(pass_));
            }
        };
        hook_SDL_GetWindowSize = [](SDL_Window*, int* w, int* h) {
            *w = 640;
            *h = 360;
        };
    }

    void hook_receiver() {
        hook_choose_renderer = [this](const std::filesystem::path& devices) {
            record("choose_renderer ", devices.native());
        };
        hook_init_for_udp = [this](VideoReceiver* self, int width, int height) {
            record("init_for_udp ", width, ' ', height);
            VideoReceiverPeer(*self).window_id() = kWindowId;
            VideoReceiverPeer(*self).keyframe_needed() = receiver_wants_keyframe_;
            return init_result_;
        };
        hook_enable_audio = [this](auto*, bool enable) { record("enable_audio ", enable); };
        hook_set_audio_volume = [this](auto*, float volume) {
            record("set_audio_volume ", volume);
        };
        hook_set_overlay_callback = [this](auto*, const auto& callback) {
            record("set_overlay_callback");
            overlay_ = callback;
        };
        hook_handle_fragment = [this](auto*, const std::uint8_t* data, int len) {
            record("handle_fragment ", len);
            handled_.emplace_back(data, data + len);
        };
        hook_handle_screen_audio = [this](auto*, const std::uint8_t* data, int len) {
            record("handle_screen_audio ", len);
            handled_.emplace_back(data, data + len);
        };
        hook_needs_keyframe_request = [this](VideoReceiver* self) {
            record("needs_keyframe_request");
            return __real__ZN6vesper6client13VideoReceiver22needs_keyframe_requestEv(self);
        };
        hook_render = [this](auto*) {
            record("render");
            overlay_(renderer(), 640, 360);
        };
        hook_render_audio_bar = [this](SDL_Renderer* to, int w, int h, bool muted, float volume,
                                       bool fullscreen) {
            EXPECT_EQ(to, renderer());
            record("render_audio_bar ", w, ' ', h, muted ? " muted " : " audible ", volume,
                   fullscreen ? " fullscreen" : " window");
        };
        hook_receiver_destructor = [this](VideoReceiver* self) {
            record("~VideoReceiver");
            keyframe_still_wanted_ = VideoReceiverPeer(*self).keyframe_needed();
            __real__ZN6vesper6client13VideoReceiverD1Ev(self);
        };
    }

    void hook_socket() {
        hook_socket_init = [this] {
            record("socket_init");
            return socket_init_result_;
        };
        hook_socket_cleanup = [this] { record("socket_cleanup"); };
        hook_socket_bind = [this](auto*, std::uint16_t port) {
            record("bind ", port);
            return bind_result_;
        };
        hook_socket_recv = [this](auto*, void* buffer, std::size_t capacity, int timeout_ms) {
            record("recv ", capacity, ' ', timeout_ms);
            return receive(static_cast<std::uint8_t*>(buffer));
        };
        hook_socket_send = [this](auto*, const void* data, std::size_t len, const char* host,
                                  std::uint16_t port) {
            record("send ", std::string_view(static_cast<const char*>(data), len), " to ", host,
                   ':', port);
            return send_result_;
        };
        hook_socket_destructor = [this](UDPSocket* self) {
            record("~UDPSocket");
            __real__ZN6vesper9UDPSocketD1Ev(self);
        };
    }

    // Everything of the socket is real.
    static void use_real_socket() {
        hook_socket_bind = nullptr;
        hook_socket_recv = nullptr;
        hook_socket_send = nullptr;
    }

    // Returns each pass's events; after the last pass of the script, a quit event.
    int poll_event(SDL_Event* event) {
        if (passes_.empty() && !quit_sent_) {
            quit_sent_ = true;
            passes_.push_back({event_of(SDL_QUIT)});
        }
        if (passes_.empty() || passes_.front().empty()) {
            record("SDL_PollEvent 0");
            if (!passes_.empty()) {
                passes_.pop_front();
            }
            EXPECT_LT(pass_, kMostPasses) << "the loop does not end";
            if (pass_ >= kMostPasses) {
                std::abort();
            }
            return 0;
        }
        record("SDL_PollEvent 1");
        *event = passes_.front().front();
        passes_.front().pop_front();
        return 1;
    }

    int receive(std::uint8_t* buffer) {
        if (recv_error_) {
            return -1;
        }
        if (datagrams_.empty()) {
            return 0;
        }
        const Datagram datagram = datagrams_.front();
        datagrams_.pop_front();
        std::copy(datagram.begin(), datagram.end(), buffer);
        return static_cast<int>(datagram.size());
    }

    // The tests' own sockets, which outlive the run, are not recorded.
    template <typename... Parts>
    void record(const Parts&... parts) {
        if (!main_runs_) {
            return;
        }
        take_lines();
        calls_.push_back(text(parts...));
    }

    // Moves what was printed since the last call into the list. The receiver's own lines are tested
    // elsewhere.
    void take_lines() {
        for (const auto& [stream, printed] : {std::pair("out: ", vesper::test::take_stdout()),
                                              std::pair("err: ", vesper::test::take_stderr())}) {
            std::istringstream lines(printed);
            for (std::string line; std::getline(lines, line);) {
                if (!line.starts_with("[VideoReceiver]") && !line.starts_with("[RECV SDL")) {
                    calls_.push_back(stream + line + (lines.eof() ? "" : "\n"));
                }
            }
        }
    }

    // Runs main with `words` after the command's name and returns its exit status.
    int run(std::vector<std::string> words) {
        words.insert(words.begin(), "the-player");
        std::vector<char*> argv;
        argv.reserve(words.size() + 1);
        for (std::string& word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        int status = -1;
        const auto rest = vesper::test::printed_by([&] {
            main_runs_ = true;
            status = player_main(static_cast<int>(words.size()), argv.data());
            main_runs_ = false;
            take_lines();
        });
        EXPECT_EQ(rest, vesper::test::Printed{});
        return status;
    }
    int run_plain() { return run({"--port", "5000"}); }
    int run_with_parent() { return run({"--port", "5000", "--parent-port", "6000"}); }

    // What was recorded from the first event poll of pass `pass` (0 is the first) to its delay.
    Calls calls_of_pass(int pass) {
        auto begin = std::find_if(calls_.begin(), calls_.end(), [](const std::string& call) {
            return call.starts_with("SDL_PollEvent");
        });
        for (; pass > 0; --pass) {
            begin = std::next(std::find(begin, calls_.end(), "SDL_Delay 1"));
        }
        const auto end = std::find(begin, calls_.end(), "SDL_Delay 1");
        EXPECT_NE(end, calls_.end());
        return {begin, end == calls_.end() ? end : std::next(end)};
    }
    // For each pass whether the bar was drawn.
    std::vector<bool> bar_drawn() {
        std::vector<bool> drawn;
        for (const std::string& call : calls_) {
            if (call == "render") {
                drawn.push_back(false);
            } else if (call.starts_with("render_audio_bar")) {
                drawn.back() = true;
            }
        }
        return drawn;
    }
    [[nodiscard]] std::ptrdiff_t count(const std::string& call) const {
        return std::count(calls_.begin(), calls_.end(), call);
    }

    // Never dereferenced.
    SDL_Renderer* renderer() { return reinterpret_cast<SDL_Renderer*>(&renderer_place_); }
    SDL_Window* fake_window() { return reinterpret_cast<SDL_Window*>(&window_place_); }

    // What the calls into the other rooms return.
    int sdl_init_result_ = 0;
    bool init_result_ = true;
    bool socket_init_result_ = true;
    bool bind_result_ = true;
    bool recv_error_ = false;
    int send_result_ = 4;
    bool receiver_wants_keyframe_ = false;
    SDL_Window* window_ = fake_window();
    std::deque<std::deque<SDL_Event>> passes_;  // the events of each pass
    std::deque<Datagram> datagrams_;            // what each receive brings
    Uint32 now_ = 1000;                         // SDL ticks, ms
    std::vector<Uint32> pass_times_;            // SDL ticks of each pass, where they matter

    // What was seen.
    Calls calls_;
    std::vector<Datagram> handled_;
    bool keyframe_still_wanted_ = false;
    int pass_ = 0;

  private:
    VideoReceiver::OverlayCallback overlay_;
    bool main_runs_ = false;
    bool quit_sent_ = false;
    std::max_align_t renderer_place_{};
    std::max_align_t window_place_{};
};

// ---- start-up, one pass, shut-down ----

TEST_F(PlayerMain, StartsLoopsAndShutsDownInOrder) {
    EXPECT_EQ(
        run({"--port", "5000", "--streamer-id", "7", "--username", "Ann", "--width", "640",
             "--height", "360", "--has-audio", "--audio-volume", "0.75", "--parent-port", "6000"}),
        0);
    EXPECT_THAT(
        calls_,
        ElementsAre(
            "SDL_SetHintWithPriority SDL_NO_SIGNAL_HANDLERS 1 2",
            "SDL_SetHintWithPriority SDL_RENDER_SCALE_QUALITY linear 0", "av_log_set_level -8",
            "out: [VideoPlayer] Starting on port 5000 for streamer 7 (Ann, 640x360, audio=yes)\n",
            "SDL_Init 48", "choose_renderer /dev", "init_for_udp 640 360", "enable_audio 1",
            "socket_init", "bind 5000", "out: [VideoPlayer] Listening on UDP port 5000\n",
            "set_audio_volume 0.75", "SDL_GetWindowFromID 77", "SDL_SetWindowTitle Stream: Ann",
            "set_overlay_callback",
            "SDL_GetTicks",  //
            "SDL_PollEvent 1", "SDL_PollEvent 0", "recv 65536 5", "needs_keyframe_request",
            "render", "render_audio_bar 640 360 audible 0.75 window", "SDL_GetTicks",
            "SDL_Delay 1",  //
            "out: [VideoPlayer] Shutting down\n", "socket_cleanup", "SDL_Quit", "~UDPSocket",
            "~VideoReceiver"));
}

TEST_F(PlayerMain, WithoutAudioTheVolumeIsStillSetAndTheBarDrawn) {
    EXPECT_EQ(run_plain(), 0);
    EXPECT_THAT(
        calls_,
        ElementsAre(
            "SDL_SetHintWithPriority SDL_NO_SIGNAL_HANDLERS 1 2",
            "SDL_SetHintWithPriority SDL_RENDER_SCALE_QUALITY linear 0", "av_log_set_level -8",
            "out: [VideoPlayer] Starting on port 5000 for streamer 0 (Unknown, 1280x720, "
            "audio=no)\n",
            "SDL_Init 48", "choose_renderer /dev", "init_for_udp 1280 720", "socket_init",
            "bind 5000", "out: [VideoPlayer] Listening on UDP port 5000\n", "set_audio_volume 1",
            "SDL_GetWindowFromID 77", "SDL_SetWindowTitle Stream: Unknown", "set_overlay_callback",
            "SDL_GetTicks",  //
            "SDL_PollEvent 1", "SDL_PollEvent 0", "recv 65536 5", "render",
            "render_audio_bar 640 360 audible 1 window", "SDL_GetTicks", "SDL_Delay 1",
            "out: [VideoPlayer] Shutting down\n", "socket_cleanup", "SDL_Quit", "~UDPSocket",
            "~VideoReceiver"));
}

TEST_F(PlayerMain, NumbersOfTheStartUpLineAreUnsignedAndSigned) {
    run({"--port", "65535", "--streamer-id", "-1", "--width", "-5", "--height", "0"});
    EXPECT_THAT(calls_, Contains("out: [VideoPlayer] Starting on port 65535 for streamer "
                                 "4294967295 (Unknown, -5x0, audio=no)\n"));
    EXPECT_THAT(calls_, Contains("init_for_udp -5 0"));
}

TEST_F(PlayerMain, StartingMutedSilencesTheReceiverAndKeepsTheVolume) {
    passes_ = {{}, {key_event(SDLK_m)}};
    run({"--port", "5000", "--has-audio", "--audio-volume", "0.75", "--audio-muted"});
    EXPECT_EQ(count("set_audio_volume 0"), 1);
    EXPECT_EQ(count("set_audio_volume 0.75"), 1);  // when the key unmuted it
    EXPECT_THAT(calls_of_pass(0), Contains("render_audio_bar 640 360 muted 0.75 window"));
    EXPECT_THAT(calls_of_pass(1), Contains("render_audio_bar 640 360 audible 0.75 window"));
}

TEST_F(PlayerMain, TheStartUpAudioStateIsNotSent) {
    run({"--port", "5000", "--has-audio", "--audio-muted", "--parent-port", "6000"});
    for (const std::string& call : calls_) {
        EXPECT_FALSE(call.starts_with("send ")) << call;
    }
}

TEST_F(PlayerMain, WithoutAWindowThereIsNoTitleButTheOverlay) {
    window_ = nullptr;
    EXPECT_EQ(run_plain(), 0);
    EXPECT_EQ(count("SDL_SetWindowTitle Stream: Unknown"), 0);
    EXPECT_EQ(count("set_overlay_callback"), 1);
    EXPECT_EQ(bar_drawn(), (std::vector{true}));
}

TEST_F(PlayerMain, ResultOfSocketInitIsIgnored) {
    socket_init_result_ = false;
    EXPECT_EQ(run_plain(), 0);
    EXPECT_THAT(calls_, Contains("bind 5000"));
}

TEST_F(PlayerMain, OnlyANegativeResultOfSdlInitIsAFailure) {
    sdl_init_result_ = 1;
    EXPECT_EQ(run_plain(), 0);
}

// ---- failures of start-up ----

class PlayerMainFailure : public PlayerMain {
  protected:
    // The list from SDL_Init on.
    Calls from_sdl_init() {
        return {std::find(calls_.begin(), calls_.end(), "SDL_Init 48"), calls_.end()};
    }
};

TEST_F(PlayerMainFailure, WithoutPortTheUsageIsPrinted) {
    EXPECT_EQ(run({"--has-audio"}), 1);
    EXPECT_THAT(
        calls_,
        ElementsAre("SDL_SetHintWithPriority SDL_NO_SIGNAL_HANDLERS 1 2",
                    "SDL_SetHintWithPriority SDL_RENDER_SCALE_QUALITY linear 0",
                    "av_log_set_level -8", "err: Error: --port is required\n",
                    "err: Usage: the-player --port <PORT> [--streamer-id <ID>] [--width <W>] "
                    "[--height <H>] [--username <NAME>] [--has-audio]\n"));
}

TEST_F(PlayerMainFailure, WithoutSdlNothingIsShutDown) {
    hook_SDL_Init = [this](Uint32 flags) {
        record("SDL_Init ", flags);
        return SDL_SetError("%s", "no display, 100%s");
    };
    EXPECT_EQ(run_plain(), 1);
    EXPECT_THAT(
        from_sdl_init(),
        ElementsAre("SDL_Init 48", "err: [VideoPlayer] SDL_Init failed: no display, 100%s\n"));
}

TEST_F(PlayerMainFailure, WithoutReceiverSdlIsShutDown) {
    init_result_ = false;
    EXPECT_EQ(run({"--port", "5000", "--has-audio"}), 1);
    EXPECT_THAT(from_sdl_init(),
                ElementsAre("SDL_Init 48", "choose_renderer /dev", "init_for_udp 1280 720",
                            "err: [VideoPlayer] Failed to initialize video receiver\n", "SDL_Quit",
                            "~VideoReceiver"));
}

TEST_F(PlayerMainFailure, WithoutItsPortSdlIsShutDown) {
    bind_result_ = false;
    EXPECT_EQ(run({"--port", "5000", "--has-audio"}), 1);
    EXPECT_THAT(from_sdl_init(),
                ElementsAre("SDL_Init 48", "choose_renderer /dev", "init_for_udp 1280 720",
                            "enable_audio 1", "socket_init", "bind 5000",
                            "err: [VideoPlayer] Failed to bind UDP socket to port 5000\n",
                            "SDL_Quit", "~UDPSocket", "~VideoReceiver"));
}

TEST_F(PlayerMainFailure, APortInUseIsNamedAfterTheSocketsReason) {
    use_real_socket();
    UDPSocket holder;
    ASSERT_TRUE(holder.bind(0));
    const std::string port = std::to_string(holder.get_bound_port());
    EXPECT_EQ(run({"--port", port}), 1);
    EXPECT_THAT(
        from_sdl_init(),
        ElementsAre("SDL_Init 48", "choose_renderer /dev", "init_for_udp 1280 720", "socket_init",
                    "err: [UDPSocket] bind() failed: Address already in use\n",
                    "err: [VideoPlayer] Failed to bind UDP socket to port " + port + "\n",
                    "SDL_Quit", "~UDPSocket", "~VideoReceiver"));
}

// ---- the loop ----

TEST_F(PlayerMain, EveryPassGoesThroughTheSameSteps) {
    passes_.resize(5);
    run_with_parent();
    const Calls idle = {"SDL_PollEvent 0", "recv 65536 5", "needs_keyframe_request", "render",
                        "SDL_Delay 1"};
    for (const int pass : {1, 2, 3, 4}) {  // the first one still shows and hides the bar
        EXPECT_THAT(calls_of_pass(pass), ElementsAreArray(idle));
    }
    EXPECT_EQ(count("render"), 6);
}

TEST_F(PlayerMain, WithoutDatagramsTheLoopGoesOn) {
    passes_.resize(1000);
    EXPECT_EQ(run_plain(), 0);
    EXPECT_EQ(count("render"), 1001);
    EXPECT_EQ(count("SDL_Delay 1"), 1001);
}

TEST_F(PlayerMain, AllEventsOfAPassAreDrainedEvenAfterAQuit) {
    passes_ = {{event_of(SDL_QUIT), key_event(SDLK_m), event_of(SDL_USEREVENT)}};
    run({"--port", "5000", "--has-audio", "--parent-port", "6000"});
    EXPECT_THAT(
        calls_of_pass(0),
        ElementsAre("SDL_PollEvent 1", "SDL_PollEvent 1", "set_audio_volume 0",
                    testing::StartsWith("send AUDS\x01"), "SDL_GetTicks", "SDL_PollEvent 1",
                    "SDL_PollEvent 0", "recv 65536 5", "needs_keyframe_request", "render",
                    "render_audio_bar 640 360 muted 1 window", "SDL_GetTicks", "SDL_Delay 1"));
    EXPECT_EQ(count("render"), 1);
}

TEST_F(PlayerMain, ClosingTheWindowEndsTheLoopAfterThePass) {
    SDL_Event close = event_of(SDL_WINDOWEVENT);
    close.window.event = SDL_WINDOWEVENT_CLOSE;
    passes_ = {{}, {close}, {}, {}};
    EXPECT_EQ(run_plain(), 0);
    EXPECT_EQ(count("render"), 2);
    EXPECT_EQ(count("SDL_Delay 1"), 2);
    EXPECT_EQ(count("out: [VideoPlayer] Shutting down\n"), 1);
}

TEST_F(PlayerMain, EscapeDoesNotEndTheLoop) {
    passes_ = {{key_event(SDLK_ESCAPE)}, {}, {}};
    EXPECT_EQ(run_plain(), 0);
    EXPECT_EQ(count("render"), 4);
}

TEST_F(PlayerMain, AFailedReceiveDoesNotEndTheLoop) {
    recv_error_ = true;
    passes_.resize(3);
    EXPECT_EQ(run_plain(), 0);
    EXPECT_EQ(count("render"), 4);
    EXPECT_TRUE(handled_.empty());
}

// ---- datagrams ----

class PlayerMainDatagram : public PlayerMain {
  protected:
    static Datagram datagram(std::size_t size, std::uint8_t flags, std::uint8_t filling = 0) {
        Datagram bytes(size, filling);
        if (size > 26) {
            bytes[26] = flags;
        }
        return bytes;
    }
    // What a run does with this one datagram: the call between receiving and rendering.
    Calls handling_of(const Datagram& datagram) {
        datagrams_ = {datagram};
        EXPECT_EQ(run_plain(), 0);
        Calls calls = calls_of_pass(0);
        return {std::next(std::find(calls.begin(), calls.end(), "recv 65536 5")),
                std::find(calls.begin(), calls.end(), "render")};
    }
};

TEST_F(PlayerMainDatagram, Of27BytesReachesNoHandler) {
    for (const std::uint8_t flags : {std::uint8_t{0}, vesper::kScreenAudioFlag}) {
        const Datagram shorter = datagram(27, flags);
        datagrams_.push_back(shorter);
    }
    datagrams_.push_back({0xFF});
    passes_.resize(3);
    run_plain();
    EXPECT_EQ(count("recv 65536 5"), 4);
    EXPECT_TRUE(handled_.empty());
}

// Bytes of an earlier datagram that are still in the buffer do not complete a short one.
TEST_F(PlayerMainDatagram, Of27BytesAfterALongerOneReachesNoHandler) {
    datagrams_ = {datagram(100, vesper::kScreenAudioFlag), datagram(27, 0)};
    passes_.resize(1);
    run_plain();
    EXPECT_EQ(handled_.size(), 1U);
}

TEST_F(PlayerMainDatagram, Of28BytesIsAFragmentWithTheFlagClear) {
    EXPECT_THAT(handling_of(datagram(28, 0)), ElementsAre("handle_fragment 28"));
}

TEST_F(PlayerMainDatagram, Of28BytesIsScreenAudioWithTheFlagSet) {
    EXPECT_THAT(handling_of(datagram(28, vesper::kScreenAudioFlag)),
                ElementsAre("handle_screen_audio 28"));
}

TEST_F(PlayerMainDatagram, TheOtherFlagBitsDoNotMatter) {
    Calls expected;
    for (int flags = 0; flags < 256; ++flags) {
        datagrams_.push_back(datagram(41, static_cast<std::uint8_t>(flags)));
        expected.emplace_back((flags & 4) != 0 ? "handle_screen_audio 41" : "handle_fragment 41");
    }
    passes_.resize(255);
    run_plain();
    Calls handling;
    std::copy_if(calls_.begin(), calls_.end(), std::back_inserter(handling),
                 [](const std::string& call) { return call.starts_with("handle_"); });
    EXPECT_THAT(handling, ElementsAreArray(expected));
}

TEST_F(PlayerMainDatagram, TheOtherHeaderBytesDoNotMatter) {
    EXPECT_THAT(handling_of(datagram(1440, 0, 0xFF)), ElementsAre("handle_fragment 1440"));
}

TEST_F(PlayerMainDatagram, ReachesItsHandlerWhole) {
    Datagram largest(65507);  // that IPv4 carries
    for (std::size_t i = 0; i < largest.size(); ++i) {
        largest[i] = static_cast<std::uint8_t>(i * 7);
    }
    largest[26] = 0;
    EXPECT_THAT(handling_of(largest), ElementsAre("handle_fragment 65507"));
    ASSERT_EQ(handled_.size(), 1U);
    EXPECT_EQ(handled_.front(), largest);
}

TEST_F(PlayerMainDatagram, OneIsTakenInEachPass) {
    datagrams_ = {datagram(50, 0), datagram(51, vesper::kScreenAudioFlag), datagram(52, 0)};
    passes_.resize(2);
    run_plain();
    EXPECT_THAT(calls_of_pass(0), Contains("handle_fragment 50"));
    EXPECT_THAT(calls_of_pass(1), ElementsAre("SDL_PollEvent 0", "recv 65536 5",
                                              "handle_screen_audio 51", "render", "SDL_Delay 1"));
    EXPECT_THAT(calls_of_pass(2), Contains("handle_fragment 52"));
    EXPECT_EQ(handled_.size(), 3U);
}

// ---- keyframe requests ----

using PlayerMainKeyframe = PlayerMain;

TEST_F(PlayerMainKeyframe, IsAskedForOnce) {
    receiver_wants_keyframe_ = true;
    passes_.resize(2);
    run_with_parent();
    EXPECT_THAT(
        calls_of_pass(0),
        ElementsAre("SDL_PollEvent 0", "recv 65536 5", "needs_keyframe_request",
                    "send KFRQ to 127.0.0.1:6000",
                    "out: [VideoPlayer] Sent keyframe request to parent (port 6000)\n", "render",
                    "render_audio_bar 640 360 audible 1 window", "SDL_GetTicks", "SDL_Delay 1"));
    EXPECT_EQ(count("send KFRQ to 127.0.0.1:6000"), 1);
    EXPECT_EQ(count("out: [VideoPlayer] Sent keyframe request to parent (port 6000)\n"), 1);
    EXPECT_EQ(count("needs_keyframe_request"), 3);
    EXPECT_FALSE(keyframe_still_wanted_);
}

TEST_F(PlayerMainKeyframe, IsAskedForInEveryPassThatWantsOne) {
    hook_needs_keyframe_request = [](auto*) { return true; };
    passes_.resize(4);
    run_with_parent();
    EXPECT_EQ(count("send KFRQ to 127.0.0.1:6000"), 5);
    EXPECT_EQ(count("out: [VideoPlayer] Sent keyframe request to parent (port 6000)\n"), 5);
}

TEST_F(PlayerMainKeyframe, WithoutParentTheRequestStaysPending) {
    receiver_wants_keyframe_ = true;
    passes_.resize(2);
    run_plain();
    EXPECT_EQ(count("needs_keyframe_request"), 0);
    EXPECT_TRUE(keyframe_still_wanted_);
    for (const std::string& call : calls_) {
        EXPECT_FALSE(call.starts_with("send ") || call.find("Sent keyframe") != std::string::npos)
            << call;
    }
}

TEST_F(PlayerMainKeyframe, TheLineIsWrittenWhateverSendReturns) {
    receiver_wants_keyframe_ = true;
    send_result_ = -1;
    passes_.resize(2);
    EXPECT_EQ(run_with_parent(), 0);
    EXPECT_EQ(count("send KFRQ to 127.0.0.1:6000"), 1);
    EXPECT_EQ(count("out: [VideoPlayer] Sent keyframe request to parent (port 6000)\n"), 1);
}

class PlayerMainSocket : public PlayerMain {
  protected:
    void SetUp() override {
        PlayerMain::SetUp();
        use_real_socket();
        ASSERT_TRUE(parent_.bind(0));
        port_ = vesper::tools::free_port();
        ASSERT_NE(port_, 0);
    }
    int run_between_ports() {
        return run({"--port", std::to_string(port_), "--parent-port",
                    std::to_string(parent_.get_bound_port())});
    }
    UDPSocket parent_;
    std::uint16_t port_ = 0;
};

TEST_F(PlayerMainSocket, TheParentReceivesFourBytes) {
    receiver_wants_keyframe_ = true;
    EXPECT_EQ(run_between_ports(), 0);
    Datagram message(100);
    const int length = parent_.recv(message.data(), message.size(), kGenerousWait);
    ASSERT_GE(length, 0);
    message.resize(static_cast<std::size_t>(length));
    EXPECT_THAT(message, ElementsAre(0x4B, 0x46, 0x52, 0x51));
}

TEST_F(PlayerMainSocket, TheLineFollowsEvenAFailedSend) {
    receiver_wants_keyframe_ = true;
    hook_sendto = [](auto...) {
        errno = ECONNREFUSED;
        return ssize_t{-1};
    };
    EXPECT_EQ(run_between_ports(), 0);
    EXPECT_THAT(calls_of_pass(0),
                testing::IsSupersetOf(
                    {std::string("err: [UDPSocket] sendto() failed: Connection refused\n"),
                     text("out: [VideoPlayer] Sent keyframe request to parent (port ",
                          parent_.get_bound_port(), ")\n")}));
}

TEST_F(PlayerMainSocket, DatagramsOfTheParentReachTheHandler) {
    hook_render = [this](auto*) {
        record("render");
        if (pass_ == 0) {
            const Datagram fragment(41);
            parent_.send(fragment.data(), fragment.size(), "127.0.0.1", port_);
        }
    };
    passes_.resize(200);  // as many receives, each of which waits
    EXPECT_EQ(run_between_ports(), 0);
    EXPECT_EQ(count("handle_fragment 41"), 1);
}

// ---- the bar's time ----

class PlayerMainBar : public PlayerMain {
  protected:
    // Runs passes at these times; the last one is the one that ends the loop.
    void run_at(std::vector<Uint32> times) {
        now_ = times.front();
        passes_.resize(times.size() - 1);
        for (auto& [pass, event] : events_) {
            passes_.at(pass).push_back(event);
        }
        pass_times_ = std::move(times);
        run({"--port", "5000", "--has-audio"});
    }
    std::vector<std::pair<std::size_t, SDL_Event>> events_;  // and their passes
};

TEST_F(PlayerMainBar, IsDrawnOnceWhenNothingMoves) {
    run_at({1000, 1001, 1002, 1003});
    EXPECT_EQ(bar_drawn(), (std::vector{true, false, false, false}));
}

// Once hidden there is no need to ask for the time.
TEST_F(PlayerMainBar, TheTimeIsAskedForOnlyWhileItIsShown) {
    run_at({1000, 1001, 1002, 1003});
    EXPECT_EQ(count("SDL_GetTicks"), 2);  // once at the start, once in the first pass
}

TEST_F(PlayerMainBar, StaysForTwoSecondsAfterTheLastMotion) {
    events_ = {{0, event_of(SDL_MOUSEMOTION)}};
    run_at({1000, 1001, 3000, 3001, 3002, 3003});
    // At 3000 exactly 2000 ms have passed, at 3001 more; the pass that notices has drawn it.
    EXPECT_EQ(bar_drawn(), (std::vector{true, true, true, true, false, false}));
}

TEST_F(PlayerMainBar, ComesBackWithMotion) {
    events_ = {{2, event_of(SDL_MOUSEMOTION)}};
    run_at({1000, 1001, 1002, 3002, 3003, 3004});
    EXPECT_EQ(bar_drawn(), (std::vector{true, false, true, true, true, false}));
}

TEST_F(PlayerMainBar, EveryMotionProlongsIt) {
    events_ = {{0, event_of(SDL_MOUSEMOTION)}, {1, event_of(SDL_MOUSEMOTION)}};
    run_at({1000, 2900, 4900, 4901, 4902});
    EXPECT_EQ(bar_drawn(), (std::vector{true, true, true, true, false}));
}

TEST_F(PlayerMainBar, AClickDoesNotProlongIt) {
    events_ = {{0, event_of(SDL_MOUSEMOTION)}, {1, left_press(20, 350)}};
    run_at({1000, 2900, 3001, 3002});
    EXPECT_EQ(bar_drawn(), (std::vector{true, true, true, false}));
    EXPECT_THAT(calls_of_pass(1), Contains("render_audio_bar 640 360 muted 1 window"));
}

TEST_F(PlayerMainBar, StaysWhileTheSliderIsDragged) {
    SDL_Event release = event_of(SDL_MOUSEBUTTONUP);
    release.button.button = SDL_BUTTON_LEFT;
    events_ = {{0, left_press(198, 350)}, {3, release}};
    run_at({1000, 50'000, 100'000, 200'000, 200'001});
    EXPECT_EQ(bar_drawn(), (std::vector{true, true, true, true, false}));
    EXPECT_EQ(count("SDL_GetTicks"), 2);  // at the start and after the release
}

// The first activity lies three seconds ahead: a first pass that ends between then and two seconds
// later finds the bar in use.
TEST_F(PlayerMainBar, IsKeptByAFirstPassOfThreeToFiveSeconds) {
    now_ = 1000;
    hook_render = [this, draw = hook_render](VideoReceiver* self) {
        draw(self);
        if (pass_ == 0) {
            now_ = 6000;
        }
    };
    run_at({1000, 6000, 6001, 6002});
    EXPECT_EQ(bar_drawn(), (std::vector{true, true, true, false}));
}

TEST_F(PlayerMainBar, SurvivesTheWrapOfTheTicks) {
    events_ = {{1, event_of(SDL_MOUSEMOTION)}};
    // The motion is 1000 ms before the wrap: 1000 after it are exactly 2000 ms.
    run_at({0xFFFF'FC00, 0xFFFF'FC18, 0, 1000, 1001, 1002});
    EXPECT_EQ(bar_drawn(), (std::vector{true, true, true, true, true, false}));
}

TEST_F(PlayerMainBar, IsHiddenAtTheFirstPassEvenWhenTheStartWraps) {
    run_at({0xFFFF'FC18, 0xFFFF'FC19, 0xFFFF'FC1A});
    EXPECT_EQ(bar_drawn(), (std::vector{true, false, false}));
}

TEST_F(PlayerMainBar, ShowsTheStateOfTheMoment) {
    SDL_Event click = left_press(630, 350);  // the fullscreen button
    window_ = nullptr;                       // no real window may be touched
    events_ = {{0, key_event(SDLK_DOWN)}, {1, key_event(SDLK_m)}, {2, click}};
    run_at({1000, 1001, 1002, 1003});
    EXPECT_THAT(calls_of_pass(0), Contains("render_audio_bar 640 360 audible 0.95 window"));
    EXPECT_THAT(calls_of_pass(1), Contains("render_audio_bar 640 360 muted 0.95 window"));
    EXPECT_THAT(calls_of_pass(2), Contains("render_audio_bar 640 360 muted 0.95 window"));
}

// ---- with the real receiver, on SDL's drivers without screen and sound card ----

class PlayerMainOnDummyDrivers : public PlayerMainSocket {
  protected:
    void SetUp() override {
        PlayerMainSocket::SetUp();
        ASSERT_EQ(setenv("SDL_VIDEODRIVER", "dummy", 1), 0);
        ASSERT_EQ(setenv("SDL_AUDIODRIVER", "dummy", 1), 0);
        hook_SDL_Init = [this](Uint32 flags) {
            record("SDL_Init ", flags);
            return __real_SDL_Init(flags);
        };
        hook_SDL_Quit = [this] {
            record("SDL_Quit");
            __real_SDL_Quit();
        };
        hook_SDL_SetWindowTitle = nullptr;
        hook_SDL_GetWindowFromID = [this](Uint32 id) {
            window_ = __real_SDL_GetWindowFromID(id);
            return window_;
        };
        hook_SDL_GetWindowSize = nullptr;
        hook_choose_renderer = nullptr;
        hook_init_for_udp = nullptr;
        hook_enable_audio = nullptr;
        hook_set_audio_volume = nullptr;
        hook_set_overlay_callback = nullptr;
        hook_render = [this](VideoReceiver* self) {
            title_ = SDL_GetWindowTitle(window_);
            audio_enabled_ = VideoReceiverPeer(*self).audio_enabled();
            running_ = VideoReceiverPeer(*self).running();
            left_by_sdl = VideoReceiverPeer(*self).renderer();
            record("render");
            __real__ZN6vesper6client13VideoReceiver6renderEv(self);
        };
        hook_render_audio_bar = [this](SDL_Renderer* to, int w, int h, bool muted, float volume,
                                       bool fullscreen) {
            record("render_audio_bar ", w, ' ', h);
            __real__Z16render_audio_barP12SDL_Rendereriibfb(to, w, h, muted, volume, fullscreen);
        };
        hook_receiver_destructor = [this](VideoReceiver* self) {
            sdl_up_at_destruction_ = SDL_WasInit(0) != 0;
            running_at_destruction_ = VideoReceiverPeer(*self).running();
            record("~VideoReceiver");
            __real__ZN6vesper6client13VideoReceiverD1Ev(self);
        };
    }

    // SDL_Quit() frees the window, but neither its renderer nor the texture: kept where the leak
    // detector finds them.
    [[maybe_unused]] static inline SDL_Renderer* volatile left_by_sdl = nullptr;

    std::string title_;
    bool audio_enabled_ = false;
    bool running_ = false;
    bool sdl_up_at_destruction_ = true;
    bool running_at_destruction_ = false;
};

TEST_F(PlayerMainOnDummyDrivers, TheReceiverIsStoppedAfterSdlQuit) {
    passes_.resize(3);
    EXPECT_EQ(run({"--port", std::to_string(port_), "--username", "Ann", "--has-audio", "--width",
                   "640", "--height", "360"}),
              0);
    EXPECT_EQ(title_, "Stream: Ann");
    EXPECT_TRUE(audio_enabled_);
    EXPECT_TRUE(running_);
    EXPECT_EQ(bar_drawn(), (std::vector{true, false, false, false}));
    const Calls end(std::find(calls_.begin(), calls_.end(), "out: [VideoPlayer] Shutting down\n"),
                    calls_.end());
    EXPECT_THAT(end, ElementsAre("out: [VideoPlayer] Shutting down\n", "socket_cleanup", "SDL_Quit",
                                 "~UDPSocket", "~VideoReceiver"));
    EXPECT_FALSE(sdl_up_at_destruction_);
    EXPECT_TRUE(running_at_destruction_);
}

TEST_F(PlayerMainOnDummyDrivers, AWindowWithoutPositiveSizeIsAFailure) {
    EXPECT_EQ(run({"--port", std::to_string(port_), "--width", "0"}), 1);
    EXPECT_THAT(calls_, Contains("err: [VideoPlayer] Failed to initialize video receiver\n"));
    EXPECT_THAT(calls_, Not(Contains("out: [VideoPlayer] Shutting down\n")));
}

}  // namespace
