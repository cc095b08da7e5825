// Reads a capture with tshark, Wireshark's command-line version, and tools/wireshark/vesper.lua.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include "net/stream_datagrams.h"
#include "tests/support/fragment_builder.h"
#include "tests/support/temporary_folder.h"
#include "tools/stream/capture.h"
#include "tools/stream/packetizer.h"

namespace vesper::tools {
namespace {

using testing::HasSubstr;
using testing::Not;
using vesper::test::FragmentBuilder;
using Names = std::vector<std::string>;

// Ports that Wireshark gives to no other protocol.
constexpr std::uint16_t kParentPort = 50001;
constexpr std::uint16_t kPlayerPort = 50000;

// Wireshark believes that this one is another protocol's.
constexpr std::uint16_t kClaimedPort = 47000;

// A VP8 keyframe of 640x360 pixels, to be stretched by 5/4 in height, up to where its first
// partition begins.
const std::vector<std::uint8_t> kKeyframeStart = {0x10, 0x02, 0x00, 0x9D, 0x01,
                                                  0x2A, 0x80, 0x02, 0x68, 0x41};
// An interframe that is not to be shown, with a first partition of 9 bytes.
const std::vector<std::uint8_t> kInterframeStart = {0x25, 0x01, 0x00};
// Full-band CELT in stereo, 20 ms, one frame: silence.
const std::vector<std::uint8_t> kOpusPacket = {0xFC, 0xFF, 0xFE};

const Names kPacketHeaderFields = {"vesper.sender_bytes",       "vesper.sequence",
                                   "vesper.payload_size",       "vesper.flags",
                                   "vesper.flags.screen_audio", "vesper.reserved"};
const Names kFragmentFields = {"vesper.fragment.frame_id",
                               "vesper.fragment.index",
                               "vesper.fragment.count",
                               "vesper.fragment.payload_size",
                               "vesper.fragment.reserved",
                               "vesper.fragment.payload",
                               "vesper.trailer"};
const Names kVp8Fields = {
    "vesper.vp8.frame_type",           "vesper.vp8.version",    "vesper.vp8.show_frame",
    "vesper.vp8.first_partition_size", "vesper.vp8.start_code", "vesper.vp8.width",
    "vesper.vp8.width_scale",          "vesper.vp8.height",     "vesper.vp8.height_scale"};
const Names kOpusFields = {"vesper.opus", "vesper.opus.config", "vesper.opus.stereo",
                           "vesper.opus.frames", "vesper.trailer"};
const Names kMessageFields = {"vesper.message", "vesper.muted", "vesper.volume"};
const Names kSummary = {"_ws.col.Protocol", "_ws.col.Info"};
const Names kSummaryAndFault = {"_ws.col.Protocol", "_ws.col.Info", "_ws.expert.message"};

const std::string kWithPort = "-o vesper.ports:" + std::to_string(kPlayerPort);

class Dissector : public testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() == 0 && !may_become_nobody() && !root_runs_scripts()) {
            GTEST_SKIP() << "root is the only user here, and tshark runs no scripts as root";
        }
        ASSERT_TRUE(writer_.open(folder_.file("capture.pcap")));
        namespace fs = std::filesystem;
        fs::copy_file(VESPER_SOURCE_FOLDER "/tools/wireshark/vesper.lua", script_);
        fs::permissions(script_, fs::perms::others_read, fs::perm_options::add);
    }

    void to_player(const Datagram& datagram, std::uint16_t port = kPlayerPort) {
        writer_.write(kParentPort, port, datagram);
    }
    void to_parent(std::span<const std::uint8_t> message) {
        writer_.write(kPlayerPort, kParentPort, message);
    }

    // What tshark prints of each datagram: a line of the fields' values, with bars between them,
    // nothing where a datagram has no such field, 1 for a true one and 0 for a false one.
    //
    // Since Wireshark 4.2 it runs no scripts as root, so a test run by root starts it as another
    // user, with both files open, because that user may not be able to read the folder.
    [[nodiscard]] std::string dissected(const Names& fields, const std::string& options = "") {
        std::string command = "HOME=/nonexistent WIRESHARK_CONFIG_DIR=/nonexistent ";
        if (may_become_nobody()) {
            command += kAsNobody;
        }
        command += "tshark -n -r - -X lua_script:/dev/fd/3 -T fields -E 'separator=|' " + options;
        for (const std::string& field : fields) {
            command += " -e " + field;
        }
        command += " <'" + folder_.file("capture.pcap") + "' 3<'" + script_ + "' 2>'" +
                   folder_.file("errors") + "'";
        std::FILE* tshark = popen(command.c_str(), "r");
        if (tshark == nullptr) {
            ADD_FAILURE() << "no process";
            return {};
        }
        std::string printed;
        for (int c = 0; (c = std::fgetc(tshark)) != EOF;) {
            printed += static_cast<char>(c);
        }
        EXPECT_EQ(pclose(tshark), 0) << errors();
        EXPECT_THAT(errors(), Not(HasSubstr("Lua")));
        return with_digits_for_truths(printed);
    }

  private:
    static constexpr auto kAsNobody = "setpriv --reuid=65534 --regid=65534 --clear-groups ";

    // In some containers root is the only user.
    static bool may_become_nobody() {
        static const bool may =
            geteuid() == 0 &&
            std::system((std::string(kAsNobody) + "true 2>/dev/null").c_str()) == 0;
        return may;
    }

    // Until Wireshark 4.2.
    [[nodiscard]] bool root_runs_scripts() const {
        const std::string script = folder_.file("tried.lua");
        std::ofstream(script) << "Proto('vesper_tried', 'Tried')\n";
        EXPECT_EQ(std::system("tshark --version >/dev/null"), 0);
        return std::system(("tshark -G protocols -X lua_script:'" + script +
                            "' 2>/dev/null | grep -qw vesper_tried")
                               .c_str()) == 0;
    }

    // As Wireshark printed truths before 4.2.
    static std::string with_digits_for_truths(const std::string& lines) {
        const std::string digits =
            std::regex_replace(lines, std::regex(R"((^|\||\n)True(?=\||\n))"), "$011");
        return std::regex_replace(digits, std::regex(R"((^|\||\n)False(?=\||\n))"), "$010");
    }

    [[nodiscard]] std::string errors() const {
        std::ifstream file(folder_.file("errors"));
        return {std::istreambuf_iterator<char>(file), {}};
    }

    test::TemporaryFolder folder_;
    const std::string script_ = folder_.file("vesper.lua");
    CaptureWriter writer_;
};

TEST_F(Dissector, FindsNothingWrongWithTheHeadersThatACapturePutsAroundDatagrams) {
    to_player(FragmentBuilder().payload_of_size(1400).build());
    to_player(FragmentBuilder().payload_of_size(1).build());
    to_parent(kKeyframeRequest);
    EXPECT_EQ(dissected({"ip.src", "ip.dst", "ip.len", "ip.checksum.status", "udp.srcport",
                         "udp.dstport", "udp.length", "udp.checksum.status", "_ws.malformed"},
                        "-o ip.check_checksum:TRUE -o udp.check_checksum:TRUE"),
              "127.0.0.1|127.0.0.1|1468|1|50001|50000|1448|1|\n"
              "127.0.0.1|127.0.0.1|69|1|50001|50000|49|1|\n"
              "127.0.0.1|127.0.0.1|32|1|50000|50001|12|1|\n");
}

TEST_F(Dissector, NamesEveryFieldOfAPacketHeader) {
    Datagram video = FragmentBuilder().flags(0xFB).build();
    for (std::uint8_t i = 0; i < 20; ++i) {
        video[i] = i;
    }
    video[20] = 0x04, video[21] = 0x03, video[22] = 0x02, video[23] = 0x01;
    video[24] = 0x06, video[25] = 0x05;
    video[27] = 0x77;
    to_player(video);
    to_player(AudioPacketizer().packetize(kOpusPacket));
    EXPECT_EQ(dissected(kPacketHeaderFields),
              "000102030405060708090a0b0c0d0e0f10111213|16909060|1286|0xfb|0|0x77\n"
              "0000000000000000000000000000000000000000|1|3|0x04|1|0x00\n");
}

TEST_F(Dissector, NamesEveryFieldOfAVideoFragment) {
    Datagram fragment = FragmentBuilder()
                            .frame(0x01020304)
                            .index(0x0102)
                            .of(0x0304)
                            .payload({0xAA, 0xBB, 0xCC})
                            .build();
    fragment[38] = 0x34, fragment[39] = 0x12;
    fragment.push_back(0xEE);
    to_player(fragment);
    EXPECT_EQ(dissected(kFragmentFields, kWithPort), "16909060|258|772|3|0x1234|aabbcc|ee\n");
}

TEST_F(Dissector, ShowsWhatTheFirstFragmentDeclaresOfItsFrame) {
    to_player(FragmentBuilder().of(2).payload(kKeyframeStart).build());
    to_player(FragmentBuilder().of(2).index(1).payload(kKeyframeStart).build());
    to_player(FragmentBuilder().frame(2).payload(kInterframeStart).build());
    EXPECT_EQ(dissected(kVp8Fields),
              "0|0|1|16|9d012a|640|0|360|1\n"
              "||||||||\n"
              "1|2|0|9|||||\n");
}

TEST_F(Dissector, NamesEveryFieldOfAScreenAudioPacket) {
    Datagram packet = AudioPacketizer().packetize(kOpusPacket);
    packet.push_back(0xEE);
    to_player(packet);
    EXPECT_EQ(dissected(kOpusFields, kWithPort), "fcfffe|31|1|0|ee\n");
}

TEST_F(Dissector, NamesEveryFieldOfThePlayersMessages) {
    to_parent(kKeyframeRequest);
    to_parent(make_audio_state({.muted = true, .volume = 0.5F}));
    to_parent(make_audio_state({.muted = false, .volume = 0.25F}));
    EXPECT_EQ(dissected(kMessageFields), "KFRQ||\nAUDS|1|0.5\nAUDS|0|0.25\n");
}

TEST_F(Dissector, SumsUpEachDatagramInOneLine) {
    to_player(FragmentBuilder().frame(7).of(2).payload(kKeyframeStart).build());
    to_player(FragmentBuilder().frame(7).of(2).index(1).payload_of_size(5).build());
    to_player(FragmentBuilder().frame(8).payload(kInterframeStart).build());
    to_player(AudioPacketizer().packetize(kOpusPacket));
    to_parent(kKeyframeRequest);
    to_parent(make_audio_state({.muted = true, .volume = 0.5F}));
    EXPECT_EQ(dissected(kSummary),
              "Vesper|Video frame 7, fragment 0 of 2, 10 bytes, keyframe\n"
              "Vesper|Video frame 7, fragment 1 of 2, 5 bytes\n"
              "Vesper|Video frame 8, fragment 0 of 1, 3 bytes, interframe\n"
              "Vesper|Screen audio 1, 3 bytes\n"
              "Vesper|Keyframe request\n"
              "Vesper|Audio state: muted, volume 0.50\n");
}

TEST_F(Dissector, ExplainsWhyThePlayerDropsADatagram) {
    to_player(Datagram(27));
    to_player(Datagram(39));
    to_player(FragmentBuilder().of(0).build());
    to_player(FragmentBuilder().of(1001).build());
    to_player(FragmentBuilder().of(2).index(2).build());
    to_player(FragmentBuilder().declared_payload_size(0).build());
    to_player(FragmentBuilder().payload_of_size(1401).build());
    to_player(FragmentBuilder().declared_payload_size(2).build());
    Datagram silent = AudioPacketizer().packetize(kOpusPacket);
    silent[24] = 0;
    to_player(silent);
    Datagram cut = AudioPacketizer().packetize(kOpusPacket);
    cut.pop_back();
    to_player(cut);
    EXPECT_EQ(dissected(kSummaryAndFault, kWithPort),
              "Vesper|Too short|"
              "The player drops this datagram: shorter than a packet header\n"
              "Vesper|Video fragment, too short|"
              "The player drops this datagram: shorter than the headers of a video fragment\n"
              "Vesper|Video frame 1, fragment 0 of 0, 1 bytes|"
              "The player drops this datagram: the fragment count is not 1 to 1000\n"
              "Vesper|Video frame 1, fragment 0 of 1001, 1 bytes|"
              "The player drops this datagram: the fragment count is not 1 to 1000\n"
              "Vesper|Video frame 1, fragment 2 of 2, 1 bytes|The player drops this datagram: the "
              "fragment index is not below the fragment count\n"
              "Vesper|Video frame 1, fragment 0 of 1, 0 bytes|"
              "The player drops this datagram: the payload size is not 1 to 1400\n"
              "Vesper|Video frame 1, fragment 0 of 1, 1401 bytes, interframe|"
              "The player drops this datagram: the payload size is not 1 to 1400\n"
              "Vesper|Video frame 1, fragment 0 of 1, 2 bytes|"
              "The player drops this datagram: the payload is truncated\n"
              "Vesper|Screen audio 1, 0 bytes|"
              "The player drops this datagram: the payload size is 0\n"
              "Vesper|Screen audio 1, 3 bytes|"
              "The player drops this datagram: the payload is truncated\n");
}

TEST_F(Dissector, LeavesDatagramsOfAnotherShapeAloneUnlessThePortIsConfigured) {
    to_player(FragmentBuilder().declared_payload_size(2).build());
    to_player(FragmentBuilder().payload_of_size(1401).build());
    to_player(FragmentBuilder().of(1001).build());
    to_player(FragmentBuilder().of(2).index(2).build());
    to_player(Datagram(40));
    Datagram packet = AudioPacketizer().packetize(kOpusPacket);
    packet.push_back(0xEE);
    to_player(packet);
    packet[24] = 0;
    packet.resize(kPacketHeaderSize);
    to_player(packet);
    to_parent(std::vector<std::uint8_t>{'k', 'f', 'r', 'q'});
    to_parent(std::vector<std::uint8_t>{'A', 'U', 'D', 'S', 1, 0, 0, 0});
    EXPECT_EQ(dissected({"_ws.col.Protocol"}), "UDP\nUDP\nUDP\nUDP\nUDP\nUDP\nUDP\nUDP\nUDP\n");
    EXPECT_EQ(dissected({"_ws.col.Protocol"}, kWithPort),
              "Vesper\nVesper\nVesper\nVesper\nVesper\nVesper\nVesper\nVesper\nVesper\n");
}

TEST_F(Dissector, TakesAPortFromAnotherProtocolWhenConfigured) {
    to_player(FragmentBuilder().build(), kClaimedPort);
    EXPECT_NE(dissected({"_ws.col.Protocol"}), "Vesper\n");
    EXPECT_EQ(dissected({"_ws.col.Protocol"}, "-o vesper.ports:46000-47010"), "Vesper\n");
}

}  // namespace
}  // namespace vesper::tools
