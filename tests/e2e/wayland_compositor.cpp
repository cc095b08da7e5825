#include "tests/e2e/wayland_compositor.h"

#include <csignal>
#include <filesystem>
#include <stdexcept>

#include "tests/support/eventually.h"

namespace vesper::test {

namespace {

constexpr auto kSocketName = "wayland-of-this-test";

}  // namespace

// In a window, because SDL 2.26 crashes in SDL_Init() where a compositor without a screen announces
// neither mouse nor keyboard. By the processor alone: GL is the player's to try.
WaylandCompositor::WaylandCompositor(const VirtualDisplay& display, const std::string& folder,
                                     const std::string& shell)
    : environment_{{"XDG_RUNTIME_DIR", folder}, {"WAYLAND_DISPLAY", kSocketName}} {
    weston_.emplace(
        std::vector<std::string>{"weston", "--no-config", "--backend=x11-backend.so",
                                 "--use-pixman", "--idle-time=0", "--shell=" + shell,
                                 std::string("--socket=").append(kSocketName)},
        ChildProcess::Environment{{"DISPLAY", display.name()}, {"XDG_RUNTIME_DIR", folder}},
        ChildProcess::Output::Merged);
    const auto socket = std::filesystem::path(folder) / kSocketName;
    const bool up = eventually(
        [&] { return std::filesystem::exists(socket) || weston_->ending().has_value(); });
    if (!up || weston_->ending()) {
        throw std::runtime_error("weston did not start: " + weston_->out());
    }
}

WaylandCompositor::~WaylandCompositor() {
    // Politely, so that it ends its own helpers.
    weston_->send_signal(SIGTERM);
    (void)weston_->wait_for_end();
}

}  // namespace vesper::test
