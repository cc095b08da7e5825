#include "tools/parent/options.h"

#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/captured_output.h"
#include "tests/support/temporary_folder.h"

namespace vesper::tools {
namespace {

using test::Printed;
using test::printed_by;

std::optional<Options> parse(std::vector<const char*> words, int& status) {
    words.insert(words.begin(), "vesper-parent");
    return parse_options(static_cast<int>(words.size()), words.data(), status);
}

Options parsed(const std::vector<const char*>& words) {
    int status = 0;
    const auto options = parse(words, status);
    EXPECT_TRUE(options);
    return options.value_or(Options{});
}

// Refused with status 2 and this one line on standard error.
void expect_refused(const std::vector<const char*>& words, const std::string& line) {
    int status = 0;
    EXPECT_EQ(printed_by([&] { EXPECT_FALSE(parse(words, status)); }),
              (Printed{.out = "", .err = "vesper-parent: " + line + "\n"}));
    EXPECT_EQ(status, 2);
}

TEST(ParentOptions, WithoutAnyTheTestPictureGoesToOneNewPlayer) {
    const Options options = parsed({});
    EXPECT_EQ(options.file, "");
    EXPECT_FALSE(options.screen);
    EXPECT_TRUE(options.sound);
    EXPECT_FALSE(options.has_size);
    EXPECT_EQ(options.stream.video.width, 1280);
    EXPECT_EQ(options.stream.video.height, 720);
    EXPECT_EQ(options.stream.video.frames_per_second, 30);
    EXPECT_EQ(options.stream.video.bitrate, 1'500'000);
    EXPECT_EQ(options.stream.video.keyframe_interval, 60);
    EXPECT_FALSE(options.stream.burst);
    EXPECT_FALSE(options.stream.low_delay);
    EXPECT_EQ(options.impairments.loss, 0);
    EXPECT_EQ(options.impairments.jitter.count(), 0);
    EXPECT_EQ(options.to_port, 0);
    EXPECT_EQ(options.streams, 1);
    EXPECT_EQ(options.volume, 1.0F);
    EXPECT_FALSE(options.muted);
    EXPECT_EQ(options.seconds.count(), 0);
}

TEST(ParentOptions, EachOptionIsRead) {
    const Options options = parsed({"--file",
                                    "a.mkv",
                                    "--loop",
                                    "--no-sound",
                                    "--size",
                                    "640x360",
                                    "--fps",
                                    "60",
                                    "--bitrate",
                                    "900000",
                                    "--keyframe-interval",
                                    "50",
                                    "--burst",
                                    "--low-delay",
                                    "--loss",
                                    "1.5",
                                    "--duplicate",
                                    "2",
                                    "--reorder",
                                    "3",
                                    "--corrupt",
                                    "4",
                                    "--truncate",
                                    "5",
                                    "--jitter",
                                    "6",
                                    "--seed",
                                    "7",
                                    "--to",
                                    "8000",
                                    "--listen",
                                    "8001",
                                    "--username",
                                    "Ann",
                                    "--volume",
                                    "0.5",
                                    "--muted",
                                    "--seconds",
                                    "2.5"});
    EXPECT_EQ(options.file, "a.mkv");
    EXPECT_TRUE(options.loop);
    EXPECT_FALSE(options.sound);
    EXPECT_TRUE(options.has_size);
    EXPECT_EQ(options.stream.video.width, 640);
    EXPECT_EQ(options.stream.video.height, 360);
    EXPECT_EQ(options.stream.video.frames_per_second, 60);
    EXPECT_EQ(options.stream.video.bitrate, 900'000);
    EXPECT_EQ(options.stream.video.keyframe_interval, 50);
    EXPECT_TRUE(options.stream.burst);
    EXPECT_TRUE(options.stream.low_delay);
    EXPECT_EQ(options.impairments.loss, 1.5);
    EXPECT_EQ(options.impairments.duplicate, 2);
    EXPECT_EQ(options.impairments.reorder, 3);
    EXPECT_EQ(options.impairments.corrupt, 4);
    EXPECT_EQ(options.impairments.truncate, 5);
    EXPECT_EQ(options.impairments.jitter.count(), 6);
    EXPECT_EQ(options.impairments.seed, 7U);
    EXPECT_EQ(options.to_port, 8000);
    EXPECT_EQ(options.listen_port, 8001);
    EXPECT_EQ(options.username, "Ann");
    EXPECT_EQ(options.volume, 0.5F);
    EXPECT_TRUE(options.muted);
    EXPECT_EQ(options.seconds.count(), 2.5);
}

TEST(ParentOptions, TheScreenIsTheOneNamed) {
    EXPECT_EQ(parsed({"--screen", ":5"}).screen, ":5");
}

TEST(ParentOptions, TheScreenIsOursWhereNoneIsNamed) {
    setenv("DISPLAY", ":6", 1);
    EXPECT_EQ(parsed({"--screen"}).screen, ":6");
    EXPECT_EQ(parsed({"--screen", "--muted"}).screen, ":6");
}

TEST(ParentOptions, WithoutADisplayOfOursTheScreenMustBeNamed) {
    unsetenv("DISPLAY");
    expect_refused({"--screen"}, "--screen: $DISPLAY is not set: name a display");
}

TEST(ParentOptions, HelpIsNoFailure) {
    int status = 2;
    const Printed printed = printed_by([&] { EXPECT_FALSE(parse({"--help"}, status)); });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(printed.err, "");
    EXPECT_NE(printed.out, "");
}

TEST(ParentOptions, SizesMustBeSizes) {
    expect_refused({"--size", "12"}, "--size: \"12\" is not a size like 1280x720");
    expect_refused({"--size", "640x480p"}, "--size: \"640x480p\" is not a size like 1280x720");
    expect_refused({"--size", "big"}, "--size: \"big\" is not a size like 1280x720");
}

TEST(ParentOptions, SizesMustBeEvenAndSuitVp8) {
    for (const std::string size : {"641x480", "640x481", "0x480", "640x-2", "16384x480"}) {
        expect_refused({"--size", size.c_str()},
                       "--size: width and height must be even and from 2 to 16382, not " + size);
    }
}

TEST(ParentOptions, NumbersMustBeInRange) {
    // The library's words for it change between versions.
    const auto out_of = [](const CLI::Range& range, const std::string& value) {
        return range(value);
    };
    expect_refused({"--fps", "0"}, "--fps: " + out_of(CLI::Range(1, 240), "0"));
    expect_refused({"--to", "65536"}, "--to: " + out_of(CLI::Range(1, 65535), "65536"));
    expect_refused({"--jitter", "-1"}, "--jitter: " + out_of(CLI::Range(0, 10'000), "-1"));
}

TEST(ParentOptions, NumbersMustBeNumbers) {
    for (const char* option : {"--volume", "--seconds", "--loss", "--duplicate", "--reorder",
                               "--corrupt", "--truncate"}) {
        expect_refused({option, "nan"}, std::string(option) + ": nan is not a number");
    }
    expect_refused({"--replay", "a.pcap", "--speed", "-NaN"}, "--speed: -NaN is not a number");
}

TEST(ParentOptions, OptionsThatContradictEachOtherAreRefused) {
    expect_refused({"--file", "a.mkv", "--screen", ":5"}, "--file excludes --screen");
    expect_refused({"--streams", "2", "--to", "8000"}, "--to excludes --streams");
    expect_refused({"--loop"}, "--loop requires --file");
}

TEST(ParentOptions, UnknownWordsAreRefused) {
    expect_refused({"--colour"}, "The following argument was not expected: --colour");
    expect_refused({"--fps"}, "--fps: 1 required INT:INT in [1 - 240] missing");
}

TEST(ParentOptions, AFileIsCopiedWhereAskedFor) {
    EXPECT_FALSE(parsed({"--file", "a.webm"}).copy);
    const Options options = parsed({"--file", "-", "--copy", "--no-restart"});
    EXPECT_EQ(options.file, "-");
    EXPECT_TRUE(options.copy);
    EXPECT_FALSE(options.restart);
    EXPECT_TRUE(parsed({"--file", "a.webm", "--copy"}).restart);
}

TEST(ParentOptions, OnlyAFileIsCopied) {
    expect_refused({"--copy"}, "--copy requires --file");
    expect_refused({"--file", "a.webm", "--no-restart"}, "--no-restart requires --copy");
}

TEST(ParentOptions, ACaptureDoesNotReplaceWhatIsStreamed) {
    const test::TemporaryFolder folder;
    const std::string film = folder.file("film.mkv");
    std::ofstream(film) << "pictures";
    const std::string link = folder.file("link.mkv");
    std::filesystem::create_symlink(film, link);
    const std::string other = folder.file("other.pcap");
    std::ofstream(other) << "an old capture";
    for (const std::string& capture : {film, link}) {
        expect_refused({"--file", film.c_str(), "--capture", capture.c_str()},
                       "--capture: would overwrite what --file reads");
        expect_refused({"--replay", film.c_str(), "--capture", capture.c_str()},
                       "--capture: would overwrite what --replay reads");
    }
    EXPECT_EQ(parsed({"--file", film.c_str(), "--capture", other.c_str()}).capture, other);
}

TEST(ParentOptions, StandardInputFeedsOnePlayer) {
    expect_refused({"--file", "-", "--copy", "--streams", "2"},
                   "--streams: standard input can be read only once");
}

}  // namespace
}  // namespace vesper::tools
