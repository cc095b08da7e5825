// vesper-parent: stands in for the application that starts the player, for engineers who write that
// application and for whoever wants to see the player at work.
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

extern "C" {
#include <libavutil/log.h>
}

#include <chrono>
#include <csignal>
#include <cstdio>
#include <initializer_list>
#include <optional>

#include "net/udp_socket.h"
#include "tools/parent/options.h"
#include "tools/parent/session.h"

using vesper::tools::Clock;
using vesper::tools::Options;
using vesper::tools::Session;

namespace {

constexpr int kBadUsage = 2;
constexpr int kSignalBase = 128;  // exit status after a signal, as shells have it

// Longest wait for something to happen before the clock is looked at again.
constexpr int kWait = 100;  // ms

// Patience with a player that was asked to end.
constexpr auto kEndTimeout = std::chrono::seconds(5);

// A descriptor that tells of the signals that end us. They are blocked in all threads from here on.
int watch_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&signals, signal);
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

void wait_for_news(const Session& session, int signals) {
    pollfd descriptors[] = {{.fd = signals, .events = POLLIN, .revents = 0},
                            {.fd = session.player_output(), .events = POLLIN, .revents = 0},
                            {.fd = session.player_errors(), .events = POLLIN, .revents = 0}};
    poll(descriptors, std::size(descriptors), kWait);
}

std::optional<int> received_signal(int signals) {
    signalfd_siginfo info{};
    if (read(signals, &info, sizeof info) != sizeof info) {
        return std::nullopt;
    }
    return static_cast<int>(info.ssi_signo);
}

// Runs the stream until something ends it; the exit status.
int run(Session& session, const Options& options, int signals) {
    std::optional<Clock::time_point> end;
    for (;;) {
        wait_for_news(session, signals);
        session.read_player();
        if (const auto status = session.player_exit_status()) {
            session.read_player();
            return *status;
        }
        if (const auto signal = received_signal(signals)) {
            return kSignalBase + *signal;
        }
        if (!end && session.streaming() && options.seconds.count() > 0) {
            end = Clock::now() + std::chrono::duration_cast<Clock::duration>(options.seconds);
        }
        if ((end && Clock::now() >= *end) || session.source_finished()) {
            return 0;
        }
    }
}

void end_player(Session& session, int signals) {
    session.stop();
    const Clock::time_point give_up = Clock::now() + kEndTimeout;
    while ((session.player_output() >= 0 || session.player_errors() >= 0) &&
           Clock::now() < give_up) {
        wait_for_news(session, signals);
        session.read_player();
    }
}

}  // namespace

int main(int argc, char** argv) {
    int status = 0;
    const std::optional<Options> options = vesper::tools::parse_options(argc, argv, status);
    if (!options) {
        return status;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    av_log_set_level(AV_LOG_QUIET);  // one line of our own tells what went wrong
    socket_init();
    const int signals = watch_signals();

    Session session(*options);
    if (!session.open()) {
        return kBadUsage;
    }
    status = run(session, *options, signals);
    end_player(session, signals);

    const auto frames = session.streamer_counters();
    const auto sent = session.link_counters();
    std::printf(
        "[Parent] Sent %llu frames (%llu of them keyframes that the player asked for) in "
        "%llu datagrams, %llu bytes\n",
        static_cast<unsigned long long>(frames.frames),
        static_cast<unsigned long long>(frames.keyframes),
        static_cast<unsigned long long>(sent.datagrams_sent),
        static_cast<unsigned long long>(sent.bytes_sent));
    close(signals);
    socket_cleanup();
    return status;
}
