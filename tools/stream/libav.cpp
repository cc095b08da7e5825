#include "tools/stream/libav.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/error.h>
}

#include <algorithm>
#include <array>

namespace vesper::tools {

std::string libav_error(int error) {
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(error, text.data(), text.size());
    return text.data();
}

bool is_video(const AVStream& stream) {
    constexpr std::array kDrawnText = {AV_CODEC_ID_ANSI, AV_CODEC_ID_BINTEXT, AV_CODEC_ID_IDF,
                                       AV_CODEC_ID_XBIN};
    return (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) == 0 &&
           std::ranges::find(kDrawnText, stream.codecpar->codec_id) == kDrawnText.end();
}

std::string picture_shape(const MediaSettings& settings) {
    const std::string size = std::to_string(settings.width) + ":" + std::to_string(settings.height);
    return "scale=" + size +
           ":force_original_aspect_ratio=decrease:force_divisible_by=2,pad=" + size +
           ":(ow-iw)/2:(oh-ih)/2,format=yuv420p";
}

std::string sound_shape() {
    return "aresample=" + std::to_string(kSoundRate) +
           ",aformat=sample_fmts=s16:channel_layouts=stereo,asetnsamples=n=" +
           std::to_string(kSoundFrameSamples) + ":p=1";
}

}  // namespace vesper::tools
