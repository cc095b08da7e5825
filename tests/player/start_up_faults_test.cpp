// The whole process, from its command line to its exit status, with one call of its set-up made to
// fail: each call in turn. Everything else is real, on SDL's drivers without screen and sound card.
#include <SDL2/SDL.h>
#include <fcntl.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <opus.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/fcntl_hook.h"
#include "tests/support/hook.h"
#include "tests/support/numbered_addresses.h"
#include "tests/support/set_up_hooks.h"
#include "tests/support/transcript.h"
#include "tools/stream/free_port.h"

int player_main(int argc, char** argv);

// clang-format off: one hook a line
VESPER_HOOK(setvbuf, int, (FILE * stream, char* buffer, int mode, std::size_t size),
            (stream, buffer, mode, size))
VESPER_HOOK(SDL_SetHintWithPriority, SDL_bool,
            (const char* name, const char* value, SDL_HintPriority priority),
            (name, value, priority))
VESPER_HOOK(SDL_Init, int, (Uint32 flags), (flags))
VESPER_HOOK(SDL_Quit, void, (), ())
VESPER_HOOK(SDL_PollEvent, int, (SDL_Event * event), (event))
VESPER_HOOK(SDL_GetWindowFromID, SDL_Window*, (Uint32 id), (id))
VESPER_HOOK(SDL_SetWindowTitle, void, (SDL_Window * window, const char* title), (window, title))
VESPER_HOOK(SDL_OpenAudioDevice, SDL_AudioDeviceID,
            (const char* device, int iscapture, const SDL_AudioSpec* desired,
             SDL_AudioSpec* obtained, int allowed_changes),
            (device, iscapture, desired, obtained, allowed_changes))
VESPER_HOOK(SDL_CloseAudioDevice, void, (SDL_AudioDeviceID device), (device))
VESPER_HOOK(opus_decoder_create, OpusDecoder*, (opus_int32 rate, int channels, int* error),
            (rate, channels, error))
VESPER_HOOK(opus_decoder_destroy, void, (OpusDecoder * decoder), (decoder))
VESPER_HOOK(signal, sighandler_t, (int number, sighandler_t handler), (number, handler))
VESPER_HOOK(socket, int, (int domain, int type, int protocol), (domain, type, protocol))
VESPER_HOOK(bind, int, (int fd, const sockaddr* address, socklen_t size), (fd, address, size))
VESPER_HOOK(getsockname, int, (int fd, sockaddr* address, socklen_t* size), (fd, address, size))
VESPER_HOOK(close, int, (int fd), (fd))
// clang-format on

namespace {

using vesper::test::hook_start_thread;
using vesper::test::HookedTest;
using vesper::test::joined;
using vesper::test::real_start_thread;
using vesper::test::Transcript;
using vesper::test::with_numbered_addresses;

// A whole run in which nothing fails: each call of the set-up, what is printed, what is released.
// PORT stands for a number, #1 to #3 for addresses.
constexpr std::string_view kStartUp =
    "setvbuf\n"
    "hint SDL_NO_SIGNAL_HANDLERS\n"
    "hint SDL_RENDER_SCALE_QUALITY\n"
    "out: [VideoPlayer] Starting on port PORT for streamer 0 (Unknown, 64x48, audio=yes)\n"
    "SDL_Init\n"
    "SDL_GetCurrentDisplayMode\n"
    "SDL_CreateWindow\n"
    "SDL_GetWindowID\n"
    "accelerated renderer\n"
    "SDL_CreateTexture\n"
    "avcodec_find_decoder\n"
    "avcodec_alloc_context3\n"
    "avcodec_open2\n"
    "av_frame_alloc\n"
    "av_packet_alloc\n"
    "out: [VideoReceiver] Standalone initialized (64x48)\n"
    "decode thread\n"
    "opus_decoder_create\n"
    "SDL_OpenAudioDevice\n"
    "out: [Audio] Opened playback device: 48000 Hz, 2 ch, 960 samples\n"
    "out: [VideoReceiver] Screen audio enabled (stereo, 48kHz)\n"
    "signal\n"
    "socket\n"
    "fcntl(F_GETFL)\n"
    "fcntl(F_SETFL)\n"
    "bind\n"
    "getsockname\n"
    "out: [VideoPlayer] Listening on UDP port PORT\n"
    "SDL_GetWindowFromID\n"
    "SDL_SetWindowTitle\n"
    "out: [VideoPlayer] Shutting down\n";

constexpr std::string_view kQuitSdl = "SDL_Quit\n";
constexpr std::string_view kCloseSocket = "close\n";

// SDL is down: the receiver only forgets window, renderer and texture.
constexpr std::string_view kDestroyReceiver =
    "out: [VideoReceiver] Destructor called for uid=0, cleanup_done=0\n"
    "out: [VideoReceiver] Destructor calling stop()\n"
    "out: [VideoReceiver] Stopping decode thread and cleaning up codecs for user 0\n"
    "out: [VideoReceiver] Signaling decode thread to stop\n"
    "out: [VideoReceiver] Waiting for decode thread to join...\n"
    "watchdog thread\n"
    "out: [VideoReceiver] Decode thread joined successfully\n"
    "av_packet_free\n"
    "av_frame_free\n"
    "avcodec_free_context\n"
    "SDL_CloseAudioDevice\n"
    "opus_decoder_destroy\n"
    "out: [VideoReceiver] Decode and codec cleanup complete\n"
    "out: [RECV SDL DESTROY] uid=0, window_id=1: START (window=#1, renderer=#2, texture=#3)\n"
    "out: [RECV SDL DESTROY] uid=0: Sleeping 10ms for event processing\n"
    "out: [RECV SDL DESTROY] uid=0: Destroying texture #3\n"
    "out: [RECV SDL DESTROY] uid=0: Texture destroyed\n"
    "out: [RECV SDL DESTROY] uid=0: Destroying renderer #2\n"
    "out: [RECV SDL DESTROY] uid=0: Renderer destroyed\n"
    "out: [RECV SDL DESTROY] uid=0: Destroying window #1 (ID=1)\n"
    "out: [RECV SDL DESTROY] uid=0: Window destroyed\n"
    "out: [RECV SDL DESTROY] uid=0: COMPLETE\n"
    "out: [VideoReceiver] Stop complete\n"
    "out: [VideoReceiver] Destructor complete for uid=0\n";

constexpr std::string_view kDestroyFailedReceiver =
    "out: [VideoReceiver] Destructor called for uid=0, cleanup_done=0\n"
    "out: [VideoReceiver] Destructor calling stop()\n"
    "out: [VideoReceiver] Stopping decode thread and cleaning up codecs for user 0\n"
    "out: [VideoReceiver] Decode and codec cleanup complete\n"
    "out: [RECV SDL DESTROY] uid=0, window_id=1: START (window=(nil), renderer=(nil), "
    "texture=(nil))\n"
    "out: [RECV SDL DESTROY] uid=0: COMPLETE\n"
    "out: [VideoReceiver] Stop complete\n"
    "out: [VideoReceiver] Destructor complete for uid=0\n";

constexpr std::string_view kDestroyWindow = "SDL_DestroyWindow\n";
constexpr std::string_view kDestroyRendererAndWindow =
    "SDL_DestroyRenderer\n"
    "SDL_DestroyWindow\n";
constexpr std::string_view kDestroyAll =
    "SDL_DestroyTexture\n"
    "SDL_DestroyRenderer\n"
    "SDL_DestroyWindow\n";

// `text` with its one `old_words` replaced.
std::string replaced(std::string text, std::string_view old_words, std::string_view new_words) {
    const std::size_t place = text.find(old_words);
    EXPECT_NE(place, std::string::npos) << old_words;
    return place == std::string::npos ? text : text.replace(place, old_words.size(), new_words);
}

// GoogleTest allows no spaces in the name of a test.
std::string test_name(std::string words) {
    std::ranges::replace(words, ' ', '_');
    return words;
}

std::string whole_run() {
    return joined({kStartUp, kQuitSdl, kCloseSocket, kDestroyReceiver});
}

// The start-up up to the call of this name, which fails.
std::string up_to(const std::string& failing) {
    const std::string line = failing + "\n";
    const std::size_t place = kStartUp.find(line);
    EXPECT_NE(place, std::string_view::npos) << failing;
    return std::string(kStartUp.substr(0, place)) + failing + " fails\n";
}

class StartUpFaults : public HookedTest {
  protected:
    void SetUp() override {
        ASSERT_EQ(::setenv("SDL_VIDEODRIVER", "dummy", 1), 0);
        ASSERT_EQ(::setenv("SDL_AUDIODRIVER", "dummy", 1), 0);
        const std::uint16_t port = vesper::tools::free_port();
        ASSERT_NE(port, 0);
        port_ = std::to_string(port);
    }

    // Runs main with this call failing, closing the window in the first pass. Returns its exit
    // status.
    int run(const std::string& failing) {
        failing_ = {failing};
        return run();
    }
    int run() {
        hook_process();
        hook_window();
        hook_decoder();
        hook_sound();
        hook_socket_calls();
        std::vector<std::string> words = {"player", "--port",   port_, "--width",
                                          "64",     "--height", "48",  "--has-audio"};
        std::vector<char*> argv;
        for (std::string& word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        return player_main(static_cast<int>(words.size()), argv.data());
    }

    // All that was printed and called, as the texts above have it.
    std::string story() {
        const std::string port = "port " + port_;
        std::string text = with_numbered_addresses(transcript_->take());
        for (std::size_t place = 0; (place = text.find(port)) != std::string::npos;) {
            text.replace(place, port.size(), "port PORT");
        }
        return text;
    }

    std::vector<std::string> failing_;
    std::optional<Transcript> transcript_;

  private:
    void note(const std::string& line) {
        if (transcript_) {
            transcript_->note("%s", line.c_str());
        }
    }

    // Notes the call; true when it is to fail.
    bool fails(const std::string& call) {
        for (const std::string& failing : failing_) {
            if (failing == call) {
                note(call + " fails");
                SDL_SetError("no %s today", call.c_str());
                errno = EACCES;
                return true;
            }
        }
        note(call);
        return false;
    }

    void hook_process() {
        hook_setvbuf = [this](FILE* stream, char* buffer, int mode, std::size_t size) {
            return fails("setvbuf") ? -1 : __real_setvbuf(stream, buffer, mode, size);
        };
        hook_SDL_SetHintWithPriority = [this](const char* name, auto... arguments) {
            return fails(std::string("hint ") + name)
                       ? SDL_FALSE
                       : __real_SDL_SetHintWithPriority(name, arguments...);
        };
        hook_SDL_Init = [this](Uint32 flags) {
            return fails("SDL_Init") ? -1 : __real_SDL_Init(flags);
        };
        hook_SDL_Quit = [this] {
            note("SDL_Quit");
            // SDL_Quit() frees the window, but neither its renderer nor the texture, which the
            // leak check would report as the player's.
            if (renderer_ != nullptr) {
                __real_SDL_DestroyRenderer(std::exchange(renderer_, nullptr));
            }
            __real_SDL_Quit();
        };
        hook_SDL_PollEvent = [closed = false](SDL_Event* event) mutable {
            if (closed) {
                return 0;
            }
            *event = {};
            event->type = SDL_QUIT;
            closed = true;
            return 1;
        };
        hook_start_thread = [this, started = 0](std::thread* thread, void* state,
                                                void (*depend)()) mutable {
            if (fails(started++ == 0 ? "decode thread" : "watchdog thread")) {
                throw std::system_error(
                    std::make_error_code(std::errc::resource_unavailable_try_again));
            }
            real_start_thread(thread, state, depend);
        };
    }

    void hook_window() {
        hook_SDL_GetCurrentDisplayMode = [this](auto... arguments) {
            return fails("SDL_GetCurrentDisplayMode")
                       ? -1
                       : __real_SDL_GetCurrentDisplayMode(arguments...);
        };
        hook_SDL_CreateWindow = [this](auto... arguments) {
            return fails("SDL_CreateWindow") ? nullptr : __real_SDL_CreateWindow(arguments...);
        };
        hook_SDL_GetWindowID = [this](SDL_Window* window) {
            return fails("SDL_GetWindowID") ? 0 : __real_SDL_GetWindowID(window);
        };
        hook_SDL_GetWindowFromID = [this](Uint32 id) {
            return fails("SDL_GetWindowFromID") ? nullptr : __real_SDL_GetWindowFromID(id);
        };
        hook_SDL_SetWindowTitle = [this](SDL_Window* window, const char* title) {
            note("SDL_SetWindowTitle");
            __real_SDL_SetWindowTitle(window, title);
        };
        // The dummy driver has only the software renderer, which represents both here.
        hook_SDL_CreateRenderer = [this](SDL_Window* window, int index, Uint32 flags) {
            const bool accelerated = (flags & SDL_RENDERER_ACCELERATED) != 0;
            renderer_ = fails(accelerated ? "accelerated renderer" : "software renderer")
                            ? nullptr
                            : __real_SDL_CreateRenderer(window, index, SDL_RENDERER_SOFTWARE);
            return renderer_;
        };
        hook_SDL_CreateTexture = [this](auto... arguments) {
            return fails("SDL_CreateTexture") ? nullptr : __real_SDL_CreateTexture(arguments...);
        };
        hook_SDL_DestroyTexture = [this](SDL_Texture* texture) {
            note("SDL_DestroyTexture");
            __real_SDL_DestroyTexture(texture);
        };
        hook_SDL_DestroyRenderer = [this](SDL_Renderer* renderer) {
            note("SDL_DestroyRenderer");
            renderer_ = nullptr;
            __real_SDL_DestroyRenderer(renderer);
        };
        hook_SDL_DestroyWindow = [this](SDL_Window* window) {
            note("SDL_DestroyWindow");
            __real_SDL_DestroyWindow(window);
        };
    }

    void hook_decoder() {
        hook_avcodec_find_decoder = [this](AVCodecID id) {
            return fails("avcodec_find_decoder") ? nullptr : __real_avcodec_find_decoder(id);
        };
        hook_avcodec_alloc_context3 = [this](const AVCodec* codec) {
            return fails("avcodec_alloc_context3") ? nullptr : __real_avcodec_alloc_context3(codec);
        };
        hook_avcodec_open2 = [this](auto... arguments) {
            return fails("avcodec_open2") ? AVERROR(ENOMEM) : __real_avcodec_open2(arguments...);
        };
        hook_avcodec_free_context = [this](AVCodecContext** context) {
            note("avcodec_free_context");
            __real_avcodec_free_context(context);
        };
        hook_av_frame_alloc = [this] {
            return fails("av_frame_alloc") ? nullptr : __real_av_frame_alloc();
        };
        hook_av_frame_free = [this](AVFrame** frame) {
            note("av_frame_free");
            __real_av_frame_free(frame);
        };
        hook_av_packet_alloc = [this] {
            return fails("av_packet_alloc") ? nullptr : __real_av_packet_alloc();
        };
        hook_av_packet_free = [this](AVPacket** packet) {
            note("av_packet_free");
            __real_av_packet_free(packet);
        };
    }

    void hook_sound() {
        hook_opus_decoder_create = [this](opus_int32 rate, int channels,
                                          int* error) -> OpusDecoder* {
            if (fails("opus_decoder_create")) {
                *error = OPUS_ALLOC_FAIL;
                return nullptr;
            }
            return __real_opus_decoder_create(rate, channels, error);
        };
        hook_opus_decoder_destroy = [this](OpusDecoder* decoder) {
            note("opus_decoder_destroy");
            __real_opus_decoder_destroy(decoder);
        };
        hook_SDL_OpenAudioDevice = [this](auto... arguments) {
            return fails("SDL_OpenAudioDevice") ? 0 : __real_SDL_OpenAudioDevice(arguments...);
        };
        hook_SDL_CloseAudioDevice = [this](SDL_AudioDeviceID device) {
            note("SDL_CloseAudioDevice");
            __real_SDL_CloseAudioDevice(device);
        };
    }

    void hook_socket_calls() {
        hook_signal = [this](int number, sighandler_t handler) {
            return fails("signal") ? SIG_ERR : __real_signal(number, handler);
        };
        hook_socket = [this](auto... arguments) {
            return fails("socket") ? -1 : __real_socket(arguments...);
        };
        hook_fcntl = [this](int fd, int command, long argument) {
            if (command == F_GETFD) {  // whether a standard descriptor is open
                return __real_fcntl(fd, command);
            }
            return fails(command == F_GETFL ? "fcntl(F_GETFL)" : "fcntl(F_SETFL)")
                       ? -1
                       : __real_fcntl(fd, command, argument);
        };
        hook_bind = [this](auto... arguments) {
            return fails("bind") ? -1 : __real_bind(arguments...);
        };
        hook_getsockname = [this](auto... arguments) {
            return fails("getsockname") ? -1 : __real_getsockname(arguments...);
        };
        hook_close = [this](int fd) {
            note("close");
            return __real_close(fd);
        };
    }

    std::string port_;
    SDL_Renderer* renderer_ = nullptr;  // while it lives
};

TEST_F(StartUpFaults, WithoutAnyEverythingIsMadeAndReleased) {
    transcript_.emplace();
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(story(), whole_run());
}

// ---- what the player cannot do without ----

struct Fatal {
    const char* name;
    std::vector<std::string> failing;
    std::string story;
};
void PrintTo(const Fatal& fault, std::ostream* out) {
    *out << fault.name;
}

class StartUpFaultsFatal : public StartUpFaults, public testing::WithParamInterface<Fatal> {};

TEST_P(StartUpFaultsFatal, IsReportedAndReleasesWhatWasMadeInReverseOrderWithStatusOne) {
    transcript_.emplace();
    failing_ = GetParam().failing;
    EXPECT_EQ(run(), 1);
    EXPECT_EQ(story(), GetParam().story);
}

Fatal in_receiver(const char* name, const std::string& failing, std::string_view line,
                  std::string_view released) {
    return {name,
            {failing},
            joined({up_to(failing), line, released,
                    "err: [VideoPlayer] Failed to initialize video receiver\n", kQuitSdl,
                    kDestroyFailedReceiver})};
}

Fatal without_window() {
    Fatal fault = in_receiver(
        "Window", "SDL_CreateWindow",
        "err: [VideoReceiver] Failed to create window: no SDL_CreateWindow today\n", "");
    fault.story = replaced(fault.story, "window_id=1", "window_id=0");
    return fault;
}

Fatal without_renderer() {
    Fatal fault =
        in_receiver("BothRenderers", "accelerated renderer",
                    "software renderer fails\n"
                    "err: [VideoReceiver] Failed to create renderer: no software renderer today\n",
                    kDestroyWindow);
    fault.failing.emplace_back("software renderer");
    return fault;
}

Fatal without_frame_and_packet() {
    const std::string packet = "av_packet_alloc";
    Fatal fault = in_receiver("FrameAndPacket", packet,
                              "err: [VideoReceiver] Failed to allocate frame/packet\n",
                              joined({"avcodec_free_context\n", kDestroyAll}));
    fault.failing.emplace_back("av_frame_alloc");
    fault.story = replaced(fault.story, "av_frame_alloc\n", "av_frame_alloc fails\n");
    return fault;
}

Fatal without_frame() {
    Fatal fault = in_receiver("Frame", "av_frame_alloc",
                              "av_packet_alloc\n"
                              "err: [VideoReceiver] Failed to allocate frame/packet\n",
                              joined({"av_packet_free\navcodec_free_context\n", kDestroyAll}));
    return fault;
}

Fatal in_socket(const char* name, const std::string& failing, const std::string& call,
                std::string_view released) {
    return {name,
            {failing},
            joined({up_to(failing), "err: [UDPSocket] ", call, " failed: Permission denied\n",
                    released, "err: [VideoPlayer] Failed to bind UDP socket to port PORT\n",
                    kQuitSdl, kDestroyReceiver})};
}

INSTANTIATE_TEST_SUITE_P(
    , StartUpFaultsFatal,
    testing::Values(
        Fatal{
            "Sdl",
            {"SDL_Init"},
            joined({up_to("SDL_Init"), "err: [VideoPlayer] SDL_Init failed: no SDL_Init today\n"})},
        without_window(), without_renderer(),
        in_receiver("Texture", "SDL_CreateTexture",
                    "err: [VideoReceiver] Failed to create texture: no SDL_CreateTexture today\n",
                    kDestroyRendererAndWindow),
        in_receiver("Decoder", "avcodec_find_decoder",
                    "err: [VideoReceiver] VP8 decoder not found\n", kDestroyAll),
        in_receiver("CodecContext", "avcodec_alloc_context3",
                    "err: [VideoReceiver] Failed to allocate codec context\n", kDestroyAll),
        in_receiver("OpenDecoder", "avcodec_open2",
                    "err: [VideoReceiver] Failed to open VP8 decoder\n",
                    joined({"avcodec_free_context\n", kDestroyAll})),
        without_frame(),
        in_receiver("Packet", "av_packet_alloc",
                    "err: [VideoReceiver] Failed to allocate frame/packet\n",
                    joined({"av_frame_free\navcodec_free_context\n", kDestroyAll})),
        without_frame_and_packet(), in_socket("Socket", "socket", "socket()", ""),
        in_socket("ReadDescriptorFlags", "fcntl(F_GETFL)", "fcntl(O_NONBLOCK)", kCloseSocket),
        in_socket("SetDescriptorFlags", "fcntl(F_SETFL)", "fcntl(O_NONBLOCK)", kCloseSocket),
        in_socket("Bind", "bind", "bind()", kCloseSocket)),
    [](const auto& fault) { return fault.param.name; });

// ---- what the player can do without ----

class StartUpFaultsTolerated : public StartUpFaults,
                               public testing::WithParamInterface<const char*> {};

TEST_P(StartUpFaultsTolerated, ChangesNothingElse) {
    transcript_.emplace();
    EXPECT_EQ(run(GetParam()), 0);
    const std::string call = std::string("\n") + GetParam();
    EXPECT_EQ("\n" + story(), replaced("\n" + whole_run(), call + "\n", call + " fails\n"));
}

INSTANTIATE_TEST_SUITE_P(, StartUpFaultsTolerated,
                         testing::Values("setvbuf", "hint SDL_NO_SIGNAL_HANDLERS",
                                         "hint SDL_RENDER_SCALE_QUALITY",
                                         "SDL_GetCurrentDisplayMode", "signal", "getsockname"),
                         [](const auto& call) { return test_name(call.param); });

TEST_F(StartUpFaults, WithoutAcceleratedRendererTheSoftwareRendererIsTaken) {
    transcript_.emplace();
    EXPECT_EQ(run("accelerated renderer"), 0);
    EXPECT_EQ(story(), replaced(whole_run(), "accelerated renderer\n",
                                "accelerated renderer fails\n"
                                "software renderer\n"));
}

TEST_F(StartUpFaults, AWindowThatIsNotFoundAgainGetsNoTitle) {
    transcript_.emplace();
    EXPECT_EQ(run("SDL_GetWindowFromID"), 0);
    EXPECT_EQ(story(), replaced(whole_run(),
                                "SDL_GetWindowFromID\n"
                                "SDL_SetWindowTitle\n",
                                "SDL_GetWindowFromID fails\n"));
}

TEST_F(StartUpFaults, AWindowWithoutIdGetsNoTitleAndIsStillReleased) {
    transcript_.emplace();
    EXPECT_EQ(run("SDL_GetWindowID"), 0);
    std::string expected = replaced(whole_run(), "SDL_GetWindowID\n", "SDL_GetWindowID fails\n");
    expected = replaced(expected, "SDL_SetWindowTitle\n", "");
    expected = replaced(expected, "window_id=1", "window_id=0");
    EXPECT_EQ(story(), replaced(expected, "ID=1", "ID=0"));
}

TEST_F(StartUpFaults, WithoutSoundDecoderThePlayerIsSilent) {
    transcript_.emplace();
    EXPECT_EQ(run("opus_decoder_create"), 0);
    const std::string expected =
        replaced(whole_run(),
                 "opus_decoder_create\n"
                 "SDL_OpenAudioDevice\n"
                 "out: [Audio] Opened playback device: 48000 Hz, 2 ch, 960 samples\n"
                 "out: [VideoReceiver] Screen audio enabled (stereo, 48kHz)\n",
                 "opus_decoder_create fails\n"
                 "err: [VideoReceiver] Failed to init screen audio decoder\n");
    EXPECT_EQ(story(), replaced(expected,
                                "SDL_CloseAudioDevice\n"
                                "opus_decoder_destroy\n",
                                ""));
}

TEST_F(StartUpFaults, WithoutSoundDeviceThePlayerIsSilentAndGivesTheDecoderBackAtOnce) {
    transcript_.emplace();
    EXPECT_EQ(run("SDL_OpenAudioDevice"), 0);
    const std::string expected =
        replaced(whole_run(),
                 "SDL_OpenAudioDevice\n"
                 "out: [Audio] Opened playback device: 48000 Hz, 2 ch, 960 samples\n"
                 "out: [VideoReceiver] Screen audio enabled (stereo, 48kHz)\n",
                 "SDL_OpenAudioDevice fails\n"
                 "err: [Audio] Failed to open device: no SDL_OpenAudioDevice today\n"
                 "err: [VideoReceiver] Failed to open screen audio playback device\n"
                 "opus_decoder_destroy \n");
    // The mark separates that destruction from the one at the end, which must not happen again.
    EXPECT_EQ(story(), replaced(replaced(expected,
                                         "SDL_CloseAudioDevice\n"
                                         "opus_decoder_destroy\n",
                                         ""),
                                "opus_decoder_destroy \n", "opus_decoder_destroy\n"));
}

// ---- threads: the standard library's exception, which nothing catches, ends the process ----

class StartUpFaultsDeathTest : public StartUpFaults,
                               public testing::WithParamInterface<const char*> {};

TEST_P(StartUpFaultsDeathTest, AThreadThatCannotBeStartedEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // As above main, nothing catches the exception here; GoogleTest would.
    const auto run_as_a_process = [this]() noexcept { return run(GetParam()); };
    // Where the compiler destroys what the exception leaves before it ends the process, the decode
    // thread's handle ends it without naming the exception.
    EXPECT_EXIT(run_as_a_process(), testing::KilledBySignal(SIGABRT),
                "Resource temporarily unavailable|terminate called without an active exception");
}

INSTANTIATE_TEST_SUITE_P(, StartUpFaultsDeathTest,
                         testing::Values("decode thread", "watchdog thread"),
                         [](const auto& thread) { return test_name(thread.param); });

}  // namespace
