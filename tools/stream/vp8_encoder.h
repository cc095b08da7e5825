// A VP8 encoder for live streams: libvpx through libavcodec, tuned for delay rather than size.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "tools/stream/picture.h"

struct AVCodecContext;
struct AVPacket;

namespace vesper::tools {

struct Vp8Settings {
    int width = 1280;  // pixels, even
    int height = 720;  // pixels, even
    int frames_per_second = 30;
    // bit/s. The player takes one datagram for every time it draws its window; without a graphics
    // card that is some 300 a second, and this stays well below it.
    int bitrate = 1'500'000;
    // Frames; a keyframe at least this often. A lost frame that a newer one overtook is not
    // reported, so this is how long its damage can stay: two seconds at 30 frames/s.
    int keyframe_interval = 60;
};

// One thread at a time uses an encoder. Failures print one line on standard error.
class Vp8Encoder {
  public:
    Vp8Encoder() = default;
    ~Vp8Encoder();
    Vp8Encoder(const Vp8Encoder&) = delete;
    Vp8Encoder& operator=(const Vp8Encoder&) = delete;

    // False, with a line, when libvpx is missing or refuses the settings.
    [[nodiscard]] bool open(const Vp8Settings& settings);

    // Encodes `picture`, of the settings' size, as the next frame; as a keyframe where asked. The
    // frame comes out at once (no lag). Empty, with a line, when libvpx failed.
    [[nodiscard]] std::vector<std::uint8_t> encode(const Picture& picture, bool keyframe);

  private:
    AVCodecContext* context_ = nullptr;
    AVPacket* packet_ = nullptr;
    std::int64_t next_pts_ = 0;  // frames
};

}  // namespace vesper::tools
