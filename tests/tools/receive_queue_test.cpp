#include "tools/stream/receive_queue.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>

#include "net/udp_socket.h"

namespace vesper::tools {
namespace {

class ReceiveQueueTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(receiver_.bind(0));
        ASSERT_TRUE(sender_.bind(0));
    }

    void send(int datagrams) {
        for (int i = 0; i < datagrams; ++i) {
            ASSERT_EQ(sender_.send(datagram_.data(), datagram_.size(), "127.0.0.1",
                                   receiver_.get_bound_port()),
                      static_cast<int>(datagram_.size()));
        }
    }
    int receive_all() {
        int received = 0;
        while (receiver_.recv(datagram_.data(), datagram_.size(), 0) > 0) {
            ++received;
        }
        return received;
    }

    std::array<std::uint8_t, 1440> datagram_{};
    UDPSocket receiver_;
    UDPSocket sender_;
};

TEST_F(ReceiveQueueTest, IsEmptyAtFirst) {
    const auto queue = receive_queue(receiver_.get_bound_port());
    ASSERT_TRUE(queue);
    EXPECT_EQ(queue->waiting, 0U);
    EXPECT_EQ(queue->lost, 0U);
}

TEST_F(ReceiveQueueTest, ReportsWhatWaits) {
    send(2);
    const auto queue = receive_queue(receiver_.get_bound_port());
    ASSERT_TRUE(queue);
    EXPECT_GE(queue->waiting, 2 * datagram_.size());
    EXPECT_EQ(queue->lost, 0U);
}

TEST_F(ReceiveQueueTest, CountsWhatFoundTheBufferFull) {
    constexpr int kSent = 5000;  // more than fits any usual buffer
    send(kSent);
    const int received = receive_all();
    ASSERT_LT(received, kSent);
    const auto queue = receive_queue(receiver_.get_bound_port());
    ASSERT_TRUE(queue);
    EXPECT_EQ(queue->waiting, 0U);
    EXPECT_EQ(queue->lost, static_cast<std::uint64_t>(kSent - received));
}

TEST_F(ReceiveQueueTest, IsNoneWithoutASocket) {
    const std::uint16_t port = receiver_.get_bound_port();
    receiver_.reset();
    EXPECT_FALSE(receive_queue(port));
}

TEST_F(ReceiveQueueTest, AllIsTakenWhileNothingWaits) {
    EXPECT_TRUE(has_taken_all(receiver_.get_bound_port()));
    send(1);
    EXPECT_FALSE(has_taken_all(receiver_.get_bound_port()));
    ASSERT_EQ(receive_all(), 1);
    EXPECT_TRUE(has_taken_all(receiver_.get_bound_port()));
}

TEST_F(ReceiveQueueTest, AllIsTakenWhereNobodyCanTell) {
    const std::uint16_t port = receiver_.get_bound_port();
    send(1);
    receiver_.reset();
    EXPECT_TRUE(has_taken_all(port));
}

}  // namespace
}  // namespace vesper::tools
