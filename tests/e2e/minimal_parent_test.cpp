// examples/minimal_parent.py with the real player.
#include <gmock/gmock.h>

#include <fstream>

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

// A video of the fields picture as an IVF file; only the first frame is a keyframe.
std::string ivf_video(int frames) {
    std::string file = "DKIF";
    append(file, 0, 2);  // version
    append(file, kIvfHeaderSize, 2);
    file += "VP80";
    append(file, static_cast<std::uint64_t>(kPictureSize.width), 2);
    append(file, static_cast<std::uint64_t>(kPictureSize.height), 2);
    append(file, kFramesPerSecond, 4);  // time units in a second
    append(file, 1, 4);                 // time units in a frame
    append(file, static_cast<std::uint64_t>(frames), 4);
    append(file, 0, 4);
    tools::Vp8Encoder encoder;
    EXPECT_TRUE(encoder.open({.width = kPictureSize.width,
                              .height = kPictureSize.height,
                              .frames_per_second = kFramesPerSecond,
                              .bitrate = 2'000'000,
                              .keyframe_interval = 10'000}));
    const tools::Picture picture = fields_picture();
    for (int frame = 0; frame < frames; ++frame) {
        const auto encoded = encoder.encode(picture, frame == 0);
        append(file, encoded.size(), 4);
        append(file, static_cast<std::uint64_t>(frame), 8);
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

    void run_example(int frames) {
        const std::string video_file = directory.path() / "video.ivf";
        std::ofstream(video_file, std::ios::binary) << ivf_video(frames);
        example_.emplace(std::vector<std::string>{VESPER_PYTHON, VESPER_MINIMAL_PARENT,
                                                  std::to_string(port), example_port_, video_file});
    }

    void expect_fields() {
        for (const Point point : {Point{40, 40}, Point{360, 200}}) {
            expect_color(point, field_color(point));
        }
    }

    std::string example_port_;
    std::optional<ChildProcess> example_;
};

TEST_F(MinimalParent, ShowsItsVideo) {
    start_player({"--parent-port", example_port_});
    run_example(kFramesPerSecond);
    expect_fields();
    EXPECT_EQ(example_->wait_for_end(), Ending{});
    EXPECT_EQ(example_->out(), "");
    EXPECT_EQ(example_->err(), "");
    progress_text += "[VideoPlayer] Sent keyframe request to parent (port " + example_port_ + ")\n";
    failure_text += "[VideoReceiver] VP8 receive_frame error: -11\n";
}

// The player has nothing to begin with until the example has answered its request.
TEST_F(MinimalParent, SendsTheKeyframeAgainWhenThePlayerAsks) {
    run_example(60 * kFramesPerSecond);
    {
        // After the example's start, which would inherit the socket and keep the port.
        UDPSocket instead_of_the_player;
        ASSERT_TRUE(instead_of_the_player.bind(port));
        ASSERT_TRUE(eventually([&] {
            tools::Datagram datagram(65'536);
            return instead_of_the_player.recv(datagram.data(), datagram.size(), 0) > 0 &&
                   read_video_fragment_header(datagram.data()).frame_id > 1;
        }));
    }
    run_player({"--port", std::to_string(port), "--parent-port", example_port_, "--width",
                std::to_string(kPictureSize.width), "--height",
                std::to_string(kPictureSize.height)});
    window.emplace(display, player->pid());
    expect_fields();
    EXPECT_THAT(player->out(),
                testing::HasSubstr("[VideoPlayer] Sent keyframe request to parent (port " +
                                   example_port_ + ")\n"));
    // How many errors there were by then is a matter of time.
    window->close();
    EXPECT_EQ(player->wait_for_end(), Ending{});
}

}  // namespace vesper::test
