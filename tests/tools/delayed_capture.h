// Captures whose replay does not end before a test does.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <ios>
#include <iterator>
#include <string>

namespace vesper::test {

// Makes the last datagram to the player come an hour later. CaptureWriter wrote the capture, and
// its first datagram goes to the player. Each record begins with its seconds, microseconds, and
// length in the file (pcap-savefile(5)); the headers of IPv4 and UDP follow.
inline void delay_last_datagram(const std::string& path) {
    constexpr std::size_t kFileHeader = 24;    // bytes
    constexpr std::size_t kRecordHeader = 16;  // bytes
    constexpr std::size_t kDestinationPort = kRecordHeader + 20 + 2;
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(file), {});
    std::size_t last = 0;
    std::uint32_t seconds_of_last = 0;
    std::array<std::uint32_t, 3> record{};
    for (std::size_t at = kFileHeader; at < bytes.size(); at += kRecordHeader + record[2]) {
        std::memcpy(record.data(), &bytes[at], sizeof(record));
        if (bytes.compare(at + kDestinationPort, 2, bytes, kFileHeader + kDestinationPort, 2) ==
            0) {
            last = at;
            seconds_of_last = record[0];
        }
    }
    seconds_of_last += 3600;
    file.clear();
    file.seekp(static_cast<std::streamoff>(last));
    file.write(reinterpret_cast<const char*>(&seconds_of_last), sizeof(seconds_of_last));
}

}  // namespace vesper::test
