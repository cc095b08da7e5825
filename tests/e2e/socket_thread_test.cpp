// examples/socket_thread.cpp with a stream.
#include "tests/e2e/played_sound.h"
#include "tests/e2e/player_fixture.h"

namespace vesper::test {

class SocketThread : public PlayerTest {
  protected:
    void TearDown() override {}
};

TEST_F(SocketThread, ShowsAndPlaysItsStreamUntilItsWindowIsClosed) {
    constexpr Color kRed{.red = 200, .green = 40, .blue = 40};
    constexpr std::size_t kPackets = 5;  // fewer than the example lets wait
    const PlayedSound sound(directory.path() / "sound.pcm");
    sound.redirect(environment);
    player.emplace(std::vector<std::string>{VESPER_SOCKET_THREAD, std::to_string(port),
                                            std::to_string(parent.port())},
                   environment);
    window.emplace(display, player->pid(), "Stream: Ada");
    show_first_picture(flat_picture(kRed));
    expect_color({.x = 320, .y = 180}, kRed);
    ToneSource tone;
    tools::AudioPacketizer packetizer;
    for (const auto& packet : tone.packets(kPackets)) {
        send({packetizer.packetize(packet)});
    }
    EXPECT_TRUE(eventually([&] { return sound.heard().size() == kPackets; }));
    window->close();
    EXPECT_EQ(player->wait_for_end(), Ending{});
}

}  // namespace vesper::test
