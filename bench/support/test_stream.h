// The test picture as a live stream's encoded frames, the same in every run.
#pragma once

#include <cstdint>
#include <vector>

namespace vesper::bench {

using EncodedFrame = std::vector<std::uint8_t>;

struct StreamSize {
    int width;   // pixels, even
    int height;  // pixels, even
};

// `count` frames, the first one a keyframe. Ends the process, with a line, when there is no
// encoder.
[[nodiscard]] std::vector<EncodedFrame> encode_test_stream(StreamSize size, int count);

}  // namespace vesper::bench
