// vesper-parent's command line.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "tools/stream/vp8_encoder.h"

namespace vesper::tools {

struct Options {
    std::string player;             // --player: program to start; empty: the one beside us
    std::uint16_t to_port = 0;      // --to: feed the player that listens there; 0: start one
    std::uint16_t listen_port = 0;  // --listen: where the player talks to; 0: any
    std::string username = "Test picture";     // --username: the streamer's name
    Vp8Settings video;                         // --size, --fps, --bitrate, --keyframe-interval
    float volume = 1.0F;                       // --volume: that the player starts with, 0.0 to 1.0
    bool muted = false;                        // --muted: the player starts muted
    bool sound = true;                         // --no-sound: the stream carries none
    std::chrono::duration<double> seconds{0};  // --seconds: length of the stream; 0: no end
};

// Reads argv. Nothing when the program is to end with `status`: after --help (0, the help on
// standard output), or after one line on standard error that names what is wrong (2).
[[nodiscard]] std::optional<Options> parse_options(int argc, const char* const* argv, int& status);

}  // namespace vesper::tools
