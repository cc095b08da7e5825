#include "tools/stream/timeline.h"

#include <gtest/gtest.h>

namespace vesper::tools {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Stream = Timeline::Stream;
using Time = Timeline::Time;

constexpr Clock::time_point kStart{};

// Times of packets that come as fast as they are read.
struct FileTimeline : testing::Test {
    Time at(Stream stream, Time timestamp) {
        const auto reading = timeline.read(stream, timestamp, kStart);
        jumped = reading.jump;
        return reading.time;
    }
    Time picture(Time timestamp) { return at(Stream::kPictures, timestamp); }
    Time sound(Time timestamp) { return at(Stream::kSound, timestamp); }

    Timeline timeline{false};
    std::optional<Time> jumped;
};

TEST_F(FileTimeline, BeginsAtZeroWhateverTheFirstTimestamp) {
    EXPECT_EQ(picture(hours(30)), Time(0));
    EXPECT_EQ(picture(hours(30) + milliseconds(40)), milliseconds(40));
}

TEST_F(FileTimeline, KeepsVaryingStepsAndGaps) {
    EXPECT_EQ(picture(seconds(0)), Time(0));
    EXPECT_EQ(picture(Time(33'367)), Time(33'367));
    EXPECT_EQ(picture(Time(100'100)), Time(100'100));
    EXPECT_EQ(picture(seconds(45)), seconds(45));
    EXPECT_FALSE(jumped);
}

TEST_F(FileTimeline, BothStreamsShareIt) {
    EXPECT_EQ(picture(seconds(10)), Time(0));
    EXPECT_EQ(sound(seconds(10) - milliseconds(7)), -milliseconds(7));
    EXPECT_EQ(sound(seconds(10) + milliseconds(13)), milliseconds(13));
}

TEST_F(FileTimeline, AStreamThatBeginsLaterStaysLater) {
    EXPECT_EQ(picture(seconds(0)), Time(0));
    EXPECT_EQ(sound(seconds(20)), seconds(20));
    EXPECT_FALSE(jumped);
}

TEST_F(FileTimeline, ASmallStepBackIsTheMuxers) {
    EXPECT_EQ(picture(seconds(2)), Time(0));
    EXPECT_EQ(picture(seconds(1)), -seconds(1));
    EXPECT_FALSE(jumped);
}

TEST_F(FileTimeline, AJumpBackGoesOnAndIsReported) {
    picture(seconds(100));
    picture(seconds(100) + milliseconds(40));
    EXPECT_EQ(picture(seconds(3)), milliseconds(80));
    EXPECT_EQ(jumped, seconds(3) - seconds(100) - milliseconds(80));
    EXPECT_EQ(picture(seconds(3) + milliseconds(40)), milliseconds(120));
    EXPECT_FALSE(jumped);
}

TEST_F(FileTimeline, AJumpByHoursIsNotWaitedFor) {
    picture(seconds(0));
    picture(milliseconds(40));
    EXPECT_EQ(picture(hours(7)), milliseconds(80));
    EXPECT_EQ(jumped, hours(7) - milliseconds(80));
}

TEST_F(FileTimeline, TheFurthestTimestampsAreJumpsLikeOthers) {
    picture(seconds(0));
    picture(milliseconds(40));
    EXPECT_EQ(picture(Time::max()), milliseconds(80));
    EXPECT_TRUE(jumped);
    EXPECT_EQ(picture(Time::min()), milliseconds(120));
    EXPECT_TRUE(jumped);
    EXPECT_EQ(picture(seconds(1)), milliseconds(160));
    EXPECT_TRUE(jumped);
}

TEST_F(FileTimeline, StreamsThatJumpTogetherStayTogetherAndAreReportedOnce) {
    picture(seconds(50));
    sound(seconds(50));
    sound(seconds(50) + milliseconds(20));
    picture(seconds(50) + milliseconds(40));
    EXPECT_EQ(picture(seconds(1)), milliseconds(80));
    EXPECT_TRUE(jumped);
    EXPECT_EQ(sound(seconds(50) + milliseconds(40)), milliseconds(40)) << "still from before";
    EXPECT_FALSE(jumped);
    EXPECT_EQ(sound(seconds(1) - milliseconds(10)), milliseconds(70));
    EXPECT_FALSE(jumped);
}

TEST_F(FileTimeline, AnotherRoundGoesOnWhereTheLastPacketEnds) {
    picture(seconds(5));
    sound(seconds(5) - milliseconds(7));
    picture(seconds(5) + milliseconds(40));
    timeline.begin_again();
    EXPECT_EQ(sound(seconds(5) - milliseconds(7)), milliseconds(80));
    EXPECT_FALSE(jumped);
    EXPECT_EQ(picture(seconds(5)), milliseconds(87));
    EXPECT_FALSE(jumped);
}

// How long it lasts is not known; as long as it would at 25 a second.
TEST_F(FileTimeline, ARoundOfOnePacketLastsToo) {
    EXPECT_EQ(picture(seconds(5)), Time(0));
    timeline.begin_again();
    EXPECT_EQ(picture(seconds(5)), milliseconds(40));
    timeline.begin_again();
    EXPECT_EQ(picture(seconds(5)), milliseconds(80));
    EXPECT_FALSE(jumped);
}

TEST_F(FileTimeline, ARoundOfPacketsOfOneTimeLastsToo) {
    EXPECT_EQ(picture(seconds(5)), Time(0));
    EXPECT_EQ(picture(seconds(5)), Time(0));
    timeline.begin_again();
    EXPECT_EQ(picture(seconds(5)), milliseconds(40));
}

struct LiveTimeline : testing::Test {
    Timeline::Reading picture(Time timestamp, Clock::duration arrival) {
        return timeline.read(Stream::kPictures, timestamp, kStart + arrival);
    }
    Timeline timeline{true};
};

TEST_F(LiveTimeline, AGapAsLongAsTheSilenceIsNoJump) {
    static_cast<void>(picture(seconds(0), seconds(0)));
    const auto reading = picture(seconds(300), seconds(299));
    EXPECT_EQ(reading.time, seconds(300));
    EXPECT_FALSE(reading.jump);
}

TEST_F(LiveTimeline, WhatIsStampedSecondsAheadIsAJump) {
    static_cast<void>(picture(seconds(0), seconds(0)));
    static_cast<void>(picture(milliseconds(40), milliseconds(40)));
    const auto reading = picture(seconds(3), milliseconds(80));
    EXPECT_EQ(reading.time, milliseconds(80));
    EXPECT_TRUE(reading.jump);
}

}  // namespace
}  // namespace vesper::tools
