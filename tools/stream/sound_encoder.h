// Sound that the player cannot take as it is, re-encoded: 20 ms of stereo Opus a packet.
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

    // For a stream of `parameters`. Returns an empty text on success, or the reason.
    [[nodiscard]] std::string open(const AVCodecParameters& parameters);

    // Encodes `packet`, stamped in microseconds, and returns what is ready.
    [[nodiscard]] std::vector<Encoded> encode(const AVPacket& packet);

    // Returns the rest when no packet follows; after this the stream may restart.
    [[nodiscard]] std::vector<Encoded> finish();

    // Whether all of the sound could be converted to stereo. What could not be is missing.
    [[nodiscard]] bool converts() const { return decoder_.converts(); }

  private:
    [[nodiscard]] std::vector<Encoded> encode(const std::vector<Picture>& blocks);

    Decoder decoder_;
    OpusEncoderWrapper encoder_;
};

}  // namespace vesper::tools
