#include "tools/parent/session.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <utility>

#include "net/stream_datagrams.h"
#include "tools/parent/open_feed.h"
#include "tools/stream/free_port.h"
#include "tools/stream/receive_queue.h"

namespace vesper::tools {

namespace {

// The line that the player prints once datagrams sent to it arrive.
constexpr std::string_view kListeningLine = "[VideoPlayer] Listening on UDP port ";

// Patience with a player that is to make place for another; then it is killed.
constexpr auto kReplaceTimeout = std::chrono::seconds(5);

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
    if (file == "-") {
        return "Standard input";
    }
    if (options.copy && options.file.find("://") != std::string::npos) {
        return options.file;
    }
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
    return feed_ && update();
}

bool Session::update() {
    const Feed::State state =
        feed_->state();  // before its lines, so that the last one is among them
    for (const std::string& line : feed_->take_lines()) {
        pass_on(stderr, line);
    }
    if (!ready_) {
        switch (state) {
            case Feed::State::kOpening:
                return true;
            case Feed::State::kFailed:
                return false;
            case Feed::State::kReady:
                ready_ = true;
                return open_player();
        }
    }
    return !feed_->needs_new_player() || replaced_ || replace_player();
}

bool Session::open_player() {
    if (options_.to_port == 0) {
        const std::uint16_t port = free_port();
        if (port == 0 || !link_.open(options_.listen_port, port)) {
            return false;
        }
        audio_state_ = {.muted = options_.muted, .volume = options_.volume};
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
    // In this order: what the feed sent last is on the link by then.
    return started_ && feed_->finished() && link_.idle();
}

// On the port that the link sends to, as loud as the viewer set the one before.
bool Session::start_player() {
    const std::string program = options_.player.empty() ? player_beside_us() : options_.player;
    AudioState sound;
    {
        const std::lock_guard lock(mutex_);
        sound = audio_state_.value_or(AudioState{});
    }
    const PictureSize size = picture_size();
    return player_.emplace().start(
        command_line(program, {.port = link_.player_port(),
                               .parent_port = link_.listen_port(),
                               .streamer_id = static_cast<std::uint32_t>(number_),
                               .username = username_of(options_, number_),
                               .width = size.width,
                               .height = size.height,
                               .has_audio = has_sound(),
                               .volume = sound.volume,
                               .muted = sound.muted}));
}

// The old player's port is free, and its last words are read, once it has ended.
bool Session::replace_player() {
    if (!replacing_since_) {
        if (player_->exit_status()) {
            return true;  // it ended by itself, and so does the stream
        }
        replacing_since_ = Clock::now();
        count_overflows();
        overflowed_before_ = std::exchange(overflowed_, 0) + overflowed_before_;
        player_->terminate();
    }
    read_player();
    const bool has_ended = player_->exit_status() && player_->output() < 0 && player_->errors() < 0;
    if (!has_ended && Clock::now() - *replacing_since_ < kReplaceTimeout) {
        return true;
    }
    player_.reset();
    if (!start_player()) {
        return false;
    }
    replacing_since_.reset();
    replaced_ = true;
    return true;
}

std::optional<int> Session::player_exit_status() {
    return player_ && !replacing_since_ ? player_->exit_status() : std::nullopt;
}

void Session::read_player() {
    if (!player_) {
        return;
    }
    player_->read_output([this](std::string_view line) {
        pass_on(stdout, line);
        if (!line.starts_with(kListeningLine)) {
            return;
        }
        if (started_) {
            replaced_ = false;
            feed_->go_on();
        } else {
            start_stream();
        }
    });
    player_->read_errors([this](std::string_view line) { pass_on(stderr, line); });
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
    if (player_) {
        player_->terminate();
    }
}

void Session::count_overflows() {
    if (const auto queue = receive_queue(link_.player_port())) {
        overflowed_ = queue->lost;
    }
}

void Session::add_to(Figures& figures) {
    count_overflows();
    const Feed::Counters fed = feed_->counters();
    const Link::Counters sent = link_.counters();
    figures.frames += fed.frames;
    figures.skipped += fed.skipped;
    figures.unanswered += fed.unanswered;
    figures.bytes += sent.bytes_sent;
    figures.datagrams += sent.datagrams_sent;
    figures.send_failures += sent.send_failures;
    figures.keyframe_requests += sent.keyframe_requests;
    figures.impaired += sent.impaired;
    figures.overflowed += overflowed_before_ + overflowed_;
    const std::lock_guard lock(mutex_);
    figures.audio.push_back(audio_state_);
}

}  // namespace vesper::tools
