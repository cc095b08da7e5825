#include "bench/window/marked_stream.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/stream/media_source.h"
#include "tools/stream/vp8_encoder.h"
#include "tools/stream/vp8_repeat.h"

namespace vesper::bench {

namespace {

constexpr int kSquareSize = 256;  // pixels, sixteen macroblocks
constexpr int kOpeningFrames = 30;
constexpr int kLoopSeconds = 8;  // a whole number of cycles through the marks

struct Yuv {
    std::uint8_t y;
    std::uint8_t u;
    std::uint8_t v;
};
constexpr std::uint8_t kNeutral = 128;
constexpr std::array<std::uint8_t, kMarks> kMarkLuma = {60, 100, 140, 180};
constexpr Yuv kOpeningColor = {.y = 100, .u = 70, .v = 200};

// For a lossy codec and the conversion to RGB: less than half of the distance between two
// marks, 46.
constexpr int kGreyTolerance = 20;

// At a low bitrate a keyframe can tint the square, and the frames after it leave it so for most of
// a second: by seven steps of chroma, 21 between two components. is_opening() asks for more
// than 80.
constexpr int kTintTolerance = 40;

// A keyframe every two seconds, as vesper-parent sends.
constexpr int kKeyframeInterval = 2;  // seconds

// ITU-R BT.601: luma 16 to 235 are 0 to 255.
int grey_of(std::uint8_t luma) {
    return (luma - 16) * 255 / 219;
}

void fill(AVFrame& picture, int x, int y, int width, int height, const Yuv& color) {
    const auto fill_plane = [&](int plane, int divisor, std::uint8_t value) {
        for (int row = y / divisor; row < (y + height) / divisor; ++row) {
            std::memset(
                picture.data[plane] + std::ptrdiff_t{row} * picture.linesize[plane] + x / divisor,
                value, static_cast<std::size_t>(width / divisor));
        }
    };
    fill_plane(0, 1, color.y);
    fill_plane(1, 2, color.u);
    fill_plane(2, 2, color.v);
}

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "marked stream: %s\n", what);
    std::exit(EXIT_FAILURE);
}

}  // namespace

MarkedStream encode_marked_stream(const MarkedStreamSettings& settings) {
    const tools::Vp8Settings video = {
        .width = kWidth,
        .height = kHeight,
        .frames_per_second = settings.frames_per_second,
        .bitrate = settings.bitrate,
        .keyframe_interval = kKeyframeInterval * settings.frames_per_second};
    tools::MediaSource source;
    // One for the opening alone: a row of plain keyframes teaches libvpx that keyframes are cheap,
    // and the loop's would be several times as large as they should be for many seconds.
    tools::Vp8Encoder opening_encoder;
    tools::Vp8Encoder encoder;
    if (!source.open_test_picture({.width = kWidth, .height = kHeight, .sound = false}) ||
        !opening_encoder.open(video) || !encoder.open(video)) {
        fail("no test picture or no encoder");
    }
    MarkedStream stream;
    const tools::Picture opening = tools::make_picture(kWidth, kHeight);
    if (!opening) {
        fail("no memory");
    }
    fill(*opening, 0, 0, kWidth, kHeight, kOpeningColor);
    for (int i = 0; i < kOpeningFrames; ++i) {
        stream.opening.push_back(
            {.frame = opening_encoder.encode(opening, true), .mark = 0, .is_flip = false});
    }
    const int frames_per_mark = settings.frames_per_second / kMarksPerSecond;
    for (int i = 0; i < kLoopSeconds * settings.frames_per_second; ++i) {
        const tools::Picture picture = source.next_picture();
        if (!picture || av_frame_make_writable(picture.get()) < 0) {
            fail("the test picture ended");
        }
        const int mark = i / frames_per_mark % kMarks;
        fill(*picture, (kWidth - kSquareSize) / 2, (kHeight - kSquareSize) / 2, kSquareSize,
             kSquareSize,
             {.y = kMarkLuma[static_cast<std::size_t>(mark)], .u = kNeutral, .v = kNeutral});
        stream.loop.push_back({.frame = encoder.encode(picture, i == 0),
                               .mark = mark,
                               .is_flip = i % frames_per_mark == 0});
    }
    stream.repeat = tools::make_repeat_frame(kWidth, kHeight);
    return stream;
}

std::optional<int> mark_of(const Rgb& pixel) {
    const auto [darkest, brightest] = std::minmax({pixel.red, pixel.green, pixel.blue});
    if (brightest - darkest > kTintTolerance) {
        return std::nullopt;
    }
    // ITU-R BT.601, as above: a tint leaves it alone.
    const int grey = (299 * pixel.red + 587 * pixel.green + 114 * pixel.blue) / 1000;
    for (int mark = 0; mark < kMarks; ++mark) {
        if (std::abs(grey - grey_of(kMarkLuma[static_cast<std::size_t>(mark)])) <= kGreyTolerance) {
            return mark;
        }
    }
    return std::nullopt;
}

bool is_opening(const Rgb& pixel) {
    constexpr int kFarApart = 80;
    return pixel.red - pixel.blue > kFarApart && pixel.red - pixel.green > kFarApart;
}

}  // namespace vesper::bench
