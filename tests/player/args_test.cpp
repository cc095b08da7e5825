#include "player/args.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/captured_output.h"

namespace {

using vesper::test::kNothing;
using vesper::test::Printed;
using vesper::test::printed_by;

const Printed kPortRequired{.out = "", .err = "Error: --port is required\n"};

class CommandLine : public testing::Test {
  protected:
    // Parses `words`, after the command's name, into args_; the output goes to printed_.
    bool parse(std::vector<std::string> words) {
        words.insert(words.begin(), "vesper-player");
        std::vector<char*> argv;
        argv.reserve(words.size() + 1);
        for (std::string& word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        args_ = Args{};
        bool result = false;
        printed_ = printed_by(
            [&] { result = parse_args(static_cast<int>(words.size()), argv.data(), args_); });
        return result;
    }
    // The same with a port in front, where only the rest matters.
    bool parse_with_port(std::vector<std::string> words) {
        words.insert(words.begin(), {"--port", "5000"});
        return parse(std::move(words));
    }
    void expect_all_defaults_but_port() {
        EXPECT_EQ(args_.parent_port, 0);
        EXPECT_EQ(args_.streamer_id, 0U);
        EXPECT_EQ(args_.width, 1280);
        EXPECT_EQ(args_.height, 720);
        EXPECT_EQ(args_.username, "Unknown");
        EXPECT_FALSE(args_.has_audio);
        EXPECT_EQ(args_.audio_volume, 1.0F);
        EXPECT_FALSE(args_.audio_muted);
    }

    Args args_;
    Printed printed_;
};

TEST_F(CommandLine, RecordStartsWithTheDefaults) {
    EXPECT_EQ(args_.port, 0);
    expect_all_defaults_but_port();
}

// ---- the port is required ----

TEST_F(CommandLine, WithoutArgumentsFails) {
    EXPECT_FALSE(parse({}));
    EXPECT_EQ(printed_, kPortRequired);
    EXPECT_EQ(args_.port, 0);
    expect_all_defaults_but_port();
}

TEST_F(CommandLine, WithoutEvenACommandNameFails) {
    char* none = nullptr;
    bool result = true;
    EXPECT_EQ(printed_by([&] { result = parse_args(0, &none, args_); }), kPortRequired);
    EXPECT_FALSE(result);
}

TEST_F(CommandLine, PortAloneLeavesEveryDefault) {
    EXPECT_TRUE(parse({"--port", "5000"}));
    EXPECT_EQ(printed_, kNothing);
    EXPECT_EQ(args_.port, 5000);
    expect_all_defaults_but_port();
}

TEST_F(CommandLine, PortZeroFails) {
    EXPECT_FALSE(parse({"--port", "0"}));
    EXPECT_EQ(printed_, kPortRequired);
}

TEST_F(CommandLine, UnreadablePortFails) {
    EXPECT_FALSE(parse({"--port", "stream"}));
    EXPECT_EQ(printed_, kPortRequired);
}

TEST_F(CommandLine, PortAsTheLastWordIsSkippedAndFails) {
    EXPECT_FALSE(parse({"--has-audio", "--port"}));
    EXPECT_EQ(printed_, kPortRequired);
    EXPECT_TRUE(args_.has_audio);
}

// A failure keeps the values of the other options.
TEST_F(CommandLine, OtherOptionsAreReadEvenWithoutPort) {
    EXPECT_FALSE(parse({"--width", "640", "--username", "Ann"}));
    EXPECT_EQ(printed_, kPortRequired);
    EXPECT_EQ(args_.width, 640);
    EXPECT_EQ(args_.username, "Ann");
}

// ---- ports ----

TEST_F(CommandLine, PortsWrapModulo65536) {
    EXPECT_TRUE(parse({"--port", "65535"}));
    EXPECT_EQ(args_.port, 65535);
    EXPECT_TRUE(parse({"--port", "70000"}));
    EXPECT_EQ(args_.port, 4464);
    EXPECT_TRUE(parse({"--port", "-1"}));
    EXPECT_EQ(args_.port, 65535);
    EXPECT_EQ(printed_, kNothing);
}

TEST_F(CommandLine, PortOf65536WrapsToZeroAndFails) {
    EXPECT_FALSE(parse({"--port", "65536"}));
    EXPECT_EQ(printed_, kPortRequired);
}

TEST_F(CommandLine, ParentPortsWrapModulo65536) {
    EXPECT_TRUE(parse_with_port({"--parent-port", "6000"}));
    EXPECT_EQ(args_.parent_port, 6000);
    EXPECT_TRUE(parse_with_port({"--parent-port", "70000"}));
    EXPECT_EQ(args_.parent_port, 4464);
    EXPECT_TRUE(parse_with_port({"--parent-port", "65536"}));
    EXPECT_EQ(args_.parent_port, 0);
    EXPECT_TRUE(parse_with_port({"--parent-port", "-1"}));
    EXPECT_EQ(args_.parent_port, 65535);
    EXPECT_EQ(args_.port, 5000);
}

TEST_F(CommandLine, LastOfRepeatedOptionsWins) {
    EXPECT_TRUE(parse({"--port", "5000", "--port", "6000"}));
    EXPECT_EQ(args_.port, 6000);
    EXPECT_FALSE(parse({"--port", "5000", "--port", "0"}));
    EXPECT_EQ(printed_, kPortRequired);
    EXPECT_TRUE(parse_with_port({"--username", "Ann", "--username", "Bea"}));
    EXPECT_EQ(args_.username, "Bea");
}

// ---- numbers and text ----

TEST_F(CommandLine, NumbersAreReadAsFarAsTheyGo) {
    EXPECT_TRUE(parse_with_port({"--streamer-id", "42", "--width", "1920px", "--height", " 1080"}));
    EXPECT_EQ(args_.streamer_id, 42U);
    EXPECT_EQ(args_.width, 1920);
    EXPECT_EQ(args_.height, 1080);
}

TEST_F(CommandLine, TextThatIsNoNumberIsZero) {
    EXPECT_TRUE(parse_with_port({"--streamer-id", "Ann", "--width", "wide", "--height", ""}));
    EXPECT_EQ(printed_, kNothing);
    EXPECT_EQ(args_.streamer_id, 0U);
    EXPECT_EQ(args_.width, 0);
    EXPECT_EQ(args_.height, 0);
}

TEST_F(CommandLine, SizesAreNotChecked) {
    EXPECT_TRUE(parse_with_port({"--width", "-5", "--height", "2147483647"}));
    EXPECT_EQ(args_.width, -5);
    EXPECT_EQ(args_.height, 2147483647);
}

TEST_F(CommandLine, StreamerIdOfMinusOneIsTheLargestNumber) {
    EXPECT_TRUE(parse_with_port({"--streamer-id", "-1"}));
    EXPECT_EQ(args_.streamer_id, 4294967295U);
}

TEST_F(CommandLine, UsernameIsCopiedVerbatim) {
    EXPECT_TRUE(parse_with_port({"--username", " Änn % \"x\" "}));
    EXPECT_EQ(args_.username, " Änn % \"x\" ");
    EXPECT_TRUE(parse_with_port({"--username", ""}));
    EXPECT_EQ(args_.username, "");
}

// ---- volume ----

TEST_F(CommandLine, VolumeIsClampedToItsRange) {
    EXPECT_TRUE(parse_with_port({"--audio-volume", "0.25"}));
    EXPECT_EQ(args_.audio_volume, 0.25F);
    EXPECT_TRUE(parse_with_port({"--audio-volume", "2.5"}));
    EXPECT_EQ(args_.audio_volume, 1.0F);
    EXPECT_TRUE(parse_with_port({"--audio-volume", "inf"}));
    EXPECT_EQ(args_.audio_volume, 1.0F);
    EXPECT_TRUE(parse_with_port({"--audio-volume", "-1"}));
    EXPECT_EQ(args_.audio_volume, 0.0F);
    EXPECT_FALSE(std::signbit(args_.audio_volume));
}

TEST_F(CommandLine, VolumeIsReadInSinglePrecision) {
    EXPECT_TRUE(parse_with_port({"--audio-volume", "0.7"}));
    EXPECT_EQ(args_.audio_volume, 0.7F);
}

TEST_F(CommandLine, VolumeThatIsNoNumberIsZero) {
    EXPECT_TRUE(parse_with_port({"--audio-volume", "loud"}));
    EXPECT_EQ(args_.audio_volume, 0.0F);
    EXPECT_EQ(printed_, kNothing);
}

// Every comparison with a NaN is false, so neither end of the range clamps it.
TEST_F(CommandLine, NanVolumePassesTheClamp) {
    EXPECT_TRUE(parse_with_port({"--audio-volume", "nan"}));
    EXPECT_TRUE(std::isnan(args_.audio_volume));
}

// Nor is minus zero below zero.
TEST_F(CommandLine, MinusZeroVolumeKeepsItsSign) {
    EXPECT_TRUE(parse_with_port({"--audio-volume", "-0.0"}));
    EXPECT_EQ(args_.audio_volume, 0.0F);
    EXPECT_TRUE(std::signbit(args_.audio_volume));
}

// ---- flags ----

TEST_F(CommandLine, FlagsTakeNoValue) {
    EXPECT_TRUE(parse_with_port({"--has-audio", "1"}));
    EXPECT_TRUE(args_.has_audio);
    EXPECT_FALSE(args_.audio_muted);
    EXPECT_TRUE(parse_with_port({"--audio-muted", "--has-audio", "0", "--width", "640"}));
    EXPECT_TRUE(args_.audio_muted);
    EXPECT_TRUE(args_.has_audio);
    EXPECT_EQ(args_.width, 640);
    EXPECT_EQ(printed_, kNothing);
}

TEST_F(CommandLine, FlagsMayComeLast) {
    EXPECT_TRUE(parse_with_port({"--audio-muted"}));
    EXPECT_TRUE(args_.audio_muted);
    EXPECT_FALSE(args_.has_audio);
}

// ---- forgiving ----

TEST_F(CommandLine, ValueOptionAsTheLastWordIsSkipped) {
    for (const char* option : {"--streamer-id", "--width", "--height", "--username",
                               "--parent-port", "--audio-volume", "--port"}) {
        SCOPED_TRACE(option);
        EXPECT_TRUE(parse_with_port({option}));
        EXPECT_EQ(printed_, kNothing);
        EXPECT_EQ(args_.port, 5000);
        expect_all_defaults_but_port();
    }
}

TEST_F(CommandLine, WhateverFollowsAValueOptionIsItsValue) {
    EXPECT_FALSE(parse({"--username", "--port", "5000"}));
    EXPECT_EQ(printed_, kPortRequired);
    EXPECT_EQ(args_.username, "--port");
    EXPECT_FALSE(parse({"--port", "--width", "640"}));
    EXPECT_EQ(printed_, kPortRequired);
    EXPECT_EQ(args_.width, 1280);
    EXPECT_TRUE(parse_with_port({"--username", "--has-audio"}));
    EXPECT_EQ(args_.username, "--has-audio");
    EXPECT_FALSE(args_.has_audio);
}

TEST_F(CommandLine, UnknownWordsAreSkippedSilently) {
    EXPECT_TRUE(parse({"stray", "--bitrate", "--port", "5000", "", "-p", "7000", "--port=8000"}));
    EXPECT_EQ(printed_, kNothing);
    EXPECT_EQ(args_.port, 5000);
    expect_all_defaults_but_port();
}

TEST_F(CommandLine, OptionsAreMatchedWholeAndByCase) {
    EXPECT_TRUE(parse_with_port({"--PORT", "7000", "--por", "7000", "--ports", "7000", "--Width",
                                 "640", "--HAS-AUDIO", "--audio-muted "}));
    EXPECT_EQ(args_.port, 5000);
    expect_all_defaults_but_port();
}

TEST_F(CommandLine, EverythingTogether) {
    EXPECT_TRUE(parse({"--audio-muted", "--audio-volume", "0.5", "--has-audio", "--parent-port",
                       "6000", "--username", "Ann", "--height", "1080", "--width", "1920",
                       "--streamer-id", "7", "--port", "5000"}));
    EXPECT_EQ(printed_, kNothing);
    EXPECT_EQ(args_.port, 5000);
    EXPECT_EQ(args_.parent_port, 6000);
    EXPECT_EQ(args_.streamer_id, 7U);
    EXPECT_EQ(args_.width, 1920);
    EXPECT_EQ(args_.height, 1080);
    EXPECT_EQ(args_.username, "Ann");
    EXPECT_TRUE(args_.has_audio);
    EXPECT_EQ(args_.audio_volume, 0.5F);
    EXPECT_TRUE(args_.audio_muted);
}

}  // namespace
