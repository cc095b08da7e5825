// examples/minimal_parent.py with the real player, or with the test in the player's place.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <utility>

#include "net/stream_datagrams.h"
#include "net/udp_socket.h"
#include "tests/e2e/player_fixture.h"
#include "tests/e2e/printed_on_failure.h"

namespace vesper::test {

namespace {

constexpr std::size_t kIvfHeaderSize = 32;  // bytes
constexpr int kFramesPerSecond = 10;

void append(std::string& file, std::uint64_t number, int bytes) {
    for (int i = 0; i < bytes; ++i) {
        file += static_cast<char>(number >> (8 * i));
    }
}

struct Video {
    tools::Picture picture = fields_picture();
    int frames = kFramesPerSecond;
    int hidden_from = 1'000'000;  // frames that are decoded but not to be shown begin with this one
    int time_units = kFramesPerSecond;  // in a second
    int repeats_from = 1'000'000;       // from this frame on, each is the one before again
};

// Longer than a test waits for anything.
constexpr int kFramesOfALongVideo = 600 * kFramesPerSecond;

// All of its frames are keyframes: on a busy machine the player drops frames whose fragments come
// too slowly, and the example sends each keyframe only once more.
Video long_video(tools::Picture picture) {
    return {.picture = std::move(picture), .frames = kFramesOfALongVideo, .repeats_from = 1};
}

// VP8's first byte shows whether the frame is to be shown (RFC 6386, section 9.1).
constexpr std::uint8_t kShowFrame = 0x10;

bool is_keyframe(std::uint8_t first_byte) {
    return (first_byte & 1) == 0;
}

// The video as an IVF file, whose first frame is a keyframe.
std::string ivf(const Video& video) {
    std::string file = "DKIF";
    append(file, 0, 2);  // version
    append(file, kIvfHeaderSize, 2);
    file += "VP80";
    append(file, static_cast<std::uint64_t>(kPictureSize.width), 2);
    append(file, static_cast<std::uint64_t>(kPictureSize.height), 2);
    append(file, static_cast<std::uint64_t>(video.time_units), 4);
    append(file, 1, 4);
    append(file, static_cast<std::uint64_t>(video.frames), 4);
    append(file, 0, 4);
    tools::Vp8Encoder encoder;
    EXPECT_TRUE(encoder.open({.width = kPictureSize.width,
                              .height = kPictureSize.height,
                              .frames_per_second = kFramesPerSecond,
                              .bitrate = 2'000'000,
                              .keyframe_interval = 10'000}));
    std::vector<std::uint8_t> encoded;
    for (int frame = 0; frame < video.frames; ++frame) {
        if (frame < video.repeats_from) {
            encoded = encoder.encode(video.picture, frame == 0);
        }
        if (frame >= video.hidden_from) {
            encoded.front() &= static_cast<std::uint8_t>(~kShowFrame);
        }
        append(file, encoded.size(), 4);
        append(file, static_cast<std::uint64_t>(frame * video.time_units / kFramesPerSecond), 8);
        file.append(encoded.begin(), encoded.end());
    }
    return file;
}

}  // namespace

class MinimalParent : public PlayerTest {
  protected:
    void SetUp() override {
        // The example binds the port itself.
        ASSERT_NE(example_port_, 0);
    }

    void run_example(const Video& film) { run_example_with(ivf(film), {VESPER_PYTHON}); }

    // With the content of its video file, and the words of the command that runs Python.
    void run_example_with(const std::string& file, std::vector<std::string> command) {
        const std::string video_file = directory.path() / "video.ivf";
        ASSERT_TRUE(std::ofstream(video_file, std::ios::binary) << file << std::flush);
        command.insert(command.end(), {VESPER_MINIMAL_PARENT, std::to_string(port),
                                       std::to_string(example_port_), video_file});
        printed_.reset();
        printed_.emplace(example_.emplace(command));
    }

    void start_player_of_example() {
        start_player({"--parent-port", std::to_string(example_port_)});
    }

    // How many errors the player has printed by then is a matter of time.
    void close_player() {
        window->close();
        EXPECT_EQ(player->wait_for_end(), Ending{});
    }

    void ask_for_keyframe(UDPSocket& instead_of_the_player) const {
        EXPECT_GT(instead_of_the_player.send(kKeyframeRequest.data(), kKeyframeRequest.size(),
                                             "127.0.0.1", example_port_),
                  0);
    }

    void expect_fields() {
        for (const Point point : {Point{40, 40}, Point{360, 200}}) {
            expect_color(point, field_color(point));
        }
    }

    const std::uint16_t example_port_ = tools::free_port();
    std::optional<ChildProcess> example_;
    std::optional<PrintedOnFailure> printed_;
};

TEST_F(MinimalParent, ShowsItsVideo) {
    start_player_of_example();
    run_example(long_video(fields_picture()));
    expect_fields();
    // Of the first frame the decoder makes no picture yet.
    EXPECT_TRUE(eventually([&] {
        return player->out().find("Sent keyframe request to parent (port " +
                                  std::to_string(example_port_)) != std::string::npos;
    }));
    EXPECT_FALSE(example_->ending());
    close_player();
}

TEST_F(MinimalParent, SendsTheKeyframeAgainWhenThePlayerAsks) {
    UDPSocket instead_of_the_player;
    ASSERT_TRUE(instead_of_the_player.bind(port));
    run_example({.frames = kFramesOfALongVideo, .repeats_from = 2});
    const auto gets_frame = [&](bool keyframe) {
        return eventually([&] {
            tools::Datagram datagram(65'536);
            return instead_of_the_player.recv(datagram.data(), datagram.size(), 0) > 0 &&
                   read_video_fragment_header(datagram.data()).fragment_index == 0 &&
                   is_keyframe(datagram[kVideoPayloadOffset]) == keyframe;
        });
    };
    ASSERT_TRUE(gets_frame(false));
    ask_for_keyframe(instead_of_the_player);
    EXPECT_TRUE(gets_frame(true));
}

TEST_F(MinimalParent, ComesToTheEndHoweverOftenThePlayerAsks) {
    UDPSocket instead_of_the_player;
    ASSERT_TRUE(instead_of_the_player.bind(port));
    run_example({});
    EXPECT_TRUE(eventually([&] {
        tools::Datagram datagram(65'536);
        while (instead_of_the_player.recv(datagram.data(), datagram.size(), 0) > 0) {
            ask_for_keyframe(instead_of_the_player);
        }
        return example_->ending() == Ending{};
    }));
}

// Each frame that is not to be shown makes the player ask for a keyframe.
TEST_F(MinimalParent, ComesToTheEndOfAVideoWithFramesThatAreNotToBeShown) {
    start_player_of_example();
    run_example({.hidden_from = 2});
    EXPECT_EQ(example_->wait_for_end(), Ending{});
    EXPECT_EQ(example_->out(), "");
    EXPECT_EQ(example_->err(), "");
    close_player();
}

// As FFmpeg copies it from WebM, where a unit is a millisecond.
TEST_F(MinimalParent, TakesTheTimeOfEachFrameFromTheFile) {
    const auto began = std::chrono::steady_clock::now();
    run_example({.frames = 2 * kFramesPerSecond, .time_units = 1000});
    EXPECT_EQ(example_->wait_for_end(), Ending{});
    EXPECT_GT(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(1800));
}

TEST_F(MinimalParent, LeavesOutFramesWithoutAByteAndWhatIsCutShort) {
    std::string file = ivf({.frames = 2});
    append(file, 0, 4);
    append(file, 2, 8);
    file += "cut";
    run_example_with(file, {VESPER_PYTHON});
    EXPECT_EQ(example_->wait_for_end(), Ending{});
    EXPECT_EQ(example_->err(), "");
}

// The frames' numbers come from a clock that runs from the machine's start on.
TEST_F(MinimalParent, RunsOnAMachineThatHasRunForYears) {
    const std::string years_later =
        "import runpy, sys, time\n"
        "now = time.monotonic\n"
        "time.monotonic = lambda: now() + 5 * 365 * 86400\n"
        "sys.argv = sys.argv[1:]\n"
        "runpy.run_path(sys.argv[0], run_name='__main__')\n";
    run_example_with(ivf({.frames = 2}), {VESPER_PYTHON, "-c", years_later});
    EXPECT_EQ(example_->wait_for_end(), Ending{});
    EXPECT_EQ(example_->err(), "");
}

TEST_F(MinimalParent, IsShownAgainAfterACrash) {
    constexpr Color kGreen{.red = 30, .green = 150, .blue = 30};
    start_player_of_example();
    run_example(long_video(fields_picture()));
    expect_fields();
    example_->send_signal(SIGKILL);
    EXPECT_EQ(example_->wait_for_end(), (Ending{.signal = SIGKILL}));
    run_example(long_video(flat_picture(kGreen)));
    expect_color({.x = 40, .y = 40}, kGreen);
    close_player();
}

}  // namespace vesper::test
