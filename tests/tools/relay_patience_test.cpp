// How long a relay waits for an input, by a clock that only the tests advance.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <thread>

#include "tests/support/eventually.h"
#include "tests/support/hook.h"
#include "tests/support/temporary_folder.h"
#include "tests/tools/media_file.h"
#include "tools/stream/link.h"
#include "tools/stream/relay.h"

using SteadyTime = std::chrono::steady_clock::time_point;

// std::chrono::steady_clock::now() of libstdc++.
VESPER_HOOK(_ZNSt6chrono3_V212steady_clock3nowEv, SteadyTime, (), ())

namespace vesper::tools {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;

// What test::eventually() does, without its clock.
template <typename Condition>
[[nodiscard]] bool eventually(Condition condition) {
    for (auto tries = test::kPatience / test::kPollInterval; tries > 0; --tries) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(test::kPollInterval);
    }
    return false;
}

// A relay that reads a FIFO, into which a test writes through `fd_`.
class RelayPatience : public test::HookedTest {
  protected:
    RelayPatience() {
        std::signal(SIGPIPE, SIG_IGN);  // a relay that gave up
        hook__ZNSt6chrono3_V212steady_clock3nowEv = [this] { return SteadyTime(seconds(now_)); };
        EXPECT_EQ(mkfifo(path_.c_str(), 0600), 0);
        relay_.emplace(RelaySettings{.input = path_}, link_);
        relay_->open();
        EXPECT_TRUE(eventually([this] {  // until the relay has opened its end
            fd_ = open(path_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            return fd_ >= 0;
        }));
        fcntl(fd_, F_SETFL, 0);  // a write may wait for the relay
    }
    ~RelayPatience() override {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    void TearDown() override {
        relay_.reset();  // its thread reads the clock
        HookedTest::TearDown();
    }

    // Returns once the relay has read it.
    [[nodiscard]] bool deliver(const std::string& bytes) const {
        if (write(fd_, bytes.data(), bytes.size()) != std::ssize(bytes)) {
            return false;
        }
        return eventually([this] {
            int waiting = 0;
            return ioctl(fd_, FIONREAD, &waiting) == 0 && waiting == 0;
        });
    }

    test::TemporaryFolder folder_;
    const std::string path_ = folder_.file("fifo");
    std::atomic<int> now_ = 1000;  // seconds
    Link link_;
    std::optional<Relay> relay_;
    int fd_ = -1;
};

TEST_F(RelayPatience, EndsAfterTenSecondsOfNothing) {
    now_ += 11;
    ASSERT_TRUE(eventually([this] { return relay_->state() == Feed::State::kFailed; }));
    EXPECT_THAT(relay_->take_lines(),
                ElementsAre("cannot relay " + path_ + ": nothing came for 10 s"));
}

// It may notice the byte only after the clock has advanced, which therefore does so repeatedly.
TEST_F(RelayPatience, EndsTenSecondsAfterTheLastByte) {
    ASSERT_TRUE(deliver("\x1A"));  // as a Matroska file begins
    ASSERT_TRUE(eventually([this] {
        now_ += 1;
        return relay_->state() == Feed::State::kFailed;
    }));
    EXPECT_THAT(relay_->take_lines(),
                ElementsAre("cannot relay " + path_ + ": nothing came for 10 s"));
}

TEST_F(RelayPatience, LastsWhileBytesComeHoweverFew) {
    const std::string film = folder_.file("film.mkv");
    ASSERT_TRUE(test::write_media_file(film, {.frames = 5}));
    std::ifstream file(film, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    constexpr std::size_t kFew = 4;
    for (std::size_t i = 0; i < kFew; ++i) {
        ASSERT_TRUE(deliver(bytes.substr(i, 1)));
        now_ += 6;
    }
    ASSERT_TRUE(deliver(bytes.substr(kFew)));
    EXPECT_TRUE(eventually([this] { return relay_->state() == Feed::State::kReady; }));
}

}  // namespace
}  // namespace vesper::tools
