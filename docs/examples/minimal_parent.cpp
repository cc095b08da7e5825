// The smallest parent: sends a stored VP8 video (an IVF file) once to a player that was started
// with these two ports.    Usage: minimal_parent PLAYER_PORT PARENT_PORT VIDEO.ivf
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

using Bytes = std::vector<unsigned char>;

// Numbers are little-endian, in the file and on the wire.
unsigned get(const Bytes& from, size_t at, int size) {
    return size == 0 ? 0 : from[at] + 256 * get(from, at + 1, size - 1);
}
void put(unsigned number, unsigned char* to, int size) {
    for (int i = 0; i < size; ++i) {
        to[i] = static_cast<unsigned char>(number >> (8 * i));
    }
}

int main(int argc, char** argv) {
    if (argc != 4) {
        return fprintf(stderr, "Usage: minimal_parent PLAYER_PORT PARENT_PORT VIDEO.ivf\n"), 2;
    }
    sockaddr_in player{};  // both ends are on 127.0.0.1
    player.sin_family = AF_INET;
    player.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr_in parent = player;
    player.sin_port = htons(static_cast<in_port_t>(std::stoi(argv[1])));
    parent.sin_port = htons(static_cast<in_port_t>(std::stoi(argv[2])));
    const int wire = socket(AF_INET, SOCK_DGRAM, 0);
    std::ifstream file(argv[3], std::ios::binary);
    const Bytes video{std::istreambuf_iterator<char>(file), {}};
    if (bind(wire, reinterpret_cast<sockaddr*>(&parent), sizeof parent) < 0 || video.size() < 32) {
        return fprintf(stderr, "The port is taken, or %s is no video\n", argv[3]), 1;
    }
    // IVF: 32 bytes in front, the time between two frames at 16 and 20; each frame has 12 bytes in
    // front, its size first.
    const unsigned interval = 1'000'000 * get(video, 20, 4) / get(video, 16, 4);  // microseconds
    size_t at = 32, keyframe = 32;
    for (unsigned frame_id = 1; at + 12 < video.size(); ++frame_id) {  // grows, come what may
        const unsigned size = get(video, at, 4), count = (size + 1399) / 1400;
        if (video[at + 12] % 2 == 0) {
            keyframe = at;  // VP8's first bit
        }
        for (unsigned i = 0; i < count; ++i) {
            const unsigned slice = std::min(1400U, size - 1400 * i);
            unsigned char datagram[40 + 1400] = {};
            put(frame_id, datagram + 28, 4);
            put(i, datagram + 32, 2);
            put(count, datagram + 34, 2);
            put(slice, datagram + 36, 2);
            memcpy(datagram + 40, &video[at + 12 + 1400 * i], slice);
            sendto(wire, datagram, 40 + slice, 0, reinterpret_cast<sockaddr*>(&player),
                   sizeof player);
            usleep(interval / count);  // never a burst: the player takes one datagram a pass
        }
        at += 12 + size;
        char message[16];
        for (ssize_t n; (n = recv(wire, message, sizeof message, MSG_DONTWAIT)) > 0;) {
            if (n == 4 && memcmp(message, "KFRQ", 4) == 0) {
                at = keyframe;  // a live parent lets its encoder make one now
            }
        }
    }
}
