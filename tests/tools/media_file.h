// Media files for tests, made on the spot: VP8 pictures and PCM sound in a Matroska file.
#pragma once

extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
}

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

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
};

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
        av_channel_layout_default(&sound->codecpar->ch_layout, tools::kSoundChannels);
        sound->time_base = {.num = 1, .den = 1000};
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
    const tools::Picture picture = tools::make_picture(file.width, file.height);
    good = good && picture &&
           (video == nullptr || encoder.open({.width = file.width,
                                              .height = file.height,
                                              .frames_per_second = file.frames_per_second}));
    for (int i = 0; good && i < file.frames; ++i) {
        std::memset(picture->data[0], file.luma,
                    static_cast<std::size_t>(picture->linesize[0] * file.height));
        for (const int plane : {1, 2}) {
            std::memset(picture->data[plane], 128,
                        static_cast<std::size_t>(picture->linesize[plane] * file.height / 2));
        }
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
