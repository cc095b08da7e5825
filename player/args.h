// The command line: the player's only input besides the stream itself.
#pragma once

#include <cstdint>
#include <string>

// What the parent application asked for.
struct Args {
    std::uint16_t port = 0;         // --port: local UDP port of the stream; 0: not given
    std::uint16_t parent_port = 0;  // --parent-port: parent's UDP port on 127.0.0.1; 0: no parent
    std::uint32_t streamer_id = 0;  // --streamer-id: only named in the start-up line
    std::int32_t width = 1280;      // --width: stream width in pixels
    std::int32_t height = 720;      // --height: stream height in pixels
    std::string username = "Unknown";  // --username: the streamer's name, for title and log
    bool has_audio = false;            // --has-audio: the stream carries sound
    float audio_volume = 1.0F;         // --audio-volume: initial volume, 0.0 to 1.0
    bool audio_muted = false;          // --audio-muted: start muted
};

// Fills `args` from argv[1] onward; the last of repeated options wins. Forgiving on purpose, so
// that a newer parent can start an older player: unknown words, stray values and an option that
// lacks its value are skipped without a message, and text that is no number reads as 0. Ports wrap
// modulo 65536; the volume is clamped to 0.0 to 1.0, but "nan" stays a NaN. False, with a line on
// standard error, when no port other than 0 came out.
[[nodiscard]] bool parse_args(int argc, char** argv, Args& args);
