#include "tests/e2e/player_window.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <ostream>
#include <stdexcept>

#include "tests/support/eventually.h"

namespace vesper::test {

namespace {

// Three times what the encoder's quantiser leaves in a flat area at the tests' bit rate.
constexpr int kColorTolerance = 16;

struct XFreeDeleter {
    void operator()(void* data) const { XFree(data); }
};
template <typename T>
using XPointer = std::unique_ptr<T, XFreeDeleter>;

// A property of a window as bytes, or of 32-bit items as longs (Xlib's own convention).
struct Property {
    XPointer<unsigned char> data;
    unsigned long items = 0;
};

Property read_property(Display* display, Window window, const char* name) {
    constexpr long kMaxLength = 1024;  // 32-bit units
    Property property;
    Atom type = None;
    int format = 0;
    unsigned long rest = 0;
    unsigned char* data = nullptr;
    XGetWindowProperty(display, window, XInternAtom(display, name, False), 0, kMaxLength, False,
                       AnyPropertyType, &type, &format, &property.items, &rest, &data);
    property.data.reset(data);
    return property;
}

// Weston's window does not state its owner.
constexpr pid_t kAnyProcess = 0;

bool belongs_to(Display* display, Window window, pid_t pid) {
    const Property owner = read_property(display, window, "_NET_WM_PID");
    return owner.items == 1 && *reinterpret_cast<const long*>(owner.data.get()) == pid;
}

std::string title_of(Display* display, Window window) {
    const Property name = read_property(display, window, "_NET_WM_NAME");
    return {reinterpret_cast<const char*>(name.data.get()), name.items};
}

bool exists(Display* display, Window window) {
    XWindowAttributes attributes{};
    return XGetWindowAttributes(display, window, &attributes) != 0;
}

bool is_viewable(Display* display, Window window) {
    XWindowAttributes attributes{};
    return XGetWindowAttributes(display, window, &attributes) != 0 &&
           attributes.map_state == IsViewable;
}

// Depth first below `window`; 0 when there is none. A window manager puts frames in between.
Window find_window(Display* display, Window window, pid_t pid, const std::string& title) {
    if ((pid == kAnyProcess || belongs_to(display, window, pid)) && is_viewable(display, window) &&
        (title.empty() || title_of(display, window) == title)) {
        return window;
    }
    Window root = 0;
    Window parent = 0;
    Window* list = nullptr;
    unsigned int count = 0;
    if (XQueryTree(display, window, &root, &parent, &list, &count) == 0) {
        return 0;
    }
    const XPointer<Window> children(list);
    for (unsigned int i = 0; i < count; ++i) {
        if (const Window found = find_window(display, list[i], pid, title)) {
            return found;
        }
    }
    return 0;
}

Color color_of(unsigned long pixel) {
    return {.red = static_cast<int>(pixel >> 16 & 0xFF),
            .green = static_cast<int>(pixel >> 8 & 0xFF),
            .blue = static_cast<int>(pixel & 0xFF)};
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const Color& color) {
    return stream << "rgb(" << color.red << ", " << color.green << ", " << color.blue << ')';
}

bool is_near(const Color& a, const Color& b) {
    return std::abs(a.red - b.red) <= kColorTolerance &&
           std::abs(a.green - b.green) <= kColorTolerance &&
           std::abs(a.blue - b.blue) <= kColorTolerance;
}

Color Screenshot::at(Point point) const {
    if (pixels.empty() || point.x < 0 || point.y < 0 || point.x >= size.width ||
        point.y >= size.height) {
        return {};
    }
    return pixels[static_cast<std::size_t>(point.y * size.width + point.x)];
}

std::optional<Point> Screenshot::fault_at_edge(const Color& color) const {
    const Point corner{.x = size.width - 1, .y = size.height - 1};
    for (int y = 0; y <= corner.y; ++y) {
        if (const Point p{.x = corner.x, .y = y}; !is_near(at(p), color)) {
            return p;
        }
    }
    for (int x = 0; x <= corner.x; ++x) {
        if (const Point p{.x = x, .y = corner.y}; !is_near(at(p), color)) {
            return p;
        }
    }
    return std::nullopt;
}

PlayerWindow::PlayerWindow(const VirtualDisplay& display, pid_t pid, const std::string& title)
    : display_(display), pid_(pid), title_(title) {
    if (!eventually([this] { return id() != 0; })) {
        throw std::runtime_error("the program shows no window " + title);
    }
}

unsigned long PlayerWindow::id() const {
    Display* connection = display_.connection();
    if (!exists(connection, id_)) {
        id_ = find_window(connection, DefaultRootWindow(connection), pid_, title_);
    }
    return id_;
}

bool PlayerWindow::is_on_screen() const {
    return is_viewable(display_.connection(), id());
}

std::string PlayerWindow::title() const {
    return title_of(display_.connection(), id());
}

Extent PlayerWindow::size() const {
    XWindowAttributes attributes{};
    XGetWindowAttributes(display_.connection(), id(), &attributes);
    return {.width = attributes.width, .height = attributes.height};
}

Point PlayerWindow::position() const {
    Point point;
    Window child = 0;
    XTranslateCoordinates(display_.connection(), id(), DefaultRootWindow(display_.connection()), 0,
                          0, &point.x, &point.y, &child);
    return point;
}

Screenshot PlayerWindow::screenshot() const {
    Screenshot shot{.size = size(), .pixels = {}};
    XImage* image =
        XGetImage(display_.connection(), id(), 0, 0, static_cast<unsigned>(shot.size.width),
                  static_cast<unsigned>(shot.size.height), AllPlanes, ZPixmap);
    if (image == nullptr) {
        return shot;
    }
    shot.pixels.reserve(static_cast<std::size_t>(shot.size.width * shot.size.height));
    for (int y = 0; y < shot.size.height; ++y) {
        for (int x = 0; x < shot.size.width; ++x) {
            shot.pixels.push_back(color_of(XGetPixel(image, x, y)));
        }
    }
    XDestroyImage(image);
    return shot;
}

void PlayerWindow::close() const {
    Display* connection = display_.connection();
    const Window window = id();
    XEvent event{};
    event.xclient.type = ClientMessage;
    event.xclient.window = window;
    event.xclient.message_type = XInternAtom(connection, "WM_PROTOCOLS", False);
    event.xclient.format = 32;
    event.xclient.data.l[0] = static_cast<long>(XInternAtom(connection, "WM_DELETE_WINDOW", False));
    event.xclient.data.l[1] = CurrentTime;
    XSendEvent(connection, window, False, NoEventMask, &event);
    XFlush(connection);
}

void PlayerWindow::resize(Extent size) const {
    XResizeWindow(display_.connection(), id(), static_cast<unsigned>(size.width),
                  static_cast<unsigned>(size.height));
    XFlush(display_.connection());
}

void PlayerWindow::move(Point position) const {
    XMoveWindow(display_.connection(), id(), position.x, position.y);
    XFlush(display_.connection());
}

void PlayerWindow::at(Point point, const std::vector<std::string>& more) const {
    const Point origin = position();
    std::vector<std::string> arguments = {"mousemove", std::to_string(origin.x + point.x),
                                          std::to_string(origin.y + point.y)};
    arguments.insert(arguments.end(), more.begin(), more.end());
    display_.xdotool(arguments);
}

void PlayerWindow::move_pointer(Point point) const {
    at(point, {});
}

void PlayerWindow::click(Point point) const {
    at(point, {"click", "1"});
}

void PlayerWindow::double_click(Point point) const {
    at(point, {"click", "--repeat", "2", "--delay", "20", "1"});
}

void PlayerWindow::press_button(Point point, int button) const {
    at(point, {"mousedown", std::to_string(button)});
}

void PlayerWindow::release_button(int button) const {
    display_.xdotool({"mouseup", std::to_string(button)});
}

// The X protocol knows the wheel as buttons 4 and 5.
void PlayerWindow::wheel_up(Point point) const {
    at(point, {"click", "4"});
}

void PlayerWindow::wheel_down(Point point) const {
    at(point, {"click", "5"});
}

void PlayerWindow::press_key(const std::string& key) const {
    // What a window manager does for the front window; here there is none to do it.
    XSetInputFocus(display_.connection(), id(), RevertToPointerRoot, CurrentTime);
    XSync(display_.connection(), False);
    display_.xdotool({"key", key});
}

}  // namespace vesper::test
