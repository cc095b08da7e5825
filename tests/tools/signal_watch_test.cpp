#include "tools/parent/signal_watch.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "tests/support/eventually.h"

namespace vesper::tools {
namespace {

using test::eventually;

// To the process, as the terminal and a service manager send it.
void send(int signal) {
    kill(getpid(), signal);
}

// Sends it, and returns once the watch has decided what to do about it: it has received the second
// one, too.
void send_twice(int signal) {
    for (int times = 0; times < 2; ++times) {
        send(signal);
        const bool received = eventually([signal] {
            sigset_t pending;
            return sigpending(&pending) == 0 && sigismember(&pending, signal) == 0;
        });
        if (!received) {
            _exit(1);
        }
    }
}

// Whether the watch has something to take, now or soon.
bool reports(const SignalWatch& watch) {
    pollfd descriptor = {.fd = watch.descriptor(), .events = POLLIN, .revents = 0};
    return poll(&descriptor, 1, static_cast<int>(test::kPatience.count())) == 1;
}

// Longer than any signal takes; to the tests, exit status 0 is a failure.
void wait_for_death() {
    std::this_thread::sleep_for(test::kPatience);
    _exit(0);
}

// Each signal acts on a whole process, so each test runs in one of its own.
class SignalWatchDeathTest : public testing::Test {
  protected:
    SignalWatchDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

class EachSignalDeathTest : public SignalWatchDeathTest, public testing::WithParamInterface<int> {};

TEST_P(EachSignalDeathTest, EndsTheProcessAtOnceAtFirst) {
    const auto run = [] {
        const SignalWatch watch;
        send(GetParam());
        wait_for_death();
    };
    EXPECT_EXIT(run(), testing::KilledBySignal(GetParam()), "");
}

TEST_P(EachSignalDeathTest, IsReportedOnce) {
    const auto run = [] {
        SignalWatch watch;
        watch.report_first();
        const bool empty = !watch.take();
        send(GetParam());
        const bool taken = reports(watch) && watch.take() == GetParam() && !watch.take();
        _exit(empty && taken ? 0 : 1);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST_P(EachSignalDeathTest, EndsTheProcessAtOnceAsTheSecond) {
    const auto run = [] {
        SignalWatch watch(std::chrono::milliseconds(0));
        watch.report_first();
        send(SIGTERM);
        if (!reports(watch)) {
            _exit(1);
        }
        send(GetParam());
        wait_for_death();
    };
    EXPECT_EXIT(run(), testing::KilledBySignal(GetParam()), "");
}

TEST_P(EachSignalDeathTest, BelongsToTheFirstIfItComesSoonAfter) {
    const auto run = [] {
        SignalWatch watch(std::chrono::hours(1));
        watch.report_first();
        send(SIGTERM);
        const bool taken = reports(watch) && watch.take() == SIGTERM;
        send_twice(GetParam());
        _exit(taken && !watch.take() ? 0 : 1);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

// As nohup starts a program.
TEST_P(EachSignalDeathTest, StaysIgnored) {
    const auto run = [] {
        std::signal(GetParam(), SIG_IGN);
        SignalWatch watch(std::chrono::milliseconds(0));
        send_twice(GetParam());
        watch.report_first();
        send_twice(GetParam());
        const bool empty = !watch.take();
        const int other = GetParam() == SIGTERM ? SIGINT : SIGTERM;
        send(other);
        const bool taken = reports(watch) && watch.take() == other;
        send_twice(GetParam());
        _exit(empty && taken ? 0 : 1);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(, EachSignalDeathTest, testing::Values(SIGINT, SIGTERM, SIGHUP),
                         [](const auto& signal) {
                             return signal.param == SIGINT    ? "SIGINT"
                                    : signal.param == SIGTERM ? "SIGTERM"
                                                              : "SIGHUP";
                         });

// nohup has it ignored.
TEST_F(SignalWatchDeathTest, EndsEvenIfSighupIsIgnored) {
    const auto run = [] {
        std::signal(SIGHUP, SIG_IGN);
        { const SignalWatch watch; }
        _exit(0);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace vesper::tools
