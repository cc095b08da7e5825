// A Wayland compositor of its own for one test, which shows its screen in a window of a virtual
// display.
#pragma once

#include <optional>
#include <string>

#include "tests/e2e/virtual_display.h"
#include "tests/support/child_process.h"

namespace vesper::test {

class WaylandCompositor {
  public:
    // Starts weston in a window on `display`, with its socket in `folder`, which must be private
    // and outlive the object, and with one of weston's shells: a desktop, or "kiosk-shell.so",
    // which gives a client all of weston's window. Throws std::runtime_error when it does not come
    // up.
    WaylandCompositor(const VirtualDisplay& display, const std::string& folder,
                      const std::string& shell = "desktop-shell.so");
    ~WaylandCompositor();
    WaylandCompositor(const WaylandCompositor&) = delete;
    WaylandCompositor& operator=(const WaylandCompositor&) = delete;

    // What a client needs to find it.
    [[nodiscard]] const ChildProcess::Environment& environment() const { return environment_; }

    // Title of weston's own window on the X display, which shows what its clients show.
    static constexpr auto kWindowTitle = "Weston Compositor - screen0";

  private:
    ChildProcess::Environment environment_;
    std::optional<ChildProcess> weston_;
};

}  // namespace vesper::test
