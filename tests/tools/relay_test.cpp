#include "tools/stream/relay.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "audio/opus_codec.h"
#include "net/stream_datagrams.h"
#include "tests/support/child_process.h"
#include "tests/support/eventually.h"
#include "tests/support/temporary_folder.h"
#include "tests/tools/command.h"
#include "tests/tools/ivf_file.h"
#include "tests/tools/media_packets.h"
#include "tests/tools/stream_receiver.h"
#include "tools/stream/free_port.h"
#include "tools/stream/vp8_repeat.h"

namespace vesper::tools {
namespace {

using std::chrono::milliseconds;
using test::eventually;
using test::make_media;
using test::packets_of;
using test::write_ivf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

using Bytes = test::PacketBytes;

const std::string kPicture = "-f lavfi -i testsrc2=size=320x240:rate=30 ";
const std::string kTone = "-f lavfi -i sine=frequency=440:sample_rate=48000 ";
const std::string kTwoTones = "-f lavfi -i aevalsrc=sin(440*2*PI*t)/8|sin(880*2*PI*t)/8:s=48000 ";
const std::string kVp8 = "-c:v libvpx -b:v 300k -deadline realtime ";
const std::string kOpus = "-c:a libopus ";

// 30 frames, of which the first is a keyframe.
std::vector<Bytes> some_frames() {
    const test::TemporaryFolder folder;
    make_media(kPicture + "-t 1 -g 100 " + kVp8, folder.file("film.ivf"));
    return packets_of(folder.file("film.ivf"), AVMEDIA_TYPE_VIDEO);
}

// Everything that left on the way to a player.
struct Sent {
    std::vector<Bytes> frames;
    std::vector<std::uint32_t> frame_ids;
    std::vector<Clock::time_point> frame_times;  // of the first fragments
    std::vector<Bytes> sounds;
    std::vector<std::uint32_t> sequences;
    int sounds_within_frames = 0;    // left between two fragments of a frame
    std::vector<AVMediaType> order;  // of the frames' first fragments and of the sounds
};

class RelayTest : public testing::Test {
  protected:
    RelayTest() { av_log_set_level(AV_LOG_QUIET); }

    [[nodiscard]] std::string file(const std::string& name) const { return folder_.file(name); }

    // Opens `settings.input`, without waiting for anything.
    void open(RelaySettings settings) {
        settings.stream.video.width = size_.width;
        settings.stream.video.height = size_.height;
        ASSERT_TRUE(link_.listen_port() != 0 || link_.open(0, player_port_));
        relay_.emplace(std::move(settings), link_);
        relay_->open();
    }

    // Opens an address and waits for the result; opens it again where a busy machine did not get
    // its server to answer before the relay lost its patience.
    void open_address(const std::string& address) {
        open({.input = address});
        EXPECT_TRUE(eventually([&] {
            if (!eventually([this] { return relay_->state() != Feed::State::kOpening; })) {
                return false;
            }
            if (relay_->state() == Feed::State::kReady) {
                return true;
            }
            lines_ = relay_->take_lines();
            if (lines_ != std::vector{"cannot relay " + address + ": nothing came for 10 s"}) {
                return true;
            }
            open({.input = address});
            return false;
        }));
    }

    [[nodiscard]] bool comes_to(Feed::State state) {
        return eventually([&] { return relay_->state() == state; });
    }

    // Opens a pipe that contains this file, or as much of it as a pipe takes before it is read: the
    // relay waits ten seconds for the next bytes, and a program that wrote them could be later.
    void open_pipe(const std::string& content, RelaySettings settings) {
        ASSERT_EQ(mkfifo(settings.input.c_str(), 0600), 0);
        std::ifstream stream(content, std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(stream), {}};
        std::string_view rest = bytes;
        const int pipe = ::open(settings.input.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        ASSERT_GE(pipe, 0);
        const auto write_what_fits = [&] {
            const ssize_t written = write(pipe, rest.data(), rest.size());
            rest.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
        };
        write_what_fits();
        open(std::move(settings));
        // What is in a pipe is lost once nobody has it open, so the relay must have read some of it
        // before we close it. It reads two seconds of film before it is started.
        EXPECT_TRUE(eventually([&] {
            write_what_fits();
            int waiting = 0;
            return ioctl(pipe, FIONREAD, &waiting) == 0 &&
                   waiting < std::ssize(bytes) - std::ssize(rest) &&
                   (rest.empty() || relay_->state() == Feed::State::kFailed);
        }));
        close(pipe);
    }

    // What a session does once the relay is ready.
    void start() {
        started_at_ = Clock::now();
        link_.start({.keyframe_requested = [this] { relay_->request_keyframe(); },
                     .datagram_passed =
                         [this](Direction direction, std::span<const std::uint8_t> datagram) {
                             if (direction == Direction::kToPlayer) {
                                 keep(datagram);
                             }
                         }});
        relay_->start();
    }

    // From the first packet to the last.
    void relay(RelaySettings settings) {
        open(std::move(settings));
        ASSERT_TRUE(comes_to(Feed::State::kReady)) << testing::PrintToString(relay_->take_lines());
        start();
        wait_for_end();
    }

    void wait_for_end() {
        ASSERT_TRUE(eventually([this] { return relay_->finished() && link_.idle(); }));
        link_.stop();
    }

    [[nodiscard]] Sent sent() {
        const std::lock_guard lock(mutex_);
        return sent_;
    }

    // Whether this line is printed, alone or after others.
    [[nodiscard]] bool prints(const std::string& line) {
        return eventually([&] {
            for (std::string& next : relay_->take_lines()) {
                lines_.push_back(std::move(next));
            }
            return std::ranges::find(lines_, line) != lines_.end();
        });
    }

    // As if there were a player that takes everything at once: nothing ever waits for it.
    void send_to_nobody() {
        player_port_ = free_port();
        ASSERT_NE(player_port_, 0);
    }

    // A player that never takes it does not keep up.
    void let_a_picture_wait() {
        UDPSocket other;
        ASSERT_TRUE(other.bind(0));
        const std::vector<char> waiting(kMaxFragmentPayload);
        ASSERT_GT(other.send(waiting.data(), waiting.size(), "127.0.0.1", player_port_), 0);
    }

    PictureSize size_ = {.width = 320, .height = 240};  // of what is encoded
    test::TemporaryFolder folder_;
    test::StreamReceiver player_;  // receives only when asked to
    std::uint16_t player_port_ = player_.port();
    std::vector<std::string> lines_;
    std::mutex mutex_;  // guards sent_
    Sent sent_;
    Link link_;
    std::optional<Relay> relay_;
    Clock::time_point started_at_;  // no frame leaves before

  private:
    void keep(std::span<const std::uint8_t> datagram) {
        const std::lock_guard lock(mutex_);
        const PacketHeader header = read_packet_header(datagram.data());
        if ((header.flags & kScreenAudioFlag) != 0) {
            sent_.order.push_back(AVMEDIA_TYPE_AUDIO);
            sent_.sequences.push_back(header.sequence);
            sent_.sounds_within_frames += within_frame_ ? 1 : 0;
            sent_.sounds.emplace_back(datagram.begin() + kPacketHeaderSize, datagram.end());
            return;
        }
        const VideoFragmentHeader fragment = read_video_fragment_header(datagram.data());
        if (fragment.fragment_index == 0) {
            sent_.order.push_back(AVMEDIA_TYPE_VIDEO);
            sent_.frames.emplace_back();
            sent_.frame_ids.push_back(fragment.frame_id);
            sent_.frame_times.push_back(Clock::now());
        }
        sent_.frames.back().insert(sent_.frames.back().end(),
                                   datagram.begin() + kVideoPayloadOffset, datagram.end());
        within_frame_ = fragment.fragment_index + 1 < fragment.fragment_count;
    }

    bool within_frame_ = false;
};

std::vector<std::uint32_t> numbers_to(std::size_t last) {
    std::vector<std::uint32_t> numbers(last);
    for (std::size_t i = 0; i < last; ++i) {
        numbers[i] = static_cast<std::uint32_t>(i + 1);
    }
    return numbers;
}

// A way to make a file, of which every packet is to arrive as it is.
struct Copied {
    const char* name;
    std::string options;
    std::string file = "film.webm";
    std::string first_pass = {};  // options of a run before it
    // What one of the frames, or one of the Opus packets, is at least.
    bool (*frame)(const Bytes& frame) = nullptr;
    bool (*sound)(const Bytes& packet) = nullptr;
};

void PrintTo(const Copied& copied, std::ostream* stream) {
    *stream << copied.options;
}

class RelayCopies : public RelayTest, public testing::WithParamInterface<Copied> {};

TEST_P(RelayCopies, EveryPacketBitForBit) {
    const std::string path = file(GetParam().file);
    if (!GetParam().first_pass.empty()) {
        make_media(GetParam().first_pass + " -passlogfile " + file("log"), "/dev/null");
        make_media(GetParam().options + " -passlogfile " + file("log"), path);
    } else {
        make_media(GetParam().options, path);
    }
    const auto frames = packets_of(path, AVMEDIA_TYPE_VIDEO);
    const auto sounds = packets_of(path, AVMEDIA_TYPE_AUDIO);
    ASSERT_TRUE(GetParam().frame == nullptr || std::ranges::any_of(frames, GetParam().frame));
    ASSERT_TRUE(GetParam().sound == nullptr || std::ranges::any_of(sounds, GetParam().sound));
    relay({.input = path});
    const Sent all = sent();
    EXPECT_THAT(relay_->take_lines(), IsEmpty());
    EXPECT_EQ(all.frames, frames);
    EXPECT_EQ(all.sounds, sounds);
    EXPECT_EQ(all.frame_ids, numbers_to(all.frames.size()));
    EXPECT_EQ(all.sequences, numbers_to(all.sounds.size()));
    EXPECT_EQ(relay_->counters().frames, all.frames.size());
    EXPECT_THAT(all.frames, Not(IsEmpty()));
}

const std::string kTwoPass =
    kPicture + "-t 1 -c:v libvpx -b:v 300k -auto-alt-ref 1 -lag-in-frames 16 -arnr-maxframes 7 ";

INSTANTIATE_TEST_SUITE_P(
    All, RelayCopies,
    testing::Values(
        Copied{"WebM", kPicture + kTone + "-t 1 " + kVp8 + kOpus},
        Copied{"Matroska", kPicture + kTone + "-t 1 " + kVp8 + kOpus, "film.mkv"},
        Copied{"Ivf", kPicture + "-t 1 " + kVp8, "film.ivf"},
        Copied{.name = "FramesThatAreNotShown",
               .options = kTwoPass + "-pass 2",
               .first_pass = kTwoPass + "-pass 1 -f null",
               .frame = test::is_not_shown},
        Copied{"ErrorResilience",
               kPicture + "-t 1 " + kVp8 + "-error-resilient default+partitions"},
        Copied{"TokenPartitions", kPicture + "-t 1 " + kVp8 + "-slices 8"},
        Copied{"TemporalLayers",
               kPicture + "-t 1 " + kVp8 +
                   "-ts-parameters ts_number_layers=3:ts_target_bitrate=100,200,300:"
                   "ts_rate_decimator=4,2,1:ts_periodicity=4:ts_layer_id=0,2,1,2:"
                   "ts_layering_mode=3"},
        Copied{"OddSizes", "-f lavfi -i testsrc2=size=353x289:rate=30 -t 1 " + kVp8},
        Copied{"FilmRate", "-f lavfi -i testsrc2=size=320x240:rate=24000/1001 -t 1 " + kVp8},
        Copied{"VaryingRate", kPicture + "-t 1 -vf select=lt(mod(n\\,7)\\,3) -vsync vfr " + kVp8},
        Copied{.name = "Stereo",
               .options = kPicture + kTwoTones + "-t 1 " + kVp8 + kOpus,
               .sound = test::is_stereo},
        Copied{"ShortOpus", kPicture + kTone + "-t 1 " + kVp8 + kOpus + "-frame_duration 10"},
        Copied{.name = "OpusWithErrorCorrection",
               .options = kPicture + kTone + "-t 1 " + kVp8 + kOpus +
                          "-application voip -fec 1 -packet_loss 20 -b:a 24k",
               .sound = test::repeats_the_frame_before}),
    [](const auto& copied) { return copied.param.name; });

TEST_F(RelayTest, CopiesThePausesOfDiscontinuousTransmissionToo) {
    const std::string path = file("film.webm");
    test::make_tone_with_a_pause(file("tone.mkv"));
    make_media(kPicture + "-i " + file("tone.mkv") + " -t 3 -c:a copy " + kVp8, path);
    const auto sounds = packets_of(path, AVMEDIA_TYPE_AUDIO);
    ASSERT_GT(std::ranges::count_if(sounds, test::is_pause), 20);
    relay({.input = path});
    EXPECT_THAT(relay_->take_lines(), IsEmpty());
    EXPECT_EQ(sent().sounds, sounds);
    EXPECT_EQ(sent().frames, packets_of(path, AVMEDIA_TYPE_VIDEO));
}

// libavformat has to look into packets to know what the streams of such a file are.
TEST_F(RelayTest, AFileWhoseHeaderDescribesNothingLosesNothing) {
    const std::string path = file("film.flv");
    make_media(kPicture + "-t 0.5 -c:v flv1", path);
    relay({.input = path});
    const Feed::Counters counters = relay_->counters();
    EXPECT_EQ(counters.frames + counters.skipped, 15U);
}

class RelayOfSoundAlone : public RelayTest, public testing::WithParamInterface<const char*> {};

TEST_P(RelayOfSoundAlone, IsAStreamToo) {
    const std::string path = file(std::string("song.") + GetParam());
    make_media(kTone + "-t 1 " + kOpus, path);
    relay({.input = path});
    EXPECT_THAT(relay_->take_lines(), ElementsAre(path + ": has no video"));
    EXPECT_EQ(sent().sounds, packets_of(path, AVMEDIA_TYPE_AUDIO));
    EXPECT_THAT(sent().sounds, Not(IsEmpty()));
    EXPECT_EQ(relay_->picture_size(), PictureSize{});
}

INSTANTIATE_TEST_SUITE_P(In, RelayOfSoundAlone, testing::Values("opus", "ogg"),
                         [](const auto& format) { return std::string(format.param); });

// The player's size is unknown until the first picture, however much sound comes before it.
TEST_F(RelayTest, PicturesThatBeginLongAfterTheSoundAreFound) {
    make_media(kTone + "-itsoffset 40 " + kPicture + "-t 41 " + kVp8 + kOpus, file("film.webm"));
    open({.input = file("film.webm")});
    ASSERT_TRUE(comes_to(Feed::State::kReady));
    EXPECT_EQ(relay_->picture_size(), (PictureSize{.width = 320, .height = 240}));
    EXPECT_TRUE(relay_->has_sound());
}

TEST_F(RelayTest, WithoutSoundThePicturesAreLeft) {
    make_media(kPicture + kTone + "-t 1 " + kVp8 + kOpus, file("film.webm"));
    relay({.input = file("film.webm"), .sound = false});
    EXPECT_FALSE(relay_->has_sound());
    EXPECT_EQ(sent().frames, packets_of(file("film.webm"), AVMEDIA_TYPE_VIDEO));
    EXPECT_THAT(sent().sounds, IsEmpty());
}

// Decoded as the player does: at most 20 ms a packet.
std::vector<std::int16_t> decoded(const std::vector<Bytes>& packets, int max_samples) {
    OpusDecoderWrapper decoder;
    EXPECT_TRUE(decoder.init(kSoundRate, kSoundChannels));
    std::vector<std::int16_t> sound;
    for (const Bytes& packet : packets) {
        std::array<std::int16_t, std::size_t{5760} * kSoundChannels> block{};
        const int samples = decoder.decode(packet.data(), static_cast<int>(packet.size()),
                                           block.data(), max_samples);
        EXPECT_GT(samples, 0);
        sound.insert(sound.end(), block.begin(),
                     block.begin() + std::max(samples, 0) * kSoundChannels);
    }
    return sound;
}

class RelayOfLongOpus : public RelayTest, public testing::WithParamInterface<const char*> {};

TEST_P(RelayOfLongOpus, IsSplitAndSoundsTheSame) {
    const std::string path = file("film.webm");
    make_media(kPicture + kTone + "-t 1 " + kVp8 + kOpus + "-b:a 96k -application lowdelay " +
                   "-frame_duration " + GetParam(),
               path);
    relay({.input = path});
    EXPECT_THAT(relay_->take_lines(), IsEmpty());
    EXPECT_EQ(decoded(sent().sounds, kSoundFrameSamples),
              decoded(packets_of(path, AVMEDIA_TYPE_AUDIO), 5760));
    EXPECT_EQ(sent().sequences, numbers_to(sent().sounds.size()));
}

INSTANTIATE_TEST_SUITE_P(Milliseconds, RelayOfLongOpus, testing::Values("40", "60"),
                         [](const auto& duration) { return std::string(duration.param); });

// The mean of the samples' squares, and their passages through zero on the way up in a second.
struct Tone {
    double power = 0;
    double frequency = 0;
};

Tone tone_of(const std::vector<std::int16_t>& sound) {
    Tone tone;
    int passages = 0;
    int before = 0;
    const std::size_t begin = sound.size() / 4;  // codecs need a moment
    for (std::size_t i = begin; i < sound.size(); i += kSoundChannels) {
        tone.power += static_cast<double>(sound[i]) * sound[i];
        passages += before < 0 && sound[i] >= 0 ? 1 : 0;
        before = sound[i];
    }
    const auto samples = static_cast<double>((sound.size() - begin) / kSoundChannels);
    tone.power /= samples;
    tone.frequency = passages / samples * kSoundRate;
    return tone;
}

struct Encoded {
    const char* name;
    std::string options;
    std::string line;
};

void PrintTo(const Encoded& encoded, std::ostream* stream) {
    *stream << encoded.options;
}

class RelayEncodes : public RelayTest, public testing::WithParamInterface<Encoded> {};

TEST_P(RelayEncodes, SoundThatThePlayerCannotTake) {
    const std::string path = file("film.mkv");
    make_media(kPicture + kTone + "-t 2 " + kVp8 + GetParam().options, path);
    relay({.input = path});
    EXPECT_THAT(relay_->take_lines(), ElementsAre(path + ": " + GetParam().line));
    EXPECT_EQ(sent().frames, packets_of(path, AVMEDIA_TYPE_VIDEO));
    EXPECT_NEAR(static_cast<double>(sent().sounds.size()), 100, 5);
    const Tone tone = tone_of(decoded(sent().sounds, kSoundFrameSamples));
    EXPECT_NEAR(tone.frequency, 440, 5);
    EXPECT_GT(tone.power, 100 * 100);
}

INSTANTIATE_TEST_SUITE_P(
    All, RelayEncodes,
    testing::Values(
        Encoded{"Vorbis", "-c:a libvorbis", "its sound is vorbis and not Opus: it is re-encoded"},
        Encoded{"Surround", "-ac 6 -c:a libopus -mapping_family 1",
                "its sound has more channels than two: it is re-encoded"},
        Encoded{"FramesOf40Ms",
                "-ac 1 -c:a libopus -application voip -frame_duration 40 -b:a 10k -cutoff 4000",
                "its Opus frames are longer than 20 ms and cannot be split: it is re-encoded"},
        Encoded{"FramesOf60Ms",
                "-ac 1 -c:a libopus -application voip -frame_duration 60 -b:a 10k -cutoff 4000",
                "its Opus frames are longer than 20 ms and cannot be split: it is re-encoded"}),
    [](const auto& encoded) { return encoded.param.name; });

// Replaces the first `from` in a file; both are as long.
void replace_in_file(const std::string& path, const std::string& from, const std::string& to) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    const std::size_t at = bytes.find(from);
    ASSERT_NE(at, std::string::npos) << path << " holds no " << from;
    file.seekp(static_cast<std::streamoff>(at)) << to;
}

TEST_F(RelayTest, SoundWithoutADecoderIsLeftOut) {
    const std::string path = file("film.mkv");
    make_media(kPicture + kTone + "-t 0.5 " + kVp8 + kOpus, path);
    replace_in_file(path, "A_OPUS", "A_XPUS");
    relay({.input = path});
    EXPECT_THAT(relay_->take_lines(),
                ElementsAre(path + ": its sound is none and not Opus: it is left out, libavcodec "
                                   "has no decoder for it"));
    EXPECT_FALSE(relay_->has_sound());
    EXPECT_EQ(sent().frames, packets_of(path, AVMEDIA_TYPE_VIDEO));
    EXPECT_THAT(sent().sounds, IsEmpty());
}

TEST_F(RelayTest, VideoThatIsNoVp8IsEncodedInTheSizeAskedFor) {
    const std::string path = file("film.mkv");
    make_media("-f lavfi -i testsrc2=size=640x360:rate=20 " + kTone + "-t 1 -c:v mpeg4 " + kOpus,
               path);
    relay({.input = path});
    EXPECT_THAT(relay_->take_lines(),
                ElementsAre(path + ": its video is mpeg4 and not VP8: it is re-encoded"));
    EXPECT_EQ(relay_->picture_size(), (PictureSize{.width = 320, .height = 240}));
    EXPECT_EQ(sent().sounds, packets_of(path, AVMEDIA_TYPE_AUDIO));
    ASSERT_FALSE(sent().frames.empty());
    EXPECT_EQ(keyframe_size(sent().frames.front()), (PictureSize{.width = 320, .height = 240}));
    const Feed::Counters counters = relay_->counters();
    EXPECT_EQ(counters.frames, sent().frames.size());
    EXPECT_EQ(counters.frames + counters.skipped, 20U);
}

// A decoder that puts pictures in order holds the last of them back.
TEST_F(RelayTest, TheLastPicturesAreEncodedToo) {
    const std::string path = file("film.mkv");
    make_media(kPicture + "-t 0.5 -c:v mpeg4 -bf 2", path);
    ASSERT_THAT(packets_of(path, AVMEDIA_TYPE_VIDEO), SizeIs(15));
    relay({.input = path});
    const Feed::Counters counters = relay_->counters();
    EXPECT_EQ(counters.frames + counters.skipped, 15U);
}

// Pictures 0, 3, 1 and 2 in the file; the decoder returns one late.
TEST_F(RelayTest, TheLastPictureComesAtItsTime) {
    const std::string path = file("film.mp4");
    make_media("-f lavfi -i testsrc2=size=320x240:rate=2 -t 2 -c:v mpeg4 -bf 2", path);
    relay({.input = path});
    const auto times = sent().frame_times;
    ASSERT_THAT(times, Not(IsEmpty()));  // a busy machine leaves some out, but never the last
    EXPECT_GE(times.back() - started_at_, milliseconds(2000));
}

TEST_F(RelayTest, APictureAloneIsEncoded) {
    const std::string path = file("film.mkv");
    make_media(kPicture + "-frames:v 1 -c:v mjpeg", path);
    relay({.input = path});
    EXPECT_EQ(relay_->counters().frames, 1U);
    EXPECT_EQ(relay_->counters().skipped, 0U);
}

// Scaled down to 16 pixels, its width leaves less than a pixel of its height.
TEST_F(RelayTest, PicturesThatCannotBeConvertedAreReportedOnce) {
    const std::string path = file("film.mkv");
    make_media("-f lavfi -i testsrc2=size=640x16:rate=30 -t 0.2 -c:v mjpeg", path);
    size_ = {.width = 16, .height = 2};
    relay({.input = path});
    EXPECT_THAT(sent().frames, IsEmpty());
    EXPECT_THAT(relay_->take_lines(),
                ElementsAre(path + ": its video is mjpeg and not VP8: it is re-encoded",
                            path + ": its pictures cannot be converted to 16x2"));
}

// Nobody knows where these channels are heard.
TEST_F(RelayTest, SoundThatCannotBeConvertedIsReportedOnce) {
    const std::string path = file("film.mkv");
    make_media("-f s16le -ar 48000 -ac 9 -i /dev/zero " + kPicture + "-t 0.2 -c:a copy " + kVp8,
               path);
    relay({.input = path});
    EXPECT_EQ(sent().frames, packets_of(path, AVMEDIA_TYPE_VIDEO));
    EXPECT_THAT(sent().sounds, IsEmpty());
    EXPECT_THAT(relay_->take_lines(),
                ElementsAre(path + ": its sound is pcm_s16le and not Opus: it is re-encoded",
                            path + ": its sound cannot be converted to stereo"));
}

TEST_F(RelayTest, AnEncodedFrameTooLargeToSendIsReported) {
    const std::string path = file("film.mkv");
    make_media("-f lavfi -i color=size=2560x1440,noise=alls=100 -frames:v 1 -c:v mjpeg -q:v 2",
               path);
    RelaySettings settings = {.input = path};
    settings.stream.video.bitrate = 1'000'000'000;
    size_ = {.width = 2560, .height = 1440};
    relay(settings);
    EXPECT_THAT(sent().frames, IsEmpty());
    EXPECT_THAT(relay_->take_lines(), Contains(HasSubstr(" bytes is too large to send")));
}

// Timestamps are kept on the way to the clock: nothing leaves before its time. How late a busy
// machine sends a frame is its own affair.
TEST_F(RelayTest, FramesLeaveByTheirTimestamps) {
    const std::string path = file("film.ivf");
    // A day after 0, which nobody waits for, and with a second between the frames 14 and 15.
    const auto due = [](std::size_t i) { return i * 100 / 3 + (i < 15 ? 0 : 1000); };
    write_ivf(path, some_frames(), [&](std::size_t i) { return 86'400'000 + due(i); });
    relay({.input = path});
    EXPECT_THAT(relay_->take_lines(), IsEmpty()) << "a day is no jump";
    const auto times = sent().frame_times;
    ASSERT_THAT(times, SizeIs(30));
    for (std::size_t i = 0; i < times.size(); ++i) {
        EXPECT_GE(times[i] - started_at_, milliseconds(due(i))) << i;
    }
}

// 24 of them take 1001 ms.
TEST_F(RelayTest, AFilmOf24000PicturesIn1001SecondsLeavesByItsTimestamps) {
    const std::string path = file("film.ivf");
    make_media("-f lavfi -i testsrc2=size=320x240:rate=24000/1001 -t 1.5 " + kVp8, path);
    relay({.input = path});
    const auto times = sent().frame_times;
    ASSERT_THAT(times, SizeIs(36));
    for (std::size_t i = 0; i < times.size(); ++i) {
        const auto due = std::chrono::microseconds(i * 1'001'000 / 24);
        EXPECT_GE(times[i] - started_at_, due - std::chrono::microseconds(1)) << i;
    }
}

// Nothing is sent before all has been read, which a line reports: so no thread that stands still
// for a while can change the order.
TEST_F(RelayTest, SoundAndPicturesLeaveTogether) {
    const std::string path = file("film.webm");
    make_media(
        "-f lavfi -i testsrc2=size=320x240:rate=24000/1001 " + kTone + "-t 3 " + kVp8 + kOpus,
        path);
    auto packets = test::media_packets_of(path);
    const auto cut = std::ranges::find_if(
        packets, [](const test::MediaPacket& packet) { return packet.time > 1.5; });
    ASSERT_NE(cut, packets.end());
    std::filesystem::resize_file(path, static_cast<std::uintmax_t>(cut->position));
    packets.erase(cut, packets.end());
    // Of two that have the same time, the picture goes first.
    std::ranges::stable_sort(packets, {}, [](const test::MediaPacket& packet) {
        return std::pair(packet.time, packet.type != AVMEDIA_TYPE_VIDEO);
    });
    std::vector<AVMediaType> order;
    for (const test::MediaPacket& packet : packets) {
        order.push_back(packet.type);
    }
    RelaySettings settings = {.input = path};
    settings.stream.burst = true;
    open(settings);
    ASSERT_TRUE(eventually([this] {
        return std::ranges::any_of(relay_->take_lines(), [](const std::string& line) {
            return line.find("it is cut short") != std::string::npos;
        });
    }));
    start();
    wait_for_end();
    EXPECT_EQ(sent().order, order);
    EXPECT_THAT(sent().frames, SizeIs(testing::Gt(24U)));
    EXPECT_THAT(sent().sounds, SizeIs(testing::Gt(50U)));
}

// The sound is the clock here: a packet each 20 ms, at most four of which are due in 75 ms, and
// five in the 100 ms between two pictures.
TEST_F(RelayTest, FramesLeaveThePlayerTimeBeforeTheNext) {
    const std::string path = file("film.mkv");
    make_media("-f lavfi -i nullsrc=size=320x240:rate=10,geq=random(1)*255:128:128 " + kTone +
                   "-t 0.4 -c:v libvpx -b:v 20M -qmax 4 -deadline realtime " + kOpus,
               path);
    const auto frames = packets_of(path, AVMEDIA_TYPE_VIDEO);
    ASSERT_THAT(frames, SizeIs(4));
    for (const Bytes& frame : frames) {
        ASSERT_GT(frame.size(), 25U * kMaxFragmentPayload);
    }
    open({.input = path, .loop = true});
    ASSERT_TRUE(comes_to(Feed::State::kReady));
    start();
    // The sound may come after a frame that a busy machine sends late. Of frames that are spread
    // over the whole interval, five sounds fall into each but the last, which are more than four a
    // frame once there are six.
    EXPECT_TRUE(eventually([this] {
        const Sent so_far = sent();
        return so_far.frames.size() > 8 && so_far.sounds_within_frames > 0;
    }));
    relay_->stop();
    link_.stop();
    const Sent all = sent();
    EXPECT_LE(all.sounds_within_frames, 4 * std::ssize(all.frames));
}

TEST_F(RelayTest, ALoopGoesOnWithGrowingNumbers) {
    const std::string path = file("film.webm");
    make_media(kPicture + kTone + "-t 0.5 " + kVp8 + kOpus, path);
    const auto frames = packets_of(path, AVMEDIA_TYPE_VIDEO);
    const auto sounds = packets_of(path, AVMEDIA_TYPE_AUDIO);
    open({.input = path, .loop = true});
    ASSERT_TRUE(comes_to(Feed::State::kReady));
    start();
    ASSERT_TRUE(eventually([&] { return sent().frames.size() > 3 * frames.size(); }));
    relay_->stop();
    link_.stop();
    const Sent all = sent();
    for (std::size_t i = 0; i + 1 < all.frames.size(); ++i) {
        ASSERT_EQ(all.frames[i], frames[i % frames.size()]) << i;
    }
    for (std::size_t i = 0; i < all.sounds.size(); ++i) {
        ASSERT_EQ(all.sounds[i], sounds[i % sounds.size()]) << i;
    }
    EXPECT_EQ(all.frame_ids, numbers_to(all.frame_ids.size()));
    EXPECT_EQ(all.sequences, numbers_to(all.sequences.size()));
    EXPECT_THAT(relay_->take_lines(), IsEmpty()) << "another round is no jump";
}

TEST_F(RelayTest, LowDelaySendsEachKeyframeTwice) {
    const std::string path = file("film.webm");
    make_media(kPicture + "-t 1 -g 10 -keyint_min 10 " + kVp8, path);
    RelaySettings settings = {.input = path};
    settings.stream.low_delay = true;
    send_to_nobody();
    relay(settings);
    std::vector<Bytes> expected;
    for (const Bytes& frame : packets_of(path, AVMEDIA_TYPE_VIDEO)) {
        expected.insert(expected.end(), keyframe_size(frame) ? 2 : 1, frame);
    }
    EXPECT_THAT(expected, SizeIs(33));
    EXPECT_EQ(sent().frames, expected);
    EXPECT_EQ(sent().frame_ids, numbers_to(33));
}

TEST_F(RelayTest, LowDelayFollowsEachEncodedPictureByTheFrameThatRepeatsIt) {
    const std::string path = file("film.mkv");
    make_media(kPicture + "-t 0.5 -c:v mpeg4", path);
    RelaySettings settings = {.input = path};
    settings.stream.low_delay = true;
    send_to_nobody();
    relay(settings);
    const Bytes repeat = make_repeat_frame(320, 240);
    const auto frames = sent().frames;
    const Feed::Counters counters = relay_->counters();
    EXPECT_EQ(counters.frames, frames.size());
    ASSERT_EQ(frames.size() + 2 * counters.skipped, 30U);
    for (std::size_t i = 0; i < frames.size(); ++i) {
        EXPECT_EQ(frames[i] == repeat, i % 2 == 1) << i;
    }
}

TEST_F(RelayTest, LowDelaySparesAPlayerThatDoesNotKeepUp) {
    let_a_picture_wait();
    const std::string path = file("film.webm");
    make_media(kPicture + "-t 1 -g 10 -keyint_min 10 " + kVp8, path);
    RelaySettings settings = {.input = path};
    settings.stream.low_delay = true;
    relay(settings);
    EXPECT_EQ(sent().frames, packets_of(path, AVMEDIA_TYPE_VIDEO));
}

TEST_F(RelayTest, LowDelaySparesAPlayerThatDoesNotKeepUpWithEncodedPictures) {
    let_a_picture_wait();
    const std::string path = file("film.mkv");
    make_media(kPicture + "-t 0.5 -c:v mpeg4", path);
    RelaySettings settings = {.input = path};
    settings.stream.low_delay = true;
    relay(settings);
    const Feed::Counters counters = relay_->counters();
    EXPECT_EQ(counters.frames + counters.skipped, 15U);
}

TEST_F(RelayTest, ACopiedStreamAnswersNoRequestForAKeyframe) {
    const std::string path = file("film.webm");
    make_media(kPicture + "-t 1 " + kVp8, path);
    open({.input = path});
    ASSERT_TRUE(comes_to(Feed::State::kReady));
    start();
    for (int i = 0; i < 3; ++i) {
        relay_->request_keyframe();
    }
    wait_for_end();
    EXPECT_EQ(sent().frames, packets_of(path, AVMEDIA_TYPE_VIDEO));
    EXPECT_EQ(relay_->counters().unanswered, 3U);
    EXPECT_THAT(relay_->take_lines(),
                ElementsAre(path + ": the player asks for a keyframe; a copied stream has only "
                                   "those that it brings"));
}

// The first answer is sent at once; all others within half a second are combined into one.
TEST_F(RelayTest, VideoThatIsEncodedAnswersOnceInHalfASecond) {
    const std::string path = file("film.mkv");
    make_media(kPicture + "-t 2 -c:v mpeg4", path);
    RelaySettings settings = {.input = path, .loop = true};
    settings.stream.video.keyframe_interval = 100'000;
    open(settings);
    ASSERT_TRUE(comes_to(Feed::State::kReady));
    start();
    const auto keyframes = [this] {
        return std::ranges::count_if(
            sent().frames, [](const Bytes& frame) { return keyframe_size(frame).has_value(); });
    };
    const Clock::time_point begin = Clock::now();
    ASSERT_TRUE(eventually([&] {
        relay_->request_keyframe();
        return keyframes() >= 3;
    }));
    relay_->stop();
    const auto half_seconds = (Clock::now() - begin) / milliseconds(500);
    link_.stop();
    EXPECT_LE(keyframes(), half_seconds + 2);  // the first frame is one unasked
    EXPECT_EQ(relay_->counters().unanswered, 0U);
}

// A film of two sizes, as a sender makes it that joins two streams.
void make_film_of_two_sizes(const test::TemporaryFolder& folder, const std::string& path) {
    make_media(kPicture + "-t 0.5 " + kVp8, folder.file("small.ivf"));
    make_media("-f lavfi -i testsrc2=size=480x360:rate=30 -t 0.5 " + kVp8,
               folder.file("large.ivf"));
    std::ofstream(folder.file("list")) << "file small.ivf\nfile large.ivf\n";
    make_media("-f concat -safe 0 -i " + folder.file("list") + " -c copy", path);
}

TEST_F(RelayTest, AtAnotherSizeItWaitsForAnotherPlayer) {
    const std::string path = file("film.webm");
    make_film_of_two_sizes(folder_, path);
    open({.input = path});
    ASSERT_TRUE(comes_to(Feed::State::kReady));
    EXPECT_EQ(relay_->picture_size(), (PictureSize{.width = 320, .height = 240}));
    start();
    ASSERT_TRUE(eventually([this] { return relay_->needs_new_player() && link_.idle(); }));
    EXPECT_EQ(relay_->picture_size(), (PictureSize{.width = 480, .height = 360}));
    EXPECT_THAT(sent().frames, SizeIs(15));
    relay_->go_on();
    wait_for_end();
    EXPECT_EQ(sent().frames, packets_of(path, AVMEDIA_TYPE_VIDEO));
    EXPECT_THAT(relay_->take_lines(), ElementsAre(path + ": pictures of 480x360 follow those of "
                                                         "320x240: another player is started"));
}

TEST_F(RelayTest, AtAnotherSizeItGoesOnWhereThePlayerStays) {
    const std::string path = file("film.webm");
    make_film_of_two_sizes(folder_, path);
    relay({.input = path, .new_player_for_new_size = false});
    EXPECT_EQ(sent().frames, packets_of(path, AVMEDIA_TYPE_VIDEO));
    EXPECT_THAT(relay_->take_lines(),
                ElementsAre(path + ": pictures of 480x360 follow those of 320x240: the player "
                                   "stays"));
}

TEST_F(RelayTest, TimestampsThatJumpBackAreReportedAndGoOn) {
    const std::string path = file("film.ivf");
    write_ivf(path, some_frames(),
              [](std::size_t i) { return i * 100 / 3 + (i < 15 ? 3'600'000 : 0); });
    relay({.input = path});
    EXPECT_THAT(sent().frames, SizeIs(30));
    EXPECT_THAT(relay_->take_lines(),
                ElementsAre(path + ": its timestamps jump by -3600.0 s; the stream continues "
                                   "without a gap"));
}

TEST_F(RelayTest, TimestampsThatJumpByHoursAreNotWaitedFor) {
    const std::string path = file("film.ivf");
    write_ivf(path, some_frames(),
              [](std::size_t i) { return i * 100 / 3 + (i < 15 ? 0 : 7'200'000); });
    relay({.input = path});
    EXPECT_THAT(sent().frames, SizeIs(30));
    EXPECT_THAT(relay_->take_lines(),
                ElementsAre(path + ": its timestamps jump by +7200.0 s; the stream continues "
                                   "without a gap"));
}

TEST_F(RelayTest, AFileCutShortIsSentAsFarAsItGoes) {
    const std::string path = file("film.webm");
    make_media(kPicture + kTone + "-t 3 " + kVp8 + kOpus, path);
    const auto frames = packets_of(path, AVMEDIA_TYPE_VIDEO);
    std::filesystem::resize_file(path, std::filesystem::file_size(path) / 2);
    relay({.input = path});
    const auto all = sent().frames;
    ASSERT_LT(all.size(), frames.size());
    EXPECT_TRUE(std::ranges::equal(all, std::span(frames).first(all.size())));
    EXPECT_THAT(relay_->take_lines(), Contains(HasSubstr(" s of 3.0 s: it is cut short")));
}

TEST_F(RelayTest, ALoopOfAFileCutShortIsReportedOnce) {
    const std::string path = file("film.webm");
    make_media(kPicture + "-t 3 " + kVp8, path);
    const std::size_t frames = packets_of(path, AVMEDIA_TYPE_VIDEO).size();
    std::filesystem::resize_file(path, std::filesystem::file_size(path) / 2);
    open({.input = path, .loop = true});
    ASSERT_TRUE(comes_to(Feed::State::kReady));
    start();
    ASSERT_TRUE(eventually([&] { return sent().frames.size() > 2 * frames; }));
    EXPECT_THAT(relay_->take_lines(), ElementsAre(HasSubstr(" s of 3.0 s: it is cut short")));
}

TEST_F(RelayTest, AFrameCutShortIsLeftOut) {
    const std::string path = file("film.ivf");
    make_media(kPicture + "-t 1 " + kVp8, path);
    const auto frames = packets_of(path, AVMEDIA_TYPE_VIDEO);
    std::filesystem::resize_file(path, std::filesystem::file_size(path) - 10);
    relay({.input = path});
    const auto all = sent().frames;
    ASSERT_THAT(all, SizeIs(frames.size() - 1));
    EXPECT_TRUE(std::ranges::equal(all, std::span(frames).first(all.size())));
    EXPECT_THAT(
        relay_->take_lines(),
        Contains(path + ": contains a packet that is damaged or cut short, which is left out"));
}

struct BadInput {
    const char* name;
    std::function<void(const std::string& path)> make;
    std::string what;
};

void PrintTo(const BadInput& input, std::ostream* stream) {
    *stream << input.name;
}

class RelayRefuses : public RelayTest, public testing::WithParamInterface<BadInput> {};

TEST_P(RelayRefuses, WithOneLine) {
    const std::string path = file("input");
    GetParam().make(path);
    open({.input = path});
    ASSERT_TRUE(comes_to(Feed::State::kFailed));
    EXPECT_THAT(relay_->take_lines(), ElementsAre("cannot relay " + path + ": " + GetParam().what));
}

INSTANTIATE_TEST_SUITE_P(
    All, RelayRefuses,
    testing::Values(
        BadInput{"AFileThatIsMissing", [](const std::string&) {}, "No such file or directory"},
        BadInput{"AFileOfNothing", [](const std::string& path) { std::ofstream(path).close(); },
                 "Invalid data found when processing input"},
        BadInput{"AFolder", [](const std::string& path) { mkdir(path.c_str(), 0700); },
                 "Is a directory"},
        BadInput{"AFileWithoutAKeyframe",
                 [](const std::string& path) {
                     auto frames = some_frames();
                     frames.erase(frames.begin());
                     write_ivf(path, frames, [](std::size_t i) { return i * 33; });
                 },
                 "it ends before its first keyframe"}),
    [](const auto& input) { return input.param.name; });

// The playlist is complete: libavformat asks again for what is missing in one that may yet grow.
TEST_F(RelayTest, APlaylistInAFileReachesNoAddress) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
    const std::string path = file("list.m3u8");
    std::ofstream(path) << "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1,\nhttp://127.0.0.1:"
                        << ntohs(address.sin_port) << "/film.ts\n#EXT-X-ENDLIST\n";
    open({.input = path});
    ASSERT_TRUE(comes_to(Feed::State::kFailed));
    EXPECT_THAT(relay_->take_lines(),
                ElementsAre("cannot relay " + path + ": Invalid data found when processing input"));
    EXPECT_LT(accept(listener, nullptr, nullptr), 0) << "somebody has connected";
    close(listener);
}

// Debian's, for which it packages GStreamer's bindings.
constexpr const char* kPython = "/usr/bin/python3";

// A folder's files at http://127.0.0.1.
class HttpServer {
  public:
    explicit HttpServer(const std::string& folder)
        : process_({kPython, "-u", "-m", "http.server", "0", "--bind", "127.0.0.1", "--directory",
                    folder}) {
        // A proxy would not find it.
        setenv("no_proxy", "127.0.0.1", 1);
        // "Serving HTTP on 127.0.0.1 port 40123 (http://127.0.0.1:40123/) ..."
        EXPECT_TRUE(eventually([this] {
            const std::string& text = process_.out();
            const std::size_t begin = text.find('(');
            const std::size_t end = text.find(')');
            if (end != std::string::npos) {
                address_ = text.substr(begin + 1, end - begin - 1);
            }
            return !address_.empty() || process_.ending();
        }));
        EXPECT_THAT(address_, testing::StartsWith("http://")) << process_.err();
    }
    // Ends with a slash.
    [[nodiscard]] const std::string& address() const { return address_; }

  private:
    test::ChildProcess process_;
    std::string address_;
};

TEST_F(RelayTest, AnAddressOfAWebServerIsReadLikeAFile) {
    make_media(kPicture + kTone + "-t 1 " + kVp8 + kOpus, file("film.webm"));
    const HttpServer server(folder_.path());
    ASSERT_NO_FATAL_FAILURE(open_address(server.address() + "film.webm"));
    ASSERT_EQ(relay_->state(), Feed::State::kReady) << testing::PrintToString(lines_);
    start();
    wait_for_end();
    EXPECT_THAT(relay_->take_lines(), IsEmpty());
    EXPECT_EQ(sent().frames, packets_of(file("film.webm"), AVMEDIA_TYPE_VIDEO));
    EXPECT_EQ(sent().sounds, packets_of(file("film.webm"), AVMEDIA_TYPE_AUDIO));
}

// One that is a file itself may name other files.
TEST_F(RelayTest, APlaylistInAPipeReachesNoFile) {
    make_media(kPicture + "-t 1 -c:v mpeg2video", file("film.ts"));
    std::ofstream(file("list.m3u8")) << "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1,\nfile://"
                                     << file("film.ts") << "\n#EXT-X-ENDLIST\n";
    open({.input = file("list.m3u8")});
    EXPECT_TRUE(comes_to(Feed::State::kReady)) << testing::PrintToString(relay_->take_lines());
    const std::string path = file("fifo.m3u8");
    ASSERT_NO_FATAL_FAILURE(open_pipe(file("list.m3u8"), {.input = path}));
    EXPECT_TRUE(comes_to(Feed::State::kFailed));
    EXPECT_THAT(relay_->take_lines(),
                ElementsAre("cannot relay " + path + ": Invalid data found when processing input"));
}

// Two playlists name the same film. Only the one that has its address at the web server is good.
TEST_F(RelayTest, APlaylistOfAWebServerReachesNoFile) {
    make_media(kPicture + "-t 1 -c:v mpeg2video", file("film.ts"));
    const HttpServer server(folder_.path());
    const auto write_playlist = [this](const std::string& name, const std::string& film) {
        std::ofstream(file(name)) << "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1,\n"
                                  << film << "\n#EXT-X-ENDLIST\n";
    };
    write_playlist("of_an_address.m3u8", server.address() + "film.ts");
    write_playlist("of_a_file.m3u8", "file://" + file("film.ts"));
    ASSERT_NO_FATAL_FAILURE(open_address(server.address() + "of_an_address.m3u8"));
    EXPECT_EQ(relay_->state(), Feed::State::kReady) << testing::PrintToString(lines_);
    const std::string address = server.address() + "of_a_file.m3u8";
    ASSERT_NO_FATAL_FAILURE(open_address(address));
    EXPECT_EQ(relay_->state(), Feed::State::kFailed);
    EXPECT_THAT(lines_, ElementsAre("cannot relay " + address +
                                    ": Invalid data found when processing input"));
}

// Sound that a busy machine takes too late is left out.
TEST_F(RelayTest, OfAnRtspServerEveryPictureBitForBit) {
    const std::string film = file("film.webm");
    make_media(kPicture + kTone + "-t 2 -g 100 " + kVp8 + kOpus, film);
    test::ChildProcess server({kPython, VESPER_RTSP_SERVER,
                               "( filesrc location=" + film +
                                   " ! matroskademux name=film "
                                   "film. ! queue ! rtpvp8pay name=pay0 pt=96 "
                                   "film. ! queue ! rtpopuspay name=pay1 pt=97 )"});
    ASSERT_TRUE(eventually([&] { return server.out().ends_with("\n") || server.ending(); }));
    ASSERT_FALSE(server.ending()) << server.err();
    ASSERT_NO_FATAL_FAILURE(
        open_address("rtsp://127.0.0.1:" + std::to_string(std::stoi(server.out())) + "/live"));
    ASSERT_EQ(relay_->state(), Feed::State::kReady) << testing::PrintToString(lines_);
    start();
    const auto frames = packets_of(film, AVMEDIA_TYPE_VIDEO);
    EXPECT_TRUE(eventually([&] { return sent().frames.size() >= frames.size() && link_.idle(); }));
    relay_->stop();
    link_.stop();
    EXPECT_EQ(sent().frames, frames);
    EXPECT_TRUE(relay_->has_sound());
    EXPECT_THAT(sent().sounds, Each(testing::AnyOfArray(packets_of(film, AVMEDIA_TYPE_AUDIO))));
}

TEST_F(RelayTest, WhatCannotBeReadTwiceIsNotLooped) {
    const std::string path = file("fifo");
    make_media(kPicture + "-t 1 " + kVp8 + "-f webm", file("film"));
    ASSERT_NO_FATAL_FAILURE(open_pipe(file("film"), {.input = path, .loop = true}));
    ASSERT_TRUE(comes_to(Feed::State::kFailed));
    EXPECT_THAT(relay_->take_lines(), ElementsAre("cannot relay " + path +
                                                  ": it cannot be read twice, as --loop asks for"));
}

TEST_F(RelayTest, APipeIsReadToItsEnd) {
    const std::string path = file("fifo");
    make_media(kPicture + kTone + "-t 1 " + kVp8 + kOpus + "-f webm", file("film"));
    ASSERT_NO_FATAL_FAILURE(open_pipe(file("film"), {.input = path}));
    ASSERT_TRUE(comes_to(Feed::State::kReady));
    start();
    wait_for_end();
    EXPECT_EQ(sent().frames, packets_of(file("film"), AVMEDIA_TYPE_VIDEO));
    EXPECT_EQ(sent().sounds, packets_of(file("film"), AVMEDIA_TYPE_AUDIO));
}

// All that has arrived is sent, however long the rest takes.
TEST_F(RelayTest, APipeThatWaitsHoldsNothingBack) {
    const std::string path = file("fifo");
    make_media(kPicture + kTone + "-t 2 " + kVp8 + kOpus + "-f webm", file("film"));
    const auto packets = test::media_packets_of(file("film"));
    const auto after_a_second = std::ranges::find_if(packets, [](const auto& packet) {
        return packet.type == AVMEDIA_TYPE_VIDEO && packet.time > 1;
    });
    ASSERT_NE(after_a_second, packets.end());
    const auto arrived = std::span(packets.begin(), after_a_second);
    const auto count = [&](AVMediaType type) {
        return static_cast<std::size_t>(
            std::ranges::count(arrived, type, &test::MediaPacket::type));
    };
    std::ifstream film(file("film"), std::ios::binary);
    std::string first(static_cast<std::size_t>(after_a_second->position), '\0');
    film.read(first.data(), std::ssize(first));
    const std::string rest{std::istreambuf_iterator<char>(film), {}};

    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int pipe = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    std::string_view left = first;
    const auto write_what_fits = [&] {
        const ssize_t written = write(pipe, left.data(), left.size());
        left.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
        return left.empty();
    };
    write_what_fits();  // before there is a relay, which waits for ten seconds only
    open({.input = path});
    ASSERT_TRUE(eventually(write_what_fits));
    ASSERT_TRUE(comes_to(Feed::State::kReady));
    start();
    EXPECT_TRUE(eventually([&] {
        const Sent so_far = sent();
        return so_far.frames.size() == count(AVMEDIA_TYPE_VIDEO) &&
               so_far.sounds.size() == count(AVMEDIA_TYPE_AUDIO) && link_.idle();
    }));
    left = rest;
    ASSERT_TRUE(eventually(write_what_fits));
    close(pipe);
    wait_for_end();
    EXPECT_EQ(sent().frames, packets_of(file("film"), AVMEDIA_TYPE_VIDEO));
    EXPECT_EQ(sent().sounds, packets_of(file("film"), AVMEDIA_TYPE_AUDIO));
}

// A stop does not wait for an input, whatever that waits for.
TEST_F(RelayTest, IsStoppedWhileItsInputIsSilent) {
    const std::string path = file("fifo");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    open({.input = path});
    relay_->stop();
    EXPECT_EQ(relay_->state(), Feed::State::kFailed);
}

}  // namespace
}  // namespace vesper::tools
