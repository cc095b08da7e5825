// The programs under test: ours and its peers, each with its best settings for low delay.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bench/window/wire.h"
#include "tests/support/child_process.h"

namespace vesper::bench {

// "player" and "in_application", the example of the receiver in an application, which takes all
// datagrams in every pass and draws only new pictures. To either name may be added "_opengl" (SDL
// draws with OpenGL, also where there is no graphics device), then "_low_delay" (each picture is
// sent twice while the program keeps up). "floor" does the least that any program must (floor.cpp).
// The peers: "ffplay", "mpv", "gstreamer".
[[nodiscard]] std::vector<std::string> subject_names();
[[nodiscard]] bool sends_twice(const std::string& name);

// One running program and the connection to it.
class Subject {
  public:
    explicit Subject(const std::string& name);
    ~Subject();
    Subject(const Subject&) = delete;
    Subject& operator=(const Subject&) = delete;

    [[nodiscard]] Wire& wire() { return *wire_; }
    [[nodiscard]] pid_t pid() const { return process_->pid(); }

    // UDP port of 127.0.0.1 on which it listens.
    [[nodiscard]] std::uint16_t port() const { return port_; }

    // Drains what the program prints. Once it has ended: false, with all of it on standard error.
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
