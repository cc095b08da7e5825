#include "tools/parent/session.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <string>

#include "net/udp_socket.h"

namespace vesper::tools {

namespace {

// What the player says as soon as a datagram sent to it is not lost.
constexpr std::string_view kListeningLine = "[VideoPlayer] Listening on UDP port ";

// A port that was free a moment ago; 0 when there is none.
std::uint16_t free_port() {
    UDPSocket socket;
    return socket.bind(0) ? socket.get_bound_port() : std::uint16_t{0};
}

// vesper-player in the folder that this program was started from.
std::string player_beside_us() {
    std::array<char, 4096> path{};
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
    const std::string_view self(path.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    return std::string(self.substr(0, self.rfind('/') + 1)) + "vesper-player";
}

void print_audio_state(const AudioState& state) {
    std::printf("[Parent] The player's volume is %.0f %%%s\n",
                static_cast<double>(state.volume) * 100.0, state.muted ? ", muted" : "");
}

}  // namespace

bool Session::open() {
    if (!source_.open_test_picture({.width = options_.video.width,
                                    .height = options_.video.height,
                                    .frames_per_second = options_.video.frames_per_second,
                                    .sound = options_.sound}) ||
        !streamer_.open(options_.video)) {
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

bool Session::start_player() {
    const std::string program = options_.player.empty() ? player_beside_us() : options_.player;
    if (access(program.c_str(), X_OK) != 0) {
        std::fprintf(stderr, "vesper-parent: %s is no program\n", program.c_str());
        return false;
    }
    const std::uint16_t port = free_port();
    if (port == 0 || !link_.open(options_.listen_port, port)) {
        return false;
    }
    return player_.start(command_line(program, {.port = port,
                                                .parent_port = link_.listen_port(),
                                                .username = options_.username,
                                                .width = options_.video.width,
                                                .height = options_.video.height,
                                                .has_audio = options_.sound,
                                                .volume = options_.volume,
                                                .muted = options_.muted}));
}

void Session::read_player() {
    player_.read_output([this](std::string_view line) { pass_on(line); });
    player_.read_errors([](std::string_view line) {
        std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
    });
}

void Session::pass_on(std::string_view line) {
    std::printf("%.*s\n", static_cast<int>(line.size()), line.data());
    if (!streaming_ && line.starts_with(kListeningLine)) {
        start_stream();
    }
}

void Session::start_stream() {
    streaming_ = true;
    link_.start({.keyframe_requested =
                     [this] {
                         std::printf("[Parent] The player asks for a keyframe\n");
                         streamer_.request_keyframe();
                     },
                 .audio_state_reported = print_audio_state});
    streamer_.start();
}

void Session::stop() {
    streamer_.stop();
    link_.stop();
    player_.terminate();
}

}  // namespace vesper::tools
