// Taking a receiver down: stop(), its two halves, mark_stream_ended() and the destructor.
#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
#include <libswscale/swscale.h>
}

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <functional>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

#include "client/video_receiver.h"
#include "tests/support/eventually.h"
#include "tests/support/hook.h"
#include "tests/support/transcript.h"
#include "tests/support/video_receiver_peer.h"

struct OpusDecoder;

// clang-format off: one hook a line
VESPER_HOOK(fflush, int, (FILE * stream), (stream))
VESPER_HOOK(nanosleep, int, (const timespec* duration, timespec* rest), (duration, rest))
VESPER_HOOK(SDL_WasInit, Uint32, (Uint32 flags), (flags))
VESPER_HOOK(SDL_DestroyTexture, void, (SDL_Texture * texture), (texture))
VESPER_HOOK(SDL_DestroyRenderer, void, (SDL_Renderer * renderer), (renderer))
VESPER_HOOK(SDL_DestroyWindow, void, (SDL_Window * window), (window))
VESPER_HOOK(SDL_CloseAudioDevice, void, (SDL_AudioDeviceID device), (device))
VESPER_HOOK(opus_decoder_destroy, void, (OpusDecoder * decoder), (decoder))
VESPER_HOOK(sws_freeContext, void, (SwsContext * converter), (converter))
VESPER_HOOK(av_packet_free, void, (AVPacket * *packet), (packet))
VESPER_HOOK(av_frame_free, void, (AVFrame * *frame), (frame))
VESPER_HOOK(avcodec_free_context, void, (AVCodecContext * *context), (context))
VESPER_HOOK(avcodec_send_packet, int, (AVCodecContext * context, const AVPacket* packet),
            (context, packet))
VESPER_HOOK(_ZNSt18condition_variable10notify_allEv, void, (std::condition_variable * condition),
            (condition))
VESPER_HOOK(_ZNSt6thread4joinEv, void, (std::thread * thread), (thread))
VESPER_HOOK(_ZNSt6thread6detachEv, void, (std::thread * thread), (thread))
// clang-format on

namespace vesper::client {
namespace {

using test::eventually;
using test::HookedTest;
using test::joined;
using test::Transcript;

auto& hook_notify_all = hook__ZNSt18condition_variable10notify_allEv;
const auto real_notify_all = __real__ZNSt18condition_variable10notify_allEv;
auto& hook_join = hook__ZNSt6thread4joinEv;
const auto real_join = __real__ZNSt6thread4joinEv;
auto& hook_detach = hook__ZNSt6thread6detachEv;
const auto real_detach = __real__ZNSt6thread6detachEv;

// Stand-ins for SDL's objects.
auto* const kWindow = reinterpret_cast<SDL_Window*>(0x1000);
auto* const kRenderer = reinterpret_cast<SDL_Renderer*>(0x2000);
auto* const kTexture = reinterpret_cast<SDL_Texture*>(0x3000);
constexpr std::uint32_t kWindowId = 5;
constexpr std::uint32_t kUid = 7;

// The long sleep of the join's watchdog, which the tests block: a watchdog may outlive the
// receiver, but not the test.
class Watchdogs {
  public:
    // Whether a sleep of `duration` is a watchdog's.
    static bool sleeps_for(const timespec* duration) { return duration->tv_sec > 0; }

    void started() { ++started_; }

    // On the watchdog's thread: sleeps until let go of, however long that takes.
    int sleep() {
        // Destroyed when the watchdog's thread ends.
        struct AtEnd {
            explicit AtEnd(std::atomic<int>& counter) : ended(counter) {}
            ~AtEnd() { ++ended; }
            std::atomic<int>& ended;
        };
        thread_local std::optional<AtEnd> at_end;
        at_end.emplace(ended_);
        std::unique_lock lock(mutex_);
        released_.wait(lock, [this] { return !held_; });
        return 0;
    }

    // Ends the blocked sleeps.
    void let_go() {
        {
            const std::lock_guard lock(mutex_);
            held_ = false;
        }
        real_notify_all(&released_);
    }

    // The same, and waits for every watchdog's end.
    void finish() {
        let_go();
        EXPECT_TRUE(eventually([this] { return ended_ == started_; }));
    }

  private:
    std::mutex mutex_;
    std::condition_variable released_;
    bool held_ = true;
    std::atomic<int> started_{0};
    std::atomic<int> ended_{0};
};

// Enters every call; destroys nothing of SDL's.
class ReceiverTearDown : public HookedTest {
  protected:
    void SetUp() override {
        // As the player does: on a processor without vector code for it, libswscale warns of every
        // converter.
        av_log_set_level(AV_LOG_QUIET);
        hook_fflush = [this](FILE* stream) {
            if (stream == stdout || stream == stderr) {
                transcript.note(stream == stdout ? "flush out" : "flush err");
            }
            return __real_fflush(stream);
        };
        hook_nanosleep = [this](const timespec* duration, timespec* rest) {
            if (duration->tv_nsec == std::chrono::nanoseconds(test::kPollInterval).count()) {
                return __real_nanosleep(duration, rest);  // this test's own
            }
            if (!Watchdogs::sleeps_for(duration)) {
                transcript.note("sleep %ld ms", duration->tv_nsec / 1'000'000);
                return __real_nanosleep(duration, rest);
            }
            watchdog_duration = duration->tv_sec;
            return watchdogs.sleep();
        };
        hook_SDL_WasInit = [](Uint32 flags) { return flags & SDL_INIT_VIDEO; };
        hook_sdl_objects();
        hook_codec();
        hook_threads();
    }

    void TearDown() override {
        receiver.reset();  // may start a last watchdog
        watchdogs.finish();
        HookedTest::TearDown();
    }

    void hook_sdl_objects() {
        hook_SDL_DestroyTexture = [this](SDL_Texture* texture) {
            transcript.note("SDL_DestroyTexture(%p)", static_cast<void*>(texture));
        };
        hook_SDL_DestroyRenderer = [this](SDL_Renderer* renderer) {
            transcript.note("SDL_DestroyRenderer(%p)", static_cast<void*>(renderer));
        };
        hook_SDL_DestroyWindow = [this](SDL_Window* window) {
            transcript.note("SDL_DestroyWindow(%p)", static_cast<void*>(window));
        };
        hook_SDL_CloseAudioDevice = [this](SDL_AudioDeviceID device) {
            transcript.note("SDL_CloseAudioDevice");
            __real_SDL_CloseAudioDevice(device);
        };
        hook_opus_decoder_destroy = [this](OpusDecoder* decoder) {
            transcript.note("opus_decoder_destroy");
            __real_opus_decoder_destroy(decoder);
        };
    }

    void hook_codec() {
        hook_sws_freeContext = [this](SwsContext* converter) {
            transcript.note("sws_freeContext");
            __real_sws_freeContext(converter);
        };
        hook_av_packet_free = [this](AVPacket** packet) {
            transcript.note("av_packet_free");
            __real_av_packet_free(packet);
        };
        hook_av_frame_free = [this](AVFrame** frame) {
            transcript.note("av_frame_free");
            __real_av_frame_free(frame);
        };
        hook_avcodec_free_context = [this](AVCodecContext** context) {
            transcript.note("avcodec_free_context");
            __real_avcodec_free_context(context);
        };
        hook_avcodec_send_packet = [this](auto...) {
            decoding = true;
            EXPECT_TRUE(eventually([this] { return !decoder_stuck; }));
            return AVERROR(EINVAL);
        };
    }

    void hook_threads() {
        hook_notify_all = [this](std::condition_variable* condition) {
            if (condition == &peer.queue_cv()) {
                transcript.note("queue_cv.notify_all(), running=%d, stream_ended=%d",
                                peer.running() ? 1 : 0, peer.stream_ended() ? 1 : 0);
                at_notify();
            }
            real_notify_all(condition);
        };
        hook_join = [this](std::thread* thread) {
            if (thread == &peer.decode_thread()) {
                transcript.note("decode_thread.join()");
                at_join();
            }
            real_join(thread);
        };
        hook_detach = [this](std::thread* thread) {
            transcript.note("watchdog.detach()");
            watchdogs.started();
            real_detach(thread);
        };
    }

    // A receiver as set-up leaves it, with stand-ins for SDL's objects and without the thread.
    void give_sdl_objects() {
        peer.uid() = kUid;
        peer.window() = kWindow;
        peer.renderer() = kRenderer;
        peer.texture() = kTexture;
        peer.window_id() = kWindowId;
    }
    void give_codec() {
        peer.codec_ctx() = avcodec_alloc_context3(nullptr);
        peer.av_frame() = av_frame_alloc();
        peer.av_packet() = av_packet_alloc();
        peer.convert_buffer().resize(16);
        peer.picture().resize(16);
    }
    void start_decode_thread() {
        peer.running() = true;
        peer.decode_thread() = std::thread([this] { peer.decode_thread_func(); });
    }
    void go_live() {
        give_sdl_objects();
        give_codec();
        start_decode_thread();
    }
    // Lets the decode thread take a frame that it does not finish.
    void get_decoder_stuck() {
        decoder_stuck = true;
        {
            const std::lock_guard lock(peer.queue_mutex());
            peer.frame_queue().resize(6);
            peer.frame_queue()[0] = {1};
            peer.queue_tail() = 1;
            peer.queue_count() = 1;
        }
        peer.queue_cv().notify_one();
        ASSERT_TRUE(eventually([this] { return decoding.load(); }));
    }

    Transcript transcript;
    Watchdogs watchdogs;
    std::atomic<long> watchdog_duration{0};  // s
    std::atomic<bool> decoder_stuck{false};
    std::atomic<bool> decoding{false};
    std::function<void()> at_notify = [] {};
    std::function<void()> at_join = [] {};
    std::optional<VideoReceiver> receiver{std::in_place};
    VideoReceiverPeer peer{*receiver};
};

// ---- the output of a stop, as the transcript records it ----

constexpr auto kStopping =
    "out: [VideoReceiver] Stopping decode thread and cleaning up codecs for user 7\n";
constexpr auto kJoining =
    "out: [VideoReceiver] Signaling decode thread to stop\n"
    "queue_cv.notify_all(), running=0, stream_ended=0\n"
    "out: [VideoReceiver] Waiting for decode thread to join...\n"
    "flush out\n"
    "flush err\n"
    "watchdog.detach()\n"
    "decode_thread.join()\n"
    "out: [VideoReceiver] Decode thread joined successfully\n";
constexpr auto kFreeingCodec =
    "av_packet_free\n"
    "av_frame_free\n"
    "avcodec_free_context\n";
constexpr auto kCleanedUp = "out: [VideoReceiver] Decode and codec cleanup complete\n";
constexpr auto kDestroyingAll =
    "out: [RECV SDL DESTROY] uid=7, window_id=5: START (window=0x1000, renderer=0x2000, "
    "texture=0x3000)\n"
    "flush out\n"
    "out: [RECV SDL DESTROY] uid=7: Sleeping 10ms for event processing\n"
    "flush out\n"
    "sleep 10 ms\n"
    "out: [RECV SDL DESTROY] uid=7: Destroying texture 0x3000\n"
    "flush out\n"
    "SDL_DestroyTexture(0x3000)\n"
    "out: [RECV SDL DESTROY] uid=7: Texture destroyed\n"
    "flush out\n"
    "out: [RECV SDL DESTROY] uid=7: Destroying renderer 0x2000\n"
    "flush out\n"
    "SDL_DestroyRenderer(0x2000)\n"
    "out: [RECV SDL DESTROY] uid=7: Renderer destroyed\n"
    "flush out\n"
    "out: [RECV SDL DESTROY] uid=7: Destroying window 0x1000 (ID=5)\n"
    "flush out\n"
    "SDL_DestroyWindow(0x1000)\n"
    "out: [RECV SDL DESTROY] uid=7: Window destroyed\n"
    "flush out\n"
    "out: [RECV SDL DESTROY] uid=7: COMPLETE\n"
    "flush out\n";
constexpr auto kDestroyingNothing =
    "out: [RECV SDL DESTROY] uid=7, window_id=5: START (window=(nil), renderer=(nil), "
    "texture=(nil))\n"
    "flush out\n"
    "out: [RECV SDL DESTROY] uid=7: COMPLETE\n"
    "flush out\n";
constexpr auto kStopped = "out: [VideoReceiver] Stop complete\n";
constexpr auto kWatchdogReport =
    "err: [VideoReceiver] ERROR: Decode thread join() blocked >5s!\n"
    "flush err\n";

TEST_F(ReceiverTearDown, StopJoinsThenFreesTheCodecThenDestroysSdlObjects) {
    go_live();
    receiver->stop();
    EXPECT_EQ(transcript.take(),
              joined({kStopping, kJoining, kFreeingCodec, kCleanedUp, kDestroyingAll, kStopped}));
    EXPECT_FALSE(peer.running());
    EXPECT_TRUE(peer.cleanup_done());
    EXPECT_FALSE(peer.decode_thread().joinable());
    EXPECT_EQ(peer.codec_ctx(), nullptr);
    EXPECT_EQ(peer.av_frame(), nullptr);
    EXPECT_EQ(peer.av_packet(), nullptr);
    EXPECT_TRUE(peer.convert_buffer().empty());
    EXPECT_TRUE(peer.picture().empty());
    EXPECT_EQ(peer.window(), nullptr);
    EXPECT_EQ(peer.renderer(), nullptr);
    EXPECT_EQ(peer.texture(), nullptr);
}

TEST_F(ReceiverTearDown, SecondStopSkipsTheDecodeCleanUpSilentlyAndFindsNoSdlObjects) {
    go_live();
    receiver->stop();
    static_cast<void>(transcript.take());
    receiver->stop();
    EXPECT_EQ(transcript.take(), joined({kDestroyingNothing, kStopped}));
    EXPECT_TRUE(peer.cleanup_done());
}

TEST_F(ReceiverTearDown, StopOfAReceiverThatNeverCameUpSkipsTheJoin) {
    peer.uid() = kUid;
    peer.window_id() = kWindowId;
    receiver->stop();
    EXPECT_EQ(transcript.take(), joined({kStopping, kCleanedUp, kDestroyingNothing, kStopped}));
}

TEST_F(ReceiverTearDown, ConverterAndStagingPictureAreFreedBeforePacketFrameAndDecoder) {
    peer.uid() = kUid;
    give_codec();
    peer.sws_ctx() = sws_getContext(64, 36, AV_PIX_FMT_YUV420P, 64, 36, AV_PIX_FMT_BGRA,
                                    SWS_BILINEAR, nullptr, nullptr, nullptr);
    peer.staging_frame() = av_frame_alloc();
    receiver->stop_decode_and_codecs();
    EXPECT_EQ(transcript.take(), joined({kStopping, "sws_freeContext\n", "av_frame_free\n",
                                         kFreeingCodec, kCleanedUp}));
    EXPECT_EQ(peer.sws_ctx(), nullptr);
    EXPECT_EQ(peer.staging_frame(), nullptr);
}

TEST_F(ReceiverTearDown, CodecDescriptorIsNotReset) {
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_VP8);
    peer.codec() = codec;
    receiver->stop();
    EXPECT_EQ(peer.codec(), codec);
}

TEST_F(ReceiverTearDown, SoundIsClosedAfterTheCodecDeviceFirst) {
    SDL_setenv("SDL_AUDIODRIVER", "dummy", 1);
    ASSERT_EQ(SDL_InitSubSystem(SDL_INIT_AUDIO), 0);
    peer.uid() = kUid;
    give_codec();
    receiver->enable_audio(true);
    ASSERT_TRUE(peer.audio_enabled());
    peer.last_audio_sequence() = 9;
    receiver->set_audio_volume(0.5F);
    static_cast<void>(transcript.take());

    receiver->stop_decode_and_codecs();
    EXPECT_EQ(transcript.take(), joined({kStopping, kFreeingCodec, "SDL_CloseAudioDevice\n",
                                         "opus_decoder_destroy\n", kCleanedUp}));
    EXPECT_FALSE(peer.audio_enabled());
    EXPECT_EQ(peer.last_audio_sequence(), 0U);
    EXPECT_FLOAT_EQ(peer.audio_volume(), 0.5F);
    SDL_QuitSubSystem(SDL_INIT_AUDIO);
}

TEST_F(ReceiverTearDown, ReassemblyAndRingAreEmptiedButTheByteCountStays) {
    peer.partial_frames()[3].data.resize(1400);
    peer.partial_frames_bytes() = 1400;
    peer.last_completed_frame_id() = 2;
    peer.frame_queue().resize(6);
    peer.frame_queue()[4] = {1, 2, 3};
    peer.queue_head() = 4;
    peer.queue_tail() = 5;
    peer.queue_count() = 1;
    receiver->stop_decode_and_codecs();
    EXPECT_TRUE(peer.partial_frames().empty());
    EXPECT_EQ(peer.partial_frames_bytes(), 1400U);
    EXPECT_EQ(peer.last_completed_frame_id(), 2U);
    EXPECT_TRUE(peer.frame_queue().empty());
    EXPECT_EQ(peer.queue_head(), 0U);
    EXPECT_EQ(peer.queue_tail(), 0U);
    EXPECT_EQ(peer.queue_count(), 0U);
}

TEST_F(ReceiverTearDown, RingIsResetBeforeTheDecodeThreadIsWokenButItsSlotsStayUntilTheJoin) {
    go_live();
    get_decoder_stuck();
    {
        const std::lock_guard lock(peer.queue_mutex());
        peer.frame_queue()[1] = {4, 5, 6};
        peer.queue_head() = 1;
        peer.queue_tail() = 2;
        peer.queue_count() = 1;
    }
    const auto expect_reset_ring = [this] {
        const std::unique_lock lock(peer.queue_mutex(), std::try_to_lock);
        ASSERT_TRUE(lock.owns_lock());
        EXPECT_EQ(peer.queue_head(), 0U);
        EXPECT_EQ(peer.queue_tail(), 0U);
        EXPECT_EQ(peer.queue_count(), 0U);
        ASSERT_EQ(peer.frame_queue().size(), 6U);
        EXPECT_EQ(peer.frame_queue()[1], (std::vector<std::uint8_t>{4, 5, 6}));
    };
    at_notify = expect_reset_ring;
    at_join = [&] {
        expect_reset_ring();
        EXPECT_NE(peer.codec_ctx(), nullptr);
        EXPECT_NE(peer.av_packet(), nullptr);
        EXPECT_FALSE(peer.picture().empty());
        decoder_stuck = false;
    };
    receiver->stop();
    EXPECT_TRUE(peer.frame_queue().empty());
}

TEST_F(ReceiverTearDown, SecondStopOfTheDecoderReturnsAtOnceWhileTheFirstStillJoins) {
    go_live();
    get_decoder_stuck();
    std::atomic<bool> joining = false;
    at_join = [&] { joining = true; };
    std::thread first([this] { receiver->stop_decode_and_codecs(); });
    EXPECT_TRUE(eventually([&] { return joining.load(); }));
    const std::string until_the_join = transcript.take();

    receiver->stop_decode_and_codecs();
    EXPECT_EQ(transcript.take(), "");
    EXPECT_NE(peer.codec_ctx(), nullptr);

    decoder_stuck = false;
    first.join();
    EXPECT_EQ(until_the_join + transcript.take(),
              // The stuck frame fails in the end: the one line between.
              joined({kStopping,
                      "out: [VideoReceiver] Signaling decode thread to stop\n"
                      "queue_cv.notify_all(), running=0, stream_ended=0\n"
                      "out: [VideoReceiver] Waiting for decode thread to join...\n"
                      "flush out\n"
                      "flush err\n"
                      "watchdog.detach()\n"
                      "decode_thread.join()\n"
                      "err: [VideoReceiver] VP8 send_packet error: -22 (frame 1 bytes)\n"
                      "out: [VideoReceiver] Decode thread joined successfully\n",
                      kFreeingCodec, kCleanedUp}));
}

// ---- the watchdog ----

TEST_F(ReceiverTearDown, JoinThatOutlastsTheWatchdogsSleepIsReportedOnceAndCompletes) {
    go_live();
    get_decoder_stuck();
    std::thread unstick;
    at_join = [&] {
        unstick = std::thread([this] {
            watchdogs.let_go();
            EXPECT_TRUE(eventually([this] { return transcript.contains(kWatchdogReport); }));
            decoder_stuck = false;
        });
    };
    receiver->stop();
    unstick.join();
    watchdogs.finish();
    EXPECT_EQ(transcript.take(),
              joined({kStopping,
                      "out: [VideoReceiver] Signaling decode thread to stop\n"
                      "queue_cv.notify_all(), running=0, stream_ended=0\n"
                      "out: [VideoReceiver] Waiting for decode thread to join...\n"
                      "flush out\n"
                      "flush err\n"
                      "watchdog.detach()\n"
                      "decode_thread.join()\n",
                      kWatchdogReport,
                      "err: [VideoReceiver] VP8 send_packet error: -22 (frame 1 bytes)\n"
                      "out: [VideoReceiver] Decode thread joined successfully\n",
                      kFreeingCodec, kCleanedUp, kDestroyingAll, kStopped}));
    EXPECT_EQ(watchdog_duration, 5);
}

TEST_F(ReceiverTearDown, QuickJoinIsNeverReportedEvenToAWatchdogThatOutlivesTheReceiver) {
    go_live();
    receiver->stop();
    receiver.reset();
    static_cast<void>(transcript.take());
    watchdogs.finish();  // only now it looks whether the join is done
    EXPECT_EQ(watchdog_duration, 5);
    EXPECT_EQ(transcript.take(), "");
}

// ---- SDL's objects ----

TEST_F(ReceiverTearDown, TextureGoesBeforeRendererBeforeWindowEachStepFlushed) {
    give_sdl_objects();
    receiver->destroy_sdl_resources();
    EXPECT_EQ(transcript.take(), kDestroyingAll);
    EXPECT_EQ(peer.window(), nullptr);
    EXPECT_EQ(peer.renderer(), nullptr);
    EXPECT_EQ(peer.texture(), nullptr);
    EXPECT_EQ(receiver->get_window_id(), kWindowId) << "keeps its value";
}

TEST_F(ReceiverTearDown, WithoutAWindowThereIsNoPause) {
    give_sdl_objects();
    peer.window() = nullptr;
    receiver->destroy_sdl_resources();
    EXPECT_EQ(transcript.take(),
              "out: [RECV SDL DESTROY] uid=7, window_id=5: START (window=(nil), renderer=0x2000, "
              "texture=0x3000)\n"
              "flush out\n"
              "out: [RECV SDL DESTROY] uid=7: Destroying texture 0x3000\n"
              "flush out\n"
              "SDL_DestroyTexture(0x3000)\n"
              "out: [RECV SDL DESTROY] uid=7: Texture destroyed\n"
              "flush out\n"
              "out: [RECV SDL DESTROY] uid=7: Destroying renderer 0x2000\n"
              "flush out\n"
              "SDL_DestroyRenderer(0x2000)\n"
              "out: [RECV SDL DESTROY] uid=7: Renderer destroyed\n"
              "flush out\n"
              "out: [RECV SDL DESTROY] uid=7: COMPLETE\n"
              "flush out\n");
}

TEST_F(ReceiverTearDown, WindowAloneIsDestroyedAfterThePause) {
    give_sdl_objects();
    peer.renderer() = nullptr;
    peer.texture() = nullptr;
    receiver->destroy_sdl_resources();
    EXPECT_EQ(transcript.take(),
              "out: [RECV SDL DESTROY] uid=7, window_id=5: START (window=0x1000, renderer=(nil), "
              "texture=(nil))\n"
              "flush out\n"
              "out: [RECV SDL DESTROY] uid=7: Sleeping 10ms for event processing\n"
              "flush out\n"
              "sleep 10 ms\n"
              "out: [RECV SDL DESTROY] uid=7: Destroying window 0x1000 (ID=5)\n"
              "flush out\n"
              "SDL_DestroyWindow(0x1000)\n"
              "out: [RECV SDL DESTROY] uid=7: Window destroyed\n"
              "flush out\n"
              "out: [RECV SDL DESTROY] uid=7: COMPLETE\n"
              "flush out\n");
}

// SDL_Quit() has then released them itself.
TEST_F(ReceiverTearDown, AfterSdlQuitEveryStepIsReportedButNoneReachesSdl) {
    hook_SDL_WasInit = [](Uint32) { return Uint32{0}; };
    give_sdl_objects();
    receiver->destroy_sdl_resources();
    EXPECT_EQ(transcript.take(),
              "out: [RECV SDL DESTROY] uid=7, window_id=5: START (window=0x1000, renderer=0x2000, "
              "texture=0x3000)\n"
              "flush out\n"
              "out: [RECV SDL DESTROY] uid=7: Sleeping 10ms for event processing\n"
              "flush out\n"
              "sleep 10 ms\n"
              "out: [RECV SDL DESTROY] uid=7: Destroying texture 0x3000\n"
              "flush out\n"
              "out: [RECV SDL DESTROY] uid=7: Texture destroyed\n"
              "flush out\n"
              "out: [RECV SDL DESTROY] uid=7: Destroying renderer 0x2000\n"
              "flush out\n"
              "out: [RECV SDL DESTROY] uid=7: Renderer destroyed\n"
              "flush out\n"
              "out: [RECV SDL DESTROY] uid=7: Destroying window 0x1000 (ID=5)\n"
              "flush out\n"
              "out: [RECV SDL DESTROY] uid=7: Window destroyed\n"
              "flush out\n"
              "out: [RECV SDL DESTROY] uid=7: COMPLETE\n"
              "flush out\n");
    EXPECT_EQ(peer.window(), nullptr);
    EXPECT_EQ(peer.renderer(), nullptr);
    EXPECT_EQ(peer.texture(), nullptr);
}

// ---- the stream's end ----

TEST_F(ReceiverTearDown, MarkingTheStreamEndedWakesTheDecodeThreadAndNothingElse) {
    go_live();
    receiver->mark_stream_ended();
    EXPECT_EQ(transcript.take(),
              "queue_cv.notify_all(), running=0, stream_ended=1\n"
              "out: [VideoReceiver] Stream marked as ended, decode thread signaled to stop\n");
    EXPECT_TRUE(peer.stream_ended());
    EXPECT_FALSE(peer.running());
    EXPECT_FALSE(peer.cleanup_done());
    EXPECT_TRUE(peer.decode_thread().joinable());
    EXPECT_NE(peer.codec_ctx(), nullptr);
    EXPECT_EQ(peer.window(), kWindow);
    EXPECT_EQ(peer.renderer(), kRenderer);
    EXPECT_EQ(peer.texture(), kTexture);
}

TEST_F(ReceiverTearDown, EndedReceiverIsStoppedLikeALiveOne) {
    go_live();
    receiver->mark_stream_ended();
    static_cast<void>(transcript.take());
    receiver->stop();
    EXPECT_EQ(transcript.take(),
              joined({kStopping,
                      "out: [VideoReceiver] Signaling decode thread to stop\n"
                      "queue_cv.notify_all(), running=0, stream_ended=1\n"
                      "out: [VideoReceiver] Waiting for decode thread to join...\n"
                      "flush out\n"
                      "flush err\n"
                      "watchdog.detach()\n"
                      "decode_thread.join()\n"
                      "out: [VideoReceiver] Decode thread joined successfully\n",
                      kFreeingCodec, kCleanedUp, kDestroyingAll, kStopped}));
    EXPECT_TRUE(peer.stream_ended());
}

TEST_F(ReceiverTearDown, CondemnedIsTheOwnersSwitchAndSurvivesAStop) {
    receiver->set_condemned(true);
    EXPECT_TRUE(peer.condemned());
    receiver->stop();
    EXPECT_TRUE(peer.condemned());
    receiver->set_condemned(false);
    EXPECT_FALSE(peer.condemned());
}

// ---- the destructor ----

TEST_F(ReceiverTearDown, DestructorStopsALiveReceiver) {
    go_live();
    receiver.reset();
    EXPECT_EQ(transcript.take(),
              joined({"out: [VideoReceiver] Destructor called for uid=7, cleanup_done=0\n"
                      "flush out\n"
                      "out: [VideoReceiver] Destructor calling stop()\n"
                      "flush out\n",
                      kStopping, kJoining, kFreeingCodec, kCleanedUp, kDestroyingAll, kStopped,
                      "out: [VideoReceiver] Destructor complete for uid=7\n"
                      "flush out\n"}));
}

TEST_F(ReceiverTearDown, DestructorOfAStoppedReceiverOnlyReportsItself) {
    go_live();
    receiver->stop();
    static_cast<void>(transcript.take());
    receiver.reset();
    EXPECT_EQ(transcript.take(),
              "out: [VideoReceiver] Destructor called for uid=7, cleanup_done=1\n"
              "flush out\n"
              "out: [VideoReceiver] Destructor complete for uid=7\n"
              "flush out\n");
}

TEST_F(ReceiverTearDown, DestructorLeavesSdlObjectsToAnOwnerThatStoppedOnlyTheDecoder) {
    go_live();
    receiver->stop_decode_and_codecs();
    static_cast<void>(transcript.take());
    receiver.reset();
    EXPECT_EQ(transcript.take(),
              "out: [VideoReceiver] Destructor called for uid=7, cleanup_done=1\n"
              "flush out\n"
              "out: [VideoReceiver] Destructor complete for uid=7\n"
              "flush out\n");
}

// ---- with SDL itself ----

class ReceiverTearDownWithSdl : public ReceiverTearDown {
  protected:
    void SetUp() override {
        ReceiverTearDown::SetUp();
        hook_SDL_WasInit = nullptr;
        hook_SDL_DestroyTexture = [this](SDL_Texture* texture) {
            transcript.note("SDL_DestroyTexture");
            __real_SDL_DestroyTexture(texture);
        };
        hook_SDL_DestroyRenderer = [this](SDL_Renderer* renderer) {
            transcript.note("SDL_DestroyRenderer");
            __real_SDL_DestroyRenderer(renderer);
        };
        hook_SDL_DestroyWindow = [this](SDL_Window* window) {
            transcript.note("SDL_DestroyWindow");
            __real_SDL_DestroyWindow(window);
        };
        SDL_setenv("SDL_VIDEODRIVER", "dummy", 1);
        ASSERT_EQ(SDL_Init(SDL_INIT_VIDEO), 0) << SDL_GetError();
        ASSERT_TRUE(receiver->init_for_udp(640, 360));
    }
    void TearDown() override {
        ReceiverTearDown::TearDown();
        SDL_Quit();
    }
    // The SDL calls of what happened.
    std::string destroy_calls() {
        std::istringstream lines(transcript.take());
        std::string calls;
        for (std::string line; std::getline(lines, line);) {
            if (line.starts_with("SDL_")) {
                calls += line + "\n";
            }
        }
        return calls;
    }
};

TEST_F(ReceiverTearDownWithSdl, StopDestroysTheWindow) {
    const std::uint32_t id = receiver->get_window_id();
    receiver->stop();
    EXPECT_EQ(destroy_calls(), "SDL_DestroyTexture\nSDL_DestroyRenderer\nSDL_DestroyWindow\n");
    EXPECT_EQ(SDL_GetWindowFromID(id), nullptr);
}

TEST_F(ReceiverTearDownWithSdl, DestructorMayRunAfterSdlQuit) {
    // SDL_Quit() frees the window, but neither its renderer nor the texture: kept where the leak
    // detector finds them.
    [[maybe_unused]] static SDL_Renderer* volatile left_by_sdl = nullptr;
    left_by_sdl = peer.renderer();
    SDL_Quit();
    receiver.reset();
    EXPECT_EQ(destroy_calls(), "");
}

}  // namespace
}  // namespace vesper::client
