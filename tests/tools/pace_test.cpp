#include "tools/stream/pace.h"

#include <gtest/gtest.h>

namespace vesper::tools {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr Clock::time_point kStart{seconds(1000)};

TEST(FilePaceTest, TheFirstPacketLeavesAtOnceAndOthersAtTheirTimeAfterIt) {
    FilePace pace;
    EXPECT_EQ(pace.due(milliseconds(500), kStart), kStart);
    EXPECT_EQ(pace.due(milliseconds(540), kStart + milliseconds(1)), kStart + milliseconds(40));
    EXPECT_EQ(pace.due(milliseconds(493), kStart + milliseconds(2)), kStart - milliseconds(7));
}

TEST(FilePaceTest, ASmallDelayIsCaughtUpWith) {
    FilePace pace;
    EXPECT_EQ(pace.due(seconds(0), kStart), kStart);
    EXPECT_EQ(pace.due(seconds(1), kStart + milliseconds(1100)), kStart + seconds(1));
}

TEST(FilePaceTest, WhoeverIsLateGoesOnLate) {
    FilePace pace;
    EXPECT_EQ(pace.due(seconds(0), kStart), kStart);
    EXPECT_EQ(pace.due(seconds(1), kStart + seconds(5)), kStart + seconds(5));
    EXPECT_EQ(pace.due(seconds(2), kStart + seconds(5)), kStart + seconds(6));
}

TEST(FilePaceTest, AfterAPauseTheNextPacketLeavesAtOnce) {
    FilePace pace;
    EXPECT_EQ(pace.due(seconds(0), kStart), kStart);
    pace.begin_again();
    EXPECT_EQ(pace.due(milliseconds(40), kStart + milliseconds(90)), kStart + milliseconds(90));
}

TEST(LivePaceTest, WhatComesInTimeOrLateLeavesAtOnce) {
    LivePace pace;
    EXPECT_EQ(pace.due(seconds(7), kStart), kStart);
    EXPECT_EQ(pace.due(seconds(7) + milliseconds(40), kStart + milliseconds(40)),
              kStart + milliseconds(40));
    EXPECT_EQ(pace.due(seconds(7) + milliseconds(80), kStart + milliseconds(300)),
              kStart + milliseconds(300));
}

TEST(LivePaceTest, WhatComesEarlyWaits) {
    LivePace pace;
    EXPECT_EQ(pace.due(seconds(0), kStart), kStart);
    EXPECT_EQ(pace.due(milliseconds(40), kStart + milliseconds(10)), kStart + milliseconds(40));
}

TEST(LivePaceTest, ASenderThatStoodStillIsLateFromThenOn) {
    LivePace pace;
    EXPECT_EQ(pace.due(seconds(0), kStart), kStart);
    EXPECT_EQ(pace.due(milliseconds(40), kStart + seconds(20)), kStart + seconds(20));
    EXPECT_EQ(pace.due(milliseconds(80), kStart + seconds(20)),
              kStart + seconds(20) + milliseconds(40));
}

// The first packet came 200 ms late; all others come in time, and need not wait for it for good.
TEST(LivePaceTest, ADelayThatNobodyNeedsAnyMoreGoesAway) {
    LivePace pace;
    EXPECT_EQ(pace.due(seconds(0), kStart + milliseconds(200)), kStart + milliseconds(200));
    Clock::time_point due;
    for (int i = 1; i <= 75; ++i) {
        due = pace.due(milliseconds(40 * i), kStart + milliseconds(40 * i));
        if (i <= 25) {
            EXPECT_EQ(due, kStart + milliseconds(40 * i + 200)) << i;
        }
    }
    EXPECT_EQ(due, kStart + seconds(3));
}

TEST(LivePaceTest, AsLongAsOnePacketInASecondNeedsTheDelayItStays) {
    LivePace pace;
    for (int i = 0; i <= 100; ++i) {
        const Clock::time_point in_time = kStart + milliseconds(40 * i);
        const Clock::time_point late = in_time + milliseconds(i % 10 == 0 ? 200 : 0);
        EXPECT_EQ(pace.due(milliseconds(40 * i), late), in_time + milliseconds(200)) << i;
    }
}

}  // namespace
}  // namespace vesper::tools
