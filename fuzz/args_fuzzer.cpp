// Any list of arguments to parse_args: the input, cut at its zero bytes.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz/support/require.h"
#include "player/args.h"

using vesper::fuzz::require;

namespace {

using Arguments = std::vector<std::string>;

Arguments split(const std::uint8_t* data, std::size_t size) {
    Arguments arguments = {"vesper-player"};
    const std::uint8_t* const end = data + size;
    while (data != end) {
        const std::uint8_t* const zero = std::find(data, end, std::uint8_t{0});
        arguments.emplace_back(data, zero);
        data = zero == end ? end : zero + 1;
    }
    return arguments;
}

bool parse(Arguments arguments, Args& args) {
    std::vector<char*> argv;
    argv.reserve(arguments.size());
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    return parse_args(static_cast<int>(argv.size()), argv.data(), args);
}

bool contains(const Arguments& arguments, const std::string& word) {
    return std::find(arguments.begin() + 1, arguments.end(), word) != arguments.end();
}

bool contains_nan(const Arguments& arguments) {
    return std::any_of(arguments.begin() + 1, arguments.end(), [](const std::string& argument) {
        return std::isnan(std::strtof(argument.c_str(), nullptr));
    });
}

void check_values(const Arguments& arguments, const Args& args) {
    const Args defaults;
    const auto given = [&](const char* option) { return contains(arguments, option); };
    require(args.port == defaults.port || given("--port"), "port as given");
    require(args.parent_port == defaults.parent_port || given("--parent-port"),
            "parent port as given");
    require(args.streamer_id == defaults.streamer_id || given("--streamer-id"), "id as given");
    require(args.width == defaults.width || given("--width"), "width as given");
    require(args.height == defaults.height || given("--height"), "height as given");
    require(args.username == defaults.username ||
                (given("--username") && contains(arguments, args.username)),
            "name as given");
    require(!args.has_audio || given("--has-audio"), "audio as given");
    require(!args.audio_muted || given("--audio-muted"), "mute as given");
    require(args.audio_volume == defaults.audio_volume || given("--audio-volume"),
            "volume as given");
    require((args.audio_volume >= 0.0F && args.audio_volume <= 1.0F) ||
                (std::isnan(args.audio_volume) && contains_nan(arguments)),
            "a volume from 0.0 to 1.0, or the NaN that was given");
}

// A word comes first, in case the list ends in an option that expects a value.
void check_last_port_wins(Arguments arguments) {
    arguments.insert(arguments.end(), {"word", "--port", "5000"});
    Args args;
    require(parse(arguments, args) && args.port == 5000, "the last port wins");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Arguments arguments = split(data, size);
    Args args;
    require(parse(arguments, args) == (args.port != 0), "true with a port, false without");
    check_values(arguments, args);
    check_last_port_wins(arguments);
    return 0;
}
