// A screen of its own for one test: an X server without hardware, real keys and a real mouse.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tests/support/child_process.h"

// Xlib's header defines macros of everyday names (None, Status, Bool); only .cpp files include it.
struct _XDisplay;

namespace vesper::test {

struct Point {
    int x = 0;
    int y = 0;
    friend bool operator==(const Point&, const Point&) = default;
    friend std::ostream& operator<<(std::ostream& stream, const Point& point);
};

struct Extent {
    int width = 0;
    int height = 0;
    friend bool operator==(const Extent&, const Extent&) = default;
    friend std::ostream& operator<<(std::ostream& stream, const Extent& extent);
};

class VirtualDisplay {
  public:
    // A player's window takes at most half of it each way, so streams of up to 512x384 are shown
    // pixel for pixel.
    static constexpr Extent kSize{.width = 1024, .height = 768};

    // Starts the server, with one screen of `size` pixels, on a display number that nobody uses,
    // with the pointer parked in the top left corner, where it touches no window, and with keys
    // that do not repeat. Throws std::runtime_error when it does not come up.
    explicit VirtualDisplay(Extent size = kSize);
    ~VirtualDisplay();
    VirtualDisplay(const VirtualDisplay&) = delete;
    VirtualDisplay& operator=(const VirtualDisplay&) = delete;

    // Runs a window manager, which fullscreen needs. Throws when it does not take over.
    void run_window_manager();

    // Returns once the running window manager has done what programs have asked of it so far: it
    // takes requests in order. A window that comes and goes for that may take the focus. Throws
    // when it does not.
    void wait_for_window_manager();

    // ":N", for DISPLAY.
    [[nodiscard]] const std::string& name() const { return name_; }
    [[nodiscard]] _XDisplay* connection() const { return connection_; }

    // Lets xdotool act on this display and waits until it is done: {"key", "m"}. Throws when
    // xdotool fails. Coordinates are those of the screen.
    void xdotool(const std::vector<std::string>& arguments) const;

  private:
    std::string name_;
    _XDisplay* connection_ = nullptr;
    std::optional<ChildProcess> server_;
    std::optional<ChildProcess> window_manager_;
};

}  // namespace vesper::test
