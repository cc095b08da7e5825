// examples/minimal_parent.py with the real player.
#include <gmock/gmock.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <utility>

#include "net/stream_datagrams.h"
#include "net/udp_socket.h"
#include "tests/e2e/player_fixture.h"

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
    bool keyframes_alone = false;
};

// Longer than a test waits for a picture.
Video long_video(tools::Picture picture) {
    return {
        .picture = std::move(picture), .frames = 600 * kFramesPerSecond, .keyframes_alone = true};
}

// VP8's first byte shows whether the frame is to be shown (RFC 6386, section 9.1).
constexpr std::uint8_t kShowFrame = 0x10;

bool is_keyframe(std::uint8_t first_byte) {
    return (first_byte & 1) == 0;
}

// The video as an IVF file. The first frame is a keyframe, and the others are, if so wanted, the
// same again.
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
    const auto keyframe = encoder.encode(video.picture, true);
    for (int frame = 0; frame < video.frames; ++frame) {
        auto encoded =
            frame == 0 || video.keyframes_alone ? keyframe : encoder.encode(video.picture, false);
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
        example_port_ = std::to_string(tools::free_port());
    }

    void run_example(const Video& film) { run_example_with(ivf(film), {VESPER_PYTHON}); }

    // With the content of its video file, and the words of the command that runs Python.
    void run_example_with(const std::string& file, std::vector<std::string> command) {
        const std::string video_file = directory.path() / "video.ivf";
        std::ofstream(video_file, std::ios::binary) << file;
        command.insert(command.end(),
                       {VESPER_MINIMAL_PARENT, std::to_string(port), example_port_, video_file});
        example_.emplace(command);
    }

    void expect_fields() {
        for (const Point point : {Point{40, 40}, Point{360, 200}}) {
            expect_color(point, field_color(point));
        }
    }

    std::string example_port_;
    std::optional<ChildProcess> example_;
};

// On a busy machine the player drops frames whose fragments come too slowly, and the example sends
// each keyframe only once more. So the video has many.
TEST_F(MinimalParent, ShowsItsVideo) {
    start_player({"--parent-port", example_port_});
    run_example(long_video(fields_picture()));
    expect_fields();
    EXPECT_EQ(example_->err(), "");
    player->send_signal(SIGTERM);
    EXPECT_EQ(player->wait_for_end(), (Ending{.signal = SIGTERM}));
}

TEST_F(MinimalParent, SendsTheKeyframeAgainWhenThePlayerAsks) {
    UDPSocket instead_of_the_player;
    ASSERT_TRUE(instead_of_the_player.bind(port));
    run_example({.frames = 60 * kFramesPerSecond});
    const auto gets_frame = [&](bool keyframe) {
        return eventually([&] {
            tools::Datagram datagram(65'536);
            return instead_of_the_player.recv(datagram.data(), datagram.size(), 0) > 0 &&
                   read_video_fragment_header(datagram.data()).fragment_index == 0 &&
                   is_keyframe(datagram[kVideoPayloadOffset]) == keyframe;
        });
    };
    ASSERT_TRUE(gets_frame(false));
    ASSERT_GT(
        instead_of_the_player.send(kKeyframeRequest.data(), kKeyframeRequest.size(), "127.0.0.1",
                                   static_cast<std::uint16_t>(std::stoi(example_port_))),
        0);
    EXPECT_TRUE(gets_frame(true));
}

// Each frame that is not to be shown makes the player ask for a keyframe.
TEST_F(MinimalParent, ComesToTheEndOfAVideoWithFramesThatAreNotToBeShown) {
    start_player({"--parent-port", example_port_});
    run_example({.hidden_from = 2});
    EXPECT_EQ(example_->wait_for_end(), Ending{});
    EXPECT_EQ(example_->out(), "");
    EXPECT_EQ(example_->err(), "");
    player->send_signal(SIGTERM);
    EXPECT_EQ(player->wait_for_end(), (Ending{.signal = SIGTERM}));
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
    start_player({"--parent-port", example_port_});
    run_example(long_video(fields_picture()));
    expect_fields();
    example_->send_signal(SIGKILL);
    EXPECT_EQ(example_->wait_for_end(), (Ending{.signal = SIGKILL}));
    run_example(long_video(flat_picture(kGreen)));
    expect_color({.x = 40, .y = 40}, kGreen);
    player->send_signal(SIGTERM);
    EXPECT_EQ(player->wait_for_end(), (Ending{.signal = SIGTERM}));
}

}  // namespace vesper::test
