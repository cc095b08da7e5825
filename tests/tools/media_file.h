// Media files for tests, made on the spot: VP8 pictures and PCM sound in a Matroska file.
#pragma once

extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/version.h>
}

#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "tests/tools/grey_picture.h"
#include "tools/stream/media_source.h"
#include "tools/stream/vp8_encoder.h"

namespace vesper::test {

struct MediaFile {
    int width = 320;   // pixels, even
    int height = 240;  // pixels, even
    int frames_per_second = 25;
    int frames = 25;                  // 0: no video
    int luma = 180;                   // of every picture, all over
    int sound_frames = 50;            // of 20 ms; 0: no sound
    std::int16_t sound_level = 5000;  // of every sample
    bool cover = false;               // a still picture, as sound files carry it
};

// A PNG file of one grey pixel (PNG specification, second edition: IHDR, IDAT, IEND).
inline constexpr std::array<std::uint8_t, 67> kCover = {
    0x89, 'P',  'N',  'G',  0x0D, 0x0A, 0x1A, 0x0A,                                      //
    0,    0,    0,    13,   'I',  'H',  'D',  'R',                                       //
    0,    0,    0,    1,    0,    0,    0,    1,    8,    0,    0,    0,    0,           //
    0x3A, 0x7E, 0x9B, 0x55,                                                              //
    0,    0,    0,    10,   'I',  'D',  'A',  'T',                                       //
    0x78, 0x9C, 0x63, 0x68, 0x00, 0x00, 0x00, 0x82, 0x00, 0x81, 0x77, 0xCD, 0x72, 0xB6,  //
    0,    0,    0,    0,    'I',  'E',  'N',  'D',  0xAE, 0x42, 0x60, 0x82};

// Writes `file` to `path`; false when any library refuses.
[[nodiscard]] inline bool write_media_file(const std::string& path, const MediaFile& file) {
    AVFormatContext* muxer = nullptr;
    if (avformat_alloc_output_context2(&muxer, nullptr, "matroska", path.c_str()) < 0) {
        return false;
    }
    AVStream* video = file.frames > 0 ? avformat_new_stream(muxer, nullptr) : nullptr;
    if (video != nullptr) {
        video->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
        video->codecpar->codec_id = AV_CODEC_ID_VP8;
        video->codecpar->width = file.width;
        video->codecpar->height = file.height;
        video->time_base = {.num = 1, .den = 1000};
    }
    AVStream* sound = file.sound_frames > 0 ? avformat_new_stream(muxer, nullptr) : nullptr;
    if (sound != nullptr) {
        sound->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
        sound->codecpar->codec_id = AV_CODEC_ID_PCM_S16LE;
        sound->codecpar->sample_rate = tools::kSoundRate;
        sound->codecpar->bits_per_coded_sample = 16;
#if LIBAVUTIL_VERSION_INT >= AV_VERSION_INT(57, 24, 100)
        av_channel_layout_default(&sound->codecpar->ch_layout, tools::kSoundChannels);
#else
        sound->codecpar->channels = tools::kSoundChannels;
        sound->codecpar->channel_layout = AV_CH_LAYOUT_STEREO;
#endif
        sound->time_base = {.num = 1, .den = 1000};
    }
    if (file.cover) {
        AVStream* cover = avformat_new_stream(muxer, nullptr);
        cover->codecpar->codec_type = AVMEDIA_TYPE_ATTACHMENT;
        cover->codecpar->codec_id = AV_CODEC_ID_PNG;
        cover->codecpar->extradata =
            static_cast<std::uint8_t*>(av_mallocz(kCover.size() + AV_INPUT_BUFFER_PADDING_SIZE));
        cover->codecpar->extradata_size = kCover.size();
        std::memcpy(cover->codecpar->extradata, kCover.data(), kCover.size());
        av_dict_set(&cover->metadata, "filename", "cover.png", 0);
        av_dict_set(&cover->metadata, "mimetype", "image/png", 0);
    }
    bool good = avio_open(&muxer->pb, path.c_str(), AVIO_FLAG_WRITE) >= 0 &&
                avformat_write_header(muxer, nullptr) >= 0;

    const auto write = [&](const AVStream* stream, const void* bytes, std::size_t size, int number,
                           int of_a_second, bool key) {
        AVPacket* packet = av_packet_alloc();
        good = good && av_new_packet(packet, static_cast<int>(size)) >= 0;
        if (good) {
            std::memcpy(packet->data, bytes, size);
            packet->stream_index = stream->index;
            packet->pts = packet->dts =
                av_rescale_q(number, {.num = 1, .den = of_a_second}, stream->time_base);
            packet->flags = key ? AV_PKT_FLAG_KEY : 0;
            good = av_interleaved_write_frame(muxer, packet) >= 0;
        }
        av_packet_free(&packet);
    };

    tools::Vp8Encoder encoder;
    const tools::Picture picture = make_grey_picture(file.width, file.height, file.luma);
    good = good && picture &&
           (video == nullptr || encoder.open({.width = file.width,
                                              .height = file.height,
                                              .frames_per_second = file.frames_per_second}));
    for (int i = 0; good && i < file.frames; ++i) {
        const auto encoded = encoder.encode(picture, i == 0);
        write(video, encoded.data(), encoded.size(), i, file.frames_per_second, i == 0);
    }
    tools::SoundFrame samples{};
    samples.fill(file.sound_level);
    for (int i = 0; good && i < file.sound_frames; ++i) {
        write(sound, samples.data(), sizeof samples, i, 1000 / tools::kSoundFrameMilliseconds,
              true);
    }
    good = good && av_write_trailer(muxer) >= 0;
    avio_closep(&muxer->pb);
    avformat_free_context(muxer);
    return good;
}

}  // namespace vesper::test
