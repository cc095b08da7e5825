// Sound that the player cannot take as it is, decoded and encoded anew: 20 ms of stereo Opus a
// packet.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "audio/opus_codec.h"
#include "tools/stream/decoder.h"
#include "tools/stream/opus_packets.h"

struct AVCodecParameters;
struct AVPacket;

namespace vesper::tools {

// One thread at a time uses an encoder.
class SoundEncoder {
  public:
    struct Encoded {
        std::chrono::microseconds time{};
        OpusPacket bytes;
    };

    // For a stream of `parameters`. Empty when that worked; else what is wrong.
    [[nodiscard]] std::string open(const AVCodecParameters& parameters);

    // What comes out when `packet`, stamped in microseconds, goes in.
    [[nodiscard]] std::vector<Encoded> encode(const AVPacket& packet);

    // The same when no packet follows; after this the stream may begin again.
    [[nodiscard]] std::vector<Encoded> finish();

  private:
    [[nodiscard]] std::vector<Encoded> encode(const std::vector<Picture>& blocks);

    Decoder decoder_;
    OpusEncoderWrapper encoder_;
};

}  // namespace vesper::tools
