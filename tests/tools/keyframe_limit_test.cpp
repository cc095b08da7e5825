#include "tools/stream/keyframe_limit.h"

#include <gtest/gtest.h>

namespace vesper::tools {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr Clock::time_point kStart{seconds(1000)};

TEST(KeyframeLimitTest, NothingIsDueUnasked) {
    EXPECT_FALSE(KeyframeLimit().due());
}

TEST(KeyframeLimitTest, TheFirstRequestIsAnsweredAtOnce) {
    KeyframeLimit limit;
    limit.request(kStart);
    EXPECT_EQ(limit.due(), kStart);
}

TEST(KeyframeLimitTest, OneKeyframeAnswersAllRequestsBeforeIt) {
    KeyframeLimit limit;
    limit.request(kStart);
    limit.request(kStart + milliseconds(1));
    limit.answer(kStart + milliseconds(2));
    EXPECT_FALSE(limit.due());
}

TEST(KeyframeLimitTest, ARequestSoonAfterAnAnswerWaitsForTheRestOfTheHalfSecond) {
    KeyframeLimit limit;
    limit.request(kStart);
    limit.answer(kStart);
    limit.request(kStart + milliseconds(100));
    limit.request(kStart + milliseconds(200));
    EXPECT_EQ(limit.due(), kStart + milliseconds(500));
}

TEST(KeyframeLimitTest, ARequestLongAfterAnAnswerIsAnsweredAtOnce) {
    KeyframeLimit limit;
    limit.request(kStart);
    limit.answer(kStart);
    limit.request(kStart + seconds(2));
    EXPECT_EQ(limit.due(), kStart + seconds(2));
}

}  // namespace
}  // namespace vesper::tools
