#include "tools/parent/session.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "tests/support/hook.h"
#include "tools/parent/open_feed.h"

VESPER_HOOK(_ZN6vesper5tools9open_feedERKNS0_7OptionsERNS0_4LinkE,
            std::unique_ptr<vesper::tools::Feed>,
            (const vesper::tools::Options& options, vesper::tools::Link& link), (options, link))

namespace vesper::tools {
namespace {

// Passes its only datagram to the link at the last moment: as it is asked whether it has finished.
class LastMomentFeed : public Feed {
  public:
    explicit LastMomentFeed(Link& link) : link_(link) {}
    [[nodiscard]] PictureSize picture_size() const override { return {}; }
    [[nodiscard]] bool has_sound() const override { return false; }
    void start() override {}
    void request_keyframe() override {}
    [[nodiscard]] bool finished() const override {
        link_.send(Datagram(100), Clock::now() + std::chrono::hours(1));
        return true;
    }
    void stop() override {}
    [[nodiscard]] Counters counters() const override { return {}; }

  private:
    Link& link_;
};

using SessionTest = test::HookedTest;

// The end of a session drops what its link still holds.
TEST_F(SessionTest, WhatAFeedSendsLastIsWaitedFor) {
    hook__ZN6vesper5tools9open_feedERKNS0_7OptionsERNS0_4LinkE = [](const Options&, Link& link) {
        return std::make_unique<LastMomentFeed>(link);
    };
    Options options;
    options.to_port = 9;  // discard
    StatusReporter reporter(false);
    CaptureWriter capture;
    Session session(options, 1, reporter, capture);
    ASSERT_TRUE(session.open());
    ASSERT_TRUE(session.started());
    EXPECT_FALSE(session.finished());
}

}  // namespace
}  // namespace vesper::tools
