#include "net/udp_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/support/captured_output.h"
#include "tests/support/fcntl_hook.h"
#include "tests/support/hook.h"

VESPER_HOOK(socket, int, (int domain, int type, int protocol), (domain, type, protocol))
VESPER_HOOK(bind, int, (int fd, const sockaddr* address, socklen_t size), (fd, address, size))
VESPER_HOOK(getsockname, int, (int fd, sockaddr* address, socklen_t* size), (fd, address, size))
VESPER_HOOK(sendto, ssize_t,
            (int fd, const void* data, std::size_t len, int flags, const sockaddr* address,
             socklen_t size),
            (fd, data, len, flags, address, size))
VESPER_HOOK(recvfrom, ssize_t,
            (int fd, void* buffer, std::size_t capacity, int flags, sockaddr* address,
             socklen_t* size),
            (fd, buffer, capacity, flags, address, size))
VESPER_HOOK(poll, int, (pollfd * descriptors, nfds_t count, int timeout_ms),
            (descriptors, count, timeout_ms))
// What poll() becomes where the compiler leaves it to the C library to check the array's size.
// NOLINTBEGIN: the names are the linker's.
extern "C" int __wrap___poll_chk(pollfd* descriptors, nfds_t count, int timeout_ms,
                                 std::size_t bytes) {
    EXPECT_LE(count * sizeof(pollfd), bytes);
    return __wrap_poll(descriptors, count, timeout_ms);
}
// NOLINTEND
VESPER_HOOK(setsockopt, int, (int fd, int level, int name, const void* value, socklen_t size),
            (fd, level, name, value, size))
VESPER_HOOK(close, int, (int fd), (fd))
VESPER_HOOK(signal, sighandler_t, (int number, sighandler_t handler), (number, handler))

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vesper::UDPSocket;
using vesper::test::kNothing;
using vesper::test::Printed;
using vesper::test::printed_by;

constexpr std::string_view kGreeting = "hello";
constexpr int kGenerousWait = 10'000;  // ms; a loopback datagram arrives at once

class UdpSocket : public vesper::test::HookedTest {
  protected:
    // For the tests to which the content of a datagram does not matter.
    int send_greeting(UDPSocket& from, std::uint16_t port, const char* host = "127.0.0.1") {
        return from.send(kGreeting.data(), kGreeting.size(), host, port);
    }
    int receive(UDPSocket& socket, int timeout_ms) {
        return socket.recv(buffer_.data(), buffer_.size(), timeout_ms);
    }
    std::string received(int length) { return {buffer_.data(), buffer_.data() + length}; }

    // Records which sockets are opened and which of them are closed again.
    void watch_descriptors() {
        hook_socket = [this](int domain, int type, int protocol) {
            opened_.push_back(__real_socket(domain, type, protocol));
            return opened_.back();
        };
        hook_close = [this](int fd) {
            if (std::find(opened_.begin(), opened_.end(), fd) != opened_.end()) {
                closed_.push_back(fd);
            }
            return __real_close(fd);
        };
    }

    std::array<char, 2048> buffer_{};
    std::vector<int> opened_;
    std::vector<int> closed_;
};

sockaddr_in ipv4(const sockaddr* address) {
    sockaddr_in copy{};
    std::memcpy(&copy, address, sizeof(copy));
    return copy;
}

int fail_with(int error) {
    errno = error;
    return -1;
}

// ---- life cycle ----

TEST_F(UdpSocket, IsNeitherCopiedNorMoved) {
    EXPECT_FALSE(std::is_copy_constructible_v<UDPSocket>);
    EXPECT_FALSE(std::is_copy_assignable_v<UDPSocket>);
    EXPECT_FALSE(std::is_move_constructible_v<UDPSocket>);
    EXPECT_FALSE(std::is_move_assignable_v<UDPSocket>);
}

TEST_F(UdpSocket, StartsWithoutSocketAndPort) {
    const UDPSocket socket;
    EXPECT_FALSE(socket.is_valid());
    EXPECT_EQ(socket.get_bound_port(), 0);
}

TEST_F(UdpSocket, DestructorClosesTheDescriptor) {
    watch_descriptors();
    {
        UDPSocket socket;
        ASSERT_TRUE(socket.bind(0));
        EXPECT_THAT(closed_, IsEmpty());
    }
    ASSERT_EQ(opened_.size(), 1U);
    EXPECT_EQ(closed_, opened_);
}

TEST_F(UdpSocket, DestructorOfAnUnboundSocketClosesNothing) {
    int closed = 0;
    hook_close = [&](int) { return closed++; };
    std::optional<UDPSocket> socket(std::in_place);
    socket.reset();
    EXPECT_EQ(closed, 0);
}

TEST_F(UdpSocket, ResetClosesTheSocketOnceAndForgetsThePort) {
    watch_descriptors();
    {
        UDPSocket socket;
        ASSERT_TRUE(socket.bind(0));
        EXPECT_EQ(printed_by([&] { socket.reset(); }), kNothing);
        EXPECT_EQ(closed_, opened_);
        EXPECT_FALSE(socket.is_valid());
        EXPECT_EQ(socket.get_bound_port(), 0);
    }
    EXPECT_EQ(closed_, opened_);
}

TEST_F(UdpSocket, ResetWithoutSocketClosesNothing) {
    UDPSocket socket;
    int closed = 0;
    hook_close = [&](int) { return closed++; };
    socket.reset();
    EXPECT_EQ(closed, 0);
}

TEST_F(UdpSocket, CanBeBoundAgainAfterReset) {
    UDPSocket socket;
    ASSERT_TRUE(socket.bind(0));
    const std::uint16_t port = socket.get_bound_port();
    socket.reset();
    ASSERT_TRUE(socket.bind(port));
    EXPECT_EQ(socket.get_bound_port(), port);
}

// ---- bind ----

TEST_F(UdpSocket, BindToPortZeroReportsThePortTheSystemChose) {
    UDPSocket socket;
    EXPECT_EQ(printed_by([&] { EXPECT_TRUE(socket.bind(0)); }), kNothing);
    EXPECT_TRUE(socket.is_valid());
    EXPECT_NE(socket.get_bound_port(), 0);
}

TEST_F(UdpSocket, BindCreatesAnIpv4UdpSocketOnLoopback) {
    std::vector<std::array<int, 3>> created;
    std::optional<sockaddr_in> bound_to;
    std::optional<socklen_t> getsockname_size;
    int fd = -1;
    hook_socket = [&](int domain, int type, int protocol) {
        created.push_back({domain, type, protocol});
        fd = __real_socket(domain, type, protocol);
        return fd;
    };
    hook_bind = [&](int bound_fd, const sockaddr* address, socklen_t size) {
        EXPECT_EQ(bound_fd, fd);
        EXPECT_EQ(size, sizeof(sockaddr_in));
        bound_to = ipv4(address);
        return 0;
    };
    hook_getsockname = [&](int named_fd, sockaddr* address, socklen_t* size) {
        EXPECT_EQ(named_fd, fd);
        getsockname_size = *size;
        std::memcpy(address, &*bound_to, sizeof(*bound_to));
        return 0;
    };
    UDPSocket socket;
    ASSERT_TRUE(socket.bind(0x1234));
    EXPECT_THAT(created, ElementsAre(std::array<int, 3>{AF_INET, SOCK_DGRAM, IPPROTO_UDP}));
    ASSERT_TRUE(bound_to);
    EXPECT_EQ(bound_to->sin_family, AF_INET);
    EXPECT_EQ(ntohl(bound_to->sin_addr.s_addr), 0x7F000001U);
    EXPECT_EQ(ntohs(bound_to->sin_port), 0x1234);
    EXPECT_THAT(bound_to->sin_zero, testing::Each(0));
    EXPECT_EQ(getsockname_size, 16U);
    EXPECT_EQ(socket.get_bound_port(), 0x1234);
}

TEST_F(UdpSocket, BindSetsNoSocketOption) {
    int options = 0;
    hook_setsockopt = [&](auto...) {
        ++options;
        return 0;
    };
    UDPSocket socket;
    ASSERT_TRUE(socket.bind(0));
    EXPECT_EQ(options, 0);
}

TEST_F(UdpSocket, BindAddsNonBlockingToTheDescriptorsFlags) {
    std::vector<std::pair<int, long>> commands;
    hook_fcntl = [&](int fd, int command, long argument) {
        commands.emplace_back(command, argument);
        return command == F_GETFL ? O_RDWR | O_APPEND : __real_fcntl(fd, command, argument);
    };
    UDPSocket socket;
    ASSERT_TRUE(socket.bind(0));
    EXPECT_THAT(commands, ElementsAre(std::pair(F_GETFL, 0L),
                                      std::pair(F_SETFL, long{O_RDWR | O_APPEND | O_NONBLOCK})));
}

TEST_F(UdpSocket, TheBoundDescriptorIsNonBlocking) {
    int fd = -1;
    hook_socket = [&](int domain, int type, int protocol) {
        fd = __real_socket(domain, type, protocol);
        return fd;
    };
    UDPSocket socket;
    ASSERT_TRUE(socket.bind(0));
    EXPECT_NE(__real_fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(UdpSocket, ASecondBindFailsAndLeavesTheSocketAsItIs) {
    UDPSocket socket;
    ASSERT_TRUE(socket.bind(0));
    const std::uint16_t port = socket.get_bound_port();
    EXPECT_EQ(printed_by([&] { EXPECT_FALSE(socket.bind(0)); }),
              (Printed{.out = "", .err = "[UDPSocket] Socket already created\n"}));
    EXPECT_TRUE(socket.is_valid());
    EXPECT_EQ(socket.get_bound_port(), port);

    UDPSocket sender;
    ASSERT_TRUE(sender.bind(0));
    send_greeting(sender, port);
    EXPECT_EQ(received(receive(socket, kGenerousWait)), kGreeting);
}

TEST_F(UdpSocket, AFailedSocketCallIsReported) {
    hook_socket = [](auto...) { return fail_with(EMFILE); };
    UDPSocket socket;
    EXPECT_EQ(printed_by([&] { EXPECT_FALSE(socket.bind(0)); }),
              (Printed{.out = "", .err = "[UDPSocket] socket() failed: Too many open files\n"}));
    EXPECT_FALSE(socket.is_valid());
    EXPECT_EQ(socket.get_bound_port(), 0);
}

class UdpSocketFcntl : public UdpSocket, public testing::WithParamInterface<int> {};

TEST_P(UdpSocketFcntl, AFailureIsReportedAndTheDescriptorClosed) {
    watch_descriptors();
    hook_fcntl = [](int fd, int command, long argument) {
        return command == GetParam() ? fail_with(EPERM) : __real_fcntl(fd, command, argument);
    };
    UDPSocket socket;
    EXPECT_EQ(printed_by([&] { EXPECT_FALSE(socket.bind(0)); }),
              (Printed{.out = "",
                       .err = "[UDPSocket] fcntl(O_NONBLOCK) failed: Operation not permitted\n"}));
    ASSERT_EQ(opened_.size(), 1U);
    EXPECT_EQ(closed_, opened_);
    EXPECT_FALSE(socket.is_valid());
}

INSTANTIATE_TEST_SUITE_P(Command, UdpSocketFcntl, testing::Values(F_GETFL, F_SETFL),
                         [](const auto& command) {
                             return command.param == F_GETFL ? "GetFlags" : "SetFlags";
                         });

TEST_F(UdpSocket, APortInUseFailsAndAFreePortStillBinds) {
    UDPSocket holder;
    ASSERT_TRUE(holder.bind(0));
    UDPSocket socket;
    EXPECT_EQ(printed_by([&] { EXPECT_FALSE(socket.bind(holder.get_bound_port())); }),
              (Printed{.out = "", .err = "[UDPSocket] bind() failed: Address already in use\n"}));
    EXPECT_FALSE(socket.is_valid());
    EXPECT_EQ(socket.get_bound_port(), 0);

    EXPECT_EQ(printed_by([&] { EXPECT_TRUE(socket.bind(0)); }), kNothing);
    EXPECT_TRUE(socket.is_valid());
    EXPECT_NE(socket.get_bound_port(), 0);
}

TEST_F(UdpSocket, AFailedBindCallClosesTheDescriptor) {
    watch_descriptors();
    hook_bind = [](auto...) { return fail_with(EACCES); };
    UDPSocket socket;
    EXPECT_EQ(printed_by([&] { EXPECT_FALSE(socket.bind(80)); }),
              (Printed{.out = "", .err = "[UDPSocket] bind() failed: Permission denied\n"}));
    ASSERT_EQ(opened_.size(), 1U);
    EXPECT_EQ(closed_, opened_);
}

TEST_F(UdpSocket, AFailedGetsocknameLeavesThePortUnknownAndTheSocketBound) {
    hook_getsockname = [](auto...) { return fail_with(ENOBUFS); };
    UDPSocket socket;
    EXPECT_EQ(printed_by([&] { EXPECT_TRUE(socket.bind(0)); }), kNothing);
    EXPECT_TRUE(socket.is_valid());
    EXPECT_EQ(socket.get_bound_port(), 0);
}

TEST_F(UdpSocket, DescriptorZeroIsASocket) {
    hook_socket = [](auto...) { return 0; };
    hook_fcntl = [](auto...) { return 0; };
    hook_bind = [](auto...) { return 0; };
    std::vector<int> closed;
    {
        UDPSocket socket;
        EXPECT_TRUE(socket.bind(0));
        EXPECT_TRUE(socket.is_valid());
        hook_close = [&](int fd) {
            closed.push_back(fd);
            return 0;
        };
    }
    EXPECT_THAT(closed, ElementsAre(0));
}

// ---- send ----

TEST_F(UdpSocket, SendDeliversOneDatagramFromTheBoundPort) {
    UDPSocket sender;
    UDPSocket receiver;
    ASSERT_TRUE(sender.bind(0));
    ASSERT_TRUE(receiver.bind(0));
    std::uint16_t source_port = 0;
    hook_recvfrom = [&](int fd, void* buffer, std::size_t capacity, int flags, sockaddr* address,
                        socklen_t* size) {
        EXPECT_EQ(*size, 16U);
        const ssize_t length = __real_recvfrom(fd, buffer, capacity, flags, address, size);
        source_port = ntohs(ipv4(address).sin_port);
        return length;
    };
    EXPECT_EQ(printed_by([&] { EXPECT_EQ(send_greeting(sender, receiver.get_bound_port()), 5); }),
              kNothing);
    EXPECT_EQ(received(receive(receiver, kGenerousWait)), kGreeting);
    EXPECT_EQ(source_port, sender.get_bound_port());
}

TEST_F(UdpSocket, SendPassesDataAddressAndNoFlags) {
    UDPSocket socket;
    ASSERT_TRUE(socket.bind(0));
    int calls = 0;
    hook_sendto = [&](int, const void* data, std::size_t len, int flags, const sockaddr* address,
                      socklen_t size) {
        ++calls;
        EXPECT_EQ(data, kGreeting.data());
        EXPECT_EQ(len, kGreeting.size());
        EXPECT_EQ(flags, 0);
        EXPECT_EQ(size, 16U);
        const sockaddr_in to = ipv4(address);
        EXPECT_EQ(to.sin_family, AF_INET);
        EXPECT_EQ(ntohs(to.sin_port), 0x1234);
        EXPECT_EQ(ntohl(to.sin_addr.s_addr), 0x0A010203U);
        EXPECT_THAT(to.sin_zero, testing::Each(0));
        return ssize_t{3};
    };
    EXPECT_EQ(send_greeting(socket, 0x1234, "10.1.2.3"), 3);
    EXPECT_EQ(calls, 1);
}

TEST_F(UdpSocket, SendBeforeBindIsReported) {
    UDPSocket socket;
    EXPECT_EQ(printed_by([&] { EXPECT_EQ(send_greeting(socket, 5000), -1); }),
              (Printed{.out = "", .err = "[UDPSocket] Socket not initialized\n"}));
}

// The missing socket is noticed before the host is parsed.
TEST_F(UdpSocket, SendBeforeBindToANameReportsOnlyTheMissingSocket) {
    UDPSocket socket;
    EXPECT_EQ(printed_by([&] { EXPECT_EQ(send_greeting(socket, 5000, "localhost"), -1); }),
              (Printed{.out = "", .err = "[UDPSocket] Socket not initialized\n"}));
}

struct BadHost {
    const char* name;
    const char* text;
};

void PrintTo(const BadHost& host, std::ostream* stream) {
    *stream << testing::PrintToString(host.text);
}

class UdpSocketHost : public UdpSocket, public testing::WithParamInterface<BadHost> {};

TEST_P(UdpSocketHost, ThatIsNoDottedIpv4TextIsRefusedWithoutSending) {
    UDPSocket socket;
    ASSERT_TRUE(socket.bind(0));
    int sent = 0;
    hook_sendto = [&](auto...) {
        ++sent;
        return ssize_t{0};
    };
    const char* const host = GetParam().text;
    const std::string expected = std::string("[UDPSocket] Invalid host address: ") + host + "\n";
    EXPECT_EQ(printed_by([&] { EXPECT_EQ(send_greeting(socket, 5000, host), -1); }),
              (Printed{.out = "", .err = expected}));
    EXPECT_EQ(sent, 0);
}

INSTANTIATE_TEST_SUITE_P(Text, UdpSocketHost,
                         testing::Values(BadHost{"Name", "localhost"}, BadHost{"EmptyText", ""},
                                         BadHost{"Ipv6", "::1"}, BadHost{"TwoNumbers", "127.1"},
                                         BadHost{"NumberAbove255", "256.0.0.1"},
                                         BadHost{"SpaceAtTheEnd", "127.0.0.1 "}),
                         [](const auto& host) { return std::string(host.param.name); });

TEST_F(UdpSocket, SendThatWouldBlockIsSilent) {
    UDPSocket socket;
    ASSERT_TRUE(socket.bind(0));
    hook_sendto = [](auto...) { return ssize_t{fail_with(EAGAIN)}; };
    EXPECT_EQ(printed_by([&] { EXPECT_EQ(send_greeting(socket, 5000), -1); }), kNothing);
}

TEST_F(UdpSocket, AFailedSendIsReported) {
    UDPSocket socket;
    ASSERT_TRUE(socket.bind(0));
    hook_sendto = [](auto...) { return ssize_t{fail_with(ENETUNREACH)}; };
    EXPECT_EQ(printed_by([&] { EXPECT_EQ(send_greeting(socket, 5000), -1); }),
              (Printed{.out = "", .err = "[UDPSocket] sendto() failed: Network is unreachable\n"}));
}

// ---- recv ----

TEST_F(UdpSocket, RecvBeforeBindFailsSilently) {
    UDPSocket socket;
    int calls = 0;
    hook_poll = [&](auto...) { return ++calls; };
    hook_recvfrom = [&](auto...) { return ssize_t{++calls}; };
    EXPECT_EQ(printed_by([&] { EXPECT_EQ(receive(socket, 5), -1); }), kNothing);
    EXPECT_EQ(calls, 0);
}

TEST_F(UdpSocket, RecvOnAnIdleSocketWaitsItsTimeoutAndReturnsZero) {
    UDPSocket socket;
    ASSERT_TRUE(socket.bind(0));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(printed_by([&] { EXPECT_EQ(receive(socket, 5), 0); }), kNothing);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(5));
}

TEST_F(UdpSocket, RecvDoesNotReadAfterATimeout) {
    UDPSocket socket;
    ASSERT_TRUE(socket.bind(0));
    hook_poll = [](auto...) { return 0; };
    int reads = 0;
    hook_recvfrom = [&](auto...) {
        ++reads;
        return ssize_t{1};
    };
    EXPECT_EQ(receive(socket, 5), 0);
    EXPECT_EQ(reads, 0);
}

class UdpSocketWait : public UdpSocket, public testing::WithParamInterface<int> {};

TEST_P(UdpSocketWait, LooksForReadabilityOfTheOneDescriptorForTheWholeTimeout) {
    int fd = -1;
    hook_socket = [&](int domain, int type, int protocol) {
        fd = __real_socket(domain, type, protocol);
        return fd;
    };
    UDPSocket socket;
    ASSERT_TRUE(socket.bind(0));
    std::vector<int> waits;
    hook_poll = [&](pollfd* descriptors, nfds_t count, int timeout_ms) {
        EXPECT_EQ(count, 1U);
        EXPECT_EQ(descriptors->fd, fd);
        EXPECT_EQ(descriptors->events, POLLIN);
        waits.push_back(timeout_ms);
        return 0;
    };
    EXPECT_EQ(receive(socket, GetParam()), 0);
    EXPECT_THAT(waits, ElementsAre(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Milliseconds, UdpSocketWait, testing::Values(1, 5, 999, 1000, 1500),
                         testing::PrintToStringParamName());

class UdpSocketNoWait : public UdpSocket, public testing::WithParamInterface<int> {};

TEST_P(UdpSocketNoWait, AsksTheSocketOnceAndReturnsZeroAtOnce) {
    UDPSocket socket;
    ASSERT_TRUE(socket.bind(0));
    int waits = 0;
    hook_poll = [&](auto...) { return ++waits; };
    int reads = 0;
    hook_recvfrom = [&](auto... arguments) {
        ++reads;
        return __real_recvfrom(arguments...);
    };
    EXPECT_EQ(printed_by([&] { EXPECT_EQ(receive(socket, GetParam()), 0); }), kNothing);
    EXPECT_EQ(waits, 0);
    EXPECT_EQ(reads, 1);
}

INSTANTIATE_TEST_SUITE_P(Milliseconds, UdpSocketNoWait, testing::Values(0, -1, -1500),
                         [](const auto& timeout) {
                             return (timeout.param < 0 ? "Minus" : "") +
                                    std::to_string(std::abs(timeout.param));
                         });

TEST_F(UdpSocket, AnInterruptedWaitIsASilentError) {
    UDPSocket socket;
    ASSERT_TRUE(socket.bind(0));
    hook_poll = [](auto...) { return fail_with(EINTR); };
    int reads = 0;
    hook_recvfrom = [&](auto...) {
        ++reads;
        return ssize_t{1};
    };
    EXPECT_EQ(printed_by([&] { EXPECT_EQ(receive(socket, 5), -1); }), kNothing);
    EXPECT_EQ(reads, 0);
}

TEST_F(UdpSocket, RecvPassesBufferCapacityAndNoFlags) {
    UDPSocket socket;
    ASSERT_TRUE(socket.bind(0));
    hook_recvfrom = [&](int, void* buffer, std::size_t capacity, int flags, sockaddr*,
                        socklen_t* size) {
        EXPECT_EQ(buffer, buffer_.data());
        EXPECT_EQ(capacity, buffer_.size());
        EXPECT_EQ(flags, 0);
        EXPECT_EQ(*size, 16U);
        return ssize_t{7};
    };
    EXPECT_EQ(receive(socket, 0), 7);
}

TEST_F(UdpSocket, AReceiveThatWouldBlockReturnsZeroSilently) {
    UDPSocket socket;
    ASSERT_TRUE(socket.bind(0));
    hook_poll = [](auto...) { return 1; };  // readable, but another reader was faster
    hook_recvfrom = [](auto...) { return ssize_t{fail_with(EAGAIN)}; };
    EXPECT_EQ(printed_by([&] { EXPECT_EQ(receive(socket, 5), 0); }), kNothing);
}

TEST_F(UdpSocket, AFailedReceiveIsReported) {
    UDPSocket socket;
    ASSERT_TRUE(socket.bind(0));
    hook_recvfrom = [](auto...) { return ssize_t{fail_with(ECONNREFUSED)}; };
    EXPECT_EQ(printed_by([&] { EXPECT_EQ(receive(socket, 0), -1); }),
              (Printed{.out = "", .err = "[UDPSocket] recvfrom() failed: Connection refused\n"}));
}

TEST_F(UdpSocket, AnEmptyDatagramLooksLikeNothing) {
    UDPSocket sender;
    UDPSocket receiver;
    ASSERT_TRUE(sender.bind(0));
    ASSERT_TRUE(receiver.bind(0));
    EXPECT_EQ(sender.send("", 0, "127.0.0.1", receiver.get_bound_port()), 0);
    send_greeting(sender, receiver.get_bound_port());
    EXPECT_EQ(receive(receiver, kGenerousWait), 0);  // taken out of the queue
    EXPECT_EQ(received(receive(receiver, kGenerousWait)), kGreeting);
}

TEST_F(UdpSocket, ALongDatagramIsCutAndItsRestLost) {
    UDPSocket sender;
    UDPSocket receiver;
    ASSERT_TRUE(sender.bind(0));
    ASSERT_TRUE(receiver.bind(0));
    send_greeting(sender, receiver.get_bound_port());
    EXPECT_EQ(receiver.recv(buffer_.data(), 3, kGenerousWait), 3);
    EXPECT_EQ(received(3), "hel");
    EXPECT_EQ(receive(receiver, 0), 0);
}

TEST_F(UdpSocket, DatagramsOfAnyLocalSenderAreReceived) {
    UDPSocket first;
    UDPSocket second;
    UDPSocket receiver;
    ASSERT_TRUE(first.bind(0));
    ASSERT_TRUE(second.bind(0));
    ASSERT_TRUE(receiver.bind(0));
    send_greeting(first, receiver.get_bound_port());
    send_greeting(second, receiver.get_bound_port());
    EXPECT_EQ(received(receive(receiver, kGenerousWait)), kGreeting);
    EXPECT_EQ(received(receive(receiver, kGenerousWait)), kGreeting);
}

// 127.0.0.2 is also this machine, but not the address that the socket is bound to. A datagram from
// another host, to any address of this machine, is not delivered for the same reason.
TEST_F(UdpSocket, OnlyTheLoopbackAddressIsListenedTo) {
    UDPSocket sender;
    UDPSocket receiver;
    ASSERT_TRUE(sender.bind(0));
    ASSERT_TRUE(receiver.bind(0));
    send_greeting(sender, receiver.get_bound_port(), "127.0.0.2");
    sender.send("second", 6, "127.0.0.1", receiver.get_bound_port());
    EXPECT_EQ(received(receive(receiver, kGenerousWait)), "second");
    EXPECT_EQ(receive(receiver, 0), 0);
}

// ---- buffer sizes ----

struct BufferSetting {
    const char* name;
    bool (UDPSocket::*set)(int);
    int option;
};

class UdpSocketBuffer : public UdpSocket, public testing::WithParamInterface<BufferSetting> {};

TEST_P(UdpSocketBuffer, IsSetByOneSocketOption) {
    UDPSocket socket;
    ASSERT_TRUE(socket.bind(0));
    int calls = 0;
    hook_setsockopt = [&](int, int level, int name, const void* value, socklen_t size) {
        ++calls;
        EXPECT_EQ(level, SOL_SOCKET);
        EXPECT_EQ(name, GetParam().option);
        EXPECT_EQ(size, sizeof(int));
        EXPECT_EQ(*static_cast<const int*>(value), 262144);
        return 0;
    };
    EXPECT_TRUE((socket.*GetParam().set)(262144));
    EXPECT_EQ(calls, 1);
}

TEST_P(UdpSocketBuffer, RefusedByTheSystemIsFalseAndSilent) {
    UDPSocket socket;
    ASSERT_TRUE(socket.bind(0));
    hook_setsockopt = [](auto...) { return fail_with(ENOBUFS); };
    EXPECT_EQ(printed_by([&] { EXPECT_FALSE((socket.*GetParam().set)(262144)); }), kNothing);
}

TEST_P(UdpSocketBuffer, WithoutSocketIsFalseAndSilent) {
    UDPSocket socket;
    int calls = 0;
    hook_setsockopt = [&](auto...) {
        ++calls;
        return 0;
    };
    EXPECT_EQ(printed_by([&] { EXPECT_FALSE((socket.*GetParam().set)(262144)); }), kNothing);
    EXPECT_EQ(calls, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Direction, UdpSocketBuffer,
    testing::Values(BufferSetting{"Receive", &UDPSocket::set_recv_buffer, SO_RCVBUF},
                    BufferSetting{"Send", &UDPSocket::set_send_buffer, SO_SNDBUF}),
    [](const auto& setting) { return std::string(setting.param.name); });

// ---- process-wide set-up ----

class SocketInit : public vesper::test::HookedTest {};

TEST_F(SocketInit, IgnoresSigpipeAndNothingElse) {
    std::vector<std::pair<int, sighandler_t>> dispositions;
    hook_signal = [&](int number, sighandler_t handler) {
        dispositions.emplace_back(number, handler);
        return __real_signal(number, handler);
    };
    EXPECT_EQ(printed_by([] { EXPECT_TRUE(socket_init()); }), kNothing);
    EXPECT_THAT(dispositions, ElementsAre(std::pair(SIGPIPE, SIG_IGN)));
}

TEST_F(SocketInit, IsTrueEvenWhenTheSystemRefuses) {
    hook_signal = [](auto...) { return SIG_ERR; };
    EXPECT_EQ(printed_by([] { EXPECT_TRUE(socket_init()); }), kNothing);
}

TEST_F(SocketInit, MakesAWriteToAClosedPipeAnError) {
    const sighandler_t before = __real_signal(SIGPIPE, SIG_DFL);
    socket_init();
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    ::close(ends[0]);
    EXPECT_EQ(::write(ends[1], "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    ::close(ends[1]);
    __real_signal(SIGPIPE, before);
}

TEST_F(SocketInit, CleanupDoesNothing) {
    int signals = 0;
    hook_signal = [&](auto...) {
        ++signals;
        return SIG_DFL;
    };
    UDPSocket socket;
    ASSERT_TRUE(socket.bind(0));
    EXPECT_EQ(printed_by([] { socket_cleanup(); }), kNothing);
    EXPECT_EQ(signals, 0);
    EXPECT_TRUE(socket.is_valid());
}

}  // namespace
