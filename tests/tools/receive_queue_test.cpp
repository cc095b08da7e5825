#include "tools/stream/receive_queue.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstddef>
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

    void send(int datagrams, std::size_t size = kFragment) {
        for (int i = 0; i < datagrams; ++i) {
            ASSERT_EQ(sender_.send(datagram_.data(), size, "127.0.0.1", receiver_.get_bound_port()),
                      static_cast<int>(size));
        }
    }
    int receive_all() {
        int received = 0;
        while (receiver_.recv(datagram_.data(), datagram_.size(), 0) > 0) {
            ++received;
        }
        return received;
    }

    // Bytes: a fragment of a picture; 20 ms of sound at 96 kbit/s, with the header.
    static constexpr std::size_t kFragment = 1440;
    static constexpr std::size_t kSoundPacket = 268;

    std::array<std::uint8_t, kFragment> datagram_{};
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
    ASSERT_TRUE(receiver_.set_recv_buffer(1));  // as small as the system allows
    constexpr int kSent = 100;
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

// A socket of another program may have the same port on another address of the machine.
class SocketElsewhere {
  public:
    // A fragment of a picture waits in it.
    explicit SocketElsewhere(std::uint16_t port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        EXPECT_EQ(inet_pton(AF_INET, "127.0.0.2", &address.sin_addr), 1);
        const auto* const name = reinterpret_cast<const sockaddr*>(&address);
        EXPECT_EQ(bind(descriptor_, name, sizeof(address)), 0);
        const std::array<char, 1440> fragment{};
        EXPECT_GT(sendto(descriptor_, fragment.data(), fragment.size(), 0, name, sizeof(address)),
                  0);
    }
    ~SocketElsewhere() { close(descriptor_); }
    SocketElsewhere(const SocketElsewhere&) = delete;
    SocketElsewhere& operator=(const SocketElsewhere&) = delete;

  private:
    int descriptor_ = socket(AF_INET, SOCK_DGRAM, 0);
};

TEST_F(ReceiveQueueTest, IsThatOfThePlayersAddress) {
    const std::uint16_t port = receiver_.get_bound_port();
    const SocketElsewhere elsewhere(port);
    EXPECT_TRUE(keeps_up(port));
    send(1);
    EXPECT_FALSE(keeps_up(port));
    ASSERT_EQ(receive_all(), 1);
    EXPECT_TRUE(keeps_up(port));
}

TEST_F(ReceiveQueueTest, APlayerKeepsUpWhileNoPictureWaits) {
    EXPECT_TRUE(keeps_up(receiver_.get_bound_port()));
    send(1);
    EXPECT_FALSE(keeps_up(receiver_.get_bound_port()));
    ASSERT_EQ(receive_all(), 1);
    EXPECT_TRUE(keeps_up(receiver_.get_bound_port()));
}

TEST_F(ReceiveQueueTest, APlayerKeepsUpWhileOneSoundPacketWaits) {
    send(1, kSoundPacket);
    EXPECT_TRUE(keeps_up(receiver_.get_bound_port()));
    send(1, kSoundPacket);
    EXPECT_FALSE(keeps_up(receiver_.get_bound_port()));
}

TEST_F(ReceiveQueueTest, APlayerKeepsUpWhereNobodyCanTell) {
    const std::uint16_t port = receiver_.get_bound_port();
    send(1);
    receiver_.reset();
    EXPECT_TRUE(keeps_up(port));
}

}  // namespace
}  // namespace vesper::tools
