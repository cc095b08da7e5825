// The fixture of the tests that stream for a while over a bad network. What exactly a player then
// prints depends on the time that everything takes, but each line must be one of those that it may
// print there, and each keyframe request must have reached the parent as well.
#pragma once

#include <chrono>
#include <cstdint>
#include <random>
#include <string>

#include "tests/e2e/live_stream.h"
#include "tests/e2e/player_fixture.h"

namespace vesper::test {

// What the player prints when it drops a frame of `total` fragments.
[[nodiscard]] std::string dropped_frame_line(std::uint32_t frame_id, int received, int total);

class LiveStreamTest : public PlayerTest {
  protected:
    using PlayerTest::PlayerTest;

    static constexpr Color kFirstColor{.red = 30, .green = 60, .blue = 200};
    static constexpr Point kFirstPoint{.x = 200, .y = 120};

    // Starts the player, with sound, and shows it a first picture, all kFirstColor: from here on a
    // keyframe that arrives whole is shown whole.
    void start_stream();

    // What is streamed, each picture different from the one before: by default random_picture().
    [[nodiscard]] virtual tools::Picture next_picture() { return random_picture(random); }

    // Streams for `time` over `network`.
    void stream(std::chrono::milliseconds time, const LiveStream::Network& network);

    // Sends a keyframe over a perfect network, and expects to see each of its fields in its colour,
    // however large the window. A player that was delayed for so long that it dropped the keyframe
    // asks for another and gets it.
    void expect_good_picture();

    // Closes the window and expects a clean end: standard error begins with failure_text, and each
    // line after it reports a frame that was dropped, could not be decoded or gave no picture, or a
    // keyframe wanted for a dropped one; standard output reports as many keyframe requests as
    // arrived.
    void expect_explained_end();

    std::mt19937_64 random{20};
    LiveStream live{parent, port,
                    [this](bool keyframe) { return video.frame(next_picture(), keyframe); }};
};

}  // namespace vesper::test
