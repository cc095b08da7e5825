// The test picture with a grey square in its middle that changes its grey several times a second,
// encoded: the middle of a window identifies the picture that it shows.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace vesper::bench {

using EncodedFrame = std::vector<std::uint8_t>;

inline constexpr int kWidth = 1280;  // pixels
inline constexpr int kHeight = 720;  // pixels
inline constexpr int kMarksPerSecond = 5;

// Four greys in turn: a picture may be up to 800 ms late and can still be told apart from its
// successors.
inline constexpr int kMarks = 4;

struct StreamPicture {
    EncodedFrame frame;
    int mark;      // grey of the square, 0 to kMarks - 1
    bool is_flip;  // the first picture with this grey
};

struct MarkedStream {
    // One colour, no grey, every frame a keyframe: for a player that is starting.
    std::vector<StreamPicture> opening;
    // Eight seconds that can be repeated indefinitely; the first frame is a keyframe.
    std::vector<StreamPicture> loop;
    // Repeats the previous frame, and may follow any: with low delay it pushes the picture out of a
    // decoder that delays each one until the next frame.
    EncodedFrame repeat;
};

struct MarkedStreamSettings {
    int frames_per_second = 30;  // a multiple of the marks a second
    int bitrate = 600'000;       // bit/s
};

// Ends the process, with a line, when there is no encoder.
[[nodiscard]] MarkedStream encode_marked_stream(const MarkedStreamSettings& settings);

struct Rgb {
    int red;
    int green;
    int blue;
};

// What a pixel in the middle of the window shows: a mark, the opening's colour, or neither.
[[nodiscard]] std::optional<int> mark_of(const Rgb& pixel);
[[nodiscard]] bool is_opening(const Rgb& pixel);

}  // namespace vesper::bench
