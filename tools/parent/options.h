// vesper-parent's command line.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "tools/stream/impairments.h"
#include "tools/stream/streamer.h"

namespace vesper::tools {

struct Options {
    // What is streamed: the test picture if none of these is given.
    std::string file;                   // --file: this media file
    bool copy = false;                  // --copy: its packets as they are, without encoding
    bool restart = true;                // --no-restart: the player stays when the size changes
    bool loop = false;                  // --loop: again and again
    std::optional<std::string> screen;  // --screen: what this display shows
    bool sound = true;                  // --no-sound: no sound
    std::string replay;                 // --replay: the stream in this capture, without encoding
    double speed = 1.0;                 // --speed: so many times as fast as it was captured

    bool has_size = false;  // --size was given
    StreamSettings stream;  // --size, --fps, --bitrate, --keyframe-interval, --burst, --low-delay
    ImpairmentSettings impairments;  // --loss, --duplicate, --reorder, --corrupt, --truncate,
                                     // --jitter, --seed

    std::string capture;            // --capture: record every datagram in this file; empty: none
    std::string player;             // --player: program to start; empty: the one beside us
    std::uint16_t to_port = 0;      // --to: feed the player that listens there; 0: start one
    std::uint16_t listen_port = 0;  // --listen: where the player sends to; 0: any
    int streams = 1;                // --streams: players to start
    std::string username;           // --username: the streamer's name; empty: what is streamed
    float volume = 1.0F;            // --volume: that the player starts with, 0.0 to 1.0
    bool muted = false;             // --muted: the player starts muted

    std::chrono::duration<double> seconds{0};  // --seconds: length of the stream; 0: no end
};

// Reads argv. Nothing when the program is to end with `status`: after --help (0, the help on
// standard output), or after one line on standard error that names what is wrong (2).
[[nodiscard]] std::optional<Options> parse_options(int argc, const char* const* argv, int& status);

}  // namespace vesper::tools
