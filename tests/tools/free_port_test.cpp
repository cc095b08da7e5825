#include "tools/stream/free_port.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <set>

#include "net/udp_socket.h"

namespace vesper::tools {
namespace {

TEST(FreePort, CanBeBound) {
    UDPSocket socket;
    EXPECT_TRUE(socket.bind(free_port()));
}

TEST(FreePort, IsGivenOnce) {
    constexpr std::size_t kPorts = 200;
    std::set<std::uint16_t> ports;
    for (std::size_t i = 0; i < kPorts; ++i) {
        ports.insert(free_port());
    }
    EXPECT_EQ(ports.size(), kPorts);
    EXPECT_FALSE(ports.contains(0));
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
