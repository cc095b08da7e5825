#include "tools/parent/session.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <string>

#include "net/stream_datagrams.h"
#include "tools/parent/open_feed.h"
#include "tools/stream/free_port.h"
#include "tools/stream/receive_queue.h"

namespace vesper::tools {

namespace {

// What the player says as soon as a datagram sent to it is not lost.
constexpr std::string_view kListeningLine = "[VideoPlayer] Listening on UDP port ";

// vesper-player in the folder that this program was started from.
std::string player_beside_us() {
    std::array<char, 4096> path{};
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
    const std::string_view self(path.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    return std::string(self.substr(0, self.rfind('/') + 1)) + "vesper-player";
}

// For people, who see it in the window's title.
std::string source_name(const Options& options) {
    if (options.screen) {
        return "Screen " + *options.screen;
    }
    const std::filesystem::path file = options.replay.empty() ? options.file : options.replay;
    return file.empty() ? "Test picture" : file.filename().string();
}

std::string username_of(const Options& options, int number) {
    const std::string name = options.username.empty() ? source_name(options) : options.username;
    return options.streams == 1 ? name : name + " " + std::to_string(number);
}

// `settings` for the `number`th stream: each with a seed of its own, so that not all lose the same.
ImpairmentSettings impairments_of(ImpairmentSettings settings, int number) {
    settings.seed += static_cast<std::uint64_t>(number - 1);
    return settings;
}

}  // namespace

Session::Session(const Options& options, int number, StatusReporter& reporter,
                 CaptureWriter& capture)
    : options_(options),
      number_(number),
      reporter_(reporter),
      capture_(capture),
      link_(impairments_of(options.impairments, number)) {}

Session::~Session() {
    stop();
}

bool Session::open() {
    feed_ = open_feed(options_, link_);
    if (!feed_) {
        return false;
    }
    if (options_.to_port == 0) {
        return start_player();
    }
    if (!link_.open(options_.listen_port, options_.to_port)) {
        return false;
    }
    start_stream();
    return true;
}

bool Session::has_sound() const {
    return options_.sound && feed_->has_sound();
}

PictureSize Session::picture_size() const {
    const PictureSize own = feed_->picture_size();
    return options_.has_size || own == PictureSize{}
               ? PictureSize{.width = options_.stream.video.width,
                             .height = options_.stream.video.height}
               : own;
}

bool Session::feed_finished() const {
    return started_ && link_.idle() && feed_->finished();
}

bool Session::start_player() {
    const std::string program = options_.player.empty() ? player_beside_us() : options_.player;
    if (access(program.c_str(), X_OK) != 0) {
        std::fprintf(stderr, "vesper-parent: %s cannot be executed\n", program.c_str());
        return false;
    }
    const std::uint16_t port = free_port();
    if (port == 0 || !link_.open(options_.listen_port, port)) {
        return false;
    }
    audio_state_ = {.muted = options_.muted, .volume = options_.volume};
    const PictureSize size = picture_size();
    return player_.start(command_line(program, {.port = port,
                                                .parent_port = link_.listen_port(),
                                                .streamer_id = static_cast<std::uint32_t>(number_),
                                                .username = username_of(options_, number_),
                                                .width = size.width,
                                                .height = size.height,
                                                .has_audio = has_sound(),
                                                .volume = options_.volume,
                                                .muted = options_.muted}));
}

void Session::read_player() {
    player_.read_output([this](std::string_view line) {
        pass_on(stdout, line);
        if (!started_ && line.starts_with(kListeningLine)) {
            start_stream();
        }
    });
    player_.read_errors([this](std::string_view line) { pass_on(stderr, line); });
}

void Session::pass_on(std::FILE* stream, std::string_view line) {
    const std::string from = options_.streams == 1 ? "" : std::to_string(number_) + ": ";
    reporter_.print(stream, from + std::string(line));
}

void Session::start_stream() {
    started_ = true;
    link_.start({.keyframe_requested = [this] { feed_->request_keyframe(); },
                 .audio_state_reported =
                     [this](const AudioState& state) {
                         const std::lock_guard lock(mutex_);
                         audio_state_ = state;
                     },
                 .datagram_passed =
                     [this](Direction direction, std::span<const std::uint8_t> datagram) {
                         keep(direction, datagram);
                         if (direction == Direction::kToPlayer) {
                             feed_->datagram_sent(datagram);
                         }
                     }});
    feed_->start();
}

void Session::keep(Direction direction, std::span<const std::uint8_t> datagram) {
    if (options_.capture.empty()) {
        return;
    }
    if (direction == Direction::kToPlayer) {
        capture_.write(link_.listen_port(), link_.player_port(), datagram);
    } else {
        capture_.write(link_.player_port(), link_.listen_port(), datagram);
    }
}

void Session::stop() {
    if (feed_) {
        feed_->stop();
    }
    link_.stop();
    player_.terminate();
}

void Session::add_to(Figures& figures) {
    if (const auto queue = receive_queue(link_.player_port())) {
        overflowed_ = queue->lost;
    }
    const Feed::Counters fed = feed_->counters();
    const Link::Counters sent = link_.counters();
    figures.frames += fed.frames;
    figures.skipped += fed.skipped;
    figures.bytes += sent.bytes_sent;
    figures.datagrams += sent.datagrams_sent;
    figures.send_failures += sent.send_failures;
    figures.keyframe_requests += sent.keyframe_requests;
    figures.impaired += sent.impaired;
    figures.overflowed += overflowed_;
    const std::lock_guard lock(mutex_);
    figures.audio.push_back(audio_state_);
}

}  // namespace vesper::tools
