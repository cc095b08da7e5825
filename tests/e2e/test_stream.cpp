#include "tests/e2e/test_stream.h"

#include <cmath>
#include <numbers>
#include <stdexcept>

namespace vesper::test {

namespace {

constexpr int kSampleRate = 48000;  // Hz
constexpr int kChannels = 2;
constexpr int kMaxPacket = 1275;  // bytes, the longest Opus frame (RFC 6716, section 3.4)

std::uint8_t to_byte(double value) {
    return static_cast<std::uint8_t>(std::lround(value));
}

// ITU-R BT.601, studio range: what a decoder assumes of a VP8 stream.
std::uint8_t luma(Color c) {
    return to_byte(16 + 0.257 * c.red + 0.504 * c.green + 0.098 * c.blue);
}
std::uint8_t chroma_blue(Color c) {
    return to_byte(128 - 0.148 * c.red - 0.291 * c.green + 0.439 * c.blue);
}
std::uint8_t chroma_red(Color c) {
    return to_byte(128 + 0.439 * c.red - 0.368 * c.green - 0.071 * c.blue);
}

using Paint = std::function<Color(Point)>;

// One plane, each value taken from the colour at its first pixel; `step` pixels to a value, and
// what is left over at the right and the bottom has a value of its own.
void paint_plane(AVFrame& frame, int plane, int step, const Paint& paint,
                 std::uint8_t (*component)(Color)) {
    for (int y = 0; y < (frame.height + step - 1) / step; ++y) {
        std::uint8_t* row = frame.data[plane] + std::ptrdiff_t{y} * frame.linesize[plane];
        for (int x = 0; x < (frame.width + step - 1) / step; ++x) {
            row[x] = component(paint({.x = x * step, .y = y * step}));
        }
    }
}

tools::Picture painted(const Paint& paint, Extent size) {
    tools::Picture picture = tools::make_picture(size.width, size.height);
    if (!picture) {
        throw std::runtime_error("no memory for a picture");
    }
    paint_plane(*picture, 0, 1, paint, luma);
    paint_plane(*picture, 1, 2, paint, chroma_blue);
    paint_plane(*picture, 2, 2, paint, chroma_red);
    return picture;
}

}  // namespace

tools::Picture flat_picture(Color color, Extent size) {
    return painted([color](Point) { return color; }, size);
}

Color field_color(Point point) {
    const int column = point.x / kFieldSize;
    const int row = point.y / kFieldSize;
    return {.red = 40 + 45 * column,
            .green = 40 + 90 * row,
            .blue = (column + row) % 2 == 0 ? 60 : 200};
}

tools::Picture fields_picture(Extent size) {
    return painted(
        [size](Point p) {
            return field_color({.x = p.x * kPictureSize.width / size.width,
                                .y = p.y * kPictureSize.height / size.height});
        },
        size);
}

tools::Picture striped_picture(Extent size) {
    return painted(
        [](Point p) {
            const int grey = p.x % 2 == 0 ? 0 : 255;
            return Color{.red = grey, .green = grey, .blue = grey};
        },
        size);
}

tools::Picture random_picture(std::mt19937_64& random) {
    constexpr int kBlock = 8;  // pixels: a frame of these takes about eight datagrams
    constexpr int kColumns = kPictureSize.width / kBlock;
    constexpr int kRows = kPictureSize.height / kBlock;
    std::array<Color, std::size_t{kColumns} * kRows> colors;
    for (Color& color : colors) {
        const auto bits = random();
        color = {.red = static_cast<int>(bits & 0xFF),
                 .green = static_cast<int>(bits >> 8 & 0xFF),
                 .blue = static_cast<int>(bits >> 16 & 0xFF)};
    }
    return painted(
        [&](Point p) {
            return colors[static_cast<std::size_t>(p.y / kBlock * kColumns + p.x / kBlock)];
        },
        kPictureSize);
}

VideoSource::VideoSource(const tools::Vp8Settings& settings) {
    if (!encoder_.open(settings)) {
        throw std::runtime_error("no VP8 encoder");
    }
}

std::vector<tools::Datagram> VideoSource::show(const tools::Picture& picture) {
    std::vector<tools::Datagram> datagrams = frame(picture, true);
    const std::vector<tools::Datagram> second = frame(picture, false);
    datagrams.insert(datagrams.end(), second.begin(), second.end());
    return datagrams;
}

std::vector<tools::Datagram> VideoSource::frame(const tools::Picture& picture, bool keyframe) {
    const std::vector<std::uint8_t> encoded = encoder_.encode(picture, keyframe);
    if (encoded.empty()) {
        throw std::runtime_error("the VP8 encoder failed");
    }
    return packetizer_.packetize(encoded);
}

ToneSource::ToneSource() {
    if (!encoder_.init(kSampleRate, kChannels, OPUS_APPLICATION_AUDIO)) {
        throw std::runtime_error("no Opus encoder");
    }
}

std::vector<std::vector<std::uint8_t>> ToneSource::packets(int count) {
    std::vector<std::vector<std::uint8_t>> packets;
    for (int i = 0; i < count; ++i) {
        SoundBlock block{};
        for (std::size_t frame = 0; frame < kBlockFrames; ++frame, ++position_) {
            const double phase =
                2.0 * std::numbers::pi * kFrequency * static_cast<double>(position_) / kSampleRate;
            const auto sample = static_cast<short>(std::lround(kAmplitude * std::sin(phase)));
            block[2 * frame] = sample;
            block[2 * frame + 1] = sample;
        }
        std::vector<std::uint8_t> packet(kMaxPacket);
        const int length = encoder_.encode(block.data(), kBlockFrames, packet.data(), kMaxPacket);
        if (length <= 0) {
            throw std::runtime_error("the Opus encoder failed");
        }
        packet.resize(static_cast<std::size_t>(length));
        packets.push_back(std::move(packet));
    }
    return packets;
}

}  // namespace vesper::test
