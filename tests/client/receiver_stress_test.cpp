// Receivers stopped at random moments, while everything that may run beside a stop does: fragments
// arrive on two threads, volume and switches change on a third, a fourth may end the stream, the
// decode thread decodes. Sound, rendering and the stop itself take turns on the main thread.
//
// The seed is printed, and VESPER_STRESS_SEED repeats it; how the threads then interleave is the
// machine's choice, so this is above all a test for the thread sanitizer.
#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "audio/opus_codec.h"
#include "client/video_receiver.h"
#include "tests/support/eventually.h"
#include "tests/support/transcript.h"
#include "tests/support/video_receiver_peer.h"
#include "tools/stream/media_source.h"
#include "tools/stream/packetizer.h"
#include "tools/stream/vp8_encoder.h"

namespace vesper::client {
namespace {

using std::chrono::microseconds;
using test::eventually;
using test::Transcript;

using Bytes = std::vector<std::uint8_t>;
using Random = std::mt19937;

constexpr int kLives = 60;  // SDL takes some 50 ms to close a sound device

// A life may end before anything was decoded. It is counted in pictures, so that it is as full on
// the slowest machine; what comes on top of them is shorter than two.
constexpr unsigned kMostPictures = 5;
constexpr microseconds kLongestRest{3'000};

// The others go on for this long at the most when the receiver is stopped already.
constexpr microseconds kLongestAfterlife{1'000};

// Between two frames of one thread: more than the decoder manages, so that the ring runs full.
constexpr microseconds kLongestFramePause{1'000};

constexpr int kWidth = 320;   // pixels
constexpr int kHeight = 180;  // pixels

std::uint32_t seed() {
    const char* text = std::getenv("VESPER_STRESS_SEED");
    return text == nullptr ? std::random_device{}()
                           : static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
}

microseconds up_to(microseconds longest, Random& random) {
    return microseconds(random() % static_cast<std::uint32_t>(longest.count() + 1));
}

// A second of a stream, to be sent again and again.
struct Stream {
    std::vector<Bytes> frames;   // VP8, of several fragments each
    std::vector<Bytes> packets;  // Opus
};

Stream make_stream() {
    constexpr int kFrames = 30;
    constexpr int kPackets = 50;
    tools::MediaSource source;
    tools::Vp8Encoder video;
    OpusEncoderWrapper sound;
    EXPECT_TRUE(source.open_test_picture({.width = kWidth, .height = kHeight}));
    EXPECT_TRUE(video.open(
        {.width = kWidth, .height = kHeight, .bitrate = 1'000'000, .keyframe_interval = 10}));
    EXPECT_TRUE(sound.init(tools::kSoundRate, tools::kSoundChannels, OPUS_APPLICATION_AUDIO));
    Stream stream;
    for (int i = 0; i < kFrames; ++i) {
        stream.frames.push_back(video.encode(source.next_picture(), false));
    }
    for (int i = 0; i < kPackets; ++i) {
        tools::SoundFrame samples;
        EXPECT_TRUE(source.next_sound(samples));
        std::array<std::uint8_t, 1275> packet;  // the longest (RFC 6716, section 3.4)
        const int length = sound.encode(samples.data(), tools::kSoundFrameSamples, packet.data(),
                                        static_cast<int>(packet.size()));
        EXPECT_GT(length, 0);
        stream.packets.emplace_back(packet.begin(), packet.begin() + length);
    }
    return stream;
}

// One receiver, from its set-up to its stop, and what runs beside it.
class Life {
  public:
    Life(const Stream& stream, std::uint32_t life_seed) : stream_(stream), random_(life_seed) {}

    void bring_up() {
        ASSERT_TRUE(in_application_ ? receiver_.start(7, "Ann", kWidth, kHeight, nullptr)
                                    : receiver_.init_for_udp(kWidth, kHeight));
        receiver_.enable_audio(true);
        ASSERT_TRUE(peer_.audio_enabled());
        receiver_.set_overlay_callback([](SDL_Renderer* renderer, int, int) {
            SDL_SetRenderDrawColor(renderer, 0, 0, 0, 255);
        });
        for (int i = 0; i < 2; ++i) {
            run_beside([this, video = tools::VideoPacketizer()](Random& random) mutable {
                deliver_frame(video, random);
            });
        }
        run_beside([this](Random& random) { turn_knobs(random); });
        if (random_() % 4 == 0) {
            others_.emplace_back([this, after = up_to(4 * kLongestRest, random_)] {
                std::this_thread::sleep_for(after);
                receiver_.mark_stream_ended();
            });
        }
    }

    // The main thread's work, until a random moment.
    void live() {
        auto pictures = static_cast<int>(random_() % (kMostPictures + 1));
        EXPECT_TRUE(eventually([&] {
            pictures -= peer_.picture_ready() ? 1 : 0;
            work();
            return pictures <= 0 || !peer_.running();
        }));
        const auto end = std::chrono::steady_clock::now() + up_to(kLongestRest, random_);
        while (std::chrono::steady_clock::now() < end) {
            work();
        }
    }

    // Stops the receiver in one of the two ways, and continues to use it for a moment.
    void stop() {
        if (random_() % 2 == 0) {
            receiver_.stop();
        } else {
            receiver_.stop_decode_and_codecs();
            show();
            receiver_.destroy_sdl_resources();
        }
        work();
        std::this_thread::sleep_for(up_to(kLongestAfterlife, random_));
        others_.clear();  // asks them to end, and joins them
    }

    void expect_nothing_left() {
        EXPECT_FALSE(peer_.running());
        EXPECT_FALSE(peer_.decode_thread().joinable());
        EXPECT_EQ(peer_.codec_ctx(), nullptr);
        EXPECT_EQ(peer_.window(), nullptr);
        EXPECT_EQ(peer_.renderer(), nullptr);
        EXPECT_EQ(peer_.texture(), nullptr);
        EXPECT_FALSE(peer_.audio_enabled());
        EXPECT_TRUE(peer_.picture().empty());
        EXPECT_TRUE(peer_.convert_buffer().empty());
    }

  private:
    template <typename Step>
    void run_beside(Step step) {
        others_.emplace_back(
            [step, own_random = Random(random_())](const std::stop_token& over) mutable {
                while (!over.stop_requested()) {
                    step(own_random);
                }
            });
    }

    // The stream's next frame, now and then with a fragment missing. Both threads deliver the same
    // stream, each in its own time, so many fragments come twice and many frames too late.
    void deliver_frame(tools::VideoPacketizer& video, Random& random) {
        const Bytes& frame = stream_.frames[video.next_frame_id() % stream_.frames.size()];
        for (const tools::Datagram& fragment : video.packetize(frame)) {
            if (random() % 16 != 0) {
                receiver_.handle_fragment(fragment.data(), static_cast<int>(fragment.size()));
            }
        }
        std::this_thread::sleep_for(up_to(kLongestFramePause, random));
    }

    void turn_knobs(Random& random) {
        receiver_.set_audio_volume(static_cast<float>(random() % 5) / 2.0F);
        receiver_.set_condemned(random() % 8 == 0);
        static_cast<void>(receiver_.needs_keyframe_request());
        std::this_thread::sleep_for(microseconds(100));
    }

    // A pass of the main thread.
    void work() {
        const Bytes& next = stream_.packets[sound_.next_sequence() % stream_.packets.size()];
        const tools::Datagram packet = sound_.packetize(next);
        if (random_() % 8 != 0) {  // else it is lost, and concealed later
            receiver_.handle_screen_audio(packet.data(), static_cast<int>(packet.size()));
        }
        show();
    }

    void show() {
        if (in_application_) {
            receiver_.update();
        } else {
            receiver_.set_zoom_rect(random_() % 2 == 0, 10, 10, kWidth / 2, kHeight / 2);
            receiver_.render();
        }
    }

    const Stream& stream_;
    Random random_;
    const bool in_application_ = random_() % 2 == 0;
    tools::AudioPacketizer sound_;
    VideoReceiver receiver_;
    VideoReceiverPeer peer_{receiver_};
    std::vector<std::jthread> others_;  // end before the receiver does
};

int occurrences(const std::string& text, const std::string& words) {
    int count = 0;
    for (std::size_t at = text.find(words); at != std::string::npos;
         at = text.find(words, at + 1)) {
        ++count;
    }
    return count;
}

// The watchdog's line of a stop that takes more than five seconds.
constexpr auto kLateStop = "err: [VideoReceiver] ERROR: Decode thread join() blocked >5s!";

// One stop, whole, and no failure but those of a damaged stream. It may be a late one, as a machine
// can stand still.
void expect_one_stop(const std::string& text) {
    SCOPED_TRACE(text);
    for (const char* line :
         {"out: [VideoReceiver] Signaling decode thread to stop\n",
          "out: [VideoReceiver] Decode thread joined successfully\n",
          "out: [VideoReceiver] Decode and codec cleanup complete\n", ": Texture destroyed\n",
          ": Renderer destroyed\n", ": Window destroyed\n"}) {
        EXPECT_EQ(occurrences(text, line), 1) << line;
    }
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(line.starts_with("out: ") ||
                    line.starts_with("err: [VideoReceiver] Dropped frame ") || line == kLateStop ||
                    line == "err: [VideoReceiver] Requesting keyframe due to dropped frames" ||
                    line.starts_with("err: [VideoReceiver] VP8 "))
            << line;
    }
}

TEST(ReceiverStress, StopAtAnyMomentEndsEverythingWhateverRunsBesideIt) {
    const std::uint32_t first_seed = seed();
    std::printf("VESPER_STRESS_SEED=%u\n", first_seed);
    av_log_set_level(AV_LOG_QUIET);  // as the player does
    SDL_setenv("SDL_VIDEODRIVER", "dummy", 1);
    SDL_setenv("SDL_AUDIODRIVER", "dummy", 1);
    ASSERT_EQ(SDL_Init(SDL_INIT_VIDEO | SDL_INIT_AUDIO), 0) << SDL_GetError();
    const Stream stream = make_stream();

    Random random(first_seed);
    Transcript transcript;
    for (int i = 0; i < kLives && !testing::Test::HasFailure(); ++i) {
        SCOPED_TRACE(testing::Message() << "life " << i);
        {
            Life life(stream, static_cast<std::uint32_t>(random()));
            ASSERT_NO_FATAL_FAILURE(life.bring_up());
            life.live();
            life.stop();
            life.expect_nothing_left();
        }
        expect_one_stop(transcript.take());
    }
    SDL_Quit();
}

}  // namespace
}  // namespace vesper::client
