#include "bench/window/window_watch.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "bench/window/marked_stream.h"

namespace vesper::bench {

namespace {

// Between two rounds, so that the server gets on with drawing.
constexpr auto kPause = std::chrono::microseconds(500);

constexpr int kSmallestWindow = 200;  // pixels; smaller ones are helpers of a toolkit

// A window that disappears between two calls is not an error.
int ignore_x_error(Display*, XErrorEvent*) {
    return 0;
}

struct Watched {
    Window id;
    int width;
    int height;
    int mark = -1;
    bool opened = false;
};

// Large windows on the screen that are not watched yet.
void find_windows(Display* display, std::vector<Watched>& watched, int wanted) {
    Window root = 0;
    Window parent = 0;
    Window* children = nullptr;
    unsigned count = 0;
    if (XQueryTree(display, DefaultRootWindow(display), &root, &parent, &children, &count) == 0) {
        return;
    }
    for (unsigned i = 0; i < count && std::ssize(watched) < wanted; ++i) {
        XWindowAttributes attributes{};
        const bool known = std::any_of(watched.begin(), watched.end(),
                                       [&](const Watched& w) { return w.id == children[i]; });
        if (known || XGetWindowAttributes(display, children[i], &attributes) == 0 ||
            attributes.map_state != IsViewable || attributes.c_class != InputOutput ||
            attributes.width < kSmallestWindow || attributes.height < kSmallestWindow) {
            continue;
        }
        const int place = static_cast<int>(watched.size());
        if (wanted > 1) {
            XMoveWindow(display, children[i], place % 2 * kWidth, place / 2 * kHeight);
        }
        watched.push_back(
            {.id = children[i], .width = attributes.width, .height = attributes.height});
    }
    XFree(children);
}

std::optional<Rgb> middle_of(Display* display, const Watched& window) {
    XImage* image = XGetImage(display, window.id, window.width / 2, window.height / 2, 1, 1,
                              AllPlanes, ZPixmap);
    if (image == nullptr) {
        return std::nullopt;
    }
    const unsigned long pixel = XGetPixel(image, 0, 0);
    XDestroyImage(image);
    const auto byte = [pixel](int shift) { return static_cast<int>(pixel >> shift & 0xFF); };
    return Rgb{.red = byte(16), .green = byte(8), .blue = byte(0)};
}

// Some programs give their window its size only with the first picture. False when it is gone.
[[nodiscard]] bool refresh_size(Display* display, Watched& window) {
    XWindowAttributes attributes{};
    if (XGetWindowAttributes(display, window.id, &attributes) == 0) {
        return false;
    }
    // Without a window manager a program's other windows may lie above it, and pixels beneath them
    // cannot be read.
    XRaiseWindow(display, window.id);
    window.width = attributes.width;
    window.height = attributes.height;
    return true;
}

}  // namespace

WindowWatch::WindowWatch(int windows)
    : wanted_(windows), thread_([this](const std::stop_token& stop) { run(stop); }) {}

WindowWatch::~WindowWatch() = default;

std::optional<WindowWatch::Clock::time_point> WindowWatch::opened() const {
    const std::lock_guard lock(mutex_);
    return opened_;
}

std::vector<WindowWatch::Sighting> WindowWatch::sightings() const {
    const std::lock_guard lock(mutex_);
    return sightings_;
}

std::chrono::duration<double> WindowWatch::sampling_interval() const {
    const std::lock_guard lock(mutex_);
    return std::chrono::duration<double>(watched_) / static_cast<double>(std::max(rounds_, 1L));
}

void WindowWatch::run(const std::stop_token& stop) {
    XSetErrorHandler(ignore_x_error);
    Display* display = XOpenDisplay(nullptr);
    if (display == nullptr) {
        std::fprintf(stderr, "no display to watch\n");
        std::exit(EXIT_FAILURE);
    }
    std::vector<Watched> windows;
    Clock::time_point last_round = Clock::now();
    while (!stop.stop_requested()) {
        // Some toolkits show a window for a moment and then make another.
        std::erase_if(windows, [display](Watched& window) {
            return !window.opened && !refresh_size(display, window);
        });
        if (std::ssize(windows) < wanted_) {
            find_windows(display, windows, wanted_);
        }
        for (std::size_t i = 0; i < windows.size(); ++i) {
            Watched& window = windows[i];
            const std::optional<Rgb> pixel = middle_of(display, window);
            const Clock::time_point now = Clock::now();
            if (!pixel) {
                continue;
            }
            window.opened = window.opened || is_opening(*pixel);
            const std::optional<int> mark = mark_of(*pixel);
            if (window.opened && mark && *mark != window.mark) {
                window.mark = *mark;
                const std::lock_guard lock(mutex_);
                sightings_.push_back({.window = static_cast<int>(i), .mark = *mark, .time = now});
            }
        }
        const Clock::time_point now = Clock::now();
        const bool all_open =
            std::ssize(windows) == wanted_ &&
            std::all_of(windows.begin(), windows.end(), [](const Watched& w) { return w.opened; });
        {
            const std::lock_guard lock(mutex_);
            if (all_open && !opened_) {
                opened_ = now;
            } else if (opened_) {
                watched_ += now - last_round;
                ++rounds_;
            }
        }
        last_round = now;
        std::this_thread::sleep_for(kPause);
    }
    XCloseDisplay(display);
}

}  // namespace vesper::bench
