// Shows several live streams inside one application: a window of its own and, for each stream, a
// socket and a receiver with a window. docs/embedding.md explains the rules.
//
//   in_application [--size WIDTHxHEIGHT] PORT:REPLY_PORT:NAME...
//
// Receives the stream of NAME on 127.0.0.1:PORT and asks 127.0.0.1:REPLY_PORT for keyframes (0:
// nobody). The application's window has a field for each stream, green while it is live and grey
// once it is over. Closing a stream's window ends that stream, closing the application's ends all.
//
// Every pass takes all that has arrived and draws only what has changed, so a pass with nothing to
// do costs next to nothing and the passes can follow each other closely.
#include <SDL2/SDL.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "client/renderer_choice.h"
#include "client/video_receiver.h"
#include "net/stream_datagrams.h"
#include "net/udp_socket.h"

namespace {

using Clock = std::chrono::steady_clock;

// Of every stream here; a real application learns it together with the stream.
struct StreamSize {
    int width = 640;   // pixels
    int height = 360;  // pixels
};

// No datagram announces the end of a stream. Even a still picture takes many datagrams a second, so
// after this long nobody is sending any more.
constexpr auto kSilence = std::chrono::seconds(3);

// Most datagrams taken from one stream in one pass: enough to empty the socket's buffer after a
// hiccup, yet limited, so that a flood on one stream does not starve the others.
constexpr int kDatagramsPerPass = 200;

// Leaves the processor to others between two passes. A datagram and a decoded picture each wait for
// the next pass, so this is short.
constexpr std::uint32_t kPassPause = 1;  // ms

constexpr int kLastPort = 65'535;

struct Source {
    std::uint16_t port = 0;
    std::uint16_t reply_port = 0;  // 0: nobody to ask for keyframes
    std::string name;
};

std::optional<Source> parse_source(const char* text) {
    int port = 0;
    int reply_port = 0;
    int name_at = 0;
    if (std::sscanf(text, "%5d:%5d:%n", &port, &reply_port, &name_at) != 2 || name_at == 0 ||
        port < 1 || port > kLastPort || reply_port < 0 || reply_port > kLastPort) {
        return std::nullopt;
    }
    return Source{.port = static_cast<std::uint16_t>(port),
                  .reply_port = static_cast<std::uint16_t>(reply_port),
                  .name = text + name_at};
}

// One stream that somebody watches. Main thread only.
class WatchedStream {
  public:
    explicit WatchedStream(Source source) : source_(std::move(source)) {}

    // Opens the stream's window, without taking the keyboard from `application_window`. False, with
    // a line on standard error, when the port or the window is not available.
    [[nodiscard]] bool open(std::uint32_t uid, StreamSize size, SDL_Window* application_window) {
        if (!socket_.bind(source_.port) ||
            !receiver_.start(uid, source_.name, size.width, size.height, application_window)) {
            return false;
        }
        receiver_.enable_audio(true);  // without a sound device the picture still plays
        return true;
    }

    // Feeds the receiver with what has arrived.
    void receive() {
        static std::array<std::uint8_t, 65536> datagram;  // no UDP datagram is longer
        for (int taken = 0; taken < kDatagramsPerPass; ++taken) {
            const int length = socket_.recv(datagram.data(), datagram.size(), 0);
            if (length <= 0) {
                break;
            }
            last_datagram_ = Clock::now();
            feed(datagram.data(), length);
        }
        if (source_.reply_port != 0 && receiver_.needs_keyframe_request()) {
            socket_.send(vesper::kKeyframeRequest.data(), vesper::kKeyframeRequest.size(),
                         vesper::kParentHost, source_.reply_port);
        }
    }

    // Declares the stream over if it has fallen silent. Its window stays up, with the last picture
    // under the stream-ended overlay, until the viewer closes it. A stream that comes back needs a
    // new receiver.
    void end_if_silent() {
        if (!ended_ && last_datagram_ && Clock::now() - *last_datagram_ > kSilence) {
            receiver_.mark_stream_ended();
            ended_ = true;
            redraw_ = true;
        }
    }

    // The window shows something else, or the system has lost what it showed.
    void redraw() { redraw_ = true; }

    void update() {
        if (redraw_ || receiver_.has_new_picture()) {
            redraw_ = false;
            receiver_.update();
        }
    }

    // From now on update() leaves the receiver alone; it is destroyed at the end of the pass.
    void give_up() {
        receiver_.set_condemned(true);
        given_up_ = true;
        redraw_ = true;
    }

    [[nodiscard]] bool given_up() const { return given_up_; }
    [[nodiscard]] bool ended() const { return ended_; }
    [[nodiscard]] std::uint32_t window_id() const { return receiver_.get_window_id(); }

  private:
    void feed(const std::uint8_t* datagram, int length) {
        if (length < vesper::kPacketHeaderSize) {
            return;
        }
        if ((vesper::read_packet_header(datagram).flags & vesper::kScreenAudioFlag) != 0) {
            receiver_.handle_screen_audio(datagram, length);
        } else {
            receiver_.handle_fragment(datagram, length);
        }
    }

    Source source_;
    vesper::UDPSocket socket_;
    vesper::client::VideoReceiver receiver_;
    std::optional<Clock::time_point> last_datagram_;
    bool ended_ = false;
    bool given_up_ = false;
    bool redraw_ = true;
};

class Application {
  public:
    ~Application() {
        streams_.clear();  // each receiver stops: its thread, then its window
        SDL_DestroyRenderer(renderer_);
        SDL_DestroyWindow(window_);
    }

    [[nodiscard]] bool open(const std::vector<Source>& sources, StreamSize size) {
        if (SDL_CreateWindowAndRenderer(320, 100, 0, &window_, &renderer_) < 0) {
            std::fprintf(stderr, "No window: %s\n", SDL_GetError());
            return false;
        }
        SDL_SetWindowTitle(window_, "Streams");
        for (const Source& source : sources) {
            auto stream = std::make_unique<WatchedStream>(source);
            if (!stream->open(++last_uid_, size, window_)) {
                return false;
            }
            streams_.push_back(std::move(stream));
        }
        return true;
    }

    void run() {
        while (!quit_) {
            handle_events();
            for (const auto& stream : streams_) {
                stream->receive();
                stream->end_if_silent();
                stream->update();
            }
            std::erase_if(streams_, [](const auto& stream) { return stream->given_up(); });
            if (std::vector<bool> fields = fields_now(); redraw_ || fields != drawn_fields_) {
                drawn_fields_ = std::move(fields);
                redraw_ = false;
                draw();
            }
            SDL_Delay(kPassPause);
        }
    }

  private:
    void handle_events() {
        SDL_Event event;
        while (SDL_PollEvent(&event) != 0) {
            if (event.type == SDL_QUIT) {
                quit_ = true;
            } else if (event.type == SDL_WINDOWEVENT) {
                on_window_event(event.window);
            }
        }
    }

    // Any other event of a window may mean that it has to be drawn again. A stream is only given up
    // here, because more events for its window may wait in the queue.
    void on_window_event(const SDL_WindowEvent& event) {
        const bool closed = event.event == SDL_WINDOWEVENT_CLOSE;
        if (event.windowID == SDL_GetWindowID(window_)) {
            quit_ = quit_ || closed;
            redraw_ = true;
        }
        for (const auto& stream : streams_) {
            if (stream->window_id() == event.windowID) {
                closed ? stream->give_up() : stream->redraw();
            }
        }
    }

    // Whether each stream is over, which is what the window shows.
    [[nodiscard]] std::vector<bool> fields_now() const {
        std::vector<bool> fields;
        fields.reserve(streams_.size());
        for (const auto& stream : streams_) {
            fields.push_back(stream->ended());
        }
        return fields;
    }

    void draw() {
        SDL_SetRenderDrawColor(renderer_, 30, 30, 30, 255);
        SDL_RenderClear(renderer_);
        SDL_Rect field{.x = 10, .y = 10, .w = 80, .h = 80};
        for (const bool ended : drawn_fields_) {
            const std::uint8_t red_and_blue = ended ? 160 : 0;
            SDL_SetRenderDrawColor(renderer_, red_and_blue, 160, red_and_blue, 255);
            SDL_RenderFillRect(renderer_, &field);
            field.x += 100;
        }
        SDL_RenderPresent(renderer_);
    }

    SDL_Window* window_ = nullptr;
    SDL_Renderer* renderer_ = nullptr;
    std::uint32_t last_uid_ = 0;
    std::vector<std::unique_ptr<WatchedStream>> streams_;
    std::vector<bool> drawn_fields_;
    bool redraw_ = true;
    bool quit_ = false;
};

bool show(const std::vector<Source>& sources, StreamSize size) {
    Application application;
    if (!application.open(sources, size)) {
        return false;
    }
    application.run();
    return true;
}

int print_usage(const char* command) {
    std::fprintf(stderr, "Usage: %s [--size WIDTHxHEIGHT] PORT:REPLY_PORT:NAME...\n", command);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    StreamSize size;
    int first = 1;
    if (argc > 2 && std::string_view(argv[1]) == "--size") {
        if (std::sscanf(argv[2], "%dx%d", &size.width, &size.height) != 2) {
            return print_usage(argv[0]);
        }
        first = 3;
    }
    std::vector<Source> sources;
    for (int i = first; i < argc; ++i) {
        const std::optional<Source> source = parse_source(argv[i]);
        if (!source) {
            return print_usage(argv[0]);
        }
        sources.push_back(*source);
    }
    if (sources.empty()) {
        return print_usage(argv[0]);
    }
    if (SDL_Init(SDL_INIT_VIDEO | SDL_INIT_AUDIO) < 0) {
        std::fprintf(stderr, "SDL_Init failed: %s\n", SDL_GetError());
        return 1;
    }
    vesper::client::choose_renderer();  // for this application's own window, too
    socket_init();
    const bool shown = show(sources, size);  // the receivers are gone before SDL is
    socket_cleanup();
    SDL_Quit();
    return shown ? 0 : 1;
}
