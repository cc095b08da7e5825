#include "tools/stream/media_source.h"

extern "C" {
#include <libavutil/log.h>
}

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numeric>

#include "tests/support/captured_output.h"
#include "tests/support/temporary_folder.h"
#include "tests/tools/media_file.h"

namespace vesper::tools {
namespace {

using test::MediaFile;
using test::Printed;
using test::printed_by;
using test::write_media_file;

class MediaSourceTest : public testing::Test {
  protected:
    MediaSourceTest() { av_log_set_level(AV_LOG_QUIET); }

    test::TemporaryFolder folder_;
    MediaSource source_;
};

using TestPicture = MediaSourceTest;
using FileSource = MediaSourceTest;
using ScreenSource = MediaSourceTest;

// The luma of the whole picture, row by row.
std::vector<std::uint8_t> luma(const Picture& picture) {
    std::vector<std::uint8_t> bytes;
    for (int y = 0; y < picture->height; ++y) {
        const std::uint8_t* row = picture->data[0] + y * picture->linesize[0];
        bytes.insert(bytes.end(), row, row + picture->width);
    }
    return bytes;
}

int luma_at(const Picture& picture, int x, int y) {
    return picture->data[0][y * picture->linesize[0] + x];
}

// Upward zero crossings of the left channel in one second.
int frequency(MediaSource& source) {
    int crossings = 0;
    int before = 0;
    for (int i = 0; i < 1000 / kSoundFrameMilliseconds; ++i) {
        SoundFrame sound{};
        EXPECT_TRUE(source.next_sound(sound));
        for (std::size_t sample = 0; sample < sound.size(); sample += kSoundChannels) {
            crossings += before < 0 && sound[sample] >= 0 ? 1 : 0;
            before = sound[sample];
        }
    }
    return crossings;
}

int pictures_until_the_end(MediaSource& source, int limit) {
    int count = 0;
    while (count < limit && source.next_picture()) {
        ++count;
    }
    return count;
}

TEST_F(TestPicture, HasTheSizeAskedFor) {
    ASSERT_TRUE(source_.open_test_picture({.width = 642, .height = 358}));
    const Picture picture = source_.next_picture();
    ASSERT_TRUE(picture);
    EXPECT_EQ(picture->width, 642);
    EXPECT_EQ(picture->height, 358);
    EXPECT_EQ(picture->format, AV_PIX_FMT_YUV420P);
}

TEST_F(TestPicture, ComesInSizesTooSmallForTheLargeClock) {
    ASSERT_TRUE(source_.open_test_picture({.width = 64, .height = 48}));
    EXPECT_TRUE(source_.next_picture());
}

TEST_F(TestPicture, IsTheSameEveryTime) {
    MediaSource other;
    ASSERT_TRUE(source_.open_test_picture({.width = 320, .height = 180}));
    ASSERT_TRUE(other.open_test_picture({.width = 320, .height = 180}));
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(luma(source_.next_picture()), luma(other.next_picture()));
    }
}

// The clock's lower line, which shows the counter, is in the top left corner.
TEST_F(TestPicture, TheLargeCounterChangesWithEveryPicture) {
    ASSERT_TRUE(source_.open_test_picture({.width = 1280, .height = 720}));
    const auto counter = [this] {
        const Picture picture = source_.next_picture();
        std::vector<int> pixels;
        for (int y = 90; y < 180; ++y) {
            for (int x = 0; x < 500; ++x) {
                pixels.push_back(luma_at(picture, x, y));
            }
        }
        return pixels;
    };
    auto before = counter();
    for (int i = 0; i < 20; ++i) {
        auto now = counter();
        EXPECT_NE(now, before);
        before = std::move(now);
    }
}

TEST_F(TestPicture, TheToneIs440HertzUnderABeep) {
    ASSERT_TRUE(source_.open_test_picture({.width = 64, .height = 48}));
    ASSERT_TRUE(source_.has_sound());
    // 40 ms of each second beep at four times the pitch, on top of the tone.
    EXPECT_NEAR(frequency(source_), 440 + 0.04 * (4 - 1) * 440, 10);
}

TEST_F(TestPicture, BothChannelsAreAlike) {
    ASSERT_TRUE(source_.open_test_picture({.width = 64, .height = 48}));
    SoundFrame sound{};
    ASSERT_TRUE(source_.next_sound(sound));
    for (std::size_t i = 0; i < sound.size(); i += 2) {
        ASSERT_EQ(sound[i], sound[i + 1]);
    }
}

TEST_F(TestPicture, IsSilentWhereNoSoundIsWanted) {
    ASSERT_TRUE(source_.open_test_picture({.width = 64, .height = 48, .sound = false}));
    SoundFrame sound{};
    EXPECT_FALSE(source_.has_sound());
    EXPECT_FALSE(source_.next_sound(sound));
}

TEST_F(FileSource, PicturesAreScaledWithBlackBarsWhereTheShapeDiffers) {
    const std::string path = folder_.file("4 by 3.mkv");
    ASSERT_TRUE(write_media_file(path, {.width = 320, .height = 240}));
    ASSERT_TRUE(source_.open_file({.width = 640, .height = 240}, path, false));
    const Picture picture = source_.next_picture();
    ASSERT_TRUE(picture);
    EXPECT_EQ(picture->width, 640);
    EXPECT_EQ(picture->height, 240);
    EXPECT_EQ(luma_at(picture, 0, 120), 16);
    EXPECT_EQ(luma_at(picture, 639, 120), 16);
    EXPECT_NEAR(luma_at(picture, 320, 120), MediaFile().luma, 4);
}

TEST_F(FileSource, PicturesComeAtTheRateAskedFor) {
    const std::string path = folder_.file("second.mkv");
    ASSERT_TRUE(write_media_file(path, {.frames_per_second = 25, .frames = 50}));
    ASSERT_TRUE(source_.open_file(
        {.width = 320, .height = 240, .frames_per_second = 50, .sound = false}, path, false));
    EXPECT_EQ(pictures_until_the_end(source_, 1000), 100);
}

TEST_F(FileSource, ALoopBeginsAgainWithPicturesAndSound) {
    const std::string path = folder_.file("loop.mkv");
    ASSERT_TRUE(write_media_file(path, {.frames = 5, .sound_frames = 10}));
    ASSERT_TRUE(
        source_.open_file({.width = 320, .height = 240, .frames_per_second = 25}, path, true));
    EXPECT_EQ(pictures_until_the_end(source_, 23), 23);
    SoundFrame sound{};
    ASSERT_TRUE(source_.next_sound(sound));
    EXPECT_EQ(sound.at(0), MediaFile().sound_level);
}

TEST_F(FileSource, ALoopThatCannotRestartEndsWithALineForGood) {
    const std::string path = folder_.file("loop.mkv");
    const std::string removed = folder_.file("removed.mkv");
    ASSERT_TRUE(write_media_file(path, {.frames = 5, .sound_frames = 10}));
    ASSERT_TRUE(
        source_.open_file({.width = 320, .height = 240, .frames_per_second = 25}, path, true));
    std::filesystem::rename(path, removed);
    EXPECT_EQ(
        printed_by([&] { EXPECT_EQ(pictures_until_the_end(source_, 1000), 5); }),
        (Printed{.out = "",
                 .err = "cannot read " + path + " any further: No such file or directory\n"}));
    std::filesystem::rename(removed, path);
    EXPECT_EQ(printed_by([&] { EXPECT_FALSE(source_.next_picture()); }), test::kNothing);
    // It is silent from then on, as after any end.
    SoundFrame sound{1};
    EXPECT_TRUE(source_.next_sound(sound));
    EXPECT_EQ(sound.at(0), 0);
}

TEST_F(FileSource, SoundIsTheFilesOwnThenSilence) {
    const std::string path = folder_.file("sound.mkv");
    ASSERT_TRUE(write_media_file(path, {.frames = 25, .sound_frames = 2}));
    ASSERT_TRUE(source_.open_file({.width = 320, .height = 240}, path, false));
    ASSERT_TRUE(source_.has_sound());
    SoundFrame sound{};
    SoundFrame level{};
    level.fill(MediaFile().sound_level);
    EXPECT_TRUE(source_.next_sound(sound));
    EXPECT_EQ(sound, level);
    EXPECT_TRUE(source_.next_sound(sound));
    EXPECT_EQ(sound, level);
    EXPECT_TRUE(source_.next_sound(sound));
    EXPECT_EQ(sound, SoundFrame{});
}

TEST_F(FileSource, AFileWithoutSoundHasNone) {
    const std::string path = folder_.file("silent.mkv");
    ASSERT_TRUE(write_media_file(path, {.sound_frames = 0}));
    ASSERT_TRUE(source_.open_file({.width = 320, .height = 240}, path, false));
    EXPECT_FALSE(source_.has_sound());
}

// Left to themselves, decoder and filters start one for each processor.
TEST_F(FileSource, NeitherDecodingNorFilteringStartsAThread) {
    const auto threads = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
    };
    const std::string path = folder_.file("threads.mkv");
    ASSERT_TRUE(write_media_file(path, {}));
    const auto before = threads();
    ASSERT_TRUE(source_.open_file({.width = 640, .height = 240}, path, false));
    ASSERT_TRUE(source_.next_picture());
    EXPECT_EQ(threads(), before);
}

TEST_F(FileSource, AnyNameWillDo) {
    const std::string path = folder_.file("it's [a], b; c: \\d% =e.mkv");
    ASSERT_TRUE(write_media_file(path, {.frames = 3}));
    ASSERT_TRUE(source_.open_file({.width = 320, .height = 240}, path, false));
    EXPECT_TRUE(source_.next_picture());
}

// libavformat takes what comes before a colon for the name of a protocol.
TEST_F(FileSource, ANameWithAColonIsAFilesToo) {
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(folder_.path());
    EXPECT_TRUE(write_media_file("file:12:30.mkv", {.frames = 3}));
    EXPECT_TRUE(source_.open_file({.width = 320, .height = 240}, "12:30.mkv", false));
    EXPECT_TRUE(source_.next_picture());
    std::filesystem::current_path(before);
}

TEST_F(FileSource, AMissingFileIsNamed) {
    const std::string path = folder_.file("missing.mkv");
    EXPECT_EQ(printed_by([&] { EXPECT_FALSE(source_.open_file({}, path, false)); }),
              (Printed{.out = "", .err = "cannot read " + path + ": No such file or directory\n"}));
}

TEST_F(FileSource, AFileThatIsNoMediaIsNamed) {
    const std::string path = folder_.file("noise.bin");
    std::ofstream(path) << "no media at all";
    EXPECT_EQ(
        printed_by([&] { EXPECT_FALSE(source_.open_file({}, path, false)); }),
        (Printed{.out = "",
                 .err = "cannot read " + path + ": Invalid data found when processing input\n"}));
}

TEST_F(FileSource, AFileWithoutVideoIsNamed) {
    const std::string path = folder_.file("sound only.mkv");
    ASSERT_TRUE(write_media_file(path, {.frames = 0}));
    EXPECT_EQ(printed_by([&] { EXPECT_FALSE(source_.open_file({}, path, false)); }),
              (Printed{.out = "", .err = path + " has no video\n"}));
}

TEST_F(FileSource, ACoverPictureIsNoVideo) {
    const std::string path = folder_.file("song.mka");
    ASSERT_TRUE(write_media_file(path, {.frames = 0, .cover = true}));
    EXPECT_EQ(printed_by([&] { EXPECT_FALSE(source_.open_file({}, path, false)); }),
              (Printed{.out = "", .err = path + " has no video\n"}));
}

// Long enough for libavformat to be sure that it is text to draw.
TEST_F(FileSource, ATextIsNoVideo) {
    const std::string path = folder_.file("notes.txt");
    std::ofstream(path) << std::string(1000, 'a');
    EXPECT_EQ(printed_by([&] { EXPECT_FALSE(source_.open_file({}, path, false)); }),
              (Printed{.out = "", .err = path + " has no video\n"}));
}

TEST_F(ScreenSource, AMissingDisplayIsNamed) {
    EXPECT_EQ(
        printed_by([&] { EXPECT_FALSE(source_.open_screen({}, ":4711")); }),
        (Printed{.out = "", .err = "cannot grab the display \":4711\": Input/output error\n"}));
}

}  // namespace
}  // namespace vesper::tools
