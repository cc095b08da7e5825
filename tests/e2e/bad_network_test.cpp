// The real player at the end of a bad network. Every impairment is seeded, so the same datagrams
// are lost and broken in every run. What must come of it: the player lives, prints only the lines
// that the impairment explains, and shows a good picture from the first keyframe after it.
//
// Each test impairs a live stream for some seconds; for longer with scripts/soak --network.
#include <algorithm>
#include <cstdlib>
#include <deque>
#include <functional>
#include <memory>
#include <ostream>
#include <thread>

#include "net/stream_datagrams.h"
#include "tests/e2e/live_stream_fixture.h"
#include "tests/support/fragment_builder.h"
#include "tools/stream/seeded_draws.h"
#include "tools/stream/vp8_encoder.h"

namespace vesper::test {

namespace {

using tools::Datagram;
using Network = LiveStream::Network;

constexpr std::uint64_t kSeed = 7;

// How long the network is bad: seconds from the environment, else long enough for some hundred
// datagrams.
std::chrono::milliseconds impaired_time() {
    const char* seconds = std::getenv("VESPER_NETWORK_SECONDS");
    return std::chrono::seconds(seconds == nullptr ? 3 : std::atoi(seconds));
}

// Flips one bit of the encoded frame or packet in `percent` of the datagrams; headers stay whole.
Network flips_in_payload(double percent) {
    const auto draws = std::make_shared<tools::SeededDraws>(kSeed);
    return [=](Datagram datagram) {
        const bool sound = (read_packet_header(datagram.data()).flags & kScreenAudioFlag) != 0;
        const auto begin =
            static_cast<std::size_t>(sound ? kPacketHeaderSize : kVideoPayloadOffset);
        if (draws->happens(percent)) {
            const std::size_t bit = draws->below((datagram.size() - begin) * 8);
            datagram[begin + bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
        }
        return std::vector<Datagram>{std::move(datagram)};
    };
}

// Now and then everything is lost for a while: for a tenth to half a second of this stream.
Network bursts_of_loss() {
    const auto draws = std::make_shared<tools::SeededDraws>(kSeed);
    const auto to_lose = std::make_shared<std::size_t>(0);
    return [=](Datagram datagram) -> std::vector<Datagram> {
        if (*to_lose == 0 && draws->happens(1)) {
            *to_lose = 20 + draws->below(100);
        }
        if (*to_lose > 0) {
            --*to_lose;
            return {};
        }
        return {std::move(datagram)};
    };
}

// Nothing arrives until this many datagrams are on their way; then all of them arrive at once.
Network bursts_of_arrival() {
    constexpr std::size_t kBurst = 100;
    const auto held = std::make_shared<std::vector<Datagram>>();
    return [=](Datagram datagram) -> std::vector<Datagram> {
        held->push_back(std::move(datagram));
        return held->size() < kBurst ? std::vector<Datagram>() : std::exchange(*held, {});
    };
}

Network chained(const Network& first, const Network& second) {
    return [=](Datagram datagram) {
        std::vector<Datagram> arriving;
        for (Datagram& passed : first(std::move(datagram))) {
            std::ranges::move(second(std::move(passed)), std::back_inserter(arriving));
        }
        return arriving;
    };
}

struct NamedNetwork {
    const char* name;
    std::function<Network()> make;
    friend void PrintTo(const NamedNetwork& network, std::ostream* stream) {
        *stream << network.name;
    }
};

const std::vector<NamedNetwork> kNetworks = {
    {"Loss1", [] { return impaired({.loss = 1, .seed = kSeed}); }},
    {"Loss5", [] { return impaired({.loss = 5, .seed = kSeed}); }},
    {"Loss20", [] { return impaired({.loss = 20, .seed = kSeed}); }},
    {"Reorder", [] { return impaired({.reorder = 20, .seed = kSeed}); }},
    {"Duplicate", [] { return impaired({.duplicate = 20, .seed = kSeed}); }},
    {"Truncate", [] { return impaired({.truncate = 5, .seed = kSeed}); }},
    {"FlipsInPayload", [] { return flips_in_payload(30); }},
    {"BurstsOfLoss", bursts_of_loss},
    {"BurstsOfArrival", bursts_of_arrival},
    {"Everything",
     [] {
         return chained(
             flips_in_payload(2),
             chained(bursts_of_loss(),
                     impaired(
                         {.loss = 2, .duplicate = 5, .reorder = 5, .truncate = 2, .seed = kSeed})));
     }},
};

}  // namespace

class BadNetwork : public LiveStreamTest, public testing::WithParamInterface<NamedNetwork> {};

TEST_P(BadNetwork, PictureIsGoodFromTheNextKeyframeOn) {
    start_stream();
    stream(impaired_time(), GetParam().make());
    EXPECT_GT(live.counters().impaired, 0U);
    expect_good_picture();
    expect_explained_end();
}

INSTANTIATE_TEST_SUITE_P(Networks, BadNetwork, testing::ValuesIn(kNetworks),
                         [](const auto& network) { return network.param.name; });

class BadStream : public LiveStreamTest {
  protected:
    // Sends only the first of a frame's several datagrams; returns how many there are. A player
    // that stood still between two of them would find the frame too old at the second.
    int send_first_fragment_of_a_frame() {
        std::vector<Datagram> datagrams = video.frame(random_picture(random), true);
        const int fragments = static_cast<int>(datagrams.size());
        datagrams.resize(1);
        send(datagrams);
        return fragments;
    }

    // Returns when the player has handled everything sent so far: it answers a key after that.
    void wait_for_player() {
        window->press_key("m");
        EXPECT_FALSE(parent.next_message().empty());
    }
};

// A flipped bit may turn a frame's number into one so high that no later frame is new, so a good
// picture is not asked for.
TEST_F(BadStream, BitsFlippedAnywhereLeaveThePlayerAlive) {
    start_stream();
    stream(impaired_time(), impaired({.corrupt = 20, .seed = kSeed}));
    EXPECT_GT(live.counters().impaired, 0U);
    expect_explained_end();
}

TEST_F(BadStream, HighestFrameNumberIsTheLastOne) {
    start_stream();
    constexpr std::uint32_t kHighest = 4'294'967'295;
    send({FragmentBuilder().frame(kHighest).payload({0}).build()});
    for (int i = 0; i < 5; ++i) {
        show_picture(fields_picture());
    }
    wait_for_player();
    expect_color(kFirstPoint, kFirstColor);
}

TEST_F(BadStream, SilenceOfTenSecondsChangesNothing) {
    constexpr std::chrono::seconds kSilence{10};
    start_stream();
    const int fragments = send_first_fragment_of_a_frame();
    std::this_thread::sleep_for(kSilence);
    EXPECT_TRUE(parent.has_no_message());
    EXPECT_EQ(player->out(), start_up_text() + progress_text);
    EXPECT_EQ(player->err(), failure_text);
    EXPECT_TRUE(shows_color(kFirstPoint, kFirstColor));

    // The incomplete frame is dropped as soon as anything arrives.
    (void)send_first_fragment_of_a_frame();
    failure_text += dropped_frame_line(3, 1, fragments) +
                    "[VideoReceiver] Requesting keyframe due to dropped frames\n";
    EXPECT_TRUE(eventually([this] { return player->err().starts_with(failure_text); }))
        << player->err();
    expect_keyframe_request();
    expect_good_picture();
    expect_explained_end();
}

TEST_F(BadStream, ParentThatComesBackAndCountsOnIsShown) {
    keep_bar();
    start_stream();
    (void)send_first_fragment_of_a_frame();
    parent.die();
    // The player reports to nobody that it was muted, and its window still responds.
    window->press_key("m");
    EXPECT_TRUE(eventually([this] { return bar_is_visible_over(kFirstColor); }));
    EXPECT_TRUE(shows_color(kFirstPoint, kFirstColor));
    parent.come_back();
    expect_good_picture();
    expect_explained_end();
}

TEST_F(BadStream, ParentThatComesBackAndCountsFromOneIsIgnoredUntilItsNumbersAreNew) {
    constexpr int kPictures = 5;  // of two frames, of one datagram each
    constexpr Color kNewColor{.red = 30, .green = 150, .blue = 30};
    start_stream();
    for (int i = 1; i < kPictures; ++i) {
        show_picture(flat_picture(kFirstColor));
    }
    parent.die();
    parent.come_back();
    VideoSource again;
    for (int i = 1; i < kPictures; ++i) {
        send(again.show(flat_picture(kNewColor)));
    }
    wait_for_player();
    EXPECT_TRUE(shows_color(kFirstPoint, kFirstColor));
    send(again.show(flat_picture(kNewColor)));
    send(again.show(flat_picture(kNewColor)));
    expect_color(kFirstPoint, kNewColor);
    expect_explained_end();
}

TEST_F(BadStream, StreamThatStartsWithoutAKeyframeIsShownFromTheFirstOneOn) {
    constexpr int kFrames = 10;
    constexpr int kReportedErrors = 5;
    start_player({"--has-audio"});
    (void)video.frame(random_picture(random), true);
    for (int i = 1; i <= kFrames; ++i) {
        const std::vector<Datagram> frame = video.frame(flat_picture(kFirstColor), false);
        ASSERT_EQ(frame.size(), 1U);
        send(frame);
        // The decoder reports each frame's error when it gets the next.
        if (i == 1) {
            failure_text += "[VideoReceiver] VP8 receive_frame error: -11\n";
        } else if (i <= kReportedErrors) {
            failure_text += "[VideoReceiver] VP8 send_packet error: -1094995529 (frame " +
                            std::to_string(frame.front().size() - kVideoPayloadOffset) +
                            " bytes)\n";
        }
        // A decoder that falls behind leaves frames out.
        ASSERT_TRUE(eventually([this] { return player->err().starts_with(failure_text); }))
            << player->err();
    }
    expect_keyframe_request();
    expect_good_picture();
    expect_explained_end();
}

TEST_F(BadStream, PictureOfAnotherSizeDoesNotLast) {
    start_stream();
    for (const Extent size :
         {Extent{.width = 800, .height = 480}, Extent{.width = 200, .height = 120},
          Extent{.width = 16, .height = 16}, Extent{.width = 2000, .height = 16}}) {
        tools::Vp8Encoder encoder;
        ASSERT_TRUE(encoder.open({.width = size.width, .height = size.height}));
        for (const bool keyframe : {true, false, false, true, false}) {
            send(video.packetize(encoder.encode(flat_picture(kFirstColor, size), keyframe)));
        }
        expect_good_picture();
    }
    expect_explained_end();
}

}  // namespace vesper::test
