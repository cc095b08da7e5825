#include "tools/stream/link.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <utility>

#include "tests/support/captured_output.h"
#include "tests/support/eventually.h"
#include "tests/tools/stream_receiver.h"

namespace vesper::tools {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::Pair;

constexpr auto kNever = 1h;

struct LinkTest : testing::Test {
    test::StreamReceiver player;
};

TEST_F(LinkTest, DatagramsArriveInOrderOfTheirTimes) {
    Link link;
    ASSERT_TRUE(link.open(0, player.port()));
    const Clock::time_point now = Clock::now();
    link.send({3}, now + 20ms);
    link.send({1}, now);
    link.send({4}, now + 20ms);
    link.send({2}, now + 10ms);
    link.start({});
    for (std::uint8_t number = 1; number <= 4; ++number) {
        EXPECT_EQ(player.next(), Datagram{number});
    }
    link.stop();  // a datagram is counted once it has left
    EXPECT_EQ(link.counters().datagrams_sent, 4U);
    EXPECT_EQ(link.counters().bytes_sent, 4U);
}

TEST_F(LinkTest, HurryingSendsWhatWaitsInOrder) {
    Link link;
    ASSERT_TRUE(link.open(0, player.port()));
    link.start({});
    link.send({1}, Clock::now() + kNever);
    link.send({2}, Clock::now() + 2 * kNever);
    link.hurry();
    EXPECT_EQ(player.next(), Datagram{1});
    EXPECT_EQ(player.next(), Datagram{2});
}

TEST_F(LinkTest, StoppingForgetsWhatWaits) {
    Link link;
    ASSERT_TRUE(link.open(0, player.port()));
    link.start({});
    link.send({1}, Clock::now() + kNever);
    link.stop();
    EXPECT_EQ(link.counters().datagrams_sent, 0U);
}

TEST_F(LinkTest, ReportsKeyframeRequestsAndAudioStates) {
    Link link;
    ASSERT_TRUE(link.open(0, player.port()));
    std::atomic<int> requests = 0;
    std::mutex mutex;
    std::vector<std::pair<bool, float>> states;
    link.start({.keyframe_requested = [&] { ++requests; },
                .audio_state_reported =
                    [&](const AudioState& state) {
                        const std::lock_guard lock(mutex);
                        states.emplace_back(state.muted, state.volume);
                    }});
    player.send(make_audio_state({.muted = true, .volume = 0.25F}), link.listen_port());
    player.send(std::vector<std::uint8_t>{'J', 'U', 'N', 'K'}, link.listen_port());
    player.send(kKeyframeRequest, link.listen_port());
    EXPECT_TRUE(test::eventually([&] { return requests == 1; }));
    link.stop();
    EXPECT_THAT(states, ElementsAre(Pair(true, 0.25F)));
    EXPECT_EQ(link.counters().keyframe_requests, 1U);
}

TEST_F(LinkTest, ShowsEveryDatagramOfBothDirectionsAsItIsOnTheWire) {
    Link link({.duplicate = 100});
    ASSERT_TRUE(link.open(0, player.port()));
    std::mutex mutex;
    std::vector<std::pair<Direction, Datagram>> seen;
    const auto seen_count = [&] {
        const std::lock_guard lock(mutex);
        return seen.size();
    };
    link.start({.datagram_passed = [&](Direction direction, std::span<const std::uint8_t> bytes) {
        const std::lock_guard lock(mutex);
        seen.emplace_back(direction, Datagram(bytes.begin(), bytes.end()));
    }});
    link.send({1}, Clock::now());
    EXPECT_TRUE(test::eventually([&] { return seen_count() == 2; }));
    player.send(std::vector<std::uint8_t>{7}, link.listen_port());
    EXPECT_TRUE(test::eventually([&] { return seen_count() == 3; }));
    link.stop();
    EXPECT_THAT(seen, ElementsAre(Pair(Direction::kToPlayer, Datagram{1}),
                                  Pair(Direction::kToPlayer, Datagram{1}),
                                  Pair(Direction::kFromPlayer, Datagram{7})));
}

TEST_F(LinkTest, WhatIsImpairedDoesNotLeave) {
    Link link({.loss = 100});
    ASSERT_TRUE(link.open(0, player.port()));
    link.start({});
    link.send({1}, Clock::now());
    EXPECT_TRUE(test::eventually([&] { return link.counters().impaired.lost == 1; }));
    link.stop();
    EXPECT_EQ(link.counters().datagrams_sent, 0U);
}

TEST_F(LinkTest, ATakenPortIsRefused) {
    Link link;
    const test::Printed printed =
        test::printed_by([&] { EXPECT_FALSE(link.open(player.port(), 1)); });
    EXPECT_NE(printed.err, "");
}

}  // namespace
}  // namespace vesper::tools
