#include "tests/e2e/virtual_display.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>

#include <csignal>
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

// A window manager lists its windows in this property of the root window (Extended Window Manager
// Hints, section "Root Window Properties"). openbox announces itself earlier, by
// _NET_SUPPORTING_WM_CHECK, before it takes requests to map windows: one that comes in between is
// never mapped.
bool window_manager_is_up(Display* display) {
    const Atom property = XInternAtom(display, "_NET_CLIENT_LIST", False);
    Atom type = None;
    int format = 0;
    unsigned long items = 0;
    unsigned long rest = 0;
    unsigned char* data = nullptr;
    XGetWindowProperty(display, DefaultRootWindow(display), property, 0, 0, False, XA_WINDOW, &type,
                       &format, &items, &rest, &data);
    if (data != nullptr) {
        XFree(data);
    }
    return type == XA_WINDOW;  // the list is empty, but there
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const Point& point) {
    return stream << '(' << point.x << ", " << point.y << ')';
}

std::ostream& operator<<(std::ostream& stream, const Extent& extent) {
    return stream << extent.width << 'x' << extent.height;
}

VirtualDisplay::VirtualDisplay() {
    XSetErrorHandler(ignore_x_error);
    const std::string screen =
        std::to_string(kSize.width) + "x" + std::to_string(kSize.height) + "x24";
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
    if (!eventually([this] { return window_manager_is_up(connection_); })) {
        throw std::runtime_error("openbox did not start: " + window_manager_->err());
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
