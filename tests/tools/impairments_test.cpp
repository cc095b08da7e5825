#include "tools/stream/impairments.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>

namespace vesper::tools {
namespace {

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::Ge;
using testing::IsEmpty;
using testing::Le;
using namespace std::chrono_literals;

const Clock::time_point kStart = Clock::time_point() + 1h;

// `count` datagrams of four bytes, each its number four times, one a millisecond.
std::vector<Departure> pass(Impairments& impairments, int count) {
    std::vector<Departure> departures;
    for (int i = 0; i < count; ++i) {
        for (Departure& departure : impairments.pass(Datagram(4, static_cast<std::uint8_t>(i)),
                                                     kStart + std::chrono::milliseconds(i))) {
            departures.push_back(std::move(departure));
        }
    }
    return departures;
}

std::vector<Departure> pass(const ImpairmentSettings& settings, int count) {
    Impairments impairments(settings);
    return pass(impairments, count);
}

std::vector<int> first_bytes(const std::vector<Departure>& departures) {
    std::vector<int> bytes;
    for (const Departure& departure : departures) {
        bytes.push_back(departure.datagram.at(0));
    }
    return bytes;
}

bool same(const std::vector<Departure>& a, const std::vector<Departure>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const Departure& one, const Departure& other) {
                          return one.time == other.time && one.datagram == other.datagram;
                      });
}

constexpr ImpairmentSettings kEverything = {.loss = 10,
                                            .duplicate = 10,
                                            .reorder = 10,
                                            .corrupt = 10,
                                            .truncate = 10,
                                            .jitter = 20ms,
                                            .seed = 7};

TEST(Impairments, NothingHappensWithoutSettings) {
    const auto departures = pass(ImpairmentSettings{}, 3);
    EXPECT_THAT(first_bytes(departures), ElementsAre(0, 1, 2));
    for (std::size_t i = 0; i < departures.size(); ++i) {
        EXPECT_EQ(departures[i].time, kStart + std::chrono::milliseconds(i));
        EXPECT_EQ(departures[i].datagram, Datagram(4, static_cast<std::uint8_t>(i)));
    }
}

TEST(Impairments, TheSameSeedDoesTheSame) {
    EXPECT_TRUE(same(pass(kEverything, 200), pass(kEverything, 200)));
}

TEST(Impairments, AnotherSeedDoesSomethingElse) {
    ImpairmentSettings other = kEverything;
    other.seed = 8;
    EXPECT_FALSE(same(pass(kEverything, 200), pass(other, 200)));
}

TEST(Impairments, FullLossLeavesNothing) {
    Impairments impairments({.loss = 100});
    EXPECT_THAT(pass(impairments, 50), IsEmpty());
    EXPECT_EQ(impairments.counters().lost, 50U);
}

TEST(Impairments, LossTakesAboutItsShare) {
    Impairments impairments({.loss = 20});
    const auto departures = pass(impairments, 10'000);
    EXPECT_EQ(departures.size() + impairments.counters().lost, 10'000U);
    // Ten standard deviations of the binomial distribution: 40 each.
    EXPECT_THAT(impairments.counters().lost, AllOf(Ge(1600U), Le(2400U)));
}

TEST(Impairments, FullDuplicationDoublesEveryDatagram) {
    EXPECT_THAT(first_bytes(pass({.duplicate = 100}, 3)), ElementsAre(0, 0, 1, 1, 2, 2));
}

TEST(Impairments, FullReorderingSwapsPairs) {
    EXPECT_THAT(first_bytes(pass({.reorder = 100}, 6)), ElementsAre(1, 0, 3, 2, 5, 4));
}

TEST(Impairments, ADatagramThatChangesPlacesLeavesWithTheOneThatOvertakesIt) {
    const auto departures = pass({.reorder = 100}, 2);
    ASSERT_EQ(departures.size(), 2U);
    EXPECT_EQ(departures[0].time, kStart + 1ms);
    EXPECT_EQ(departures[1].time, kStart + 1ms);
}

TEST(Impairments, OfADoubledDatagramTheSecondCopyChangesPlaces) {
    EXPECT_THAT(first_bytes(pass({.duplicate = 100, .reorder = 100}, 2)), ElementsAre(0, 1, 1, 0));
}

TEST(Impairments, CorruptionFlipsExactlyOneBit) {
    const auto departures = pass({.corrupt = 100}, 100);
    ASSERT_EQ(departures.size(), 100U);
    for (std::size_t i = 0; i < departures.size(); ++i) {
        int flipped = 0;
        ASSERT_EQ(departures[i].datagram.size(), 4U);
        for (const std::uint8_t byte : departures[i].datagram) {
            flipped += std::popcount(static_cast<unsigned>(byte ^ i));
        }
        EXPECT_EQ(flipped, 1);
    }
}

TEST(Impairments, TruncationShortensButLeavesAByte) {
    std::vector<std::size_t> sizes;
    for (const Departure& departure : pass({.truncate = 100}, 100)) {
        sizes.push_back(departure.datagram.size());
    }
    EXPECT_EQ(sizes.size(), 100U);
    EXPECT_THAT(sizes, Each(AllOf(Ge(1U), Le(3U))));
}

TEST(Impairments, JitterDelaysWithoutChangingTheOrder) {
    const auto departures = pass({.jitter = 50ms}, 200);
    ASSERT_EQ(departures.size(), 200U);
    Clock::time_point before = kStart;
    bool any_late = false;
    for (std::size_t i = 0; i < departures.size(); ++i) {
        const auto due = kStart + std::chrono::milliseconds(i);
        EXPECT_EQ(departures[i].datagram.at(0), i);
        EXPECT_GE(departures[i].time, std::max(due, before));
        EXPECT_LE(departures[i].time, due + 50ms);
        any_late = any_late || departures[i].time > due;
        before = departures[i].time;
    }
    EXPECT_TRUE(any_late);
}

}  // namespace
}  // namespace vesper::tools
