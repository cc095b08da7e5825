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
    // Starts weston on `display`, with its socket in `folder`, which must be nobody else's and
    // outlive the object. Throws std::runtime_error when it does not come up.
    WaylandCompositor(const VirtualDisplay& display, const std::string& folder);
    ~WaylandCompositor();
    WaylandCompositor(const WaylandCompositor&) = delete;
    WaylandCompositor& operator=(const WaylandCompositor&) = delete;

    // What a client needs to find it.
    [[nodiscard]] const ChildProcess::Environment& environment() const { return environment_; }

  private:
    ChildProcess::Environment environment_;
    std::optional<ChildProcess> weston_;
};

}  // namespace vesper::test
