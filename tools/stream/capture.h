// Stored conversations between a parent and a player: every datagram of both directions with its
// time, in the pcap format that Wireshark, tcpdump and similar programs read and write. libpcap
// handles the files; the code here turns datagrams into packets and back.
//
// Failures print one line on standard error that begins with the file's name.
#pragma once

#include <pcap/pcap.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tools/stream/packetizer.h"

namespace vesper::tools {

// One datagram that passed from 127.0.0.1 to 127.0.0.1.
struct CapturedDatagram {
    std::chrono::microseconds time{};  // since 1970-01-01 UTC
    std::uint16_t source_port = 0;
    std::uint16_t destination_port = 0;
    Datagram bytes;  // the UDP payload

    bool operator==(const CapturedDatagram&) const = default;
};

// Writes one file. Each datagram is in the file once write() returns, so that a capture can be read
// while it grows and is whole even if the process is killed.
class CaptureWriter {
  public:
    CaptureWriter() = default;
    CaptureWriter(const CaptureWriter&) = delete;
    CaptureWriter& operator=(const CaptureWriter&) = delete;

    // Creates the file, replacing one of that name. Once, before write(). False, with a line, when
    // the file cannot be written.
    [[nodiscard]] bool open(const std::string& path);

    // Appends a datagram of at most 65,507 bytes that was sent or received now. Without an open
    // file nothing happens. When the disk is full the file ends before that datagram's packet, or
    // within it, and one line reports it. Any thread.
    void write(std::uint16_t source_port, std::uint16_t destination_port,
               std::span<const std::uint8_t> bytes);

  private:
    struct Closer {
        void operator()(pcap_t* pcap) const { pcap_close(pcap); }
        void operator()(pcap_dumper_t* dumper) const { pcap_dump_close(dumper); }
    };
    using SteadyClock = std::chrono::steady_clock;

    [[nodiscard]] std::chrono::microseconds now() const;

    std::string path_;
    // Times are the wall clock's at open() plus the time elapsed since, so that they never go back
    // when the clock is set.
    std::chrono::system_clock::time_point opened_at_;
    SteadyClock::time_point opened_at_steady_;
    std::unique_ptr<pcap_t, Closer> pcap_;

    std::mutex mutex_;  // guards the rest
    std::unique_ptr<pcap_dumper_t, Closer> dumper_;
};

// All UDP datagrams of a capture over IPv4, in the file's order: one that CaptureWriter wrote, or
// one that tcpdump, dumpcap or Wireshark took from the loopback interface (packets of other kinds
// are skipped). Nothing, with a line, when the file cannot be read, is not a capture, is truncated,
// or comes from a kind of interface that loopback datagrams never pass.
[[nodiscard]] std::optional<std::vector<CapturedDatagram>> read_capture(const std::string& path);

// From a capture, the datagrams sent to the player that appears first, without empty ones, which
// mean nothing to it. The players' own messages are recognised by their content; a stream datagram
// is never as short.
[[nodiscard]] std::vector<CapturedDatagram> sent_to_player(std::vector<CapturedDatagram> capture);

}  // namespace vesper::tools
