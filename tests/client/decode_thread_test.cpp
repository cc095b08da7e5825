// The decode thread: from the ring of encoded frames to the newest published picture.
//
// The tests run its body on their own thread: where it would wait for frames, the next step of the
// test's script runs instead, and at the script's end the receiver stops. So every wait is a fixed
// point at which the batch before is done.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "client/picture_format.h"
#include "client/video_receiver.h"
#include "tests/support/guarded_memory.h"
#include "tests/support/hook.h"
#include "tests/support/transcript.h"
#include "tests/support/video_receiver_peer.h"
#include "tools/stream/picture.h"
#include "tools/stream/vp8_encoder.h"

// clang-format off: one hook a line
VESPER_HOOK(avcodec_send_packet, int, (AVCodecContext * context, const AVPacket* packet),
            (context, packet))
VESPER_HOOK(avcodec_receive_frame, int, (AVCodecContext * context, AVFrame* frame),
            (context, frame))
VESPER_HOOK(sws_getContext, SwsContext*,
            (int source_width, int source_height, AVPixelFormat source_format, int width,
             int height, AVPixelFormat format, int flags, SwsFilter* source_filter,
             SwsFilter* filter, const double* parameters),
            (source_width, source_height, source_format, width, height, format, flags,
             source_filter, filter, parameters))
VESPER_HOOK(sws_scale, int,
            (SwsContext * converter, const uint8_t* const source[], const int source_strides[],
             int row, int rows, uint8_t* const planes[], const int strides[]),
            (converter, source, source_strides, row, rows, planes, strides))
VESPER_HOOK(_ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE, void,
            (std::condition_variable * condition, std::unique_lock<std::mutex>* lock),
            (condition, lock))
// clang-format on

namespace vesper::client {
namespace {

using test::HookedTest;
using test::Transcript;

auto& hook_wait = hook__ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE;

using EncodedFrame = std::vector<std::uint8_t>;

constexpr std::size_t kRingSlots = 6;

class DecodeThreadScript : public HookedTest {
  protected:
    void SetUp() override {
        // As the player does: on a processor without vector code for it, libswscale warns of every
        // converter, and libvpx names its version.
        av_log_set_level(AV_LOG_QUIET);
        peer.uid() = 7;
        peer.av_frame() = av_frame_alloc();
        peer.av_packet() = av_packet_alloc();
        hook_wait = [this](std::condition_variable* condition, auto*) {
            EXPECT_EQ(condition, &peer.queue_cv());
            if (next_step == script.size()) {
                peer.running() = false;
            } else {
                script[next_step++]();
            }
        };
    }
    void configure(int width, int height) {
        peer.frame_width() = width;
        peer.frame_height() = height;
        allocate_picture(peer.convert_buffer(), width, height);
        allocate_picture(peer.picture(), width, height);
    }
    // A step of the script: these frames become the next batch.
    void queue(std::vector<EncodedFrame> frames) {
        script.push_back([this, frames = std::move(frames)] { enqueue(frames); });
    }
    // Puts frames into the ring.
    void enqueue(const std::vector<EncodedFrame>& frames) {
        peer.frame_queue().resize(kRingSlots);
        for (const EncodedFrame& frame : frames) {
            peer.frame_queue()[peer.queue_tail()] = frame;
            peer.queue_tail() = (peer.queue_tail() + 1) % kRingSlots;
            ++peer.queue_count();
        }
    }
    // A step of the script between two batches.
    void then(std::function<void()> step) { script.push_back(std::move(step)); }
    void run() {
        peer.running() = true;
        peer.decode_thread_func();
    }

    Transcript transcript;
    std::vector<std::function<void()>> script;
    std::size_t next_step = 0;
    VideoReceiver receiver;
    VideoReceiverPeer peer{receiver};
};

// ---- with a decoder and a converter of the test's making ----

constexpr int kSourceWidth = 96;
constexpr int kSourceHeight = 64;
constexpr int kWidth = 48;
constexpr int kHeight = 32;

// A frame's first byte determines what happens to it: what the codec returns for send and receive.
EncodedFrame good(std::uint8_t id) {
    return {id, 0, 0};
}
EncodedFrame send_fails(std::uint8_t id) {
    return {id, 1, 0};
}
EncodedFrame receive_fails(std::uint8_t id) {
    return {id, 0, 1};
}

constexpr int kSendError = -1094995529;  // AVERROR_INVALIDDATA
constexpr int kReceiveError = -11;       // AVERROR(EAGAIN)
static_assert(kSendError == AVERROR_INVALIDDATA && kReceiveError == AVERROR(EAGAIN));

class DecodeThread : public DecodeThreadScript {
  protected:
    void SetUp() override {
        DecodeThreadScript::SetUp();
        configure(kWidth, kHeight);
        peer.codec_ctx() = avcodec_alloc_context3(nullptr);
        hook_avcodec_send_packet = [this](AVCodecContext* context, const AVPacket* packet) {
            EXPECT_EQ(context, peer.codec_ctx());
            EXPECT_EQ(packet, peer.av_packet());
            EXPECT_EQ(packet->buf, nullptr) << "owns nothing";
            sent.assign(packet->data, packet->data + packet->size);
            sent_data = packet->data;
            transcript.note("send %d", sent[0]);
            at_send();
            return sent[1] != 0 ? kSendError : 0;
        };
        hook_avcodec_receive_frame = [this](AVCodecContext* context, AVFrame* frame) {
            EXPECT_EQ(context, peer.codec_ctx());
            EXPECT_EQ(frame, peer.av_frame());
            transcript.note("receive %d", sent[0]);
            at_receive();
            av_frame_unref(frame);  // as the codec does, whatever the result
            if (sent[2] != 0) {
                return kReceiveError;
            }
            make_picture(*frame, sent[0]);
            return 0;
        };
        hook_sws_getContext = [this](int source_width, int source_height,
                                     AVPixelFormat source_format, int width, int height,
                                     AVPixelFormat format, int flags, SwsFilter* source_filter,
                                     SwsFilter* filter, const double* parameters) {
            transcript.note("sws_getContext(%d, %d, %d, %d, %d, %d, %d, %s)", source_width,
                            source_height, source_format, width, height, format, flags,
                            source_filter == nullptr && filter == nullptr && parameters == nullptr
                                ? "nothing more"
                                : "more");
            at_create_converter();
            return converter_fails
                       ? nullptr
                       : __real_sws_getContext(source_width, source_height, source_format, width,
                                               height, format, flags, nullptr, nullptr, nullptr);
        };
        hook_sws_scale = [this](SwsContext* converter, const uint8_t* const source[],
                                const int source_strides[], int row, int rows,
                                uint8_t* const planes[], const int strides[]) {
            EXPECT_EQ(converter, peer.sws_ctx());
            EXPECT_EQ(planes[0], peer.convert_buffer().data());
            transcript.note("sws_scale(picture %d, rows %d to %d, strides %d %d %d %d, planes %d)",
                            source[0][0], row, rows, strides[0], strides[1], strides[2], strides[3],
                            static_cast<int>(std::count(planes, planes + 4, nullptr)));
            EXPECT_EQ(source, static_cast<const uint8_t* const*>(peer.av_frame()->data));
            EXPECT_EQ(source_strides, static_cast<const int*>(peer.av_frame()->linesize));
            peer.convert_buffer()[0] = source[0][0];
            at_scale();
            return rows;
        };
    }

    void make_picture(AVFrame& frame, std::uint8_t id) {
        frame.format = AV_PIX_FMT_YUV420P;
        frame.width = kSourceWidth;
        frame.height = decoded_height;
        ASSERT_EQ(av_frame_get_buffer(&frame, 0), 0);
        std::memset(frame.data[0], id, 1);
    }

    // Whether another thread gets the lock.
    static bool free(std::mutex& mutex) {
        bool got = false;
        std::thread([&] {
            got = mutex.try_lock();
            if (got) {
                mutex.unlock();
            }
        }).join();
        return got;
    }
    void expect_no_lock_held() {
        EXPECT_TRUE(free(peer.frames_mutex()));
        EXPECT_TRUE(free(peer.queue_mutex()));
        EXPECT_TRUE(free(peer.picture_mutex()));
    }

    EncodedFrame sent;
    const std::uint8_t* sent_data = nullptr;
    bool converter_fails = false;
    int decoded_height = kSourceHeight;
    std::function<void()> at_send = [] {};
    std::function<void()> at_receive = [] {};
    std::function<void()> at_create_converter = [] {};
    std::function<void()> at_scale = [] {};
};

constexpr auto kCreateConverter = "sws_getContext(96, 64, 0, 48, 32, 28, 2, nothing more)\n";
static_assert(AV_PIX_FMT_YUV420P == 0 && AV_PIX_FMT_BGRA == 28 && SWS_BILINEAR == 2);

std::string convert(int id) {
    return "sws_scale(picture " + std::to_string(id) +
           ", rows 0 to 64, strides 192 0 0 0, planes 3)\n";
}

std::string decode(int id) {
    return "send " + std::to_string(id) + "\nreceive " + std::to_string(id) + "\n";
}

std::string send_error(int id) {
    return "send " + std::to_string(id) +
           "\nerr: [VideoReceiver] VP8 send_packet error: -1094995529 (frame 3 bytes)\n";
}

std::string receive_error(int id) {
    return decode(id) + "err: [VideoReceiver] VP8 receive_frame error: -11\n";
}

TEST_F(DecodeThread, WithoutRunningItReturnsAtOnce) {
    enqueue({good(1)});
    peer.decode_thread_func();
    EXPECT_EQ(transcript.take(), "");
    EXPECT_EQ(peer.queue_count(), 1U);
}

TEST_F(DecodeThread, PictureIsDecodedConvertedAndPublished) {
    queue({good(1)});
    run();
    EXPECT_EQ(transcript.take(), decode(1) + kCreateConverter + convert(1));
    EXPECT_TRUE(peer.picture_ready());
    EXPECT_EQ(peer.picture()[0], 1);
    EXPECT_FALSE(peer.keyframe_needed());
}

TEST_F(DecodeThread, AllQueuedFramesAreDecodedInOrderButOnlyTheLastIsConverted) {
    queue({good(1), good(2), good(3)});
    run();
    EXPECT_EQ(transcript.take(), decode(1) + decode(2) + decode(3) + kCreateConverter + convert(3));
    EXPECT_EQ(peer.picture()[0], 3);
}

TEST_F(DecodeThread, FramesAreMovedOutOfTheRingNotCopiedAndBeforeDecodingBegins) {
    peer.queue_head() = peer.queue_tail() = 5;  // around the ring's end
    const std::uint8_t* queued_data = nullptr;
    then([&] {
        enqueue({good(1), good(2)});
        queued_data = peer.frame_queue()[5].data();
    });
    at_send = [&] {
        if (sent[0] == 1) {
            EXPECT_EQ(sent_data, queued_data);
        }
        EXPECT_EQ(peer.queue_count(), 0U);
        EXPECT_EQ(peer.queue_head(), 1U);
        EXPECT_EQ(peer.queue_tail(), 1U);
        EXPECT_EQ(peer.frame_queue(), std::vector<EncodedFrame>(kRingSlots));
    };
    run();
    EXPECT_EQ(transcript.take(), decode(1) + decode(2) + kCreateConverter + convert(2));
}

TEST_F(DecodeThread, EmptyFrameIsSkipped) {
    queue({good(1), {}, good(3)});
    run();
    EXPECT_EQ(transcript.take(), decode(1) + decode(3) + kCreateConverter + convert(3));
    EXPECT_EQ(peer.decode_error_count(), 0U);
}

TEST_F(DecodeThread, NoLockIsHeldWhileDecodingAndConverting) {
    at_send = at_receive = at_create_converter = at_scale = [this] { expect_no_lock_held(); };
    queue({good(1)});
    run();
    EXPECT_EQ(transcript.take(), decode(1) + kCreateConverter + convert(1));
}

TEST_F(DecodeThread, PublishingSwapsTheBuffersStorage) {
    const std::uint8_t* scratch = peer.convert_buffer().data();
    const std::uint8_t* shown = peer.picture().data();
    queue({good(1)});
    then([&] {
        EXPECT_EQ(peer.picture().data(), scratch);
        EXPECT_EQ(peer.convert_buffer().data(), shown);
        EXPECT_TRUE(peer.picture_ready());
        peer.picture_ready() = false;
        enqueue({good(2)});
    });
    run();
    EXPECT_EQ(peer.picture().data(), shown);
    EXPECT_EQ(peer.convert_buffer().data(), scratch);
    EXPECT_TRUE(peer.picture_ready());
}

// ---- failures ----

TEST_F(DecodeThread, FailedSendIsReportedAndNothingIsReceived) {
    queue({send_fails(1), good(2)});
    run();
    EXPECT_EQ(transcript.take(), send_error(1) + decode(2) + kCreateConverter + convert(2));
}

TEST_F(DecodeThread, BatchWhoseLastReceiveFailedPublishesNothing) {
    queue({good(1), good(2), receive_fails(3)});
    run();
    EXPECT_EQ(transcript.take(), decode(1) + decode(2) + receive_error(3));
    EXPECT_FALSE(peer.picture_ready());
}

TEST_F(DecodeThread, BatchWhoseLastSendFailedPublishesThePreviousPictureAgain) {
    queue({good(1)});
    then([&] {
        peer.picture_ready() = false;
        enqueue({send_fails(2)});
    });
    run();
    EXPECT_EQ(transcript.take(),
              decode(1) + kCreateConverter + convert(1) + send_error(2) + convert(1));
    EXPECT_TRUE(peer.picture_ready());
    EXPECT_EQ(peer.picture()[0], 1);
}

TEST_F(DecodeThread, FailedSendBeforeAnyPicturePublishesNothing) {
    queue({send_fails(1)});
    run();
    EXPECT_EQ(transcript.take(), send_error(1));
    EXPECT_FALSE(peer.picture_ready());
}

TEST_F(DecodeThread, OnlyTheFirstFiveErrorsOfARunAreReportedAcrossBatchesAndCalls) {
    queue({send_fails(1), receive_fails(2), send_fails(3)});
    queue({receive_fails(4), send_fails(5), send_fails(6)});
    queue({receive_fails(7)});
    run();
    EXPECT_EQ(transcript.take(), send_error(1) + receive_error(2) + send_error(3) +
                                     receive_error(4) + send_error(5) + "send 6\n" + decode(7));
    EXPECT_EQ(peer.decode_error_count(), 7U);
}

TEST_F(DecodeThread, SixFailedSendsPrintFiveLinesAndAskForOneKeyframe) {
    for (std::uint8_t id = 1; id <= 6; ++id) {
        then([this, id] {
            EXPECT_EQ(receiver.needs_keyframe_request(), id == 2);
            enqueue({send_fails(id)});
        });
    }
    run();
    EXPECT_FALSE(receiver.needs_keyframe_request());
    EXPECT_EQ(transcript.take(), send_error(1) + send_error(2) + send_error(3) + send_error(4) +
                                     send_error(5) + "send 6\n");
}

TEST_F(DecodeThread, FailedReceiveAsksForAKeyframeOnceARunToo) {
    for (std::uint8_t id = 1; id <= 3; ++id) {
        then([this, id] {
            EXPECT_EQ(receiver.needs_keyframe_request(), id == 2);
            enqueue({receive_fails(id)});
        });
    }
    run();
    EXPECT_FALSE(receiver.needs_keyframe_request());
    EXPECT_EQ(transcript.take(), receive_error(1) + receive_error(2) + receive_error(3));
}

TEST_F(DecodeThread, KeyframeIsAskedForAfterTheRunsFirstLine) {
    transcript.before_line = [this] {
        transcript.note("keyframe_needed=%d", peer.keyframe_needed() ? 1 : 0);
    };
    queue({send_fails(1), receive_fails(2)});
    run();
    EXPECT_EQ(transcript.take(),
              "send 1\n"
              "keyframe_needed=0\n"
              "err: [VideoReceiver] VP8 send_packet error: -1094995529 (frame 3 bytes)\n"
              "send 2\n"
              "receive 2\n"
              "keyframe_needed=1\n"
              "err: [VideoReceiver] VP8 receive_frame error: -11\n");
    transcript.before_line = nullptr;
}

TEST_F(DecodeThread, SuccessfulReceiveEndsARunAndTheNextErrorStartsOne) {
    for (std::uint8_t id = 1; id <= 6; ++id) {
        queue({send_fails(id)});
    }
    then([this] {
        EXPECT_TRUE(receiver.needs_keyframe_request());
        enqueue({good(7)});
    });
    then([this] {
        EXPECT_EQ(peer.decode_error_count(), 0U);
        EXPECT_FALSE(receiver.needs_keyframe_request());
        static_cast<void>(transcript.take());
        enqueue({receive_fails(8)});
    });
    run();
    EXPECT_EQ(transcript.take(), receive_error(8));
    EXPECT_TRUE(receiver.needs_keyframe_request());
}

TEST_F(DecodeThread, SuccessfulSendAloneDoesNotEndARun) {
    queue({send_fails(1), receive_fails(2)});
    run();
    EXPECT_EQ(peer.decode_error_count(), 2U);
}

// ---- the converter ----

TEST_F(DecodeThread, ConverterIsMadeOnceAndNeverRebuilt) {
    queue({good(1)});
    queue({good(2)});
    queue({receive_fails(3)});
    queue({good(4)});
    run();
    EXPECT_EQ(transcript.take(), decode(1) + kCreateConverter + convert(1) + decode(2) +
                                     convert(2) + receive_error(3) + decode(4) + convert(4));
}

TEST_F(DecodeThread, FailedConverterIsSilentPublishesNothingAndIsTriedAgainAfterTheNextBatch) {
    converter_fails = true;
    queue({good(1)});
    then([this] {
        EXPECT_FALSE(peer.picture_ready());
        converter_fails = false;
        enqueue({good(2)});
    });
    run();
    EXPECT_EQ(transcript.take(),
              decode(1) + kCreateConverter + decode(2) + kCreateConverter + convert(2));
    EXPECT_TRUE(peer.picture_ready());
}

TEST_F(DecodeThread, ShorterPictureIsConvertedByItsOwnRows) {
    queue({good(1)});
    then([this] {
        decoded_height = 32;
        enqueue({good(2)});
    });
    run();
    EXPECT_EQ(transcript.take(),
              decode(1) + kCreateConverter + convert(1) + decode(2) +
                  "sws_scale(picture 2, rows 0 to 32, strides 192 0 0 0, planes 3)\n");
}

// libswscale crashes on part of a picture that it shrinks in two steps, in either direction. The
// pictures are 96x64 and then 96x32.
class DecodeThreadShorterPicture : public DecodeThread {
  protected:
    // What is called for the second picture.
    std::string calls_for_picture_of(int frame_width, int frame_height) {
        configure(frame_width, frame_height);
        queue({good(1)});
        then([this] {
            static_cast<void>(transcript.take());
            decoded_height = 32;
            enqueue({good(2)});
        });
        run();
        EXPECT_TRUE(peer.picture_ready());
        return transcript.take();
    }
};

TEST_F(DecodeThreadShorterPicture, ThatShrinksTooFarInWidthIsNotConverted) {
    EXPECT_EQ(calls_for_picture_of(1, 64), decode(2));
}

TEST_F(DecodeThreadShorterPicture, ThatShrinksTooFarInHeightIsNotConverted) {
    EXPECT_EQ(calls_for_picture_of(64, 1), decode(2));
}

TEST_F(DecodeThreadShorterPicture, ThatShrinksJustShortOfThatIsConverted) {
    EXPECT_THAT(calls_for_picture_of(2, 2), testing::HasSubstr("sws_scale("));
}

TEST_F(DecodeThread, ResultOfTheConversionIsIgnored) {
    hook_sws_scale = [](auto...) { return AVERROR(EINVAL); };
    queue({good(1)});
    run();
    EXPECT_TRUE(peer.picture_ready());
}

// ---- stopping ----

TEST_F(DecodeThread, StopWhileWaitingLeavesTheRingAlone) {
    then([this] {
        enqueue({good(1), good(2)});
        peer.running() = false;
    });
    run();
    EXPECT_EQ(transcript.take(), "");
    EXPECT_EQ(peer.queue_count(), 2U);
    EXPECT_EQ(peer.queue_head(), 0U);
    EXPECT_EQ(peer.queue_tail(), 2U);
    EXPECT_EQ(peer.frame_queue()[0], good(1));
    EXPECT_EQ(peer.frame_queue()[1], good(2));
    EXPECT_TRUE(free(peer.queue_mutex()));
}

TEST_F(DecodeThread, StopDuringABatchEndsItBeforeTheNextFrame) {
    at_receive = [this] { peer.running() = sent[0] != 2; };
    queue({good(1), good(2), good(3)});
    run();
    EXPECT_EQ(transcript.take(), decode(1) + decode(2));
    EXPECT_FALSE(peer.picture_ready());
}

TEST_F(DecodeThread, StopAfterTheLastFrameConvertsNothing) {
    at_receive = [this] { peer.running() = false; };
    queue({good(1)});
    run();
    EXPECT_EQ(transcript.take(), decode(1));
}

TEST_F(DecodeThread, StopDuringConversionPublishesNothing) {
    at_scale = [this] { peer.running() = false; };
    const std::uint8_t* shown = peer.picture().data();
    queue({good(1)});
    run();
    EXPECT_EQ(transcript.take(), decode(1) + kCreateConverter + convert(1));
    EXPECT_FALSE(peer.picture_ready());
    EXPECT_EQ(peer.picture().data(), shown);
}

// ---- real VP8 ----

struct Colour {
    std::uint8_t y, u, v;  // BT.601, limited range
    int b, g, r;
};
constexpr Colour kRed{.y = 81, .u = 90, .v = 240, .b = 0, .g = 0, .r = 255};
constexpr Colour kGreen{.y = 145, .u = 54, .v = 34, .b = 0, .g = 255, .r = 0};
constexpr Colour kBlue{.y = 41, .u = 240, .v = 110, .b = 255, .g = 0, .r = 0};
constexpr Colour kWhite{.y = 235, .u = 128, .v = 128, .b = 255, .g = 255, .r = 255};
constexpr Colour kBlack{.y = 16, .u = 128, .v = 128, .b = 0, .g = 0, .r = 0};

// Columns or rows of a chroma plane: two of the picture share one, and the last odd one has its
// own.
constexpr int chroma(int pixels) {
    return (pixels + 1) / 2;
}

// Left over red, right over green; left under blue, right under white.
tools::Picture four_colours(int width, int height) {
    tools::Picture picture = tools::make_picture(width, height);
    using Component = std::uint8_t Colour::*;
    const auto fill = [&](int plane, int w, int h, Component component) {
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                const Colour& colour =
                    y < h / 2 ? (x < w / 2 ? kRed : kGreen) : (x < w / 2 ? kBlue : kWhite);
                picture->data[plane][y * picture->linesize[plane] + x] = colour.*component;
            }
        }
    };
    fill(0, width, height, &Colour::y);
    fill(1, chroma(width), chroma(height), &Colour::u);
    fill(2, chroma(width), chroma(height), &Colour::v);
    return picture;
}

// Keyframes of one size.
std::vector<EncodedFrame> encoded_frames(int width, int height, int count) {
    tools::Vp8Encoder encoder;
    EXPECT_TRUE(encoder.open({.width = width, .height = height, .bitrate = 8'000'000}));
    const tools::Picture picture = four_colours(width, height);
    std::vector<EncodedFrame> frames;
    for (int i = 0; i < count; ++i) {
        frames.push_back(encoder.encode(picture, true));
    }
    return frames;
}

class DecodeThreadVp8 : public DecodeThreadScript {
  protected:
    void SetUp() override {
        DecodeThreadScript::SetUp();
        // As set-up opens it.
        const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_VP8);
        peer.codec_ctx() = avcodec_alloc_context3(codec);
        peer.codec_ctx()->thread_count = 2;
        ASSERT_EQ(avcodec_open2(peer.codec_ctx(), codec, nullptr), 0);
        hook_sws_getContext = [this](auto... arguments) {
            ++converters;
            return __real_sws_getContext(arguments...);
        };
    }
    void queue_one_by_one(const std::vector<EncodedFrame>& frames) {
        for (const EncodedFrame& frame : frames) {
            queue({frame});
        }
    }
    // The bytes B, G, R, A of the shown pixel.
    std::array<int, 4> shown(int x, int y) {
        const auto at = static_cast<std::size_t>((y * receiver.frame_width() + x) * 4);
        const auto& picture = peer.picture();
        return {picture[at], picture[at + 1], picture[at + 2], picture[at + 3]};
    }
    void expect_colour(int x, int y, const Colour& colour) {
        constexpr int kTolerance = 12;  // what the codec and the conversion round off
        const auto [b, g, r, a] = shown(x, y);
        EXPECT_NEAR(b, colour.b, kTolerance) << "blue at " << x << ", " << y;
        EXPECT_NEAR(g, colour.g, kTolerance) << "green at " << x << ", " << y;
        EXPECT_NEAR(r, colour.r, kTolerance) << "red at " << x << ", " << y;
        EXPECT_EQ(a, 255) << "alpha at " << x << ", " << y;
    }
    // The four colours over an area, away from the borders between them.
    void expect_four_colours(int left, int top, int width, int height) {
        for (const int i : {1, 2, 3}) {
            for (const int j : {1, 2, 3}) {
                const int x = left + i * width / 8;
                const int y = top + j * height / 8;
                expect_colour(x, y, kRed);
                expect_colour(x + width / 2, y, kGreen);
                expect_colour(x, y + height / 2, kBlue);
                expect_colour(x + width / 2, y + height / 2, kWhite);
            }
        }
    }

    int converters = 0;
};

TEST_F(DecodeThreadVp8, FirstReceiveFindsNoPictureYetAndPicturesComeOneFrameLate) {
    configure(320, 180);
    const auto frames = encoded_frames(320, 180, 3);
    queue({frames[0]});
    then([&] {
        EXPECT_FALSE(peer.picture_ready());
        EXPECT_TRUE(receiver.needs_keyframe_request());
        enqueue({frames[1]});
    });
    then([&] {
        EXPECT_TRUE(peer.picture_ready());
        EXPECT_FALSE(receiver.needs_keyframe_request());
        enqueue({frames[2]});
    });
    run();
    EXPECT_EQ(transcript.take(), "err: [VideoReceiver] VP8 receive_frame error: -11\n");
    EXPECT_EQ(peer.decode_error_count(), 0U);
}

// The largest size that the format can declare is beyond what libavutil takes
// (av_image_check_size2), however few bytes declare it. With two decoder threads the error is
// reported at the next frame.
TEST_F(DecodeThreadVp8, PictureOfTheFormatsLargestSizeIsAnErrorLikeAnyOther) {
    configure(320, 180);
    EncodedFrame keyframe = encoded_frames(320, 180, 1).front();
    // 14 bits each, little-endian, after frame tag and start code (RFC 6386, section 9.1).
    constexpr std::size_t kSizes = 6;
    for (const std::size_t size : {kSizes, kSizes + 2}) {
        keyframe[size] = 0xFF;
        keyframe[size + 1] = 0x3F;
    }
    queue_one_by_one({keyframe, keyframe});
    run();
    EXPECT_EQ(transcript.take(),
              "err: [VideoReceiver] VP8 receive_frame error: -11\n"
              "err: [VideoReceiver] VP8 send_packet error: -22 (frame " +
                  std::to_string(keyframe.size()) + " bytes)\n");
    EXPECT_FALSE(peer.picture_ready());
}

TEST_F(DecodeThreadVp8, PictureOfTheConfiguredSizeHasItsColoursInTheOrderBgra) {
    configure(640, 360);
    queue_one_by_one(encoded_frames(640, 360, 3));
    run();
    ASSERT_TRUE(peer.picture_ready());
    EXPECT_EQ(peer.picture().size(), 640U * 360U * 4U);
    expect_four_colours(0, 0, 640, 360);
    EXPECT_EQ(converters, 1);
}

// Without the second converter, that of the right edge, what the first one leaves out stays out.
TEST_F(DecodeThreadVp8, PictureWithoutAConverterForItsRightEdgeIsShownAllTheSame) {
    configure(166, 96);
    hook_sws_getContext = [this](auto... arguments) {
        ++converters;
        return converters == 1 ? __real_sws_getContext(arguments...) : nullptr;
    };
    queue_one_by_one(encoded_frames(166, 96, 3));
    run();
    ASSERT_TRUE(peer.picture_ready());
    expect_four_colours(0, 0, 160, 96);
    EXPECT_EQ(converters, 2);
}

TEST_F(DecodeThreadVp8, LargerPictureIsScaledDownToTheConfiguredSize) {
    configure(640, 360);
    queue_one_by_one(encoded_frames(1280, 720, 3));
    run();
    ASSERT_TRUE(peer.picture_ready());
    EXPECT_EQ(peer.picture().size(), 640U * 360U * 4U);
    expect_four_colours(0, 0, 640, 360);
}

TEST_F(DecodeThreadVp8, SmallerPictureIsScaledUpToTheConfiguredSize) {
    configure(640, 360);
    queue_one_by_one(encoded_frames(320, 180, 3));
    run();
    ASSERT_TRUE(peer.picture_ready());
    expect_four_colours(0, 0, 640, 360);
}

// The converter refuses a taller picture; the scratch buffer's earlier contents are shown instead.
TEST_F(DecodeThreadVp8, StreamThatGrowsKeepsItsConverterAndShowsWhatTheScratchBufferHeld) {
    configure(640, 360);
    queue_one_by_one(encoded_frames(1280, 720, 4));
    const auto taller = encoded_frames(1920, 1080, 3);
    queue({taller[0]});  // brings the last picture of the old size
    const EncodedFrame scratch(640 * 360 * 4, 0x77);
    then([&] {
        expect_four_colours(0, 0, 640, 360);
        peer.picture_ready() = false;
        peer.convert_buffer() = scratch;
        enqueue({taller[1]});
    });
    then([&] {
        EXPECT_TRUE(peer.picture_ready());
        EXPECT_TRUE(peer.picture() == scratch);
        enqueue({taller[2]});
    });
    run();
    EXPECT_EQ(converters, 1);
    expect_four_colours(0, 0, 640, 360);
}

TEST_F(DecodeThreadVp8, StreamThatGrewAndShrankIsShownAtTheLeftWithBlackBesideIt) {
    configure(640, 360);
    queue_one_by_one(encoded_frames(1280, 720, 4));
    queue_one_by_one(encoded_frames(1920, 1080, 3));
    queue_one_by_one(encoded_frames(64, 64, 4));
    run();
    EXPECT_EQ(converters, 1);
    ASSERT_TRUE(peer.picture_ready());
    // 64 x 64 at the converter's scale of one half.
    expect_four_colours(0, 0, 32, 32);
    for (const int y : {0, 10, 20, 28}) {
        for (const int x : {36, 100, 320, 639}) {
            expect_colour(x, y, kBlack);
        }
    }
    // Below its rows stays what was there.
    expect_colour(100, 100, kRed);
    expect_colour(600, 300, kWhite);
}

constexpr Colour kGrey{.y = 128, .u = 128, .v = 128, .b = 130, .g = 130, .r = 130};
constexpr Colour kBrightGrey{.y = 200, .u = 128, .v = 128, .b = 214, .g = 214, .r = 214};

// A grey picture whose planes each end at memory that must not be touched. `pitch` bytes lie
// between its rows of luma, half of that between those of chroma.
class GuardedPicture {
  public:
    GuardedPicture(AVFrame& frame, int width, int height, int pitch, const Colour& grey = kGrey)
        : luma_(static_cast<std::size_t>(pitch * height)),
          blue_(static_cast<std::size_t>(chroma(pitch) * chroma(height))),
          red_(blue_.size()) {
        frame.format = AV_PIX_FMT_YUV420P;
        frame.width = width;
        frame.height = height;
        const std::array planes = {&luma_, &blue_, &red_};
        for (std::size_t i = 0; i < planes.size(); ++i) {
            std::ranges::fill(planes[i]->values(), i == 0 ? grey.y : grey.u);
            frame.linesize[i] = i == 0 ? pitch : chroma(pitch);
            frame.data[i] = planes[i]->data();
        }
    }

  private:
    test::GuardedMemory<std::uint8_t> luma_;
    test::GuardedMemory<std::uint8_t> blue_;
    test::GuardedMemory<std::uint8_t> red_;
};

TEST_F(DecodeThreadVp8, NarrowerPictureIsNotReadBeyondItsOwnPlanes) {
    configure(640, 360);
    queue_one_by_one(encoded_frames(1280, 720, 3));
    std::unique_ptr<GuardedPicture> narrow;
    then([&] {
        hook_avcodec_send_packet = [](auto...) { return 0; };
        hook_avcodec_receive_frame = [&](AVCodecContext*, AVFrame* frame) {
            av_frame_unref(frame);
            narrow = std::make_unique<GuardedPicture>(*frame, 63, 64, 63);
            return 0;
        };
        enqueue({{1}});
    });
    then([&] {
        expect_colour(15, 15, kGrey);
        expect_colour(100, 15, kBlack);
    });
    run();
    av_frame_unref(peer.av_frame());
}

TEST_F(DecodeThreadVp8, ShorterPictureIsNotReadBeyondItsOwnPlanes) {
    configure(640, 360);
    queue_one_by_one(encoded_frames(1280, 720, 3));
    std::unique_ptr<GuardedPicture> flat;
    then([&] {
        hook_avcodec_send_packet = [](auto...) { return 0; };
        hook_avcodec_receive_frame = [&](AVCodecContext*, AVFrame* frame) {
            av_frame_unref(frame);
            flat = std::make_unique<GuardedPicture>(*frame, 1280, 64, 1280);
            return 0;
        };
        enqueue({{1}});
    });
    run();
    expect_colour(600, 15, kGrey);
    av_frame_unref(peer.av_frame());
}

// A stream that is shown at its own size, for which libswscale has code that works in blocks of
// columns, and then changes its size.
struct Change {
    const char* name;
    int wider;  // pixels
    int taller;
};

void PrintTo(const Change& change, std::ostream* stream) {
    *stream << change.name;
}

class DecodeThreadUnscaled : public DecodeThreadVp8,
                             public testing::WithParamInterface<std::tuple<int, Change>> {
  protected:
    static constexpr int kFirstHeight = 34;

    // A step of the script: a picture that the decoder gives out, whose planes end with their last
    // rows. These are as long as the decoder makes them, which libswscale may rely on, or only as
    // long as the picture is wide if that is too narrow for the converter, which then must not
    // touch it.
    void decode_guarded(int width, int height, const Colour& grey) {
        then([=, this] {
            hook_avcodec_send_packet = [](auto...) { return 0; };
            hook_avcodec_receive_frame = [=, this](AVCodecContext*, AVFrame* frame) {
                const int pitch =
                    width < receiver.frame_width() ? width : decoders_pitch(width, height);
                av_frame_unref(frame);
                pictures_.push_back(
                    std::make_unique<GuardedPicture>(*frame, width, height, pitch, grey));
                return 0;
            };
            enqueue({{1}});
        });
    }

    // Whether the rectangle's four corners are of this colour.
    void expect_corners(int left, int top, int right, int bottom, const Colour& colour) {
        for (const int x : {left, right - 1}) {
            for (const int y : {top, bottom - 1}) {
                expect_colour(x, y, colour);
            }
        }
    }

  private:
    // Of a plane of luma, if those of chroma are aligned like it.
    int decoders_pitch(int width, int height) {
        std::array<int, AV_NUM_DATA_POINTERS> alignments{};
        avcodec_align_dimensions2(peer.codec_ctx(), &width, &height, alignments.data());
        const int alignment = 2 * alignments[1];
        return (width + alignment - 1) / alignment * alignment;
    }

    std::vector<std::unique_ptr<GuardedPicture>> pictures_;
};

TEST_P(DecodeThreadUnscaled, PictureOfAnotherSizeIsNotReadBeyondItsOwnPlanes) {
    const auto [first_width, change] = GetParam();
    const int width = first_width + change.wider;
    const int height = kFirstHeight + change.taller;
    configure(first_width, kFirstHeight);
    decode_guarded(first_width, kFirstHeight, kGrey);
    decode_guarded(first_width, kFirstHeight, kGrey);  // in both of the receiver's pictures
    decode_guarded(width, height, kBrightGrey);
    run();
    const int right = std::min(width, first_width);
    const int bottom = std::min(height, kFirstHeight);
    if (height > kFirstHeight) {
        expect_corners(0, 0, first_width, kFirstHeight, kGrey);
    } else {
        expect_corners(0, 0, right, bottom, kBrightGrey);
        if (right < first_width) {
            expect_corners(right, 0, first_width, bottom, kBlack);
        }
        if (bottom < kFirstHeight) {
            expect_corners(0, bottom, first_width, kFirstHeight, kGrey);
        }
    }
    av_frame_unref(peer.av_frame());
}

INSTANTIATE_TEST_SUITE_P(
    , DecodeThreadUnscaled,
    testing::Combine(testing::Values(50, 57, 63),
                     testing::Values(Change{.name = "Narrower", .wider = -7, .taller = 0},
                                     Change{.name = "MuchNarrower", .wider = -49, .taller = 0},
                                     Change{.name = "Wider", .wider = 1, .taller = 0},
                                     Change{.name = "MuchWider", .wider = 200, .taller = 0},
                                     Change{.name = "Shorter", .wider = 0, .taller = -2},
                                     Change{.name = "MuchShorter", .wider = 0, .taller = -30},
                                     Change{.name = "Taller", .wider = 0, .taller = 1},
                                     Change{.name = "MuchTaller", .wider = 0, .taller = 200},
                                     Change{.name = "Smaller", .wider = -3, .taller = -4},
                                     Change{.name = "NarrowerAndTaller", .wider = -3, .taller = 4},
                                     Change{.name = "WiderAndShorter", .wider = 3, .taller = -4})),
    [](const auto& parameters) {
        return std::string(std::get<1>(parameters.param).name) + "Than" +
               std::to_string(std::get<0>(parameters.param));
    });

}  // namespace
}  // namespace vesper::client
