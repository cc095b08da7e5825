#include "bench/support/test_stream.h"

#include <cstdio>
#include <cstdlib>

#include "tools/stream/media_source.h"
#include "tools/stream/vp8_encoder.h"

namespace vesper::bench {

std::vector<EncodedFrame> encode_test_stream(StreamSize size, int count) {
    tools::MediaSource source;
    tools::Vp8Encoder encoder;
    if (!source.open_test_picture({.width = size.width, .height = size.height, .sound = false}) ||
        !encoder.open({.width = size.width, .height = size.height})) {
        std::exit(EXIT_FAILURE);
    }
    std::vector<EncodedFrame> frames;
    for (int i = 0; i < count; ++i) {
        const tools::Picture picture = source.next_picture();
        if (!picture) {
            std::fprintf(stderr, "the test picture ended\n");
            std::exit(EXIT_FAILURE);
        }
        frames.push_back(encoder.encode(picture, i == 0));
    }
    return frames;
}

}  // namespace vesper::bench
