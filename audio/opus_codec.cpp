#include "audio/opus_codec.h"

#include <utility>

namespace vesper {

namespace {

// Every encoder starts here, whatever its rate and channels: about 120 bytes for a packet of 20 ms,
// far inside one datagram.
constexpr int kInitialBitrate = 48000;  // bit/s

constexpr int kNoInBandErrorCorrection = 0;

}  // namespace

OpusEncoderWrapper::~OpusEncoderWrapper() {
    destroy();
}

OpusEncoderWrapper::OpusEncoderWrapper(OpusEncoderWrapper&& other) noexcept
    : encoder(std::exchange(other.encoder, nullptr)) {}

OpusEncoderWrapper& OpusEncoderWrapper::operator=(OpusEncoderWrapper&& other) noexcept {
    if (this != &other) {
        destroy();
        encoder = std::exchange(other.encoder, nullptr);
    }
    return *this;
}

bool OpusEncoderWrapper::init(int sample_rate, int channels, int application) {
    destroy();
    int error = 0;
    encoder = opus_encoder_create(sample_rate, channels, application, &error);
    if (error != 0 || encoder == nullptr) {
        encoder = nullptr;
        return false;
    }
    opus_encoder_ctl(encoder, OPUS_SET_BITRATE(kInitialBitrate));
    if (application == OPUS_APPLICATION_VOIP) {
        opus_encoder_ctl(encoder, OPUS_SET_SIGNAL(OPUS_SIGNAL_VOICE));
    }
    return true;
}

int OpusEncoderWrapper::encode(const short* pcm, int frame_size, unsigned char* out,
                               int max_bytes) {
    if (encoder == nullptr) {
        return -1;
    }
    return opus_encode(encoder, pcm, frame_size, out, max_bytes);
}

void OpusEncoderWrapper::set_bitrate(int bitrate) {
    if (encoder != nullptr) {
        opus_encoder_ctl(encoder, OPUS_SET_BITRATE(bitrate));
    }
}

void OpusEncoderWrapper::destroy() {
    if (encoder != nullptr) {
        opus_encoder_destroy(encoder);
        encoder = nullptr;
    }
}

OpusDecoderWrapper::~OpusDecoderWrapper() {
    destroy();
}

OpusDecoderWrapper::OpusDecoderWrapper(OpusDecoderWrapper&& other) noexcept
    : decoder(std::exchange(other.decoder, nullptr)) {}

OpusDecoderWrapper& OpusDecoderWrapper::operator=(OpusDecoderWrapper&& other) noexcept {
    if (this != &other) {
        destroy();
        decoder = std::exchange(other.decoder, nullptr);
    }
    return *this;
}

bool OpusDecoderWrapper::init(int sample_rate, int channels) {
    destroy();
    int error = 0;
    decoder = opus_decoder_create(sample_rate, channels, &error);
    if (error != 0 || decoder == nullptr) {
        decoder = nullptr;
        return false;
    }
    return true;
}

int OpusDecoderWrapper::decode(const unsigned char* data, int len, short* pcm, int frame_size) {
    if (decoder == nullptr) {
        return -1;
    }
    return opus_decode(decoder, data, len, pcm, frame_size, kNoInBandErrorCorrection);
}

int OpusDecoderWrapper::decode_plc(short* pcm, int frame_size) {
    if (decoder == nullptr) {
        return -1;
    }
    // libopus conceals when it is handed no data (opus_decode in the libopus manual).
    return opus_decode(decoder, nullptr, 0, pcm, frame_size, kNoInBandErrorCorrection);
}

void OpusDecoderWrapper::destroy() {
    if (decoder != nullptr) {
        opus_decoder_destroy(decoder);
        decoder = nullptr;
    }
}

}  // namespace vesper
