// Watches the middle of windows in the X server, more than once a millisecond where the server is
// quick enough, on a thread of its own: what a viewer can see, and when.
#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace vesper::bench {

class WindowWatch {
  public:
    using Clock = std::chrono::steady_clock;

    // A mark that appeared in a window: the first sample that had it.
    struct Sighting {
        int window;
        int mark;
        Clock::time_point time;
    };

    // Watches the first `windows` large windows that appear on $DISPLAY, laid out side by side.
    explicit WindowWatch(int windows);
    ~WindowWatch();
    WindowWatch(const WindowWatch&) = delete;
    WindowWatch& operator=(const WindowWatch&) = delete;

    // When the last of the windows showed the stream's opening. Any thread.
    [[nodiscard]] std::optional<Clock::time_point> opened() const;

    // All so far. Any thread.
    [[nodiscard]] std::vector<Sighting> sightings() const;

    // Mean time between two samples of one window: how late a sighting may be. Any thread.
    [[nodiscard]] std::chrono::duration<double> sampling_interval() const;

  private:
    void run(const std::stop_token& stop);

    int wanted_;
    mutable std::mutex mutex_;  // guards the next four
    std::vector<Sighting> sightings_;
    std::optional<Clock::time_point> opened_;
    Clock::duration watched_{};
    long rounds_ = 0;
    std::jthread thread_;
};

}  // namespace vesper::bench
