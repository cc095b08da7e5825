// Owners of one libopus encoder and one libopus decoder.
//
// Both speak 16-bit signed interleaved PCM. `frame_size` always counts samples per channel; a PCM
// buffer holds frame_size x channels values. Neither locks: one thread at a time uses a wrapper.
// Neither prints: every failure is a return value. Every call is safe on an empty wrapper.
#pragma once

#include <opus.h>

namespace vesper {

class OpusEncoderWrapper {
  public:
    OpusEncoderWrapper() = default;
    ~OpusEncoderWrapper();
    OpusEncoderWrapper(OpusEncoderWrapper&& other) noexcept;
    OpusEncoderWrapper& operator=(OpusEncoderWrapper&& other) noexcept;
    OpusEncoderWrapper(const OpusEncoderWrapper&) = delete;
    OpusEncoderWrapper& operator=(const OpusEncoderWrapper&) = delete;

    // Creates an encoder at 48000 bit/s, discarding an earlier one. `application` is one of
    // OPUS_APPLICATION_*; VOIP also hints that the signal is voice. False leaves it empty.
    [[nodiscard]] bool init(int sample_rate, int channels, int application);

    // Encodes one frame of `pcm` into `out`. Returns the packet's length in bytes, a negative
    // libopus error code, or -1 without an encoder.
    int encode(const short* pcm, int frame_size, unsigned char* out, int max_bytes);

    // Sets the target in bit/s; a value that libopus refuses changes nothing.
    void set_bitrate(int bitrate);

    // Frees the encoder, if any.
    void destroy();

  private:
    OpusEncoder* encoder = nullptr;
};

class OpusDecoderWrapper {
  public:
    OpusDecoderWrapper() = default;
    ~OpusDecoderWrapper();
    OpusDecoderWrapper(OpusDecoderWrapper&& other) noexcept;
    OpusDecoderWrapper& operator=(OpusDecoderWrapper&& other) noexcept;
    OpusDecoderWrapper(const OpusDecoderWrapper&) = delete;
    OpusDecoderWrapper& operator=(const OpusDecoderWrapper&) = delete;

    // Creates a decoder, discarding an earlier one. False leaves it empty.
    [[nodiscard]] bool init(int sample_rate, int channels);

    // Decodes one packet into `pcm`, without in-band error correction. Returns samples per channel,
    // a negative libopus error code, or -1 without a decoder.
    int decode(const unsigned char* data, int len, short* pcm, int frame_size);

    // Synthesises `frame_size` samples per channel in place of a lost packet. Returns as decode().
    int decode_plc(short* pcm, int frame_size);

    // Frees the decoder, if any.
    void destroy();

  private:
    OpusDecoder* decoder = nullptr;
};

}  // namespace vesper
