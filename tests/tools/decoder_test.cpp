#include "tools/stream/decoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
}

#include <gtest/gtest.h>

#include <memory>

namespace vesper::tools {
namespace {

struct Delete {
    void operator()(AVCodecParameters* parameters) const { avcodec_parameters_free(&parameters); }
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
using Parameters = std::unique_ptr<AVCodecParameters, Delete>;
using Packet = std::unique_ptr<AVPacket, Delete>;

class DecoderTest : public testing::Test {
  protected:
    DecoderTest() { av_log_set_level(AV_LOG_QUIET); }

    [[nodiscard]] static Parameters sound_of(AVCodecID codec) {
        Parameters parameters(avcodec_parameters_alloc());
        parameters->codec_type = AVMEDIA_TYPE_AUDIO;
        parameters->codec_id = codec;
        return parameters;
    }

    void expect_nothing_from_the_decoder() {
        const Packet packet(av_packet_alloc());
        ASSERT_EQ(av_new_packet(packet.get(), 10), 0);
        EXPECT_TRUE(decoder_.decode(*packet).empty());
        EXPECT_TRUE(decoder_.finish().empty());
    }

    Decoder decoder_;
};

TEST_F(DecoderTest, OneThatWasNeverOpenReturnsNothing) {
    expect_nothing_from_the_decoder();
}

TEST_F(DecoderTest, OneForAnUnknownCodecReturnsNothing) {
    EXPECT_FALSE(decoder_.open(*sound_of(AV_CODEC_ID_NONE), "anull"));
    expect_nothing_from_the_decoder();
}

// Vorbis cannot be decoded without the headers that its file carries beside the packets.
TEST_F(DecoderTest, OneThatLibavcodecDoesNotOpenReturnsNothing) {
    EXPECT_FALSE(decoder_.open(*sound_of(AV_CODEC_ID_VORBIS), "anull"));
    expect_nothing_from_the_decoder();
}

}  // namespace
}  // namespace vesper::tools
