// Packets of an encoded stream, from anything that libavformat opens: a file, standard input, the
// SDP file of an RTP stream, an address.
//
// What may be opened is a short list that depends on the name, since a file or an answer from the
// network can name other files and addresses in turn (libavformat's protocol_whitelist):
//
//   "-", a FIFO         nothing else: it is read here, and not by libavformat
//   a file              files, and RTP over UDP if it is an SDP file
//   rtp:// udp://       RTP and UDP
//   rtsp://             RTSP, RTP, UDP and TCP
//   http:// https://    HTTP, TLS and TCP
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

struct AVFormatContext;
struct AVPacket;
struct AVStream;

namespace vesper::tools {

class PolledFile;

// One thread at a time uses an input.
class MediaInput {
  public:
    // `give_up` is called at least ten times a second while a call waits for data; once it returns
    // true, the call fails.
    explicit MediaInput(std::function<bool()> give_up);
    ~MediaInput();
    MediaInput(const MediaInput&) = delete;
    MediaInput& operator=(const MediaInput&) = delete;

    // Opens `name`, closing what was open before. Returns an empty text on success, or the reason.
    // Where the header does not describe the streams, packets are looked into; those of a file, or
    // of an address that can be sought, are read again, those of anything else are lost, so that
    // the stream does not begin late.
    [[nodiscard]] std::string open(const std::string& name);

    // The best stream of each kind; null where there is none. Until the next open().
    [[nodiscard]] const AVStream* pictures() const { return pictures_; }
    [[nodiscard]] const AVStream* sound() const { return sound_; }

    // Whether packets arrive in real time, whether or not they are read, and are lost if they are
    // not.
    [[nodiscard]] bool is_live() const;

    // Whether open() can restart at the beginning.
    [[nodiscard]] bool is_repeatable() const { return !is_live() && !polled_; }

    // The length in seconds that the input's header claims; 0 if it claims none.
    [[nodiscard]] double claimed_seconds() const;

    // Bytes that have arrived since open() was called, packets or not, but for those of an RTP
    // stream; 0 until an address or a file is open. May be called from `give_up`.
    [[nodiscard]] std::int64_t received() const;

    // The next packet of any stream. 0, or libavformat's error; AVERROR_EOF at the end.
    [[nodiscard]] int read(AVPacket& packet);

  private:
    void close();

    std::function<bool()> give_up_;
    std::unique_ptr<PolledFile> polled_;
    AVFormatContext* format_ = nullptr;
    const AVStream* pictures_ = nullptr;
    const AVStream* sound_ = nullptr;
};

}  // namespace vesper::tools
