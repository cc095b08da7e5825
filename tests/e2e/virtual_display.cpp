#include "tests/e2e/virtual_display.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>

#include <csignal>
#include <optional>
#include <ostream>
#include <stdexcept>

#include "tests/support/eventually.h"

namespace vesper::test {

namespace {

// Xlib ends the process at the first error by default. A window that disappears between two calls
// is no reason to end: the failed call returns its error.
int ignore_x_error(Display*, XErrorEvent*) {
    return 0;
}

// A window of the test's own, to find out whether the window manager maps windows. openbox
// announces itself, and lists its windows, before it takes requests to map them: one that comes in
// between is lost, and the player would wait for it without end.
class TrialWindow {
  public:
    explicit TrialWindow(Display* display)
        : display_(display),
          window_(XCreateSimpleWindow(display, DefaultRootWindow(display), 0, 0, 1, 1, 0, 0, 0)) {}
    ~TrialWindow() {
        XDestroyWindow(display_, window_);
        XSync(display_, False);
    }
    TrialWindow(const TrialWindow&) = delete;
    TrialWindow& operator=(const TrialWindow&) = delete;

    // Asks again at each call.
    [[nodiscard]] bool becomes_visible() {
        XMapWindow(display_, window_);
        XWindowAttributes attributes{};
        return XGetWindowAttributes(display_, window_, &attributes) != 0 &&
               attributes.map_state == IsViewable;
    }

  private:
    Display* display_;
    Window window_;
};

// The windows that a window manager lists, in this property of the root window (Extended Window
// Manager Hints, section "Root Window Properties"); nothing if there is none.
std::optional<unsigned long> managed_windows(Display* display) {
    constexpr long kMost = 100;
    const Atom property = XInternAtom(display, "_NET_CLIENT_LIST", False);
    Atom type = None;
    int format = 0;
    unsigned long items = 0;
    unsigned long rest = 0;
    unsigned char* data = nullptr;
    XGetWindowProperty(display, DefaultRootWindow(display), property, 0, kMost, False, XA_WINDOW,
                       &type, &format, &items, &rest, &data);
    if (data != nullptr) {
        XFree(data);
    }
    return type == XA_WINDOW ? std::optional(items) : std::nullopt;
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const Point& point) {
    return stream << '(' << point.x << ", " << point.y << ')';
}

std::ostream& operator<<(std::ostream& stream, const Extent& extent) {
    return stream << extent.width << 'x' << extent.height;
}

VirtualDisplay::VirtualDisplay(Extent size) {
    XSetErrorHandler(ignore_x_error);
    const std::string screen =
        std::to_string(size.width) + "x" + std::to_string(size.height) + "x24";
    // The server writes the number it chose to standard output once it takes clients.
    server_.emplace(std::vector<std::string>{"Xvfb", "-displayfd", "1", "-screen", "0", screen,
                                             "-nolisten", "tcp", "-noreset"});
    const bool up = eventually(
        [this] { return server_->out().ends_with('\n') || server_->ending().has_value(); });
    if (!up || server_->ending()) {
        throw std::runtime_error("Xvfb did not start: " + server_->err());
    }
    const std::string& number = server_->out();
    name_ = std::string(1, ':').append(number, 0, number.find('\n'));
    connection_ = XOpenDisplay(name_.c_str());
    if (connection_ == nullptr) {
        throw std::runtime_error("no connection to the X server " + name_);
    }
    // xdotool presses a key and then releases it, and may wait for the processor in between.
    XAutoRepeatOff(connection_);
    XSync(connection_, False);
    xdotool({"mousemove", "0", "0"});
}

VirtualDisplay::~VirtualDisplay() {
    if (connection_ != nullptr) {
        XCloseDisplay(connection_);
    }
    // Politely, so that the server removes its lock file.
    server_->send_signal(SIGTERM);
    (void)server_->wait_for_end();
}

void VirtualDisplay::run_window_manager() {
    window_manager_.emplace(std::vector<std::string>{"openbox"},
                            ChildProcess::Environment{{"DISPLAY", name_}});
    // Without a window manager every window becomes visible.
    if (!eventually([this] { return managed_windows(connection_).has_value(); })) {
        throw std::runtime_error("openbox did not start: " + window_manager_->err());
    }
    wait_for_window_manager();
}

void VirtualDisplay::wait_for_window_manager() {
    const auto before = managed_windows(connection_);
    bool maps_windows = false;
    {
        TrialWindow trial(connection_);
        maps_windows = eventually([&] { return trial.becomes_visible(); });
    }
    if (!maps_windows || !eventually([&] { return managed_windows(connection_) == before; })) {
        throw std::runtime_error("openbox maps no window: " + window_manager_->err());
    }
}

void VirtualDisplay::xdotool(const std::vector<std::string>& arguments) const {
    std::vector<std::string> command = {"xdotool"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    ChildProcess process(command, {{"DISPLAY", name_}});
    if (process.wait_for_end() != Ending{}) {
        throw std::runtime_error("xdotool failed: " + process.err());
    }
}

}  // namespace vesper::test
