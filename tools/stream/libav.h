// Small things about FFmpeg's libraries that more than one file here needs.
#pragma once

#include <string>

#include "tools/stream/media_source.h"

struct AVStream;

namespace vesper::tools {

// What an error code of these libraries means.
[[nodiscard]] std::string libav_error(int error);

// Whether the stream is video that is meant to be watched. libavformat also counts as video the
// cover picture of a sound file, and a text file, which it draws as a terminal would.
[[nodiscard]] bool is_video(const AVStream& stream);

// Parts of a filter graph's description that bring any picture, whole and undistorted, to the
// settings' size, and any sound into SoundFrames.
[[nodiscard]] std::string picture_shape(const MediaSettings& settings);
[[nodiscard]] std::string sound_shape();

}  // namespace vesper::tools
