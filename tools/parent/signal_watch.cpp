#include "tools/parent/signal_watch.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace vesper::tools {

namespace {

using Clock = std::chrono::steady_clock;

// Whoever started the program may have had it ignore the signal, as nohup does.
bool is_ignored(int signal) {
    struct sigaction action {};
    sigaction(signal, nullptr, &action);
    return action.sa_handler == SIG_IGN;
}

// By the signal's own effect, so that whoever waits for the process sees which one it was.
[[noreturn]] void die_of(int signal) {
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, signal);
    pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
    raise(signal);
    std::abort();
}

}  // namespace

SignalWatch::SignalWatch(std::chrono::milliseconds same_request)
    : same_request_(same_request), descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (descriptor_ < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    sigemptyset(&signals_);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&signals_, signal);
    }
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    thread_ = std::thread([this] { run(); });
}

SignalWatch::~SignalWatch() {
    stopping_ = true;
    // Received even if it is ignored: Linux keeps a blocked signal, which POSIX leaves open.
    pthread_kill(thread_.native_handle(), SIGHUP);
    thread_.join();
    close(descriptor_);
}

std::optional<int> SignalWatch::take() {
    eventfd_t signal = 0;
    if (eventfd_read(descriptor_, &signal) < 0) {
        return std::nullopt;
    }
    return static_cast<int>(signal);
}

void SignalWatch::run() {
    std::optional<Clock::time_point> reported;
    for (;;) {
        int signal = 0;
        sigwait(&signals_, &signal);
        if (stopping_) {
            return;
        }
        if (is_ignored(signal) || (reported && Clock::now() - *reported < same_request_)) {
            continue;
        }
        if (reported || !report_first_) {
            die_of(signal);
        }
        eventfd_write(descriptor_, static_cast<eventfd_t>(signal));
        reported = Clock::now();
    }
}

}  // namespace vesper::tools
