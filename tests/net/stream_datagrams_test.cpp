#include "net/stream_datagrams.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;

TEST(AudioStateMessage, MutedAtHalfVolumeIsNineBytes) {
    EXPECT_THAT(vesper::make_audio_state({.muted = true, .volume = 0.5F}),
                ElementsAre(0x41, 0x55, 0x44, 0x53, 0x01, 0x00, 0x00, 0x00, 0x3F));
}

}  // namespace
