#include "tools/parent/options.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <system_error>
#include <utility>

namespace vesper::tools {

namespace {

constexpr int kBadUsage = 2;

// Largest side that a VP8 frame header can name (RFC 6386, section 9.1: 14 bits).
constexpr int kMaxSide = 16'383;  // pixels

// NaN, which the other checks let pass, is neither too small nor too large.
std::string refuse_nan(const std::string& text) {
    return std::isnan(std::strtod(text.c_str(), nullptr)) ? text + " is not a number" : "";
}

// "1280x720" into `video`; returns what is wrong, or an empty text.
std::string read_size(const std::string& text, Vp8Settings& video) {
    int end = 0;
    if (std::sscanf(text.c_str(), "%5dx%5d%n", &video.width, &video.height, &end) != 2 ||
        static_cast<std::size_t>(end) != text.size()) {
        return "\"" + text + "\" is not a size like 1280x720";
    }
    const auto fits = [](int side) { return side > 0 && side <= kMaxSide && side % 2 == 0; };
    if (!fits(video.width) || !fits(video.height)) {
        return "width and height must be even and from 2 to 16382, not " + text;
    }
    return {};
}

void add_player_options(CLI::App& app, Options& options) {
    app.add_option("--player", options.player,
                   "Player to start (default: vesper-player beside this program)")
        ->check(CLI::ExistingFile)
        ->group("Player");
    app.add_option("--to", options.to_port, "Feed the player that listens on this port instead")
        ->check(CLI::Range(1, 65535))
        ->excludes("--player")
        ->group("Player");
    app.add_option("--listen", options.listen_port,
                   "Port that the player sends to (default: any free one)")
        ->check(CLI::Range(1, 65535))
        ->group("Player");
    app.add_option("--streams", options.streams, "Players to start, each with a stream of its own")
        ->capture_default_str()
        ->check(CLI::Range(1, 64))
        ->excludes("--to")
        ->excludes("--listen")
        ->group("Player");
    app.add_option("--username", options.username, "Streamer's name (default: what is streamed)")
        ->group("Player");
    app.add_option("--volume", options.volume, "Volume that the player starts with")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 1.0))
        ->check(refuse_nan)
        ->group("Player");
    app.add_flag("--muted", options.muted, "Start the player muted")->group("Player");
}

void add_source_options(CLI::App& app, Options& options) {
    auto* file = app.add_option("--file", options.file,
                                "Stream this media file (default: a test picture and a tone)")
                     ->group("Source");
    app.add_flag("--loop", options.loop, "Restart the file at its end")
        ->needs(file)
        ->group("Source");
    auto* copy = app.add_flag("--copy", options.copy,
                              "Send the file's own VP8 and Opus packets, without encoding; FILE "
                              "may also be -, an SDP file or an address")
                     ->needs(file)
                     ->group("Source");
    app.add_flag("!--no-restart", options.restart,
                 "Keep the player when the size of the pictures changes")
        ->needs(copy)
        ->group("Source");
    auto* replay = app.add_option("--replay", options.replay,
                                  "Send what this capture contains, with its timing and size")
                       ->excludes(file)
                       ->type_name("CAPTURE")
                       ->group("Source");
    app.add_option("--speed", options.speed, "Replay this many times as fast")
        ->capture_default_str()
        ->check(CLI::Range(0.01, 100.0))
        ->check(refuse_nan)
        ->needs(replay)
        ->group("Source");
    app.add_option_function<std::string>(
           "--screen",
           [&options](const std::string& display) {
               const char* own = std::getenv("DISPLAY");
               if (!display.empty()) {
                   options.screen = display;
               } else if (own != nullptr) {
                   options.screen = own;
               } else {
                   throw CLI::ValidationError("--screen", "$DISPLAY is not set: name a display");
               }
           },
           "Stream what this X display shows (default: that of $DISPLAY)")
        ->expected(0, 1)
        ->excludes(file)
        ->excludes(replay)
        ->type_name("DISPLAY")
        ->group("Source");
    app.add_flag("!--no-sound", options.sound, "Stream without sound")->group("Source");
}

void add_video_options(CLI::App& app, StreamSettings& stream) {
    app.add_option_function<std::string>(
           "--size",
           [&stream](const std::string& text) {
               if (const std::string wrong = read_size(text, stream.video); !wrong.empty()) {
                   throw CLI::ValidationError("--size", wrong);
               }
           },
           "Width and height of the stream, both even, 2 to 16382 (default: 1280x720)")
        ->type_name("WxH")
        ->group("Video");
    app.add_option("--fps", stream.video.frames_per_second, "Frames a second")
        ->capture_default_str()
        ->check(CLI::Range(1, 240))
        ->group("Video");
    app.add_option("--bitrate", stream.video.bitrate, "Bits a second of the video")
        ->capture_default_str()
        ->check(CLI::Range(10'000, 1'000'000'000))
        ->group("Video");
    app.add_option("--keyframe-interval", stream.video.keyframe_interval,
                   "Send a keyframe at least once in this many frames")
        ->capture_default_str()
        ->check(CLI::Range(1, 1'000'000))
        ->group("Video");
    app.add_flag("--low-delay", stream.low_delay,
                 "Send each picture twice while the player keeps up, so that it is shown at once")
        ->group("Video");
}

void add_link_options(CLI::App& app, Options& options, int& jitter) {
    ImpairmentSettings& impairments = options.impairments;
    app.add_flag("--burst", options.stream.burst,
                 "Send a frame's datagrams at once (default: spread until the next frame)")
        ->group("Link");
    const auto add_percentage = [&app](const char* name, double& percent, const char* help) {
        app.add_option(name, percent, help)
            ->check(CLI::Range(0.0, 100.0))
            ->check(refuse_nan)
            ->type_name("PERCENT")
            ->group("Link");
    };
    add_percentage("--loss", impairments.loss, "Datagrams that vanish");
    add_percentage("--duplicate", impairments.duplicate, "Datagrams that arrive twice");
    add_percentage("--reorder", impairments.reorder, "Datagrams that the next one overtakes");
    add_percentage("--corrupt", impairments.corrupt, "Datagrams with one bit flipped");
    add_percentage("--truncate", impairments.truncate, "Datagrams cut short");
    app.add_option("--jitter", jitter, "Delay each datagram by up to this many milliseconds")
        ->check(CLI::Range(0, 10'000))
        ->type_name("MS")
        ->group("Link");
    app.add_option("--capture", options.capture,
                   "Record every datagram of both directions in this pcap file")
        ->type_name("FILE")
        ->group("Link");
    app.add_option("--seed", impairments.seed, "The same seed impairs in the same way")
        ->capture_default_str()
        ->group("Link");
}

}  // namespace

std::optional<Options> parse_options(int argc, const char* const* argv, int& status) {
    Options options;
    double seconds = 0;
    int jitter = 0;  // ms
    CLI::App app(
        "Stands in for the application that starts the player: encodes picture and sound "
        "in real time, or copies them, and sends them to the player.",
        "vesper-parent");
    add_source_options(app, options);
    add_video_options(app, options.stream);
    add_link_options(app, options, jitter);
    add_player_options(app, options);
    app.add_option("--seconds", seconds, "End after this many seconds (default: never)")
        ->check(CLI::PositiveNumber)
        ->check(refuse_nan);
    try {
        app.parse(argc, argv);
        options.has_size = app.count("--size") > 0;
        for (const auto& [option, input] :
             {std::pair("--file", options.file), std::pair("--replay", options.replay)}) {
            std::error_code none_there;
            if (std::filesystem::equivalent(options.capture, input, none_there)) {
                throw CLI::ValidationError(
                    "--capture", std::string("would overwrite what ") + option + " reads");
            }
        }
        if (options.file == "-" && options.streams > 1) {
            throw CLI::ValidationError("--streams", "standard input can be read only once");
        }
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
    options.impairments.jitter = std::chrono::milliseconds(jitter);
    return options;
}

}  // namespace vesper::tools
