// The player's window as the X server sees it: where it is, what it shows, how it is closed.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "tests/e2e/virtual_display.h"

namespace vesper::test {

struct Color {
    int red = 0;
    int green = 0;
    int blue = 0;
    friend bool operator==(const Color&, const Color&) = default;
    friend std::ostream& operator<<(std::ostream& stream, const Color& color);
};

// The same colour but for what a lossy codec and 8-bit colour conversion change.
[[nodiscard]] bool is_near(const Color& a, const Color& b);

// What a window shows at one moment.
struct Screenshot {
    Extent size;
    std::vector<Color> pixels;  // rows, from the top; empty when the window could not be read

    // Black outside the picture.
    [[nodiscard]] Color at(Point point) const;

    // The first pixel of the last column or the last row that is not near this colour; nothing
    // where all are.
    [[nodiscard]] std::optional<Point> fault_at_edge(const Color& color) const;
};

class PlayerWindow {
  public:
    // The window that process `pid` (0: any) made on `display`, once it is on the screen: the one
    // of that `title`, or whichever it finds first. Throws std::runtime_error when none comes.
    // SDL replaces a window when the renderer wants another kind of it: each call acts on the one
    // that is there then, but what was done to the one before (moved, resized) is lost. Who needs
    // that waits until the program announces that it has started.
    PlayerWindow(const VirtualDisplay& display, pid_t pid, const std::string& title = {});

    [[nodiscard]] bool is_on_screen() const;
    [[nodiscard]] std::string title() const;
    [[nodiscard]] Extent size() const;
    // Of the picture's top left corner, inside any frame of a window manager, on the screen.
    [[nodiscard]] Point position() const;
    [[nodiscard]] Screenshot screenshot() const;

    // As a viewer does it with the window's frame.
    void close() const;
    void resize(Extent size) const;
    // Its top left corner on the screen, where there is no window manager.
    void move(Point position) const;

    // Mouse and keyboard. Points are window pixels. Each call returns when the X server has the
    // events; the player takes them later.
    void move_pointer(Point point) const;
    void click(Point point) const;
    void double_click(Point point) const;
    void press_button(Point point, int button) const;
    void release_button(int button) const;
    void wheel_up(Point point) const;
    void wheel_down(Point point) const;
    void press_key(const std::string& key) const;  // by its X name: "m", "Up", "F11"

  private:
    // xdotool's words that move the pointer to `point`, followed by `more`.
    void at(Point point, const std::vector<std::string>& more) const;
    // The X server's number of the window; 0 when there is none.
    [[nodiscard]] unsigned long id() const;

    const VirtualDisplay& display_;
    const pid_t pid_;
    const std::string title_;
    mutable unsigned long id_ = 0;  // what id() found last
};

}  // namespace vesper::test
