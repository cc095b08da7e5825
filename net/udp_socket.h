// One non-blocking IPv4 UDP socket on the loopback address: the process's only network endpoint.
//
// The stream arrives through it and the control messages leave through it, so a parent application
// sees one port for both directions. Whatever arrives from any local sender is delivered; nothing
// from another host can, because the socket is bound to 127.0.0.1.
#pragma once

#include <cstddef>
#include <cstdint>

// Process-wide set-up: makes the process ignore SIGPIPE, so that a write to a closed pipe (a parent
// that stopped reading our output) is an error and not the end of the process. Call it once, before
// the first socket. Always returns true and prints nothing.
bool socket_init();

// Process-wide tear-down, the counterpart of socket_init(). There is nothing to release on this
// platform; the call keeps its place in the shut-down order for platforms where there is.
void socket_cleanup();

namespace vesper {

// Owns one socket descriptor. No locks: all calls come from one thread. Every failure is reported
// by the return value and, unless stated otherwise, by one line on standard error.
class UDPSocket {
  public:
    UDPSocket() = default;
    // Closes the descriptor, if there is one.
    ~UDPSocket();
    UDPSocket(const UDPSocket&) = delete;
    UDPSocket& operator=(const UDPSocket&) = delete;

    // Creates the socket, makes it non-blocking and binds it to 127.0.0.1:`port`. With port 0 the
    // system chooses one; get_bound_port() returns it. On failure returns false, prints one line
    // that names the failed call, and has no socket. On an object that already has a socket it
    // prints a line, returns false and leaves that socket as it is.
    [[nodiscard]] bool bind(std::uint16_t port);

    // Sends `len` bytes as one datagram to `host` (dotted IPv4 text, no name lookup) and `port`.
    // Never waits. Returns the number of bytes sent, or -1: with a line for a missing socket, an
    // unreadable host or a failed call; silently when the send would have had to wait.
    int send(const void* data, std::size_t len, const char* host, std::uint16_t port);

    // Receives one datagram of at most `capacity` bytes (a longer one is cut, the rest is lost),
    // waiting up to `timeout_ms` milliseconds for it; 0 or less does not wait. Returns its length,
    // 0 when nothing arrived (an empty datagram looks the same), or -1: silently without a socket
    // or when the wait was interrupted, with a line when the receiving call failed.
    int recv(void* buffer, std::size_t capacity, int timeout_ms);

    // Ask the system for a receive or send buffer of `bytes`. True when it accepted; false without
    // a socket or when it refused. Print nothing.
    bool set_recv_buffer(int bytes);
    bool set_send_buffer(int bytes);

    // Local port in host byte order; 0 while unknown.
    [[nodiscard]] std::uint16_t get_bound_port() const { return bound_port; }

    // True while the object owns a descriptor.
    [[nodiscard]] bool is_valid() const { return fd != kNoSocket; }

    // Closes the socket, if any, and forgets its port. The object can be bound again.
    void reset();

  private:
    static constexpr int kNoSocket = -1;

    bool fail_bind(const char* failed_call);

    int fd = kNoSocket;
    std::uint16_t bound_port = 0;
};

}  // namespace vesper
