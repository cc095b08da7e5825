#include "tools/stream/free_port.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <fstream>
#include <set>

#include "net/udp_socket.h"
#include "tests/support/captured_output.h"

namespace vesper::tools {
namespace {

using test::Printed;
using test::printed_by;

TEST(FreePort, CanBeBound) {
    const std::uint16_t port = free_port();
    ASSERT_NE(port, 0) << "the system would choose another";
    UDPSocket socket;
    EXPECT_TRUE(socket.bind(port));
}

TEST(FreePort, MayBeTheEvenOneOfAPair) {
    const std::uint16_t port = free_pair_of_ports();
    ASSERT_NE(port, 0);
    EXPECT_EQ(port % 2, 0);
    UDPSocket even;
    UDPSocket odd;
    EXPECT_TRUE(even.bind(port));
    EXPECT_TRUE(odd.bind(static_cast<std::uint16_t>(port + 1)));
}

// Each keeps a socket open, and the usual limit may be lower than their number.
TEST(FreePort, IsGivenOnce) {
    constexpr std::size_t kPairs = 150;
    constexpr std::size_t kPorts = 300;
    rlimit descriptors{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &descriptors), 0);
    descriptors.rlim_cur = descriptors.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &descriptors), 0);
    std::set<std::uint16_t> ports;
    for (std::size_t i = 0; i < kPairs; ++i) {
        const std::uint16_t port = free_pair_of_ports();
        ports.insert({port, static_cast<std::uint16_t>(port + 1)});
    }
    for (std::size_t i = 0; i < kPorts; ++i) {
        ports.insert(free_port());
    }
    EXPECT_EQ(ports.size(), 2 * kPairs + kPorts);
    EXPECT_FALSE(ports.contains(0));
}

TEST(FreePort, IsNoneWhereNoSocketCanBeOpened) {
    rlimit usual{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
    const rlimit none{.rlim_cur = 0, .rlim_max = usual.rlim_max};
    const Printed printed = printed_by([&] {
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
        EXPECT_EQ(free_port(), 0);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
    });
    EXPECT_EQ(printed,
              (Printed{.out = "", .err = "No free port for a player: Too many open files\n"}));
}

TEST(FreePort, IsNotOneThatTheSystemGivesOutByItself) {
    std::ifstream range("/proc/sys/net/ipv4/ip_local_port_range");
    int first = 0;
    int last = 0;
    ASSERT_TRUE(range >> first >> last);
    if (first != 32768) {
        GTEST_SKIP() << "this machine gives out ports from " << first << " on";
    }
    for (int i = 0; i < 100; ++i) {
        EXPECT_THAT(free_port(), testing::AllOf(testing::Gt(1023), testing::Lt(first)));
    }
}

}  // namespace
}  // namespace vesper::tools
