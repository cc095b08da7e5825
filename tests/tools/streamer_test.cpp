#include "tools/stream/streamer.h"

extern "C" {
#include <libavutil/log.h>
}

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "audio/opus_codec.h"
#include "net/stream_datagrams.h"
#include "tests/support/eventually.h"
#include "tests/support/temporary_folder.h"
#include "tests/tools/media_file.h"
#include "tests/tools/stream_receiver.h"
#include "tools/stream/free_port.h"
#include "tools/stream/vp8_repeat.h"

namespace vesper::tools {
namespace {

using test::is_keyframe;

constexpr int kWidth = 320;
constexpr int kHeight = 240;

struct StreamerTest : testing::Test {
    StreamerTest() { av_log_set_level(AV_LOG_QUIET); }

    // Streams the test picture at `frames_per_second`.
    void stream(int frames_per_second, const StreamSettings& settings = {}) {
        submit(frames_per_second, settings);
        start_link();
    }

    // As stream(), but the link does not start: nothing leaves.
    void submit(int frames_per_second, StreamSettings settings) {
        settings.video.width = kWidth;
        settings.video.height = kHeight;
        settings.video.frames_per_second = frames_per_second;
        settings.video.keyframe_interval = 1000;
        ASSERT_TRUE(source.open_test_picture(
            {.width = kWidth, .height = kHeight, .frames_per_second = frames_per_second}));
        start(settings);
    }

    // Streams a picture a second. The link starts once the second one is there, so that datagrams
    // leave in the order of the times at which they are due, however late they were submitted.
    void stream_in_order_of_time(const StreamSettings& settings) {
        submit(1, settings);
        ASSERT_TRUE(test::eventually([this] { return streamer.counters().frames >= 2; }));
        start_link();
    }

    void stream_file(const test::MediaFile& file, StreamSettings settings = {}) {
        const std::string path = folder.file("stream.mkv");
        ASSERT_TRUE(test::write_media_file(path, file));
        settings.video.width = file.width;
        settings.video.height = file.height;
        settings.video.frames_per_second = file.frames_per_second;
        ASSERT_TRUE(source.open_file({.width = file.width,
                                      .height = file.height,
                                      .frames_per_second = file.frames_per_second},
                                     path, false));
        start(settings);
        start_link();
    }

    void start(const StreamSettings& settings) {
        ASSERT_TRUE(streamer.open(settings));
        ASSERT_TRUE(link.open(0, player_port));
        streamer.start();
    }

    void start_link() {
        link.start({.keyframe_requested = [this] { streamer.request_keyframe(); }});
    }

    test::TemporaryFolder folder;
    test::StreamReceiver player;
    std::uint16_t player_port = player.port();
    MediaSource source;
    Link link;
    Streamer streamer{source, link};
};

TEST_F(StreamerTest, TheFirstFrameAloneIsAKeyframe) {
    stream(60);
    EXPECT_TRUE(is_keyframe(player.next_frame()));
    for (int i = 0; i < 5; ++i) {
        EXPECT_FALSE(is_keyframe(player.next_frame()));
    }
}

TEST_F(StreamerTest, AKeyframeRequestIsAnsweredWithAKeyframe) {
    stream(1);
    EXPECT_TRUE(is_keyframe(player.next_frame()));
    player.send(kKeyframeRequest, link.listen_port());
    // The pictures that became due before the request arrived come first.
    ASSERT_TRUE(test::eventually([this] { return is_keyframe(player.next_frame()); }));
    EXPECT_FALSE(is_keyframe(player.next_frame()));
    EXPECT_EQ(streamer.counters().answers, 1U);
}

TEST_F(StreamerTest, TheToneArrivesAsOpus) {
    stream(60);
    OpusDecoderWrapper decoder;
    ASSERT_TRUE(decoder.init(kSoundRate, kSoundChannels));
    std::uint32_t expected_sequence = 1;
    int loudest = 0;
    while (expected_sequence <= 10) {
        const Datagram datagram = player.next();
        ASSERT_FALSE(datagram.empty());
        const PacketHeader header = read_packet_header(datagram.data());
        if ((header.flags & kScreenAudioFlag) == 0) {
            continue;
        }
        EXPECT_EQ(header.sequence, expected_sequence++);
        SoundFrame sound{};
        ASSERT_EQ(decoder.decode(datagram.data() + kPacketHeaderSize, header.payload_size,
                                 sound.data(), kSoundFrameSamples),
                  kSoundFrameSamples);
        loudest = std::max(loudest, int{*std::ranges::max_element(sound)});
    }
    EXPECT_GT(loudest, 3000);  // the tone swings up to 4096
}

TEST_F(StreamerTest, EachPictureIsOneFrameUntilTheSourceEnds) {
    stream_file({.frames_per_second = 25, .frames = 10});
    EXPECT_TRUE(test::eventually([this] { return streamer.finished(); }));
    const auto counters = streamer.counters();
    EXPECT_EQ(counters.frames + counters.skipped, 10U);
}

// Nothing listens there, so no datagram ever waits to be taken.
TEST_F(StreamerTest, LowDelaySendsEachPictureTwice) {
    player_port = free_port();
    ASSERT_NE(player_port, 0);
    stream_file({.frames_per_second = 25, .frames = 10}, {.low_delay = true});
    EXPECT_TRUE(test::eventually([this] { return streamer.finished(); }));
    const auto counters = streamer.counters();
    EXPECT_EQ(counters.frames + 2 * counters.skipped, 20U);
}

TEST_F(StreamerTest, LowDelaySparesAPlayerThatDoesNotKeepUp) {
    UDPSocket other;
    ASSERT_TRUE(other.bind(0));
    const std::vector<char> waiting(kMaxFragmentPayload);  // never taken
    ASSERT_GT(other.send(waiting.data(), waiting.size(), "127.0.0.1", player.port()), 0);
    stream_file({.frames_per_second = 25, .frames = 10}, {.low_delay = true});
    EXPECT_TRUE(test::eventually([this] { return streamer.finished(); }));
    const auto counters = streamer.counters();
    EXPECT_EQ(counters.frames + counters.skipped, 10U);
}

TEST_F(StreamerTest, ARepeatIsMuchSmallerThanItsPicture) {
    stream(10, {.low_delay = true});
    const auto picture = player.next_frame();
    const auto repeat = player.next_frame();
    EXPECT_TRUE(is_keyframe(picture));
    EXPECT_FALSE(is_keyframe(repeat));
    EXPECT_EQ(repeat, make_repeat_frame(kWidth, kHeight));
    EXPECT_LT(repeat.size(), picture.size() / 4);
}

// The sound is the clock here: a packet each 20 ms. Of a second's frame in n fragments, the last
// leaves after (n - 1) / n of three quarters of what is left of that second when it is encoded.
TEST_F(StreamerTest, AFrameIsSpreadOverItsInterval) {
    stream_in_order_of_time({.video = {.bitrate = 5'000'000}});
    ASSERT_GT(player.next_frame().size(), 4U * kMaxFragmentPayload);
    EXPECT_GT(player.sound_packets_on_the_way(), 10);
}

TEST_F(StreamerTest, ABurstIsNotSpread) {
    stream_in_order_of_time({.video = {.bitrate = 5'000'000}, .burst = true});
    ASSERT_GT(player.next_frame().size(), 4U * kMaxFragmentPayload);
    EXPECT_EQ(player.sound_packets_within_the_frame(), 0);
}

}  // namespace
}  // namespace vesper::tools
