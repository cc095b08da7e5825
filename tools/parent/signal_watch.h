// The signals by which a user or a service manager ends the program.
#pragma once

#include <atomic>
#include <chrono>
#include <csignal>
#include <optional>
#include <thread>

namespace vesper::tools {

// SIGINT, SIGTERM and SIGHUP, received by a thread of their own: libraries may block for any time,
// for example while they open a pipe into which nobody writes, and the program still ends. A signal
// that is ignored stays ignored. There is one watch in a process.
class SignalWatch {
  public:
    // timeout(1) signals its child twice, and so does a terminal that closes: through the shell,
    // and once more when the shell has ended. A user who presses Ctrl-C again takes longer.
    static constexpr auto kSameRequest = std::chrono::seconds(1);

    // Blocks the signals in the calling thread and thus in all that it starts, and in processes
    // that it forks until they change that; a signal that a thread of before receives ends the
    // process. At first every signal ends the process at once. Throws std::system_error if there is
    // no descriptor or no thread to be had.
    explicit SignalWatch(std::chrono::milliseconds same_request = kSameRequest);
    // The signals stay blocked, and nobody receives them any more.
    ~SignalWatch();
    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;

    // From now on the first signal is only reported, for an orderly end. Those that follow within
    // `same_request` belong to it; the next one ends the process at once. Any thread.
    void report_first() { report_first_ = true; }

    // For poll(): readable while take() has something to return.
    [[nodiscard]] int descriptor() const { return descriptor_; }

    // The first signal, once; otherwise nothing. Never waits. Any thread.
    [[nodiscard]] std::optional<int> take();

  private:
    void run();

    const std::chrono::milliseconds same_request_;
    sigset_t signals_{};
    int descriptor_ = -1;
    std::atomic<bool> report_first_ = false;
    std::atomic<bool> stopping_ = false;
    std::thread thread_;
};

}  // namespace vesper::tools
