// From datagrams to pixels.
#include <gmock/gmock.h>

#include <algorithm>
#include <random>

#include "net/stream_datagrams.h"
#include "tests/e2e/player_fixture.h"
#include "tests/support/fragment_builder.h"

namespace vesper::test {

using Picture = PlayerTest;

constexpr Color kRed{.red = 200, .green = 30, .blue = 30};
constexpr Color kGreen{.red = 30, .green = 180, .blue = 30};

TEST_F(Picture, FillsTheWindowAndFollowsTheStream) {
    start_player();
    show_first_picture(flat_picture(kRed));
    for (const Point corner : {Point{0, 0}, Point{399, 0}, Point{0, 239}, Point{399, 239}}) {
        expect_color(corner, kRed);
    }
    show_picture(flat_picture(kGreen));
    expect_color({.x = 200, .y = 120}, kGreen);
}

TEST_F(Picture, EveryFieldIsWhereTheStreamHasIt) {
    start_player();
    show_first_picture(fields_picture());
    for (int y = kFieldSize / 2; y < kPictureSize.height; y += kFieldSize) {
        for (int x = kFieldSize / 2; x < kPictureSize.width; x += kFieldSize) {
            expect_color({.x = x, .y = y}, field_color({.x = x, .y = y}));
        }
    }
}

// The two corners' fields.
class PictureWithRenderer : public Picture {
  protected:
    void expect_picture() {
        start_player();
        show_first_picture(fields_picture());
        expect_color({.x = 40, .y = 40}, field_color({.x = 40, .y = 40}));
        expect_color({.x = 360, .y = 200}, field_color({.x = 360, .y = 200}));
    }
};

TEST_F(PictureWithRenderer, AppearsWithTheOneThatThePlayerAndSdlChoose) {
    environment.erase("SDL_RENDER_DRIVER");
    environment.erase("SDL_FRAMEBUFFER_ACCELERATION");
    expect_picture();
}

// What SDL chooses by itself: OpenGL where there is any. An empty name is no renderer's, and still
// keeps the player from choosing.
TEST_F(PictureWithRenderer, AppearsWithTheOneThatSdlChoosesAlone) {
    environment["SDL_RENDER_DRIVER"] = "";
    environment["SDL_FRAMEBUFFER_ACCELERATION"] = "";
    expect_picture();
}

TEST_F(Picture, ResizedWindowIsFilledWithoutLetterbox) {
    start_player();
    show_first_picture(fields_picture());
    const Extent square{.width = 480, .height = 480};
    window->resize(square);
    // The corner fields, at the very corners of the window.
    expect_color({.x = 1, .y = 1}, field_color({.x = 0, .y = 0}));
    expect_color({.x = 478, .y = 1}, field_color({.x = 399, .y = 0}));
    expect_color({.x = 1, .y = 478}, field_color({.x = 0, .y = 239}));
    expect_color({.x = 478, .y = 478}, field_color({.x = 399, .y = 239}));
    expect_color({.x = 240, .y = 240}, field_color({.x = 200, .y = 120}));
    EXPECT_EQ(window->size(), square);
}

// Three quarters of the picture's width: nearest neighbour leaves columns out and keeps the others
// black and white, linear scaling mixes each with the next.
class ScaledPicture : public PlayerTest, public testing::WithParamInterface<const char*> {
  protected:
    void SetUp() override { environment["SDL_RENDER_DRIVER"] = GetParam(); }

    // Grey pixels in a row of the striped picture, once the window shows that.
    int grey_pixels() {
        start_player();
        const Extent narrow{.width = kPictureSize.width * 3 / 4, .height = kPictureSize.height};
        window->resize(narrow);
        show_first_picture(striped_picture());
        constexpr int kRow = 100;
        int white = 0;
        int grey = 0;
        EXPECT_TRUE(eventually([&] {
            const Screenshot shown = window->screenshot();
            white = grey = 0;
            for (int x = 0; x < narrow.width; ++x) {
                const int value = shown.at({.x = x, .y = kRow}).green;
                white += value > 190 ? 1 : 0;
                grey += value > 60 && value <= 190 ? 1 : 0;
            }
            return shown.size == narrow && white + grey > narrow.width / 3;
        })) << white
            << " white and " << grey << " grey pixels";
        return grey;
    }
};

TEST_P(ScaledPicture, IsSmooth) {
    EXPECT_GT(grey_pixels(), kPictureSize.width / 6);
}

TEST_P(ScaledPicture, IsAsTheEnvironmentHasItWhereThatNamesAFilter) {
    environment["SDL_RENDER_SCALE_QUALITY"] = "nearest";
    EXPECT_LT(grey_pixels(), kPictureSize.width / 30);
}

INSTANTIATE_TEST_SUITE_P(, ScaledPicture, testing::Values("software", "opengl"),
                         [](const auto& renderer) { return std::string(renderer.param); });

TEST_P(ScaledPicture, AtItsOwnSizeIsTheSameWithEveryFilter) {
    std::vector<Screenshot> shown;
    for (const char* filter : {"linear", "nearest"}) {
        environment["SDL_RENDER_SCALE_QUALITY"] = filter;
        start_player();
        show_first_picture(fields_picture());
        expect_color({.x = 399, .y = 239}, field_color({.x = 399, .y = 239}));
        shown.push_back(window->screenshot());
        expect_clean_end();
        progress_text.clear();
        failure_text.clear();
    }
    EXPECT_TRUE(shown[0].pixels == shown[1].pixels);
}

TEST_F(Picture, FirstFrameMakesOneKeyframeRequest) {
    start_player();
    show_first_picture(flat_picture(kRed));
    show_picture(flat_picture(kGreen));
    expect_color({.x = 200, .y = 120}, kGreen);
    expect_clean_end();
    EXPECT_TRUE(parent.has_no_message());
}

TEST_F(Picture, WithoutAParentPortNothingIsSent) {
    keep_bar();
    start_player({"--parent-port", "0", "--has-audio"});
    show_picture(flat_picture(kRed));
    failure_text = "[VideoReceiver] VP8 receive_frame error: -11\n";
    expect_color({.x = 200, .y = 120}, kRed);
    window->press_key("m");
    EXPECT_TRUE(eventually([this] { return bar_is_visible_over(kRed); }));
    expect_clean_end();
    EXPECT_TRUE(parent.has_no_message());
}

TEST_F(Picture, FrameThatStaysIncompleteIsReportedAndAKeyframeRequested) {
    start_player();
    show_first_picture(flat_picture(kRed));
    const std::vector<tools::Datagram> frame = video.frame(flat_picture(kRed), true);
    ASSERT_EQ(frame.size(), 1U);
    send(frame);
    const auto began = std::chrono::steady_clock::now();
    send({FragmentBuilder().frame(4).index(0).of(2).build()});
    // Frames are looked through whenever a fragment is stored. Copies of the last frame are, and
    // leave nothing behind that could become overdue itself.
    EXPECT_TRUE(eventually([&] {
        send(frame);
        return player->err() != failure_text;
    }));
    EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(250));
    expect_keyframe_request();
    failure_text +=
        "[VideoReceiver] Dropped frame 4: 1/2 fragments received (50.0% loss)\n"
        "[VideoReceiver] Requesting keyframe due to dropped frames\n";
}

// One datagram of every kind that must be dropped; all bytes without a meaning are random.
std::vector<tools::Datagram> malformed_datagrams(std::mt19937& random) {
    const auto junk = [&random](std::size_t size, std::uint8_t flags) {
        tools::Datagram datagram(size);
        std::ranges::generate(datagram, [&] { return static_cast<std::uint8_t>(random()); });
        if (size > 26) {
            datagram[26] = flags;
        }
        return datagram;
    };
    const auto fragment = [&](VideoFragmentHeader header, std::size_t size) {
        tools::Datagram datagram = junk(size, 0);
        write_video_fragment_header(header, datagram.data());
        return datagram;
    };
    const auto sound = [&](int declared, std::size_t size) {
        tools::Datagram datagram = junk(size, 0);
        write_packet_header({.sequence = 1000,
                             .payload_size = static_cast<std::uint16_t>(declared),
                             .flags = kScreenAudioFlag},
                            datagram.data());
        return datagram;
    };
    return {
        {},
        junk(1, 0),
        junk(27, 0),
        junk(27, kScreenAudioFlag),
        junk(28, 0),
        junk(39, 0),
        junk(40, 0),
        fragment({.frame_id = 9, .fragment_count = 1, .payload_size = 0}, 100),
        fragment({.frame_id = 9, .fragment_count = 1, .payload_size = 61}, 100),
        fragment({.frame_id = 9, .fragment_count = 1, .payload_size = 1401}, 2000),
        fragment({.frame_id = 9, .fragment_count = 0, .payload_size = 60}, 100),
        fragment({.frame_id = 9, .fragment_count = 1001, .payload_size = 60}, 100),
        sound(1, 28),
        sound(0, 100),
        sound(73, 100),
        junk(28, kScreenAudioFlag),
        fragment({.frame_id = 9, .fragment_count = 1, .payload_size = 0}, 65000),
    };
}

TEST_F(Picture, MalformedDatagramsChangeNothing) {
    constexpr int kRounds = 10;
    std::mt19937 random(20);
    start_player({"--has-audio"});
    for (int round = 0; round < kRounds; ++round) {
        send(malformed_datagrams(random));
    }
    show_first_picture(flat_picture(kRed));
    expect_color({.x = 200, .y = 120}, kRed);
    for (int round = 0; round < kRounds; ++round) {
        send(malformed_datagrams(random));
    }
    show_picture(flat_picture(kGreen));
    expect_color({.x = 200, .y = 120}, kGreen);
}

}  // namespace vesper::test
