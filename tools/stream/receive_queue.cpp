#include "tools/stream/receive_queue.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <string>

namespace vesper::tools {

namespace {

// Bytes. Linux 6 counts 832 for a datagram of up to 197 bytes, 1280 up to 645, and 2304 for a full
// fragment of a picture.
constexpr std::uint64_t kMoreThanSound = 1500;

}  // namespace

// The kernel lists one socket a line: number, local address and port, remote ones, state, send and
// receive queue, two timers, retransmissions, user, timeout, inode, references, address, losses.
// An address is in network byte order and printed as a number of the machine's.
std::optional<ReceiveQueue> receive_queue(std::uint16_t port) {
    std::ifstream list("/proc/net/udp");
    for (std::string line; std::getline(list, line);) {
        std::uint32_t local_address = 0;
        unsigned local_port = 0;
        ReceiveQueue queue;
        if (std::sscanf(line.c_str(),
                        " %*d: %" SCNx32 ":%x %*x:%*x %*x %*x:%" SCNx64
                        " %*x:%*x %*x %*u %*u %*u %*u %*s %" SCNu64,
                        &local_address, &local_port, &queue.waiting, &queue.lost) == 4 &&
            local_address == htonl(INADDR_LOOPBACK) && local_port == port) {
            return queue;
        }
    }
    return std::nullopt;
}

bool keeps_up(std::uint16_t port) {
    const std::optional<ReceiveQueue> queue = receive_queue(port);
    return !queue || queue->waiting < kMoreThanSound;
}

}  // namespace vesper::tools
