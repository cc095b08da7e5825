// vesper-parent as it keeps a conversation in a file and plays it again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "net/stream_datagrams.h"
#include "net/udp_socket.h"
#include "tests/support/child_process.h"
#include "tests/support/eventually.h"
#include "tests/support/fragment_builder.h"
#include "tests/support/temporary_folder.h"
#include "tests/tools/delayed_capture.h"
#include "tests/tools/grey_picture.h"
#include "tools/stream/capture.h"
#include "tools/stream/free_port.h"
#include "tools/stream/link.h"
#include "tools/stream/packetizer.h"
#include "tools/stream/replay.h"
#include "tools/stream/vp8_encoder.h"

namespace vesper::tools {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAreArray;
using vesper::test::FragmentBuilder;

constexpr std::uint16_t kCapturedParentPort = 50001;
constexpr std::uint16_t kCapturedPlayerPort = 50000;

// How a run of vesper-parent ended, and what it wrote to standard error.
struct Ending {
    int status = 0;  // below 0: a signal with its sign changed
    std::string errors;

    bool operator==(const Ending&) const = default;
};

void PrintTo(const Ending& ending, std::ostream* stream) {
    *stream << "status " << ending.status << ", standard error: \"" << ending.errors << '"';
}

const Ending kGoodEnding{};
const Ending kTerminated{.status = 128 + SIGTERM, .errors = {}};

class Replay : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(player_.bind(0));
        parent_port_ = free_port();
        ASSERT_NE(parent_port_, 0);
    }

    // What a parent sends in its first moments, more than one frame and one kind of it.
    [[nodiscard]] static std::vector<Datagram> stream() {
        std::vector<Datagram> datagrams;
        AudioPacketizer sound;
        for (std::uint32_t frame = 1; frame <= 10; ++frame) {
            for (int index = 0; index < 2; ++index) {
                datagrams.push_back(FragmentBuilder()
                                        .frame(frame)
                                        .index(index)
                                        .of(2)
                                        .payload_of_size(1400)
                                        .build());
            }
            datagrams.push_back(sound.packetize(Datagram(frame, 0x55)));
        }
        datagrams.emplace_back(5, std::uint8_t{0xFF});  // even what no player takes
        return datagrams;
    }

    // A capture of `datagrams` and of the player's two messages among them.
    void write_capture(const std::vector<Datagram>& datagrams) const {
        CaptureWriter writer;
        ASSERT_TRUE(writer.open(capture_));
        for (const Datagram& datagram : datagrams) {
            writer.write(kCapturedParentPort, kCapturedPlayerPort, datagram);
            writer.write(kCapturedPlayerPort, kCapturedParentPort, kKeyframeRequest);
            writer.write(kCapturedPlayerPort, kCapturedParentPort,
                         make_audio_state({.muted = false, .volume = 0.5F}));
        }
    }

    void start_parent(const std::string& options) {
        parent_.emplace(std::vector<std::string>{
            "sh", "-c",
            "exec '" VESPER_PARENT "' --to " + std::to_string(player_.get_bound_port()) +
                " --listen " + std::to_string(parent_port_) + " " + options});
    }

    // Takes what arrives in the meantime, so that the player's buffer has room.
    [[nodiscard]] Ending end_of_parent() {
        std::optional<test::Ending> ending;
        EXPECT_TRUE(test::eventually([&] {
            take();
            ending = parent_->ending();
            return ending.has_value();
        }));
        if (!ending) {
            return {.status = -1, .errors = "it does not end: " + parent_->err()};
        }
        return {.status = ending->signal != 0 ? -ending->signal : ending->status,
                .errors = parent_->err()};
    }

    [[nodiscard]] Ending run_parent(const std::string& options) {
        start_parent(options);
        return end_of_parent();
    }

    // What has arrived at the player since the last call.
    [[nodiscard]] std::vector<Datagram> received() {
        take();
        return std::exchange(taken_, {});
    }

    [[nodiscard]] bool send_to_parent(std::span<const std::uint8_t> message) {
        return player_.send(message.data(), message.size(), "127.0.0.1", parent_port_) >= 0;
    }

    test::TemporaryFolder folder_;
    std::string capture_ = folder_.file("stream.pcap");
    UDPSocket player_;  // stands in for one
    std::uint16_t parent_port_ = 0;
    std::optional<test::ChildProcess> parent_;

  private:
    void take() {
        Datagram buffer(65'536);
        for (int length = 0; (length = player_.recv(buffer.data(), buffer.size(), 0)) > 0;) {
            taken_.emplace_back(buffer.begin(), buffer.begin() + length);
        }
    }

    std::vector<Datagram> taken_;
};

TEST_F(Replay, GivesThePlayerTheSameDatagramsEachTime) {
    write_capture(stream());
    for (int time = 1; time <= 2; ++time) {
        EXPECT_EQ(run_parent("--replay '" + capture_ + "'"), kGoodEnding);
        EXPECT_THAT(received(), ElementsAreArray(stream())) << "time " << time;
    }
}

// Little enough comes in a second that the player's buffer holds what a busy machine leaves in it.
TEST_F(Replay, OfALiveStreamGivesWhatThePlayerWasSent) {
    start_parent("--capture '" + capture_ + "' --size 64x48 --fps 5 --no-sound");
    std::vector<Datagram> live;
    const auto take_live = [&] {
        const auto more = received();
        live.insert(live.end(), more.begin(), more.end());
    };
    ASSERT_TRUE(test::eventually([&] {
        take_live();
        return live.size() >= 5;
    }));
    parent_->send_signal(SIGTERM);
    EXPECT_EQ(end_of_parent(), kTerminated);
    take_live();

    EXPECT_EQ(run_parent("--speed 10 --replay '" + capture_ + "'"), kGoodEnding);
    EXPECT_THAT(received(), ElementsAreArray(live));
}

TEST_F(Replay, CanItselfBeCapturedWithThePlayersMessages) {
    auto sent = stream();
    write_capture(sent);
    // So the parent is still there when we speak, and until we end it.
    test::delay_last_datagram(capture_);
    sent.pop_back();
    const std::string second = folder_.file("second.pcap");
    const Datagram muted = {'A', 'U', 'D', 'S', 1, 0, 0, 0, 0x3F};
    start_parent("--replay '" + capture_ + "' --capture '" + second + "'");
    ASSERT_TRUE(test::eventually([this] { return !received().empty(); }));
    ASSERT_TRUE(send_to_parent(muted));
    ASSERT_TRUE(test::eventually([&] {
        const auto so_far = read_capture(second);
        return so_far && so_far->size() > sent.size();
    }));
    parent_->send_signal(SIGTERM);
    EXPECT_EQ(end_of_parent(), kTerminated);

    auto kept = read_capture(second);
    ASSERT_TRUE(kept.has_value());
    std::vector<Datagram> to_player;
    std::vector<Datagram> to_parent;
    for (const CapturedDatagram& datagram : *kept) {
        if (datagram.source_port == parent_port_) {
            EXPECT_EQ(datagram.destination_port, player_.get_bound_port());
            to_player.push_back(datagram.bytes);
        } else {
            EXPECT_EQ(datagram.source_port, player_.get_bound_port());
            EXPECT_EQ(datagram.destination_port, parent_port_);
            to_parent.push_back(datagram.bytes);
        }
    }
    EXPECT_THAT(to_player, ElementsAreArray(sent));
    EXPECT_THAT(to_parent, testing::ElementsAre(muted));
}

// Two datagrams, `apart` from one another.
void write_pause(const std::string& path, std::chrono::seconds apart) {
    pcap_t* pcap = pcap_open_dead(DLT_RAW, 65'535);
    {
        CaptureWriter writer;
        ASSERT_TRUE(writer.open(path));
        writer.write(kCapturedParentPort, kCapturedPlayerPort, Datagram{1, 2, 3});
    }
    char error[PCAP_ERRBUF_SIZE];
    pcap_t* one = pcap_open_offline(path.c_str(), error);
    ASSERT_NE(one, nullptr);
    pcap_pkthdr* header = nullptr;
    const u_char* data = nullptr;
    ASSERT_EQ(pcap_next_ex(one, &header, &data), 1);
    pcap_dumper_t* both = pcap_dump_open(pcap, (path + ".both").c_str());
    ASSERT_NE(both, nullptr);
    pcap_dump(reinterpret_cast<u_char*>(both), header, data);
    header->ts.tv_sec += apart.count();
    pcap_dump(reinterpret_cast<u_char*>(both), header, data);
    pcap_dump_close(both);
    pcap_close(one);
    pcap_close(pcap);
    std::filesystem::rename(path + ".both", path);
}

TEST_F(Replay, KeepsTheTimeBetweenDatagrams) {
    write_pause(capture_, std::chrono::seconds(1));
    const auto start = steady_clock::now();
    EXPECT_EQ(run_parent("--replay '" + capture_ + "'"), kGoodEnding);
    EXPECT_GE(steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_THAT(received(), testing::SizeIs(2));
}

TEST_F(Replay, AtLowSpeedMakesTheTimeBetweenDatagramsLonger) {
    write_pause(capture_, std::chrono::seconds(1));
    const auto start = steady_clock::now();
    EXPECT_EQ(run_parent("--speed 0.5 --replay '" + capture_ + "'"), kGoodEnding);
    EXPECT_GE(steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_THAT(received(), testing::SizeIs(2));
}

// Four seconds, and no machine is so slow that they become the 400 of the capture.
TEST_F(Replay, AtHighSpeedMakesTheTimeBetweenDatagramsShorter) {
    write_pause(capture_, std::chrono::seconds(400));
    const auto start = steady_clock::now();
    EXPECT_EQ(run_parent("--speed 100 --replay '" + capture_ + "'"), kGoodEnding);
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(400));
    EXPECT_THAT(received(), testing::SizeIs(2));
}

TEST_F(Replay, LeavesOutEmptyDatagramsWhateverTheImpairments) {
    const Datagram only = {1};
    write_capture({Datagram{}, only, Datagram{}});
    for (const std::string impairment : {"--corrupt", "--truncate"}) {
        EXPECT_EQ(run_parent(impairment + " 100 --replay '" + capture_ + "'"), kGoodEnding);
        EXPECT_THAT(received(), testing::ElementsAre(testing::SizeIs(1))) << impairment;
    }
}

TEST_F(Replay, OfADatagramThatIsAbsurdlyLateWaits) {
    Link link;
    ASSERT_TRUE(link.open(0, player_.get_bound_port()));
    replay({{.time = {}, .bytes = {1}}, {.time = std::chrono::microseconds::max(), .bytes = {2}}},
           0.01, Clock::now(), link);
    link.start({});
    ASSERT_TRUE(test::eventually([&] { return link.counters().datagrams_sent > 0; }));
    EXPECT_EQ(link.counters().datagrams_sent, 1U);
    EXPECT_FALSE(link.idle());
}

TEST_F(Replay, OfAFileThatIsNoCaptureFails) {
    std::ofstream(capture_) << "DKIF, and more that is no capture";
    EXPECT_EQ(run_parent("--replay '" + capture_ + "'"),
              (Ending{.status = 2, .errors = capture_ + ": not a capture: unknown file format\n"}));
    EXPECT_THAT(received(), testing::IsEmpty());
}

TEST_F(Replay, OfACaptureThatIsCutShortFailsBeforeItSendsAnything) {
    write_capture({Datagram{1, 2, 3}});
    std::filesystem::resize_file(capture_, std::filesystem::file_size(capture_) - 1);
    EXPECT_EQ(run_parent("--replay '" + capture_ + "'"),
              (Ending{.status = 2,
                      .errors = capture_ +
                                ": truncated or damaged after 2 datagrams: truncated dump file; "
                                "tried to read 37 captured bytes, only got 36\n"}));
    EXPECT_THAT(received(), testing::IsEmpty());
}

TEST_F(Replay, OfACaptureWithNothingForAPlayerFails) {
    write_capture({});
    EXPECT_EQ(run_parent("--replay '" + capture_ + "'"),
              (Ending{.status = 2, .errors = capture_ + ": contains nothing for a player\n"}));
}

TEST_F(Replay, IntoItsOwnCaptureFailsAndLeavesItAlone) {
    write_capture(stream());
    EXPECT_EQ(run_parent("--replay '" + capture_ + "' --capture '" + capture_ + "'"),
              (Ending{.status = 2,
                      .errors = "vesper-parent: --capture: would overwrite what --replay "
                                "reads\n"}));
    EXPECT_THAT(read_capture(capture_), testing::Optional(testing::SizeIs(3 * stream().size())));
}

TEST_F(Replay, IsForOnePlayerOfACaptureWithSeveral) {
    {
        CaptureWriter writer;
        ASSERT_TRUE(writer.open(capture_));
        writer.write(kCapturedParentPort, kCapturedPlayerPort, Datagram{1});
        writer.write(kCapturedParentPort, kCapturedPlayerPort + 2, Datagram{2});
        writer.write(kCapturedParentPort, kCapturedPlayerPort, Datagram{3});
    }
    EXPECT_EQ(run_parent("--replay '" + capture_ + "'"), kGoodEnding);
    EXPECT_THAT(received(), testing::ElementsAre(Datagram{1}, Datagram{3}));
}

// The datagrams that a parent sends to the player, and what picture_size() makes of them.
class PictureSizeOfACapture : public testing::Test {
  protected:
    void add(std::vector<Datagram> datagrams) {
        for (Datagram& datagram : datagrams) {
            stream_.push_back({.bytes = std::move(datagram)});
        }
    }

    // A frame of a picture of this size.
    static std::vector<std::uint8_t> frame(int width, int height, bool keyframe) {
        Vp8Encoder encoder;
        EXPECT_TRUE(encoder.open({.width = width, .height = height}));
        const Picture picture = test::make_grey_picture(width, height);
        auto encoded = encoder.encode(picture, true);
        return keyframe ? encoded : encoder.encode(picture, false);
    }

    VideoPacketizer packetizer_;
    std::vector<CapturedDatagram> stream_;
};

TEST_F(PictureSizeOfACapture, IsWhatItsFirstKeyframeDeclares) {
    add(packetizer_.packetize(frame(128, 96, false)));
    add(packetizer_.packetize(frame(1922, 16, true)));
    add(packetizer_.packetize(frame(64, 32, true)));
    EXPECT_EQ(picture_size(stream_), (PictureSize{.width = 1922, .height = 16}));
}

TEST_F(PictureSizeOfACapture, LeavesOutHowThePlayerMayScale) {
    auto keyframe = frame(320, 240, true);
    keyframe.at(7) |= 0x40;
    keyframe.at(9) |= 0x80;
    add(packetizer_.packetize(keyframe));
    EXPECT_EQ(picture_size(stream_), (PictureSize{.width = 320, .height = 240}));
}

TEST_F(PictureSizeOfACapture, IsUnknownWithoutAKeyframe) {
    add(packetizer_.packetize(frame(320, 240, false)));
    EXPECT_EQ(picture_size(stream_), std::nullopt);
}

TEST_F(PictureSizeOfACapture, IsNotReadFromWhatOnlyLooksLikeAKeyframe) {
    auto sound = packetizer_.packetize(frame(320, 240, true));
    for (Datagram& datagram : sound) {
        datagram.at(26) |= kScreenAudioFlag;
    }
    add(std::move(sound));
    auto other_frame = frame(320, 240, true);
    other_frame.at(0) |= 1;
    add(packetizer_.packetize(other_frame));
    auto damaged = frame(320, 240, true);
    damaged.at(4) ^= 1;  // in the start code
    add(packetizer_.packetize(damaged));
    EXPECT_EQ(picture_size(stream_), std::nullopt);
}

TEST_F(PictureSizeOfACapture, IsNotReadFromTheMiddleOfAFrame) {
    std::vector<std::uint8_t> two_fragments(kMaxFragmentPayload, 0x01);
    const auto keyframe = frame(320, 240, true);
    two_fragments.insert(two_fragments.end(), keyframe.begin(), keyframe.end());
    add(packetizer_.packetize(two_fragments));
    EXPECT_EQ(picture_size(stream_), std::nullopt);
}

TEST_F(PictureSizeOfACapture, IsNotReadFromADatagramThatIsCutShort) {
    for (const Datagram& whole : packetizer_.packetize(frame(320, 240, true))) {
        for (std::size_t length = 0; length < whole.size(); ++length) {
            add({Datagram(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length))});
        }
    }
    EXPECT_EQ(picture_size(stream_), std::nullopt);
}

}  // namespace
}  // namespace vesper::tools
