#include "tools/stream/vp8_frame.h"

#include <gtest/gtest.h>

#include <array>

namespace vesper::tools {
namespace {

// Of 322x181: the uppermost two bits of each side ask for scaling and are no part of it.
constexpr std::array<std::uint8_t, 10> kKeyframe = {0x10, 0x02, 0x00, 0x9D, 0x01,
                                                    0x2A, 0x42, 0x41, 0xB5, 0x80};

TEST(KeyframeSize, IsReadFromItsHeader) {
    EXPECT_EQ(keyframe_size(kKeyframe), (PictureSize{.width = 322, .height = 181}));
}

TEST(KeyframeSize, AnotherFrameHasNone) {
    auto frame = kKeyframe;
    frame[0] |= 1;
    EXPECT_FALSE(keyframe_size(frame));
}

TEST(KeyframeSize, WithoutTheStartCodeThereIsNone) {
    for (const std::size_t at : {3U, 4U, 5U}) {
        auto frame = kKeyframe;
        frame[at] ^= 1;
        EXPECT_FALSE(keyframe_size(frame)) << at;
    }
}

TEST(KeyframeSize, IsNotReadBeyondAFrameThatIsTooShort) {
    EXPECT_FALSE(keyframe_size(std::span(kKeyframe).first(9)));
    EXPECT_FALSE(keyframe_size({}));
}

}  // namespace
}  // namespace vesper::tools
