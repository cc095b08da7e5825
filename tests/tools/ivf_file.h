// IVF files with content that no program would write.
#pragma once

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

namespace vesper::test {

// Writes VP8 frames of 320x240 to an IVF file, each stamped with its milliseconds: timestamps that
// no muxer writes, and beginnings that no encoder makes.
inline void write_ivf(const std::string& path, const std::vector<std::vector<std::uint8_t>>& frames,
                      const std::function<std::uint64_t(std::size_t)>& timestamp) {
    std::ofstream file(path, std::ios::binary);
    const auto write = [&file](std::uint64_t value, int bytes) {
        for (int i = 0; i < bytes; ++i) {
            file.put(static_cast<char>(value >> (8 * i) & 0xFF));
        }
    };
    file << "DKIF";
    write(0, 2);   // version
    write(32, 2);  // bytes of this header
    file << "VP80";
    write(320, 2);
    write(240, 2);
    write(1000, 4);  // timestamps to a second
    write(1, 4);
    write(frames.size(), 8);
    for (std::size_t i = 0; i < frames.size(); ++i) {
        write(frames[i].size(), 4);
        write(timestamp(i), 8);
        file.write(reinterpret_cast<const char*>(frames[i].data()),
                   static_cast<std::streamsize>(frames[i].size()));
    }
}

}  // namespace vesper::test
