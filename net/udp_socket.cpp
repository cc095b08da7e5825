#include "net/udp_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

bool socket_init() {
    std::signal(SIGPIPE, SIG_IGN);
    return true;
}

void socket_cleanup() {}

namespace vesper {

namespace {

sockaddr_in ipv4_address(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    return address;
}

bool set_non_blocking(int descriptor) {
    const int flags = ::fcntl(descriptor, F_GETFL);
    return flags != -1 && ::fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) != -1;
}

}  // namespace

UDPSocket::~UDPSocket() {
    if (fd != kNoSocket) {
        ::close(fd);
    }
}

bool UDPSocket::bind(std::uint16_t port) {
    if (fd != kNoSocket) {
        std::fprintf(stderr, "[UDPSocket] Socket already created\n");
        return false;
    }
    fd = ::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (fd == kNoSocket) {
        std::fprintf(stderr, "[UDPSocket] socket() failed: %s\n", std::strerror(errno));
        return false;
    }
    if (!set_non_blocking(fd)) {
        return fail_bind("fcntl(O_NONBLOCK)");
    }
    // No SO_REUSEADDR: a second player on the port would silently take the first one's stream.
    sockaddr_in address = ipv4_address(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0) {
        return fail_bind("bind()");
    }
    sockaddr_in bound{};
    socklen_t bound_size = sizeof(bound);
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &bound_size) == 0) {
        bound_port = ntohs(bound.sin_port);
    }
    return true;
}

// Reports errno for `failed_call`, then closes the half-made socket.
bool UDPSocket::fail_bind(const char* failed_call) {
    std::fprintf(stderr, "[UDPSocket] %s failed: %s\n", failed_call, std::strerror(errno));
    ::close(fd);
    fd = kNoSocket;
    return false;
}

int UDPSocket::send(const void* data, std::size_t len, const char* host, std::uint16_t port) {
    if (fd == kNoSocket) {
        std::fprintf(stderr, "[UDPSocket] Socket not initialized\n");
        return -1;
    }
    sockaddr_in address = ipv4_address(port);
    if (::inet_pton(AF_INET, host, &address.sin_addr) <= 0) {
        std::fprintf(stderr, "[UDPSocket] Invalid host address: %s\n", host);
        return -1;
    }
    const ssize_t sent =
        ::sendto(fd, data, len, 0, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    if (sent < 0 && errno != EAGAIN) {
        std::fprintf(stderr, "[UDPSocket] sendto() failed: %s\n", std::strerror(errno));
    }
    return static_cast<int>(sent);
}

int UDPSocket::recv(void* buffer, std::size_t capacity, int timeout_ms) {
    if (fd == kNoSocket) {
        return -1;
    }
    if (timeout_ms > 0) {
        // poll() rather than select(): a descriptor of any number can be waited on.
        pollfd readable{.fd = fd, .events = POLLIN, .revents = 0};
        const int ready = ::poll(&readable, 1, timeout_ms);
        if (ready < 0) {
            return -1;  // an interrupted wait counts as an error; the caller simply retries
        }
        if (ready == 0) {
            return 0;
        }
    }
    sockaddr_in sender{};  // not checked: any local process may be the parent application
    socklen_t sender_size = sizeof(sender);
    const ssize_t received =
        ::recvfrom(fd, buffer, capacity, 0, reinterpret_cast<sockaddr*>(&sender), &sender_size);
    if (received >= 0) {
        return static_cast<int>(received);
    }
    if (errno == EAGAIN) {
        return 0;
    }
    std::fprintf(stderr, "[UDPSocket] recvfrom() failed: %s\n", std::strerror(errno));
    return -1;
}

bool UDPSocket::set_recv_buffer(int bytes) {
    return fd != kNoSocket && ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes)) == 0;
}

bool UDPSocket::set_send_buffer(int bytes) {
    return fd != kNoSocket && ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes)) == 0;
}

void UDPSocket::reset() {
    if (fd == kNoSocket) {
        return;
    }
    ::close(fd);
    fd = kNoSocket;
    bound_port = 0;
}

}  // namespace vesper
