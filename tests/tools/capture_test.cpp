#include "tools/stream/capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>
#include <vector>

#include "net/stream_datagrams.h"
#include "tests/support/captured_output.h"
#include "tests/support/fragment_builder.h"
#include "tests/support/hook.h"
#include "tests/support/temporary_folder.h"

using SteadyTime = std::chrono::steady_clock::time_point;
using SystemTime = std::chrono::system_clock::time_point;

// std::chrono::steady_clock::now() and std::chrono::system_clock::now() of libstdc++.
VESPER_HOOK(_ZNSt6chrono3_V212steady_clock3nowEv, SteadyTime, (), ())
VESPER_HOOK(_ZNSt6chrono3_V212system_clock3nowEv, SystemTime, (), ())

namespace vesper::tools {
namespace {

using namespace std::chrono_literals;
using std::chrono::microseconds;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::SizeIs;
using vesper::test::FragmentBuilder;
using vesper::test::Printed;
using vesper::test::printed_by;

constexpr std::uint16_t kParentPort = 47001;
constexpr std::uint16_t kPlayerPort = 47000;

// Sizes of what a pcap file is made of: docs of libpcap, pcap-savefile(5).
constexpr std::size_t kFileHeaderSize = 24;
constexpr std::size_t kPacketHeaderOfFileSize = 16;

// The same but for the time.
auto datagram(std::uint16_t source_port, std::uint16_t destination_port, const Datagram& bytes) {
    return testing::AllOf(Field(&CapturedDatagram::source_port, source_port),
                          Field(&CapturedDatagram::destination_port, destination_port),
                          Field(&CapturedDatagram::bytes, bytes));
}

class Capture : public test::HookedTest {
  protected:
    // A file with a possible conversation between a parent and a player.
    void write_conversation() const {
        CaptureWriter writer;
        ASSERT_TRUE(writer.open(path_));
        writer.write(kParentPort, kPlayerPort, fragment_);
        writer.write(kPlayerPort, kParentPort, kKeyframeRequest);
        writer.write(kParentPort, kPlayerPort, odd_fragment_);
        writer.write(kPlayerPort, kParentPort, audio_state_);
    }

    [[nodiscard]] std::vector<std::uint8_t> file_bytes() const {
        std::ifstream file(path_, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    void write_file(const std::vector<std::uint8_t>& bytes) const {
        std::ofstream file(path_, std::ios::binary);
        file.write(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
    }

    // What is printed when read_capture() refuses the file.
    [[nodiscard]] Printed refusal() const {
        return printed_by([this] { EXPECT_FALSE(read_capture(path_).has_value()); });
    }

    test::TemporaryFolder folder_;
    std::string path_ = folder_.file("conversation.pcap");

    Datagram fragment_ = FragmentBuilder().payload_of_size(1400).build();
    Datagram odd_fragment_ = FragmentBuilder().frame(2).payload_of_size(1).build();
    Datagram keyframe_request_ = {'K', 'F', 'R', 'Q'};
    Datagram audio_state_ = {'A', 'U', 'D', 'S', 1, 0, 0, 0, 0x3F};
};

TEST_F(Capture, GivesBackEveryDatagramOfBothDirectionsInOrder) {
    write_conversation();

    const auto capture = read_capture(path_);
    ASSERT_TRUE(capture.has_value());
    EXPECT_THAT(*capture, ElementsAre(datagram(kParentPort, kPlayerPort, fragment_),
                                      datagram(kPlayerPort, kParentPort, keyframe_request_),
                                      datagram(kParentPort, kPlayerPort, odd_fragment_),
                                      datagram(kPlayerPort, kParentPort, audio_state_)));
}

// Somebody may set the system's clock while a capture is written.
TEST_F(Capture, StoresTheTimeOfEachDatagramByTheClockAtItsBeginning) {
    constexpr microseconds kBeginning = 1'790'000'000s;
    SteadyTime steady(5s);
    hook__ZNSt6chrono3_V212steady_clock3nowEv = [&] { return std::exchange(steady, steady + 7ms); };
    SystemTime system(kBeginning);
    hook__ZNSt6chrono3_V212system_clock3nowEv = [&] { return std::exchange(system, system - 1h); };
    write_conversation();

    const auto capture = read_capture(path_);
    ASSERT_TRUE(capture.has_value());
    const auto at = [](microseconds time) { return Field(&CapturedDatagram::time, time); };
    EXPECT_THAT(*capture, ElementsAre(at(kBeginning + 7ms), at(kBeginning + 14ms),
                                      at(kBeginning + 21ms), at(kBeginning + 28ms)));
}

TEST_F(Capture, IsReadableWhileItGrows) {
    CaptureWriter writer;
    ASSERT_TRUE(writer.open(path_));
    EXPECT_THAT(read_capture(path_), testing::Optional(IsEmpty()));
    writer.write(kParentPort, kPlayerPort, fragment_);
    EXPECT_THAT(read_capture(path_), testing::Optional(SizeIs(1)));
}

// Addresses, ports, lengths and both checksums, as Linux itself fills them in.
TEST_F(Capture, StoresEachDatagramAsAnIpPacketBetweenLoopbackAddresses) {
    {
        CaptureWriter writer;
        ASSERT_TRUE(writer.open(path_));
        writer.write(kPlayerPort, kParentPort, audio_state_);
    }
    const std::vector<std::uint8_t> bytes = file_bytes();
    ASSERT_THAT(bytes, SizeIs(kFileHeaderSize + kPacketHeaderOfFileSize + 37));
    EXPECT_THAT(std::vector(bytes.begin() + kFileHeaderSize + kPacketHeaderOfFileSize, bytes.end()),
                testing::ElementsAreArray(std::vector<std::uint8_t>{
                    0x45, 0x00, 0x00, 0x25, 0x00, 0x00, 0x40, 0x00, 0x40, 0x11, 0x3C, 0xC6,  // IPv4
                    0x7F, 0x00, 0x00, 0x01, 0x7F, 0x00, 0x00, 0x01,  // addresses
                    0xB7, 0x98, 0xB7, 0x99, 0x00, 0x11, 0xCC, 0xEE,  // UDP
                    0x41, 0x55, 0x44, 0x53, 0x01, 0x00, 0x00, 0x00, 0x3F}));
}

TEST_F(Capture, StoresTheLargestDatagramThatUdpAllows) {
    const Datagram largest(65'507, 0xFF);
    {
        CaptureWriter writer;
        ASSERT_TRUE(writer.open(path_));
        writer.write(kParentPort, kPlayerPort, largest);
    }
    EXPECT_THAT(read_capture(path_),
                testing::Optional(ElementsAre(datagram(kParentPort, kPlayerPort, largest))));
}

TEST_F(Capture, WasSentToThePlayerWhereItIsNoMessageOfThePlayer) {
    write_conversation();
    auto capture = read_capture(path_);
    ASSERT_TRUE(capture.has_value());
    EXPECT_THAT(sent_to_player(std::move(*capture)),
                ElementsAre(datagram(kParentPort, kPlayerPort, fragment_),
                            datagram(kParentPort, kPlayerPort, odd_fragment_)));
}

// An empty datagram means nothing to a player, and cannot be impaired.
TEST_F(Capture, WasSentToThePlayerWhereItIsNotEmpty) {
    EXPECT_THAT(sent_to_player({{.destination_port = kParentPort, .bytes = {}},
                                {.destination_port = kPlayerPort, .bytes = fragment_},
                                {.destination_port = kPlayerPort, .bytes = {}}}),
                ElementsAre(Field(&CapturedDatagram::bytes, fragment_)));
}

// What `tcpdump -i lo` writes: an Ethernet header in front of each packet; other traffic between.
TEST_F(Capture, OfTheLoopbackInterfaceIsReadWithoutItsOtherTraffic) {
    write_conversation();
    const std::vector<std::uint8_t> ours = file_bytes();

    pcap_t* ethernet = pcap_open_dead(DLT_EN10MB, 65'535);
    pcap_dumper_t* file = pcap_dump_open(ethernet, path_.c_str());
    const auto add = [file](std::vector<std::uint8_t> packet) {
        packet.insert(packet.begin(), 14, 0);
        const auto size = static_cast<bpf_u_int32>(packet.size());
        const pcap_pkthdr header{.ts = {.tv_sec = 5, .tv_usec = 6}, .caplen = size, .len = size};
        pcap_dump(reinterpret_cast<u_char*>(file), &header, packet.data());
    };
    const std::vector<std::uint8_t> first_packet(
        ours.begin() + kFileHeaderSize + kPacketHeaderOfFileSize,
        ours.begin() + kFileHeaderSize + kPacketHeaderOfFileSize + 28 + 1440);
    std::vector<std::uint8_t> tcp = first_packet;
    tcp[9] = 6;  // IPv4's protocol field
    std::vector<std::uint8_t> version_6 = first_packet;
    version_6[0] = 0x65;
    std::vector<std::uint8_t> second_piece = first_packet;
    second_piece[7] = 1;  // IPv4's fragment offset
    std::vector<std::uint8_t> longer_than_it_is = first_packet;
    longer_than_it_is[24] = 0xFF;  // UDP's length
    for (const auto& packet :
         {tcp, version_6, second_piece, longer_than_it_is, first_packet, {0x45}, {}}) {
        add(packet);
    }
    pcap_dump_close(file);
    pcap_close(ethernet);

    EXPECT_THAT(read_capture(path_),
                testing::Optional(ElementsAre(CapturedDatagram{.time = microseconds(5'000'006),
                                                               .source_port = kParentPort,
                                                               .destination_port = kPlayerPort,
                                                               .bytes = fragment_})));
}

TEST_F(Capture, ThatIsMissingIsRefused) {
    EXPECT_EQ(refusal(), (Printed{.out = "", .err = path_ + ": No such file or directory\n"}));
}

TEST_F(Capture, ThatIsNoneIsRefused) {
    write_file({'D', 'K', 'I', 'F', 0, 0, 32, 0});
    EXPECT_EQ(refusal(),
              (Printed{.out = "", .err = path_ + ": not a capture: unknown file format\n"}));
}

TEST_F(Capture, CutWithinItsHeaderIsRefused) {
    write_conversation();
    std::filesystem::resize_file(path_, kFileHeaderSize - 1);
    EXPECT_EQ(refusal(),
              (Printed{.out = "",
                       .err = path_ + ": not a capture: truncated dump file; tried to read 24 "
                                      "file header bytes, only got 19\n"}));
}

TEST_F(Capture, CutWithinADatagramIsRefused) {
    write_conversation();
    std::filesystem::resize_file(path_, std::filesystem::file_size(path_) - 1);
    EXPECT_EQ(refusal(),
              (Printed{.out = "",
                       .err = path_ + ": truncated or damaged after 3 datagrams: truncated dump "
                                      "file; tried to read 37 captured bytes, only got 36\n"}));
}

TEST_F(Capture, TakenWithASizeLimitIsRefused) {
    write_conversation();
    std::vector<std::uint8_t> bytes = file_bytes();
    ++bytes[kFileHeaderSize + 12];  // what the first packet's size was on the wire
    write_file(bytes);
    EXPECT_EQ(refusal(),
              (Printed{.out = "",
                       .err = path_ + ": captured with too small a limit on the packets' size\n"}));
}

TEST_F(Capture, TakenFromARadioIsRefused) {
    write_conversation();
    std::vector<std::uint8_t> bytes = file_bytes();
    bytes[20] = 105;  // the file header's link type: IEEE 802.11
    write_file(bytes);
    EXPECT_EQ(refusal(),
              (Printed{.out = "", .err = path_ + ": not captured on a loopback interface\n"}));
}

TEST_F(Capture, IntoAFolderThatDoesNotExistIsRefused) {
    CaptureWriter writer;
    const std::string path = folder_.file("missing/conversation.pcap");
    const Printed printed = printed_by([&] { EXPECT_FALSE(writer.open(path)); });
    EXPECT_EQ(printed, (Printed{.out = "", .err = path + ": No such file or directory\n"}));
}

TEST_F(Capture, OnAFullDiskIsRefused) {
    CaptureWriter writer;
    const Printed printed = printed_by([&] { EXPECT_FALSE(writer.open("/dev/full")); });
    EXPECT_EQ(printed, (Printed{.out = "", .err = "/dev/full: cannot be written\n"}));
}

}  // namespace
}  // namespace vesper::tools
