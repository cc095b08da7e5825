// The programs that are watched: ours and its peers, each at its best settings for little delay.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bench/window/wire.h"
#include "tests/support/child_process.h"

namespace vesper::bench {

// "player" and its peers "ffplay", "mpv", "gstreamer". The player's name may end in "_software"
// (SDL draws without OpenGL, as the peers mpv and gstreamer do here), then in "_low_delay" (each
// picture is sent twice).
[[nodiscard]] std::vector<std::string> subject_names();
[[nodiscard]] bool sends_twice(const std::string& name);

// One running program and the wire to it.
class Subject {
  public:
    explicit Subject(const std::string& name);
    ~Subject();
    Subject(const Subject&) = delete;
    Subject& operator=(const Subject&) = delete;

    [[nodiscard]] Wire& wire() { return *wire_; }
    [[nodiscard]] pid_t pid() const { return process_->pid(); }

    // UDP port of 127.0.0.1 on which it waits.
    [[nodiscard]] std::uint16_t port() const { return port_; }

    // Reads away what the program prints. False, with all of it on standard error, once it ended.
    [[nodiscard]] bool is_running();

    [[nodiscard]] double processor_seconds() const;
    [[nodiscard]] long peak_memory_kib() const;

  private:
    std::uint16_t port_ = free_rtp_port();
    std::string session_file_;  // the peer's description of the stream; empty: none
    std::unique_ptr<Wire> wire_;
    std::unique_ptr<test::ChildProcess> process_;
};

}  // namespace vesper::bench
