// vesper-parent: stands in for the application that starts the player, for engineers who write such
// an application and for anyone who wants to try the player.
#include <poll.h>
#include <unistd.h>

extern "C" {
#include <libavutil/log.h>
}

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <vector>

#include "net/udp_socket.h"
#include "tools/parent/options.h"
#include "tools/parent/session.h"
#include "tools/parent/signal_watch.h"
#include "tools/parent/status.h"
#include "tools/stream/capture.h"

using vesper::tools::CaptureWriter;
using vesper::tools::Clock;
using vesper::tools::Figures;
using vesper::tools::Options;
using vesper::tools::Session;
using vesper::tools::SignalWatch;
using vesper::tools::StatusReporter;

namespace {

constexpr int kBadUsage = 2;
constexpr int kSignalBase = 128;  // exit status after a signal, as shells have it

// Longest wait for something to happen before the clock is checked again.
constexpr int kWait = 100;  // ms

// Patience with a player that was asked to end.
constexpr auto kEndTimeout = std::chrono::seconds(5);

// The streams of one run.
class Run {
  public:
    explicit Run(const Options& options) : options_(options) {}

    // The exit status.
    int run();

  private:
    [[nodiscard]] bool open();
    [[nodiscard]] int stream();
    [[nodiscard]] std::optional<int> all_players_ended();
    [[nodiscard]] bool all_feeds_finished() const;
    void wait_for_news();
    void end_players();
    [[nodiscard]] Figures figures();

    Options options_;
    SignalWatch signals_;  // the first of all threads
    StatusReporter reporter_{isatty(STDOUT_FILENO) == 1};
    CaptureWriter capture_;
    std::vector<std::unique_ptr<Session>> sessions_;
    std::optional<Clock::time_point> start_;
    bool failed_ = false;  // something could not be started; a line names it
};

int Run::run() {
    if (!open()) {
        return kBadUsage;
    }
    signals_.report_first();
    const int status = stream();
    if (failed_) {
        return kBadUsage;
    }
    const Figures total = figures();
    end_players();
    reporter_.finish(total);
    return status;
}

bool Run::open() {
    if (!options_.capture.empty() && !capture_.open(options_.capture)) {
        return false;
    }
    for (int number = 1; number <= options_.streams; ++number) {
        sessions_.push_back(std::make_unique<Session>(options_, number, reporter_, capture_));
        if (!sessions_.back()->open()) {
            return false;
        }
    }
    return true;
}

// Until something ends it; the exit status.
int Run::stream() {
    for (;;) {
        wait_for_news();
        failed_ =
            !std::ranges::all_of(sessions_, [](const auto& session) { return session->update(); });
        if (failed_) {
            return kBadUsage;
        }
        if (const auto status = all_players_ended()) {
            return *status;
        }
        if (const auto signal = signals_.take()) {
            return kSignalBase + *signal;
        }
        const auto started = [](const auto& session) { return session->started(); };
        if (!start_ && std::ranges::all_of(sessions_, started)) {
            start_ = Clock::now();
        }
        if (!start_) {
            continue;
        }
        const Figures now = figures();
        reporter_.update(now);
        const bool time_is_up = options_.seconds.count() > 0 && now.time >= options_.seconds;
        if (time_is_up || all_feeds_finished()) {
            return 0;
        }
    }
}

// Nothing while one runs; then the exit status of the first that failed, or 0.
std::optional<int> Run::all_players_ended() {
    int worst = 0;
    for (const auto& session : sessions_) {
        const auto status = session->player_exit_status();
        if (!status) {
            return std::nullopt;
        }
        session->read_player();
        if (worst == 0) {
            worst = *status;
        }
    }
    return worst;
}

bool Run::all_feeds_finished() const {
    return std::ranges::all_of(sessions_, [](const auto& session) { return session->finished(); });
}

void Run::wait_for_news() {
    std::vector<pollfd> descriptors = {
        {.fd = signals_.descriptor(), .events = POLLIN, .revents = 0}};
    for (const auto& session : sessions_) {
        for (const int fd : {session->player_output(), session->player_errors()}) {
            descriptors.push_back({.fd = fd, .events = POLLIN, .revents = 0});
        }
    }
    poll(descriptors.data(), descriptors.size(), kWait);
    for (const auto& session : sessions_) {
        session->read_player();
    }
}

void Run::end_players() {
    for (const auto& session : sessions_) {
        session->stop();
    }
    const Clock::time_point give_up = Clock::now() + kEndTimeout;
    const auto silent = [](const auto& session) {
        return session->player_output() < 0 && session->player_errors() < 0;
    };
    while (!std::ranges::all_of(sessions_, silent) && Clock::now() < give_up) {
        wait_for_news();
        static_cast<void>(signals_.take());  // what it asks for is being done, and it would wake us
    }
}

Figures Run::figures() {
    Figures sum;
    if (start_) {
        sum.time = Clock::now() - *start_;
    }
    for (const auto& session : sessions_) {
        session->add_to(sum);
    }
    return sum;
}

}  // namespace

int main(int argc, char** argv) {
    int status = 0;
    const std::optional<Options> options = vesper::tools::parse_options(argc, argv, status);
    if (!options) {
        return status;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    av_log_set_level(AV_LOG_QUIET);  // one line of our own reports what went wrong
    socket_init();
    status = Run(*options).run();
    socket_cleanup();
    return status;
}
