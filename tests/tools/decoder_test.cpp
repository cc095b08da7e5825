#include "tools/stream/decoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/log.h>
#include <libavutil/version.h>
}

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "tools/stream/libav.h"

namespace vesper::tools {
namespace {

using testing::ElementsAre;

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

    // Silence in blocks of 20 ms, several of which fit a packet.
    [[nodiscard]] static Parameters sound_in_blocks() {
        Parameters parameters = sound_of(AV_CODEC_ID_ADPCM_MS);
        parameters->sample_rate = 48'000;
        parameters->block_align = kBlock;
#if LIBAVUTIL_VERSION_INT >= AV_VERSION_INT(57, 24, 100)
        av_channel_layout_default(&parameters->ch_layout, 1);
#else
        parameters->channels = 1;
#endif
        return parameters;
    }

    // The timestamps of the blocks in a packet.
    [[nodiscard]] std::vector<std::int64_t> times_of(int blocks, std::int64_t timestamp) {
        const Packet packet(av_packet_alloc());
        EXPECT_EQ(av_new_packet(packet.get(), blocks * kBlock), 0);
        std::memset(packet->data, 0, static_cast<std::size_t>(packet->size));
        packet->pts = packet->dts = timestamp;
        std::vector<std::int64_t> times;
        for (const Picture& block : decoder_.decode(*packet)) {
            times.push_back(block->pts);
        }
        return times;
    }

    void expect_nothing_from_the_decoder() {
        const Packet packet(av_packet_alloc());
        ASSERT_EQ(av_new_packet(packet.get(), 10), 0);
        EXPECT_TRUE(decoder_.decode(*packet).empty());
        EXPECT_TRUE(decoder_.finish().empty());
    }

    static constexpr int kBlock = 6 + 960 / 2;  // bytes: a header and 960 samples of 4 bits

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

// libavcodec stamps only the first of them.
TEST_F(DecoderTest, BlocksOfSoundInOnePacketFollowEachOther) {
    ASSERT_TRUE(decoder_.open(*sound_in_blocks(), sound_shape()));
    EXPECT_THAT(times_of(3, 1'000'000), ElementsAre(1'000'000, 1'020'000, 1'040'000));
    EXPECT_THAT(times_of(2, 5'000'000), ElementsAre(5'000'000, 5'020'000));
    EXPECT_THAT(times_of(2, AV_NOPTS_VALUE), ElementsAre(5'040'000, 5'060'000));
}

TEST_F(DecoderTest, SoundThatIsNeverStampedBeginsAtZero) {
    ASSERT_TRUE(decoder_.open(*sound_in_blocks(), sound_shape()));
    EXPECT_THAT(times_of(2, AV_NOPTS_VALUE), ElementsAre(0, 20'000));
    EXPECT_TRUE(decoder_.finish().empty());
    EXPECT_THAT(times_of(2, AV_NOPTS_VALUE), ElementsAre(0, 20'000)) << "the stream restarts";
}

}  // namespace
}  // namespace vesper::tools
