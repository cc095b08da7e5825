// From the command line to the exit status.
#include <SDL2/SDL.h>

#include <csignal>
#include <cstdlib>
#include <string>

#include "tests/e2e/player_fixture.h"
#include "tests/support/numbered_addresses.h"
#include "tools/stream/receive_queue.h"

namespace vesper::test {

using LifeCycle = PlayerTest;

TEST_F(LifeCycle, StartUpLinesComeInOrderAndCloseEndsWithStatusZero) {
    start_player();
    expect_clean_end();
}

TEST_F(LifeCycle, StartUpLinesWithSoundNameTheDevice) {
    start_player({"--has-audio"});
    expect_clean_end();
}

TEST_F(LifeCycle, TitleNamesTheStreamer) {
    start_player({"--username", "Ann"});
    EXPECT_TRUE(eventually([this] { return window->title() == "Stream: Ann"; })) << window->title();
}

TEST_F(LifeCycle, WindowHasTheStreamsSizeInTheMiddleOfTheScreen) {
    start_player();
    EXPECT_EQ(window->size(), kPictureSize);
    EXPECT_EQ(window->position(),
              (Point{.x = (VirtualDisplay::kSize.width - kPictureSize.width) / 2,
                     .y = (VirtualDisplay::kSize.height - kPictureSize.height) / 2}));
}

TEST_F(LifeCycle, LinesReachAPipeWhileThePlayerRuns) {
    start_player();
    EXPECT_FALSE(player->ending());
    EXPECT_EQ(player->out(), start_up_text());
    show_first_picture(flat_picture({.red = 0, .green = 0, .blue = 200}));
    EXPECT_TRUE(eventually([this] { return player->out() == start_up_text() + progress_text; }))
        << player->out();
    EXPECT_FALSE(player->ending());
}

// What is opened next would get the number of a closed descriptor: the connection to the X server,
// with the player's lines in it.
TEST_F(LifeCycle, ClosedStandardDescriptorsDisturbNothing) {
    for (const std::string closed : {"<&-", ">&-", "2>&-", "<&- >&- 2>&-"}) {
        player.emplace(std::vector<std::string>{"sh", "-c", "exec \"$@\" " + closed, "sh",
                                                VESPER_PLAYER, "--port", std::to_string(port),
                                                "--width", std::to_string(kPictureSize.width),
                                                "--height", std::to_string(kPictureSize.height)},
                       environment);
        window.emplace(display, player->pid());
        ASSERT_TRUE(eventually([this] { return tools::receive_queue(port).has_value(); }))
            << "does not listen with " << closed;
        constexpr Color kBlue{.red = 0, .green = 0, .blue = 200};
        send(video.show(flat_picture(kBlue)));
        expect_color({.x = 200, .y = 120}, kBlue);
        window->close();
        EXPECT_EQ(player->wait_for_end(), Ending{}) << "with " << closed;
    }
}

TEST_F(LifeCycle, WithoutArgumentsUsageAndStatusOne) {
    run_player({});
    EXPECT_EQ(player->wait_for_end(), (Ending{.status = 1}));
    EXPECT_EQ(player->out(), "");
    EXPECT_EQ(player->err(),
              "Error: --port is required\n"
              "Usage: " VESPER_PLAYER
              " --port <PORT> [--streamer-id <ID>] [--width <W>] [--height <H>] "
              "[--username <NAME>] [--has-audio]\n");
}

TEST_F(LifeCycle, PortInUseEndsWithStatusOneAndAnOrderlyTearDown) {
    UDPSocket occupant;
    ASSERT_TRUE(occupant.bind(port));
    const std::string port_text = std::to_string(port);
    // Both outputs in one pipe, which shows the order between them.
    run_player({"--port", port_text}, ChildProcess::Output::Merged);
    EXPECT_EQ(player->wait_for_end(), (Ending{.status = 1}));
    EXPECT_EQ(with_numbered_addresses(player->out()),
              "[VideoPlayer] Starting on port " + port_text +
                  " for streamer 0 (Unknown, 1280x720, audio=no)\n"
                  "[VideoReceiver] Standalone initialized (1280x720)\n"
                  "[UDPSocket] bind() failed: Address already in use\n"
                  "[VideoPlayer] Failed to bind UDP socket to port " +
                  port_text + "\n" + destructor_text());
}

TEST_F(LifeCycle, NoWindowSystemEndsWithStatusOne) {
    environment["SDL_VIDEODRIVER"] = "nosuch";
    const std::string port_text = std::to_string(port);
    run_player({"--port", port_text});
    EXPECT_EQ(player->wait_for_end(), (Ending{.status = 1}));
    EXPECT_EQ(player->out(), "[VideoPlayer] Starting on port " + port_text +
                                 " for streamer 0 (Unknown, 1280x720, audio=no)\n");
    EXPECT_EQ(player->err(), "[VideoPlayer] SDL_Init failed: nosuch not available\n");
}

// SDL's error, whose wording differs between versions, for a driver whose sound file cannot be
// made.
std::string words_for_no_sound_file(const std::string& file) {
    setenv("SDL_DISKAUDIOFILE", file.c_str(), 1);
    EXPECT_EQ(SDL_AudioInit("disk"), 0) << SDL_GetError();
    SDL_AudioSpec wanted{};
    wanted.freq = 48'000;
    wanted.format = AUDIO_S16SYS;
    wanted.channels = 2;
    wanted.samples = 1024;
    EXPECT_EQ(SDL_OpenAudioDevice(nullptr, 0, &wanted, nullptr, 0), 0U);
    std::string words = SDL_GetError();
    SDL_AudioQuit();
    unsetenv("SDL_DISKAUDIOFILE");
    return words;
}

TEST_F(LifeCycle, NoSoundDeviceStillPlaysThePicture) {
    const std::string file = directory.path() / "nowhere" / "sound.pcm";
    environment["SDL_AUDIODRIVER"] = "disk";
    environment["SDL_DISKAUDIOFILE"] = file;
    has_sound_device = false;
    start_player({"--has-audio"});
    const std::string reason = words_for_no_sound_file(file);
    EXPECT_NE(reason.find(file), std::string::npos) << reason;
    failure_text = "[Audio] Failed to open device: " + reason +
                   "\n"
                   "[VideoReceiver] Failed to open screen audio playback device\n";
    const Color red{.red = 200, .green = 0, .blue = 0};
    show_first_picture(flat_picture(red));
    expect_color({.x = 200, .y = 120}, red);
}

class LifeCycleSignal : public PlayerTest, public testing::WithParamInterface<int> {};

TEST_P(LifeCycleSignal, EndsThePlayerWithoutShutDownLines) {
    start_player();
    show_first_picture(flat_picture({.red = 0, .green = 150, .blue = 0}));
    EXPECT_TRUE(eventually([this] { return player->out() == start_up_text() + progress_text; }));
    player->send_signal(GetParam());
    EXPECT_EQ(player->wait_for_end(), (Ending{.status = 0, .signal = GetParam()}));
    EXPECT_EQ(player->out(), start_up_text() + progress_text);
    EXPECT_EQ(player->err(), failure_text);
}

INSTANTIATE_TEST_SUITE_P(Termination, LifeCycleSignal, testing::Values(SIGTERM, SIGINT),
                         [](const auto& signal) {
                             return signal.param == SIGTERM ? "SIGTERM" : "SIGINT";
                         });

// Without a window system there is no way to close the window; a signal ends the player.
class LifeCycleHeadless : public PlayerTest, public testing::WithParamInterface<const char*> {};

TEST_P(LifeCycleHeadless, TakesTheStream) {
    environment["SDL_VIDEODRIVER"] = GetParam();
    start_player_anywhere();
    show_first_picture(flat_picture({.red = 0, .green = 150, .blue = 0}));
    EXPECT_TRUE(eventually([this] { return player->out() == start_up_text() + progress_text; }));
    player->send_signal(SIGTERM);
    EXPECT_EQ(player->wait_for_end(), (Ending{.status = 0, .signal = SIGTERM}));
    EXPECT_EQ(player->err(), failure_text);
}

INSTANTIATE_TEST_SUITE_P(Drivers, LifeCycleHeadless, testing::Values("dummy", "offscreen"),
                         [](const auto& driver) { return std::string(driver.param); });

TEST_F(LifeCycle, CloseInTheMiddleOfAStreamEndsWithStatusZero) {
    start_player({"--has-audio"});
    const auto picture = flat_picture({.red = 0, .green = 150, .blue = 0});
    show_first_picture(picture);
    ToneSource tone;
    tools::AudioPacketizer sound;
    window->close();
    // The stream goes on into the shut-down, faster than the player takes it: a frame of more than
    // one datagram might lose one of them and be reported.
    while (!player->ending()) {
        for (const auto& datagram : video.show(picture)) {
            parent.send_now(datagram, port);
        }
        parent.send_now(sound.packetize(tone.packets(1).front()), port);
    }
    expect_clean_end();
}

}  // namespace vesper::test
