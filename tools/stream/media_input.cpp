#include "tools/stream/media_input.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <utility>

#include "tools/stream/libav.h"

namespace vesper::tools {

namespace {

// How long a wait for data lasts before give_up is called again.
constexpr int kPollInterval = 100;  // ms

// Room for what arrives while a keyframe is handled: 200 ms of a stream of 40 Mbit/s.
constexpr const char* kReceiveBuffer = "1000000";  // bytes

constexpr std::string_view kStandardInput = "-";

// The first letters of every session description (RFC 8866, section 5.1).
bool is_session_description(const std::string& path) {
    std::array<char, 3> head{};
    std::ifstream(path, std::ios::binary).read(head.data(), head.size());
    return std::string_view(head.data(), head.size()) == "v=0";
}

bool is_fifo(const std::string& name) {
    std::error_code none_there;
    return std::filesystem::is_fifo(name, none_there);
}

// What libavformat is to open, and what may be opened on the way.
struct Address {
    std::string url;
    std::string protocols;
};

Address address_of(const std::string& name) {
    const std::size_t end = name.find("://");
    const std::string scheme = end == std::string::npos ? "" : name.substr(0, end);
    if (scheme == "rtp" || scheme == "udp") {
        return {.url = name, .protocols = "rtp,udp"};
    }
    if (scheme == "rtsp") {
        return {.url = name, .protocols = "rtsp,rtp,udp,tcp"};
    }
    if (scheme == "http" || scheme == "https") {
        return {.url = name, .protocols = "http,https,httpproxy,tls,tcp"};
    }
    // With the scheme in front, a colon in the name is a colon.
    return {.url = "file:" + name,
            .protocols = is_session_description(name) ? "file,rtp,udp" : "file"};
}

}  // namespace

// A descriptor that libavformat reads through us, because its own reading of a pipe cannot be
// interrupted.
class PolledFile {
  public:
    PolledFile(int fd, bool owned, const std::function<bool()>& give_up)
        : fd_(fd), owned_(owned), give_up_(give_up) {}
    ~PolledFile() {
        if (context_ != nullptr) {
            av_freep(static_cast<void*>(&context_->buffer));
        }
        avio_context_free(&context_);
        if (owned_ && fd_ >= 0) {
            close(fd_);
        }
    }
    PolledFile(const PolledFile&) = delete;
    PolledFile& operator=(const PolledFile&) = delete;

    // Null when there is no memory.
    [[nodiscard]] AVIOContext* context() {
        constexpr int kBuffer = 4096;  // bytes; small, so that data that has arrived is not delayed
        if (context_ == nullptr) {
            auto* buffer = static_cast<unsigned char*>(av_malloc(kBuffer));
            context_ = avio_alloc_context(buffer, kBuffer, 0, this, &PolledFile::read_some, nullptr,
                                          nullptr);
            if (context_ == nullptr) {
                av_free(buffer);
            }
        }
        return context_;
    }

  private:
    static int read_some(void* self, std::uint8_t* buffer, int size) {
        return static_cast<PolledFile*>(self)->read_some(buffer, size);
    }
    [[nodiscard]] int read_some(std::uint8_t* buffer, int size) const {
        for (;;) {
            if (give_up_()) {
                return AVERROR_EXIT;
            }
            pollfd descriptor = {.fd = fd_, .events = POLLIN, .revents = 0};
            if (poll(&descriptor, 1, kPollInterval) <= 0) {
                continue;
            }
            const ssize_t length = ::read(fd_, buffer, static_cast<std::size_t>(size));
            if (length > 0) {
                return static_cast<int>(length);
            }
            if (length == 0) {
                return AVERROR_EOF;
            }
            if (errno != EAGAIN && errno != EINTR) {
                return AVERROR(errno);
            }
        }
    }

    int fd_;
    bool owned_;
    const std::function<bool()>& give_up_;
    AVIOContext* context_ = nullptr;
};

MediaInput::MediaInput(std::function<bool()> give_up) : give_up_(std::move(give_up)) {}

MediaInput::~MediaInput() {
    close();
}

void MediaInput::close() {
    avformat_close_input(&format_);
    polled_.reset();
    pictures_ = sound_ = nullptr;
}

std::string MediaInput::open(const std::string& name) {
    close();
    format_ = avformat_alloc_context();
    if (format_ == nullptr) {
        return libav_error(AVERROR(ENOMEM));
    }
    format_->interrupt_callback = {
        .callback = [](void* self) { return static_cast<MediaInput*>(self)->give_up_() ? 1 : 0; },
        .opaque = this};
    // Packets are returned as they arrive, and not kept until more is known about the stream.
    format_->flags |= AVFMT_FLAG_NOBUFFER;

    const bool is_pipe = name == kStandardInput || is_fifo(name);  // whose first bytes come once
    const Address address = is_pipe ? Address{.url = name, .protocols = "none"} : address_of(name);
    if (is_pipe) {
        const bool is_standard_input = name == kStandardInput;
        const int fd = is_standard_input ? STDIN_FILENO
                                         : ::open(name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            avformat_close_input(&format_);
            return std::strerror(errno);
        }
        polled_ = std::make_unique<PolledFile>(fd, !is_standard_input, give_up_);
        format_->pb = polled_->context();
    }
    AVDictionary* options = nullptr;
    av_dict_set(&options, "protocol_whitelist", address.protocols.c_str(), 0);
    av_dict_set(&options, "buffer_size", kReceiveBuffer, 0);
    int result = avformat_open_input(&format_, address.url.c_str(), nullptr, &options);
    av_dict_free(&options);
    if (result < 0) {
        close();
        return libav_error(result);
    }

    // Nearly every header describes the streams. Where it does not, packets must be looked
    // into.
    bool known = (format_->ctx_flags & AVFMTCTX_NOHEADER) == 0;
    for (unsigned i = 0; i < format_->nb_streams; ++i) {
        known = known && format_->streams[i]->codecpar->codec_id != AV_CODEC_ID_NONE;
    }
    if (!known) {
        // What can be sought is a recording: it waits for us, and would lose its beginning
        // otherwise.
        const bool is_recording = is_repeatable() && format_->pb != nullptr &&
                                  (format_->pb->seekable & AVIO_SEEKABLE_NORMAL) != 0;
        if (is_recording) {
            format_->flags &= ~AVFMT_FLAG_NOBUFFER;
        }
        result = avformat_find_stream_info(format_, nullptr);
        if (result < 0) {
            close();
            return libav_error(result);
        }
    }
    const auto best = [this](AVMediaType type) -> const AVStream* {
        const int index = av_find_best_stream(format_, type, -1, -1, nullptr, 0);
        return index >= 0 ? format_->streams[index] : nullptr;
    };
    pictures_ = best(AVMEDIA_TYPE_VIDEO);
    if (pictures_ != nullptr && !is_video(*pictures_)) {
        pictures_ = nullptr;
    }
    sound_ = best(AVMEDIA_TYPE_AUDIO);
    if (pictures_ == nullptr && sound_ == nullptr) {
        close();
        return "has neither video nor sound";
    }
    for (unsigned i = 0; i < format_->nb_streams; ++i) {
        const bool wanted = format_->streams[i] == pictures_ || format_->streams[i] == sound_;
        format_->streams[i]->discard = wanted ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    }
    return {};
}

bool MediaInput::is_live() const {
    if (format_ == nullptr) {
        return false;
    }
    const std::string_view format = format_->iformat->name;
    const std::string_view url = format_->url != nullptr ? format_->url : "";
    return format == "sdp" || format == "rtsp" || format == "rtp" || url.starts_with("udp:") ||
           url.starts_with("rtp:");
}

double MediaInput::claimed_seconds() const {
    const bool claimed =
        format_ != nullptr && format_->duration != AV_NOPTS_VALUE && format_->duration > 0;
    return claimed ? static_cast<double>(format_->duration) / AV_TIME_BASE : 0;
}

std::int64_t MediaInput::received() const {
    // An opening that fails frees libavformat's own context, and may then wait, before it forgets
    // it.
    if (polled_ == nullptr && pictures_ == nullptr && sound_ == nullptr) {
        return 0;
    }
    return format_ != nullptr && format_->pb != nullptr ? format_->pb->bytes_read : 0;
}

int MediaInput::read(AVPacket& packet) {
    return format_ != nullptr ? av_read_frame(format_, &packet) : AVERROR_EOF;
}

}  // namespace vesper::tools
