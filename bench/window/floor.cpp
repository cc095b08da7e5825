// The least that a program must do to show a stream on an X11 screen, and nothing else: it waits
// for a datagram, puts frames together that arrive in order and whole, decodes them with libavcodec
// on one thread, converts them with libswscale straight into memory that the X server shares, and
// has the server show that. No sound, no input, no other window system. It ends when it is killed.
//
//   window_floor PORT WIDTH HEIGHT
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XShm.h>
#include <sys/ipc.h>
#include <sys/shm.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libswscale/swscale.h>
}

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "net/stream_datagrams.h"
#include "net/udp_socket.h"

namespace {

constexpr int kWait = 1000;  // ms; only a datagram is anything to do

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "window_floor: %s\n", what);
    std::exit(EXIT_FAILURE);
}

// A window, and the picture in memory that the server shows in it.
class SharedWindow {
  public:
    SharedWindow(int width, int height) : width_(width), height_(height) {
        if (display_ == nullptr || XShmQueryExtension(display_) == 0) {
            fail("no X server that shares memory");
        }
        const int screen = DefaultScreen(display_);
        window_ = XCreateSimpleWindow(display_, RootWindow(display_, screen), 0, 0,
                                      static_cast<unsigned>(width), static_cast<unsigned>(height),
                                      0, 0, 0);
        XMapWindow(display_, window_);
        image_ =
            XShmCreateImage(display_, DefaultVisual(display_, screen),
                            static_cast<unsigned>(DefaultDepth(display_, screen)), ZPixmap, nullptr,
                            &memory_, static_cast<unsigned>(width), static_cast<unsigned>(height));
        if (image_ == nullptr || image_->bits_per_pixel != 32) {
            fail("no image of 32 bits a pixel");
        }
        const auto size = static_cast<std::size_t>(image_->bytes_per_line) *
                          static_cast<std::size_t>(image_->height);
        memory_.shmid = shmget(IPC_PRIVATE, size, IPC_CREAT | 0600);
        memory_.shmaddr = image_->data = static_cast<char*>(shmat(memory_.shmid, nullptr, 0));
        XShmAttach(display_, &memory_);
        XSync(display_, False);
        shmctl(memory_.shmid, IPC_RMID, nullptr);  // gone with its last user
    }

    [[nodiscard]] std::uint8_t* pixels() { return reinterpret_cast<std::uint8_t*>(image_->data); }
    [[nodiscard]] int pitch() const { return image_->bytes_per_line; }

    // Returns once the server has taken it.
    void show() {
        XShmPutImage(display_, window_, DefaultGC(display_, DefaultScreen(display_)), image_, 0, 0,
                     0, 0, static_cast<unsigned>(width_), static_cast<unsigned>(height_), False);
        XSync(display_, True);
    }

  private:
    int width_;
    int height_;
    Display* display_ = XOpenDisplay(nullptr);
    Window window_ = 0;
    XShmSegmentInfo memory_{};
    XImage* image_ = nullptr;
};

class Decoder {
  public:
    Decoder(int width, int height) {
        context_->thread_count = 1;
        converter_ = sws_getContext(width, height, AV_PIX_FMT_YUV420P, width, height,
                                    AV_PIX_FMT_BGRA, SWS_BILINEAR, nullptr, nullptr, nullptr);
        if (avcodec_open2(context_, nullptr, nullptr) < 0 || converter_ == nullptr) {
            fail("no decoder");
        }
    }

    // `frame` has padding after its `size` bytes, as libavcodec requires.
    void show(std::uint8_t* frame, std::size_t size, SharedWindow& window) {
        packet_->data = frame;
        packet_->size = static_cast<int>(size);
        if (avcodec_send_packet(context_, packet_) < 0) {
            return;
        }
        while (avcodec_receive_frame(context_, picture_) == 0) {
            std::array<std::uint8_t*, 1> to = {window.pixels()};
            std::array<int, 1> pitch = {window.pitch()};
            sws_scale(converter_, picture_->data, picture_->linesize, 0, picture_->height,
                      to.data(), pitch.data());
            window.show();
        }
    }

  private:
    AVCodecContext* context_ = avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_VP8));
    AVPacket* packet_ = av_packet_alloc();
    AVFrame* picture_ = av_frame_alloc();
    SwsContext* converter_ = nullptr;
};

}  // namespace

int main(int argc, char** argv) {
    vesper::UDPSocket socket;
    if (argc != 4 || !socket.bind(static_cast<std::uint16_t>(std::atoi(argv[1])))) {
        return EXIT_FAILURE;
    }
    const int width = std::atoi(argv[2]);
    const int height = std::atoi(argv[3]);
    SharedWindow window(width, height);
    Decoder decoder(width, height);
    std::array<std::uint8_t, 65536> datagram{};
    std::vector<std::uint8_t> frame;
    for (;;) {
        const int length = socket.recv(datagram.data(), datagram.size(), kWait);
        if (length <= vesper::kVideoPayloadOffset) {
            continue;
        }
        const auto header = vesper::read_video_fragment_header(datagram.data());
        if (header.fragment_index == 0) {
            frame.clear();
        }
        frame.insert(frame.end(), datagram.begin() + vesper::kVideoPayloadOffset,
                     datagram.begin() + length);
        if (header.fragment_index + 1 == header.fragment_count) {
            const std::size_t size = frame.size();
            frame.resize(size + AV_INPUT_BUFFER_PADDING_SIZE);
            decoder.show(frame.data(), size, window);
        }
    }
}
