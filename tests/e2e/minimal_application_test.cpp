// examples/minimal_application.cpp with a stream.
#include "tests/e2e/player_fixture.h"

namespace vesper::test {

class MinimalApplication : public PlayerTest {
  protected:
    void expect_picture() {
        constexpr Color kRed{.red = 200, .green = 40, .blue = 40};
        player.emplace(std::vector<std::string>{VESPER_MINIMAL_APPLICATION, std::to_string(port),
                                                std::to_string(parent.port())},
                       environment);
        window.emplace(display, player->pid(), "Stream: Ada");
        show_first_picture(flat_picture(kRed));
        expect_color({.x = 320, .y = 180}, kRed);
    }

    void TearDown() override {}
};

TEST_F(MinimalApplication, ShowsItsStreamUntilItsWindowIsClosed) {
    expect_picture();
    window->close();
    EXPECT_EQ(player->wait_for_end(), Ending{});
}

TEST_F(MinimalApplication, EndsDuringAFlood) {
    preload(environment, VESPER_FLOOD);
    expect_picture();
    parent.send_now({0}, port);
    window->close();
    EXPECT_EQ(player->wait_for_end(), Ending{});
}

}  // namespace vesper::test
