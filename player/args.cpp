#include "player/args.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

// Ports wrap modulo 65536.
std::uint16_t to_port(const char* value) {
    return static_cast<std::uint16_t>(std::atoi(value));
}

// A NaN passes the clamp: every comparison with it is false.
float to_volume(const char* value) {
    return std::clamp(std::strtof(value, nullptr), 0.0F, 1.0F);
}

// True when `option` is one that takes a value, which is then stored.
bool store_value(std::string_view option, const char* value, Args& args) {
    if (option == "--port") {
        args.port = to_port(value);
    } else if (option == "--streamer-id") {
        args.streamer_id = static_cast<std::uint32_t>(std::atoi(value));
    } else if (option == "--width") {
        args.width = std::atoi(value);
    } else if (option == "--height") {
        args.height = std::atoi(value);
    } else if (option == "--username") {
        args.username = value;
    } else if (option == "--parent-port") {
        args.parent_port = to_port(value);
    } else if (option == "--audio-volume") {
        args.audio_volume = to_volume(value);
    } else {
        return false;
    }
    return true;
}

void set_flag(std::string_view option, Args& args) {
    if (option == "--has-audio") {
        args.has_audio = true;
    } else if (option == "--audio-muted") {
        args.audio_muted = true;
    }
}

}  // namespace

bool parse_args(int argc, char** argv, Args& args) {
    for (int i = 1; i < argc; ++i) {
        const bool value_follows = i + 1 < argc;
        if (value_follows && store_value(argv[i], argv[i + 1], args)) {
            ++i;  // the value, whatever it looks like
        } else {
            set_flag(argv[i], args);
        }
    }
    if (args.port == 0) {
        std::fprintf(stderr, "Error: --port is required\n");
        return false;
    }
    return true;
}
