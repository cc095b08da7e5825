#include "tools/parent/options.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>

namespace vesper::tools {

namespace {

constexpr int kBadUsage = 2;

// Largest side that a VP8 frame header can name (RFC 6386, section 9.1: 14 bits).
constexpr int kMaxSide = 16'383;  // pixels

// "1280x720" into `video`; the text says what is wrong, and is empty when nothing is.
std::string read_size(const std::string& text, Vp8Settings& video) {
    int end = 0;
    if (std::sscanf(text.c_str(), "%5dx%5d%n", &video.width, &video.height, &end) != 2 ||
        static_cast<std::size_t>(end) != text.size()) {
        return "\"" + text + "\" is no size like 1280x720";
    }
    const auto fits = [](int side) { return side > 0 && side <= kMaxSide && side % 2 == 0; };
    if (!fits(video.width) || !fits(video.height)) {
        return "width and height must be even and from 2 to 16382, not " + text;
    }
    return {};
}

}  // namespace

std::optional<Options> parse_options(int argc, const char* const* argv, int& status) {
    Options options;
    CLI::App app(
        "Stands in for the application that starts the player: encodes a picture and "
        "sound in real time and feeds them to it.",
        "vesper-parent");
    app.add_option("--player", options.player,
                   "Player to start (default: vesper-player beside this program)")
        ->check(CLI::ExistingFile);
    auto* to = app.add_option("--to", options.to_port, "Feed the player that listens on this port")
                   ->check(CLI::Range(1, 65535));
    to->excludes("--player");
    app.add_option("--listen", options.listen_port,
                   "Port that the player talks to (default: any free one)")
        ->check(CLI::Range(1, 65535));
    app.add_option("--username", options.username, "Streamer's name")->capture_default_str();
    app.add_option_function<std::string>(
           "--size",
           [&options](const std::string& text) {
               if (const std::string wrong = read_size(text, options.video); !wrong.empty()) {
                   throw CLI::ValidationError("--size", wrong);
               }
           },
           "Width and height of the stream, both even (default: 1280x720)")
        ->type_name("WxH");
    app.add_option("--fps", options.video.frames_per_second, "Frames a second")
        ->capture_default_str()
        ->check(CLI::Range(1, 240));
    app.add_option("--bitrate", options.video.bitrate, "Video, bit/s")
        ->capture_default_str()
        ->check(CLI::Range(10'000, 1'000'000'000));
    app.add_option("--keyframe-interval", options.video.keyframe_interval,
                   "A keyframe at least every so many frames")
        ->capture_default_str()
        ->check(CLI::Range(1, 1'000'000));
    app.add_option("--volume", options.volume, "Volume that the player starts with")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 1.0));
    app.add_flag("--muted", options.muted, "Start the player muted");
    app.add_flag("!--no-sound", options.sound, "Stream without sound");
    double seconds = 0;
    app.add_option("--seconds", seconds, "End after so many seconds (default: never)")
        ->check(CLI::PositiveNumber);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        std::cout << app.help();
        status = 0;
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        std::cerr << "vesper-parent: " << error.what() << '\n';
        status = kBadUsage;
        return std::nullopt;
    }
    options.seconds = std::chrono::duration<double>(seconds);
    return options;
}

}  // namespace vesper::tools
