// Bringing a receiver up: init_for_udp() and start().
#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
}

#include <cstdint>
#include <set>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "client/picture_format.h"
#include "client/video_receiver.h"
#include "tests/support/hook.h"
#include "tests/support/set_up_hooks.h"
#include "tests/support/transcript.h"
#include "tests/support/video_receiver_peer.h"

// clang-format off: one hook a line
VESPER_HOOK(fflush, int, (FILE * stream), (stream))
VESPER_HOOK(SDL_RaiseWindow, void, (SDL_Window * window), (window))
VESPER_HOOK(SDL_SetWindowInputFocus, int, (SDL_Window * window), (window))
// clang-format on

namespace vesper::client {
namespace {

using test::hook_start_thread;
using test::HookedTest;
using test::joined;
using test::real_start_thread;
using test::Transcript;

// Stand-ins for SDL's objects. SDL itself is not initialised, so the receiver never passes them to
// it.
auto* const kWindow = reinterpret_cast<SDL_Window*>(0x1000);
auto* const kRenderer = reinterpret_cast<SDL_Renderer*>(0x2000);
auto* const kTexture = reinterpret_cast<SDL_Texture*>(0x3000);
auto* const kParentWindow = reinterpret_cast<SDL_Window*>(0x4000);
constexpr std::uint32_t kWindowId = 5;

// Makes and destroys none of SDL's objects, lets libavcodec work, and records every call.
class ReceiverSetUp : public HookedTest {
  protected:
    void SetUp() override {
        hook_fflush = [this](FILE* stream) {
            transcript.note("flush");
            return __real_fflush(stream);
        };
        hook_windows();
        hook_renderers_and_textures();
        hook_codec();
        hook_frame_and_packet();
        hook_start_thread = [this](std::thread* thread, void* state, void (*depend)()) {
            transcript.note("std::thread(), running=%d", peer.running() ? 1 : 0);
            if (fails("std::thread")) {
                throw std::system_error(
                    std::make_error_code(std::errc::resource_unavailable_try_again));
            }
            real_start_thread(thread, state, depend);
        };
    }

    void hook_windows() {
        hook_SDL_GetCurrentDisplayMode = [this](int display, SDL_DisplayMode* mode) {
            transcript.note("SDL_GetCurrentDisplayMode(%d)", display);
            *mode = {};
            mode->w = display_width;
            mode->h = display_height;
            return fails("SDL_GetCurrentDisplayMode") ? -1 : 0;
        };
        hook_SDL_CreateWindow = [this](const char* title, int x, int y, int w, int h,
                                       Uint32 flags) -> SDL_Window* {
            transcript.note("SDL_CreateWindow(\"%s\", 0x%x, 0x%x, %d, %d, 0x%x)", title,
                            static_cast<unsigned>(x), static_cast<unsigned>(y), w, h, flags);
            return fails("SDL_CreateWindow") ? nullptr : kWindow;
        };
        hook_SDL_GetWindowID = [this](SDL_Window* window) {
            transcript.note("SDL_GetWindowID(%p)", static_cast<void*>(window));
            return kWindowId;
        };
        hook_SDL_RaiseWindow = [this](SDL_Window* window) {
            transcript.note("SDL_RaiseWindow(%p)", static_cast<void*>(window));
        };
        hook_SDL_SetWindowInputFocus = [this](SDL_Window* window) {
            transcript.note("SDL_SetWindowInputFocus(%p)", static_cast<void*>(window));
            return 0;
        };
        hook_SDL_DestroyWindow = [this](SDL_Window* window) {
            transcript.note("SDL_DestroyWindow(%p)", static_cast<void*>(window));
        };
    }

    void hook_renderers_and_textures() {
        hook_SDL_CreateRenderer = [this](SDL_Window* window, int index,
                                         Uint32 flags) -> SDL_Renderer* {
            transcript.note("SDL_CreateRenderer(%p, %d, 0x%x)", static_cast<void*>(window), index,
                            flags);
            return fails(flags == SDL_RENDERER_ACCELERATED ? "accelerated" : "software")
                       ? nullptr
                       : kRenderer;
        };
        hook_SDL_CreateTexture = [this](SDL_Renderer* renderer, Uint32 format, int access, int w,
                                        int h) -> SDL_Texture* {
            transcript.note("SDL_CreateTexture(%p, %s, %d, %d, %d)", static_cast<void*>(renderer),
                            SDL_GetPixelFormatName(format), access, w, h);
            return fails("SDL_CreateTexture") ? nullptr : kTexture;
        };
        hook_SDL_DestroyTexture = [this](SDL_Texture* texture) {
            transcript.note("SDL_DestroyTexture(%p)", static_cast<void*>(texture));
        };
        hook_SDL_DestroyRenderer = [this](SDL_Renderer* renderer) {
            transcript.note("SDL_DestroyRenderer(%p)", static_cast<void*>(renderer));
        };
    }

    void hook_codec() {
        hook_avcodec_find_decoder = [this](AVCodecID id) -> const AVCodec* {
            transcript.note("avcodec_find_decoder(%s)", avcodec_get_name(id));
            return fails("avcodec_find_decoder") ? nullptr : __real_avcodec_find_decoder(id);
        };
        hook_avcodec_alloc_context3 = [this](const AVCodec* codec) -> AVCodecContext* {
            transcript.note("avcodec_alloc_context3(%s)", codec->name);
            return fails("avcodec_alloc_context3") ? nullptr : __real_avcodec_alloc_context3(codec);
        };
        hook_avcodec_open2 = [this](AVCodecContext* context, const AVCodec* codec,
                                    AVDictionary** options) {
            transcript.note("avcodec_open2(%s, %s, %s)", changed_options(context, codec).c_str(),
                            codec->name, options == nullptr ? "no options" : "options");
            return fails("avcodec_open2") ? AVERROR(EINVAL)
                                          : __real_avcodec_open2(context, codec, options);
        };
        hook_avcodec_free_context = [this](AVCodecContext** context) {
            transcript.note("avcodec_free_context");
            __real_avcodec_free_context(context);
        };
    }

    void hook_frame_and_packet() {
        hook_av_frame_alloc = [this]() -> AVFrame* {
            transcript.note("av_frame_alloc");
            return fails("av_frame_alloc") ? nullptr : __real_av_frame_alloc();
        };
        hook_av_frame_free = [this](AVFrame** frame) {
            transcript.note("av_frame_free");
            __real_av_frame_free(frame);
        };
        hook_av_packet_alloc = [this]() -> AVPacket* {
            transcript.note("av_packet_alloc");
            return fails("av_packet_alloc") ? nullptr : __real_av_packet_alloc();
        };
        hook_av_packet_free = [this](AVPacket** packet) {
            transcript.note("av_packet_free");
            __real_av_packet_free(packet);
        };
    }

    // Whether the call of that name is to fail; gives SDL's calls their reason.
    bool fails(const std::string& name) {
        if (!failing.contains(name)) {
            return false;
        }
        SDL_SetError("no %s today", name.c_str());
        return true;
    }

    // Every option of `context`, as "name=value,...", except those of a context fresh from
    // libavcodec.
    static std::string changed_options(AVCodecContext* context, const AVCodec* codec) {
        AVCodecContext* fresh = __real_avcodec_alloc_context3(codec);
        const std::string unchanged = "," + options_of(fresh) + ",";
        __real_avcodec_free_context(&fresh);
        std::istringstream options(options_of(context));
        std::string changed;
        for (std::string option; std::getline(options, option, ',');) {
            if (unchanged.find("," + option + ",") == std::string::npos) {
                changed += (changed.empty() ? "" : ",") + option;
            }
        }
        return changed;
    }

    static std::string options_of(AVCodecContext* context) {
        const int level = av_log_get_level();
        av_log_set_level(AV_LOG_QUIET);  // it warns of deprecated options in the list
        char* text = nullptr;
        av_opt_serialize(context, 0, 0, &text, '=', ',');
        av_log_set_level(level);
        std::string result = text;
        av_free(text);
        return result;
    }

    // The window that a stand-alone receiver opens for a stream of `width` x `height`.
    std::string window_for_stream(int width, int height) {
        std::string size;
        hook_SDL_CreateWindow = [&size](const char*, int, int, int w, int h, Uint32) {
            size = std::to_string(w) + "x" + std::to_string(h);
            return nullptr;  // the test needs nothing more
        };
        EXPECT_FALSE(receiver.init_for_udp(width, height));
        return size;
    }

    void expect_nothing_survives() {
        EXPECT_FALSE(peer.running());
        EXPECT_EQ(peer.window(), nullptr);
        EXPECT_EQ(peer.renderer(), nullptr);
        EXPECT_EQ(peer.texture(), nullptr);
        EXPECT_EQ(peer.codec_ctx(), nullptr);
        EXPECT_EQ(peer.av_frame(), nullptr);
        EXPECT_EQ(peer.av_packet(), nullptr);
        EXPECT_FALSE(peer.decode_thread().joinable());
        EXPECT_TRUE(peer.convert_buffer().empty());
        EXPECT_TRUE(peer.picture().empty());
        EXPECT_FALSE(peer.cleanup_done());
    }

    int display_width = 2560;
    int display_height = 1440;
    std::set<std::string> failing;
    Transcript transcript;
    VideoReceiver receiver;
    VideoReceiverPeer peer{receiver};
};

// ---- what every set-up does, as the transcript has it ----

constexpr auto kStandAloneWindow =
    "SDL_GetCurrentDisplayMode(0)\n"
    "SDL_CreateWindow(\"Video Stream\", 0x2fff0000, 0x2fff0000, 1280, 720, 0x24)\n";
constexpr auto kInApplicationWindow =
    "SDL_CreateWindow(\"Stream: nia\", 0x2fff0000, 0x2fff0000, 1280, 720, 0x24)\n";
static_assert(SDL_WINDOWPOS_CENTERED == 0x2fff0000);
static_assert((SDL_WINDOW_SHOWN | SDL_WINDOW_RESIZABLE) == 0x24);

constexpr auto kGetWindowId = "SDL_GetWindowID(0x1000)\n";
constexpr auto kAcceleratedRenderer = "SDL_CreateRenderer(0x1000, -1, 0x2)\n";
constexpr auto kSoftwareRenderer = "SDL_CreateRenderer(0x1000, -1, 0x1)\n";
static_assert(SDL_RENDERER_ACCELERATED == 2 && SDL_RENDERER_SOFTWARE == 1);
constexpr auto kStreamTexture =
    "SDL_CreateTexture(0x2000, SDL_PIXELFORMAT_ARGB8888, 1, 1280, 720)\n";
static_assert(SDL_TEXTUREACCESS_STREAMING == 1);
constexpr auto kFindDecoder = "avcodec_find_decoder(vp8)\n";
constexpr auto kAllocateContext = "avcodec_alloc_context3(vp8)\n";
constexpr auto kOpenDecoder = "avcodec_open2(threads=2,video_size=1280x720, vp8, no options)\n";
constexpr auto kAllocateFrameAndPacket = "av_frame_alloc\nav_packet_alloc\n";
constexpr auto kStartThread = "std::thread(), running=1\n";

constexpr auto kDestroyWindow = "SDL_DestroyWindow(0x1000)\n";
constexpr auto kDestroyRendererAndWindow =
    "SDL_DestroyRenderer(0x2000)\n"
    "SDL_DestroyWindow(0x1000)\n";
constexpr auto kDestroyAll =
    "SDL_DestroyTexture(0x3000)\n"
    "SDL_DestroyRenderer(0x2000)\n"
    "SDL_DestroyWindow(0x1000)\n";

TEST_F(ReceiverSetUp, ConstructorOnlyGivesInitialValues) {
    EXPECT_EQ(transcript.take(), "");
    EXPECT_FALSE(peer.running());
    EXPECT_FALSE(peer.reserved_flag());
    EXPECT_FALSE(peer.stream_ended());
    EXPECT_FALSE(peer.cleanup_done());
    EXPECT_FALSE(peer.condemned());
    EXPECT_EQ(peer.uid(), 0U);
    EXPECT_EQ(receiver.frame_width(), 0);
    EXPECT_EQ(receiver.frame_height(), 0);
    EXPECT_EQ(receiver.get_window_id(), 0U);
    EXPECT_TRUE(peer.partial_frames().empty());
    EXPECT_EQ(peer.last_completed_frame_id(), 0U);
    EXPECT_TRUE(peer.frame_queue().empty());
    EXPECT_EQ(peer.queue_head(), 0U);
    EXPECT_EQ(peer.queue_tail(), 0U);
    EXPECT_EQ(peer.queue_count(), 0U);
    EXPECT_FALSE(peer.picture_ready());
    EXPECT_EQ(peer.codec(), nullptr);
    EXPECT_EQ(peer.sws_ctx(), nullptr);
    EXPECT_FALSE(peer.overlay_callback());
    EXPECT_FALSE(peer.zoom_enabled());
    EXPECT_EQ(peer.zoom_x(), 0);
    EXPECT_EQ(peer.zoom_y(), 0);
    EXPECT_EQ(peer.zoom_w(), 0);
    EXPECT_EQ(peer.zoom_h(), 0);
    EXPECT_FALSE(peer.audio_enabled());
    EXPECT_EQ(peer.audio_device().get_queued_size(), 0U);
    EXPECT_FLOAT_EQ(peer.audio_volume(), 1.0F);
    EXPECT_EQ(peer.last_audio_sequence(), 0U);
    EXPECT_EQ(peer.partial_frames_bytes(), 0U);
    EXPECT_EQ(peer.decode_error_count(), 0U);
    EXPECT_FALSE(peer.keyframe_needed());
    expect_nothing_survives();
}

TEST_F(ReceiverSetUp, StandAloneModeMakesEverythingInOrderAndStartsTheThreadLast) {
    EXPECT_TRUE(receiver.init_for_udp(1280, 720));
    EXPECT_EQ(transcript.take(),
              joined({kStandAloneWindow, kGetWindowId, kAcceleratedRenderer, kStreamTexture,
                      kFindDecoder, kAllocateContext, kOpenDecoder, kAllocateFrameAndPacket,
                      "out: [VideoReceiver] Standalone initialized (1280x720)\n", kStartThread}));
}

TEST_F(ReceiverSetUp, InApplicationModeMakesEverythingInOrderAndStartsTheThreadLast) {
    EXPECT_TRUE(receiver.start(7, "nia", 1280, 720, nullptr));
    EXPECT_EQ(transcript.take(),
              joined({kInApplicationWindow, kGetWindowId, kAcceleratedRenderer, kStreamTexture,
                      kFindDecoder, kAllocateContext, kOpenDecoder, kAllocateFrameAndPacket,
                      "out: [VideoReceiver] Started: watching nia (1280x720)\n", kStartThread}));
}

TEST_F(ReceiverSetUp, InApplicationModeHandsTheFocusBackRightAfterItsWindowIsMade) {
    EXPECT_TRUE(receiver.start(7, "nia", 1280, 720, kParentWindow));
    EXPECT_EQ(transcript.take(),
              joined({kInApplicationWindow, kGetWindowId, "SDL_RaiseWindow(0x4000)\n",
                      "SDL_SetWindowInputFocus(0x4000)\n", kAcceleratedRenderer, kStreamTexture,
                      kFindDecoder, kAllocateContext, kOpenDecoder, kAllocateFrameAndPacket,
                      "out: [VideoReceiver] Started: watching nia (1280x720)\n", kStartThread}));
}

TEST_F(ReceiverSetUp, LiveReceiverOwnsWhatItMade) {
    EXPECT_TRUE(receiver.start(7, "nia", 64, 36, nullptr));
    EXPECT_TRUE(peer.running());
    EXPECT_FALSE(peer.cleanup_done());
    EXPECT_TRUE(peer.decode_thread().joinable());
    EXPECT_EQ(peer.uid(), 7U);
    EXPECT_EQ(receiver.frame_width(), 64);
    EXPECT_EQ(receiver.frame_height(), 36);
    EXPECT_EQ(peer.window(), kWindow);
    EXPECT_EQ(peer.renderer(), kRenderer);
    EXPECT_EQ(peer.texture(), kTexture);
    EXPECT_EQ(receiver.get_window_id(), kWindowId);
    EXPECT_EQ(peer.codec(), __real_avcodec_find_decoder(AV_CODEC_ID_VP8));
    EXPECT_NE(peer.codec_ctx(), nullptr);
    EXPECT_NE(peer.av_frame(), nullptr);
    EXPECT_NE(peer.av_packet(), nullptr);
    EXPECT_EQ(peer.sws_ctx(), nullptr);
    const std::vector<std::uint8_t> zeros(64 * 36 * 4);
    EXPECT_EQ(peer.convert_buffer(), zeros);
    EXPECT_EQ(peer.picture(), zeros);
    EXPECT_FALSE(peer.picture_ready());
    EXPECT_FALSE(peer.audio_enabled());
}

TEST_F(ReceiverSetUp, BothPicturesHaveRoomForTheConvertersOverrun) {
    ASSERT_TRUE(receiver.init_for_udp(21, 9));
    EXPECT_GE(peer.convert_buffer().capacity(), peer.convert_buffer().size() + kConverterOverrun);
    EXPECT_GE(peer.picture().capacity(), peer.picture().size() + kConverterOverrun);
}

TEST_F(ReceiverSetUp, StandAloneModeHasUserIdZero) {
    peer.uid() = 7;
    EXPECT_TRUE(receiver.init_for_udp(64, 36));
    EXPECT_EQ(peer.uid(), 0U);
}

TEST_F(ReceiverSetUp, ClearsReservedFlagAndLastCompletedFrameOnly) {
    peer.reserved_flag() = true;
    peer.last_completed_frame_id() = 12;
    peer.stream_ended() = true;
    peer.condemned() = true;
    peer.keyframe_needed() = true;
    peer.partial_frames_bytes() = 34;
    EXPECT_TRUE(receiver.init_for_udp(64, 36));
    EXPECT_FALSE(peer.reserved_flag());
    EXPECT_EQ(peer.last_completed_frame_id(), 0U);
    EXPECT_TRUE(peer.stream_ended());
    EXPECT_TRUE(peer.condemned());
    EXPECT_TRUE(peer.keyframe_needed());
    EXPECT_EQ(peer.partial_frames_bytes(), 34U);
}

// ---- the window's size ----

TEST_F(ReceiverSetUp, StreamLargerThanHalfTheDisplayIsScaledDownToIt) {
    EXPECT_EQ(window_for_stream(1920, 1080), "1280x720");
}

TEST_F(ReceiverSetUp, StreamOfExactlyHalfTheDisplayKeepsItsSize) {
    EXPECT_EQ(window_for_stream(1280, 720), "1280x720");
}

TEST_F(ReceiverSetUp, StreamTooWideOnlyIsScaledByItsWidth) {
    EXPECT_EQ(window_for_stream(2560, 720), "1280x360");
}

TEST_F(ReceiverSetUp, StreamTooHighOnlyIsScaledByItsHeight) {
    EXPECT_EQ(window_for_stream(1280, 1440), "640x720");
}

TEST_F(ReceiverSetUp, SmallStreamGetsTheMinimumWindow) {
    EXPECT_EQ(window_for_stream(4, 4), "320x240");
}

TEST_F(ReceiverSetUp, MinimumMayChangeTheAspectRatio) {
    display_width = 1920;
    display_height = 1080;
    EXPECT_EQ(window_for_stream(1000, 3000), "320x540");
}

TEST_F(ReceiverSetUp, HalvesOfAnOddDisplayAreTruncated) {
    display_width = 1367;
    display_height = 769;
    // 683 x 384 at most; the scale 683 / 1366 is exactly one half.
    EXPECT_EQ(window_for_stream(1366, 600), "683x300");
}

TEST_F(ReceiverSetUp, ScaleIsASinglePrecisionNumberAndItsProductsAreTruncated) {
    display_width = 1920;
    display_height = 1080;
    // 960 / 1104 as a float is less than the quotient, so that 1104 times it stays below 960; the
    // height comes out as 434.78.
    EXPECT_EQ(window_for_stream(1104, 500), "959x434");
}

TEST_F(ReceiverSetUp, UnreadableDisplayModeLeavesTheStreamsSize) {
    failing = {"SDL_GetCurrentDisplayMode"};
    EXPECT_EQ(window_for_stream(1920, 1080), "1920x1080");
}

TEST_F(ReceiverSetUp, UnreadableDisplayModeStillLeavesTheMinimum) {
    failing = {"SDL_GetCurrentDisplayMode"};
    EXPECT_EQ(window_for_stream(4, 4), "320x240");
}

TEST_F(ReceiverSetUp, TextureDecoderAndBuffersAreStreamSizedWhateverTheWindow) {
    EXPECT_TRUE(receiver.init_for_udp(1920, 1080));
    EXPECT_EQ(
        transcript.take(),
        joined({"SDL_GetCurrentDisplayMode(0)\n",
                "SDL_CreateWindow(\"Video Stream\", 0x2fff0000, 0x2fff0000, 1280, 720, 0x24)\n",
                kGetWindowId, kAcceleratedRenderer,
                "SDL_CreateTexture(0x2000, SDL_PIXELFORMAT_ARGB8888, 1, 1920, 1080)\n",
                kFindDecoder, kAllocateContext,
                "avcodec_open2(threads=2,video_size=1920x1080, vp8, no options)\n",
                kAllocateFrameAndPacket,
                "out: [VideoReceiver] Standalone initialized (1920x1080)\n", kStartThread}));
    EXPECT_EQ(peer.convert_buffer().size(), 1920U * 1080U * 4U);
    EXPECT_EQ(peer.picture().size(), 1920U * 1080U * 4U);
}

TEST_F(ReceiverSetUp, InApplicationModeOpensAWindowOfExactlyTheStreamsSize) {
    EXPECT_TRUE(receiver.start(7, "nia", 4, 2000, nullptr));
    EXPECT_EQ(
        transcript.take(),
        joined({"SDL_CreateWindow(\"Stream: nia\", 0x2fff0000, 0x2fff0000, 4, 2000, 0x24)\n",
                kGetWindowId, kAcceleratedRenderer,
                "SDL_CreateTexture(0x2000, SDL_PIXELFORMAT_ARGB8888, 1, 4, 2000)\n", kFindDecoder,
                kAllocateContext, "avcodec_open2(threads=2,video_size=4x2000, vp8, no options)\n",
                kAllocateFrameAndPacket, "out: [VideoReceiver] Started: watching nia (4x2000)\n",
                kStartThread}));
}

// ---- failures ----

TEST_F(ReceiverSetUp, RendererFallsBackToSoftwareOnce) {
    failing = {"accelerated"};
    EXPECT_TRUE(receiver.init_for_udp(1280, 720));
    EXPECT_EQ(transcript.take(),
              joined({kStandAloneWindow, kGetWindowId, kAcceleratedRenderer, kSoftwareRenderer,
                      kStreamTexture, kFindDecoder, kAllocateContext, kOpenDecoder,
                      kAllocateFrameAndPacket,
                      "out: [VideoReceiver] Standalone initialized (1280x720)\n", kStartThread}));
    EXPECT_EQ(peer.renderer(), kRenderer);
}

TEST_F(ReceiverSetUp, FocusIsHandedBackEvenWhenALaterStepFails) {
    failing = {"accelerated", "software"};
    EXPECT_FALSE(receiver.start(7, "nia", 1280, 720, kParentWindow));
    EXPECT_EQ(transcript.take(),
              joined({kInApplicationWindow, kGetWindowId, "SDL_RaiseWindow(0x4000)\n",
                      "SDL_SetWindowInputFocus(0x4000)\n", kAcceleratedRenderer, kSoftwareRenderer,
                      "err: [VideoReceiver] Failed to create renderer: no software today\n",
                      kDestroyWindow}));
}

TEST_F(ReceiverSetUp, FocusIsNotTouchedWhenTheWindowFails) {
    failing = {"SDL_CreateWindow"};
    EXPECT_FALSE(receiver.start(7, "nia", 1280, 720, kParentWindow));
    EXPECT_EQ(
        transcript.take(),
        joined({kInApplicationWindow,
                "err: [VideoReceiver] Failed to create window: no SDL_CreateWindow today\n"}));
}

TEST_F(ReceiverSetUp, FailedReceiverMayBeBroughtUpAgain) {
    failing = {"av_packet_alloc"};
    EXPECT_FALSE(receiver.init_for_udp(1280, 720));
    static_cast<void>(transcript.take());
    failing = {};
    EXPECT_TRUE(receiver.init_for_udp(1280, 720));
    EXPECT_EQ(transcript.take(),
              joined({kStandAloneWindow, kGetWindowId, kAcceleratedRenderer, kStreamTexture,
                      kFindDecoder, kAllocateContext, kOpenDecoder, kAllocateFrameAndPacket,
                      "out: [VideoReceiver] Standalone initialized (1280x720)\n", kStartThread}));
    EXPECT_TRUE(peer.running());
}

TEST_F(ReceiverSetUp, ThreadThatCannotBeStartedIsTheStandardLibrarysException) {
    failing = {"std::thread"};
    EXPECT_THROW(static_cast<void>(receiver.init_for_udp(1280, 720)), std::system_error);
    EXPECT_FALSE(peer.decode_thread().joinable());
}

struct Mode {
    const char* name;
    const char* window;  // the calls up to SDL_CreateWindow()
    bool (*bring_up)(VideoReceiver& receiver);
};

struct Failure {
    const char* name;
    std::set<std::string> failing;
    std::string after_window;  // all that follows SDL_CreateWindow()
    bool finds_codec;
};

void PrintTo(const Mode& mode, std::ostream* out) {
    *out << mode.name;
}
void PrintTo(const Failure& failure, std::ostream* out) {
    *out << failure.name;
}

class ReceiverSetUpFailure : public ReceiverSetUp,
                             public testing::WithParamInterface<std::tuple<Mode, Failure>> {};

TEST_P(ReceiverSetUpFailure, IsReportedUndoneInReverseOrderAndReturnsFalse) {
    const auto& [mode, failure] = GetParam();
    failing = failure.failing;
    EXPECT_FALSE(mode.bring_up(receiver));
    EXPECT_EQ(transcript.take(), mode.window + failure.after_window);
    EXPECT_EQ(peer.codec() != nullptr, failure.finds_codec);
    expect_nothing_survives();
}

INSTANTIATE_TEST_SUITE_P(
    , ReceiverSetUpFailure,
    testing::Combine(
        testing::Values(Mode{"StandAlone", kStandAloneWindow,
                             [](VideoReceiver& receiver) {
                                 return receiver.init_for_udp(1280, 720);
                             }},
                        Mode{"InApplication", kInApplicationWindow,
                             [](VideoReceiver& receiver) {
                                 return receiver.start(7, "nia", 1280, 720, nullptr);
                             }}),
        testing::Values(
            Failure{"Window",
                    {"SDL_CreateWindow"},
                    "err: [VideoReceiver] Failed to create window: no SDL_CreateWindow today\n",
                    false},
            Failure{"Renderer",
                    {"accelerated", "software"},
                    joined({kGetWindowId, kAcceleratedRenderer, kSoftwareRenderer,
                            "err: [VideoReceiver] Failed to create renderer: no software today\n",
                            kDestroyWindow}),
                    false},
            Failure{"Texture",
                    {"SDL_CreateTexture"},
                    joined({kGetWindowId, kAcceleratedRenderer, kStreamTexture,
                            "err: [VideoReceiver] Failed to create texture: no SDL_CreateTexture "
                            "today\n",
                            kDestroyRendererAndWindow}),
                    false},
            Failure{"FindDecoder",
                    {"avcodec_find_decoder"},
                    joined({kGetWindowId, kAcceleratedRenderer, kStreamTexture, kFindDecoder,
                            "err: [VideoReceiver] VP8 decoder not found\n", kDestroyAll}),
                    false},
            Failure{
                "AllocateContext",
                {"avcodec_alloc_context3"},
                joined({kGetWindowId, kAcceleratedRenderer, kStreamTexture, kFindDecoder,
                        kAllocateContext, "err: [VideoReceiver] Failed to allocate codec context\n",
                        kDestroyAll}),
                true},
            Failure{"OpenDecoder",
                    {"avcodec_open2"},
                    joined({kGetWindowId, kAcceleratedRenderer, kStreamTexture, kFindDecoder,
                            kAllocateContext, kOpenDecoder,
                            "err: [VideoReceiver] Failed to open VP8 decoder\n",
                            "avcodec_free_context\n", kDestroyAll}),
                    true},
            Failure{"AllocateFrame",
                    {"av_frame_alloc"},
                    joined({kGetWindowId, kAcceleratedRenderer, kStreamTexture, kFindDecoder,
                            kAllocateContext, kOpenDecoder, kAllocateFrameAndPacket,
                            "err: [VideoReceiver] Failed to allocate frame/packet\n",
                            "av_packet_free\n", "avcodec_free_context\n", kDestroyAll}),
                    true},
            Failure{"AllocatePacket",
                    {"av_packet_alloc"},
                    joined({kGetWindowId, kAcceleratedRenderer, kStreamTexture, kFindDecoder,
                            kAllocateContext, kOpenDecoder, kAllocateFrameAndPacket,
                            "err: [VideoReceiver] Failed to allocate frame/packet\n",
                            "av_frame_free\n", "avcodec_free_context\n", kDestroyAll}),
                    true},
            Failure{"AllocateFrameAndPacket",
                    {"av_frame_alloc", "av_packet_alloc"},
                    joined({kGetWindowId, kAcceleratedRenderer, kStreamTexture, kFindDecoder,
                            kAllocateContext, kOpenDecoder, kAllocateFrameAndPacket,
                            "err: [VideoReceiver] Failed to allocate frame/packet\n",
                            "avcodec_free_context\n", kDestroyAll}),
                    true})),
    [](const auto& parameters) {
        return std::string(std::get<0>(parameters.param).name) + std::get<1>(parameters.param).name;
    });

// ---- a live receiver ----

class LiveReceiverSetUp : public ReceiverSetUp {
  protected:
    void SetUp() override {
        ReceiverSetUp::SetUp();
        ASSERT_TRUE(receiver.start(7, "nia", 64, 36, nullptr));
        static_cast<void>(transcript.take());
    }
    void TearDown() override {
        // Brought up twice against the class's word: the second thread is the test's to end.
        peer.cleanup_done() = false;
        receiver.stop();
        ReceiverSetUp::TearDown();
    }
    // The stop of the first run up to its last line, and what comes next.
    std::string after_the_stop() {
        const std::string all = transcript.take();
        const std::string stopped = "out: [VideoReceiver] Stop complete\n";
        const auto end = all.find(stopped);
        EXPECT_NE(end, std::string::npos) << all;
        EXPECT_EQ(all.find("out: [VideoReceiver] Stopping decode thread and cleaning up codecs for "
                           "user 7\n"),
                  0U)
            << all;
        return end == std::string::npos ? all : all.substr(end + stopped.size());
    }
};

TEST_F(LiveReceiverSetUp, StandAloneModeStopsItFirst) {
    EXPECT_TRUE(receiver.init_for_udp(1280, 720));
    EXPECT_EQ(after_the_stop(),
              joined({kStandAloneWindow, kGetWindowId, kAcceleratedRenderer, kStreamTexture,
                      kFindDecoder, kAllocateContext, kOpenDecoder, kAllocateFrameAndPacket,
                      "out: [VideoReceiver] Standalone initialized (1280x720)\n", kStartThread}));
    EXPECT_TRUE(peer.cleanup_done()) << "a stopped receiver stays stopped for its owner";
}

TEST_F(LiveReceiverSetUp, InApplicationModeStopsItFirst) {
    EXPECT_TRUE(receiver.start(8, "nia", 1280, 720, nullptr));
    EXPECT_EQ(after_the_stop(),
              joined({kInApplicationWindow, kGetWindowId, kAcceleratedRenderer, kStreamTexture,
                      kFindDecoder, kAllocateContext, kOpenDecoder, kAllocateFrameAndPacket,
                      "out: [VideoReceiver] Started: watching nia (1280x720)\n", kStartThread}));
    EXPECT_TRUE(peer.cleanup_done()) << "a stopped receiver stays stopped for its owner";
}

// ---- with SDL itself ----

class ReceiverSetUpWithSdl : public HookedTest {
  protected:
    void SetUp() override {
        SDL_setenv("SDL_VIDEODRIVER", "dummy", 1);
        ASSERT_EQ(SDL_Init(SDL_INIT_VIDEO), 0) << SDL_GetError();
    }
    void TearDown() override {
        HookedTest::TearDown();
        SDL_Quit();
    }
};

TEST_F(ReceiverSetUpWithSdl, OpensAWindowRendererAndStreamTexture) {
    VideoReceiver receiver;
    VideoReceiverPeer peer(receiver);
    ASSERT_TRUE(receiver.start(7, "nia", 640, 360, nullptr));

    EXPECT_STREQ(SDL_GetWindowTitle(peer.window()), "Stream: nia");
    int width = 0;
    int height = 0;
    SDL_GetWindowSize(peer.window(), &width, &height);
    EXPECT_EQ(width, 640);
    EXPECT_EQ(height, 360);
    EXPECT_EQ(SDL_GetWindowFlags(peer.window()) & (SDL_WINDOW_SHOWN | SDL_WINDOW_RESIZABLE),
              Uint32{SDL_WINDOW_SHOWN | SDL_WINDOW_RESIZABLE});
    EXPECT_EQ(SDL_GetWindowFromID(receiver.get_window_id()), peer.window());
    EXPECT_EQ(SDL_GetRenderer(peer.window()), peer.renderer());
    Uint32 format = 0;
    int access = 0;
    SDL_QueryTexture(peer.texture(), &format, &access, &width, &height);
    EXPECT_EQ(format, Uint32{SDL_PIXELFORMAT_ARGB8888});
    EXPECT_EQ(access, SDL_TEXTUREACCESS_STREAMING);
    EXPECT_EQ(width, 640);
    EXPECT_EQ(height, 360);
}

TEST_F(ReceiverSetUpWithSdl, FailedDecoderLeavesNoWindowOfSdls) {
    hook_avcodec_open2 = [](auto...) { return AVERROR(EINVAL); };
    std::vector<SDL_Window*> windows;
    hook_SDL_CreateWindow = [&](auto... arguments) {
        windows.push_back(__real_SDL_CreateWindow(arguments...));
        return windows.back();
    };
    VideoReceiver receiver;
    EXPECT_FALSE(receiver.init_for_udp(640, 360));
    ASSERT_EQ(windows.size(), 1U);
    EXPECT_EQ(SDL_GetWindowFromID(receiver.get_window_id()), nullptr);
}

}  // namespace
}  // namespace vesper::client
