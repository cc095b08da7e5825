#include "bench/window/subject.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "bench/support/processor_time.h"
#include "bench/window/marked_stream.h"

namespace vesper::bench {

namespace {

// The stream as RFC 8866 describes it, for programs that read that from a file.
std::string write_session_file(std::uint16_t port) {
    std::string path = "/tmp/vesper-bench-XXXXXX.sdp";
    const int descriptor = ::mkstemps(path.data(), 4);
    if (descriptor < 0) {
        std::perror("session file");
        std::exit(EXIT_FAILURE);
    }
    ::close(descriptor);
    std::ofstream(path) << "v=0\no=- 0 0 IN IP4 127.0.0.1\ns=bench\nc=IN IP4 127.0.0.1\nt=0 0\n"
                        << "m=video " << port << " RTP/AVP 96\na=rtpmap:96 VP8/90000\n";
    return path;
}

std::vector<std::string> command_of(const std::string& name, std::uint16_t port,
                                    const std::string& session_file) {
    if (name == "ffplay") {
        return {"ffplay",
                "-hide_banner",
                "-loglevel",
                "error",
                "-nostats",
                "-an",
                "-protocol_whitelist",
                "file,udp,rtp",
                "-fflags",
                "nobuffer",
                "-flags",
                "low_delay",
                "-framedrop",
                "-sync",
                "ext",
                "-vf",
                "setpts=0",
                "-probesize",
                "32",
                "-analyzeduration",
                "0",
                "-reorder_queue_size",
                "0",
                session_file};
    }
    if (name == "mpv") {
        const std::string demuxer =
            "--demuxer-lavf-o=protocol_whitelist=[file,udp,rtp],fflags=+nobuffer,"
            "reorder_queue_size=0";
        return {"mpv",       "--no-config", "--really-quiet", "--profile=low-latency",
                "--untimed", "--no-audio",  "--no-cache",     "--vo=x11",
                "--no-osc",  demuxer,       session_file};
    }
    if (name == "gstreamer") {
        return {"gst-launch-1.0",
                "-q",
                "udpsrc",
                "address=127.0.0.1",
                "port=" + std::to_string(port),
                "caps=application/x-rtp,media=video,encoding-name=VP8,payload=96,clock-rate=90000",
                "!",
                "rtpvp8depay",
                "!",
                "vp8dec",
                "!",
                "videoconvert",
                "!",
                "ximagesink",
                "sync=false"};
    }
    const std::string width = std::to_string(kWidth);
    const std::string height = std::to_string(kHeight);
    if (name == "floor") {
        return {VESPER_FLOOR, std::to_string(port), width, height};
    }
    if (name.starts_with("in_application")) {
        return {VESPER_IN_APPLICATION, "--size", width + "x" + height,
                std::to_string(port) + ":0:bench"};
    }
    return {VESPER_PLAYER, "--port", std::to_string(port), "--width", width, "--height", height};
}

// Takes our datagrams, and not RTP.
bool is_ours(const std::string& name) {
    return name.starts_with("player") || name.starts_with("in_application") || name == "floor";
}

}  // namespace

std::vector<std::string> subject_names() {
    std::vector<std::string> names = {"floor", "ffplay", "mpv", "gstreamer"};
    for (const char* program : {"player", "in_application"}) {
        for (const char* renderer : {"", "_opengl"}) {
            names.push_back(std::string(program) + renderer);
            names.push_back(names.back() + "_low_delay");
        }
    }
    return names;
}

bool sends_twice(const std::string& name) {
    return name.ends_with("_low_delay");
}

Subject::Subject(const std::string& name) {
    if (name == "ffplay" || name == "mpv") {
        session_file_ = write_session_file(port_);
    }
    wire_ = is_ours(name) ? make_stream_wire(port_) : make_rtp_wire(port_);
    test::ChildProcess::Environment environment = {{"SDL_AUDIODRIVER", "dummy"}};
    if (name.find("_opengl") != std::string::npos) {
        environment["SDL_RENDER_DRIVER"] = "opengl";
    }
    process_ =
        std::make_unique<test::ChildProcess>(command_of(name, port_, session_file_), environment);
}

Subject::~Subject() {
    if (!session_file_.empty()) {
        ::unlink(session_file_.c_str());
    }
}

bool Subject::is_running() {
    (void)process_->out();
    (void)process_->err();
    if (!process_->ending()) {
        return true;
    }
    std::fprintf(stderr, "%s%s", process_->out().c_str(), process_->err().c_str());
    return false;
}

double Subject::processor_seconds() const {
    return bench::processor_seconds(pid());
}

long Subject::peak_memory_kib() const {
    std::ifstream status("/proc/" + std::to_string(pid()) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmHWM:")) {
            return std::atol(line.c_str() + 6);
        }
    }
    return 0;
}

}  // namespace vesper::bench
