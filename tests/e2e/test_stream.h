// A stream whose pictures are easy to tell apart on the screen and whose sound is easy to measure.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <random>
#include <span>
#include <vector>

#include "audio/opus_codec.h"
#include "tests/e2e/player_window.h"
#include "tools/stream/packetizer.h"
#include "tools/stream/picture.h"
#include "tools/stream/vp8_encoder.h"

namespace vesper::test {

// Whole macroblocks each way, so that no edge of a picture is blurred, and small, so that sanitizer
// builds keep up. The volume slider has its full length of 300 pixels at this width.
inline constexpr Extent kPictureSize{.width = 400, .height = 240};

// A picture in one colour.
[[nodiscard]] tools::Picture flat_picture(Color color, Extent size = kPictureSize);

// Fields, five across and three down, no two of one colour; of 80x80 pixels in a picture of
// kPictureSize.
inline constexpr int kFieldSize = 80;
[[nodiscard]] tools::Picture fields_picture(Extent size = kPictureSize);

// Columns of one pixel, black and white in turn.
[[nodiscard]] tools::Picture striped_picture(Extent size = kPictureSize);

// Random blocks: every frame of such pictures takes several datagrams.
[[nodiscard]] tools::Picture random_picture(std::mt19937_64& random);

// The colour of the field that holds `point` of a picture of kPictureSize.
[[nodiscard]] Color field_color(Point point);

// The stream of most tests: at this bit rate flat areas come out flat.
inline constexpr tools::Vp8Settings kSmallStream{.width = kPictureSize.width,
                                                 .height = kPictureSize.height,
                                                 .frames_per_second = 30,
                                                 .bitrate = 8'000'000};

// Throws std::runtime_error where the encoder fails.
class VideoSource {
  public:
    explicit VideoSource(const tools::Vp8Settings& settings = kSmallStream);

    // The datagrams that make the player show `picture`: a keyframe and a second frame, because the
    // player's decoder works with two threads and delivers each picture only when the next frame
    // arrives.
    [[nodiscard]] std::vector<tools::Datagram> show(const tools::Picture& picture);

    // The datagrams of one frame.
    [[nodiscard]] std::vector<tools::Datagram> frame(const tools::Picture& picture, bool keyframe);

    // The datagrams of a frame that was encoded elsewhere, as the stream's next one.
    [[nodiscard]] std::vector<tools::Datagram> packetize(std::span<const std::uint8_t> frame) {
        return packetizer_.packetize(frame);
    }

  private:
    tools::Vp8Encoder encoder_;
    tools::VideoPacketizer packetizer_;
};

// 20 ms of sound, left and right in turn.
inline constexpr int kBlockFrames = 960;
using SoundBlock = std::array<short, std::size_t{2} * kBlockFrames>;

// A sine of 440 Hz in both channels, encoded packet by packet.
class ToneSource {
  public:
    static constexpr double kFrequency = 440.0;  // Hz
    static constexpr double kAmplitude = 8000.0;

    ToneSource();

    // The next `count` Opus packets of 20 ms each.
    [[nodiscard]] std::vector<std::vector<std::uint8_t>> packets(int count);

  private:
    OpusEncoderWrapper encoder_;
    std::int64_t position_ = 0;  // samples per channel
};

}  // namespace vesper::test
