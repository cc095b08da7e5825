#include "tools/stream/free_port.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>

namespace vesper::tools {

namespace {

// Below 32768, where Linux begins to give out ports by itself (ip(7), ip_local_port_range).
constexpr int kFirstPort = 20000;
constexpr int kLastPort = 32767;

constexpr int kMaxTries = 1000;  // far more than a machine with thousands of ports in use needs

// A socket of this type on that port of 127.0.0.1; -1 when somebody else has it, or there is none.
int bound_socket(int type, std::uint16_t port) {
    const int descriptor = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        return -1;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(descriptor);
        return -1;
    }
    return descriptor;
}

// The TCP port of the same number tells other callers that the UDP port is taken, and keeps nobody
// from binding that one. It is held until the process ends.
bool reserve(std::uint16_t port) {
    return bound_socket(SOCK_STREAM, port) >= 0;
}

bool is_free(std::uint16_t port) {
    const int probe = bound_socket(SOCK_DGRAM, port);
    if (probe < 0) {
        return false;
    }
    ::close(probe);
    return true;
}

bool take(std::uint16_t port) {
    return reserve(port) && is_free(port);
}

bool take_pair(std::uint16_t port) {
    return port % 2 == 0 && take(port) && take(static_cast<std::uint16_t>(port + 1));
}

std::uint16_t first_taken_by(bool (*takes)(std::uint16_t)) {
    std::random_device random;
    std::uniform_int_distribution<int> any(kFirstPort, kLastPort);
    for (int tries = 0; tries < kMaxTries; ++tries) {
        const auto port = static_cast<std::uint16_t>(any(random));
        if (takes(port)) {
            return port;
        }
    }
    std::fprintf(stderr, "No free port for a player: %s\n", std::strerror(errno));
    return 0;
}

}  // namespace

std::uint16_t free_port() {
    return first_taken_by(take);
}

std::uint16_t free_pair_of_ports() {
    return first_taken_by(take_pair);
}

}  // namespace vesper::tools
