// Streams that other people's programs encoded, in the real player. What its window shows is
// compared pixel for pixel with what libavcodec makes of the same file.
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/log.h>
#include <libswscale/swscale.h>
}

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "net/stream_datagrams.h"
#include "net/udp_socket.h"
#include "tests/e2e/played_sound.h"
#include "tests/e2e/player_fixture.h"
#include "tests/e2e/player_window.h"
#include "tests/e2e/printed_on_failure.h"
#include "tests/e2e/virtual_display.h"
#include "tests/support/child_process.h"
#include "tests/support/eventually.h"
#include "tests/support/temporary_folder.h"
#include "tests/tools/command.h"
#include "tests/tools/media_packets.h"
#include "tests/tools/stream_receiver.h"
#include "tools/stream/capture.h"
#include "tools/stream/free_port.h"

namespace vesper::test {
namespace {

using testing::AnyOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

// Few pictures a second, so that a busy machine finds the time to look at each, and little to send.
const std::string kPicture = "-f lavfi -i testsrc2=size=320x240:rate=5 ";
const std::string kTone = "-f lavfi -i sine=frequency=440:sample_rate=48000 ";
const std::string kTwoTones = "-f lavfi -i aevalsrc=sin(440*2*PI*t)/8|sin(880*2*PI*t)/8:s=48000 ";
const std::string kVp8 = "-t 3 -g 100 -c:v libvpx -b:v 150k -deadline realtime ";
const std::string kOpus = "-c:a libopus ";

// The red, green and blue of a picture, row after row.
using Pixels = std::string;

// Each picture of a file as the player's texture has it, with its place in the file.
std::map<Pixels, std::size_t> pictures_of(const std::string& path) {
    std::map<Pixels, std::size_t> pictures;
    AVFormatContext* format = nullptr;
    EXPECT_GE(avformat_open_input(&format, path.c_str(), nullptr, nullptr), 0) << path;
    AVCodecContext* codec = avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_VP8));
    EXPECT_GE(avcodec_open2(codec, nullptr, nullptr), 0);
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    SwsContext* converter = nullptr;
    while (format != nullptr && av_read_frame(format, packet) >= 0) {
        const auto* parameters = format->streams[packet->stream_index]->codecpar;
        if (parameters->codec_id == AV_CODEC_ID_VP8) {
            avcodec_send_packet(codec, packet);
        }
        av_packet_unref(packet);
        while (parameters->codec_id == AV_CODEC_ID_VP8 &&
               avcodec_receive_frame(codec, frame) >= 0) {
            converter = sws_getCachedContext(converter, frame->width, frame->height,
                                             static_cast<AVPixelFormat>(frame->format),
                                             frame->width, frame->height, AV_PIX_FMT_BGRA,
                                             SWS_BILINEAR, nullptr, nullptr, nullptr);
            const auto width = static_cast<std::size_t>(frame->width);
            const auto height = static_cast<std::size_t>(frame->height);
            // With room for what vector code writes after the last row.
            std::vector<std::uint8_t> bgra(width * height * 4 + 64);
            std::uint8_t* const plane = bgra.data();
            const int stride = frame->width * 4;
            sws_scale(converter, frame->data, frame->linesize, 0, frame->height, &plane, &stride);
            Pixels pixels;
            pixels.reserve(width * height * 3);
            for (std::size_t i = 0; i < width * height; ++i) {
                for (const std::size_t component : {2U, 1U, 0U}) {
                    pixels.push_back(static_cast<char>(bgra[i * 4 + component]));
                }
            }
            pictures.emplace(std::move(pixels), pictures.size());
        }
    }
    sws_freeContext(converter);
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&codec);
    avformat_close_input(&format);
    return pictures;
}

Pixels pixels_of(const Screenshot& screenshot) {
    Pixels pixels;
    pixels.reserve(screenshot.pixels.size() * 3);
    for (const Color& color : screenshot.pixels) {
        for (const int component : {color.red, color.green, color.blue}) {
            pixels.push_back(static_cast<char>(component));
        }
    }
    return pixels;
}

// vesper-parent with a player, on a display of its own.
class RelayingParent {
  public:
    RelayingParent(const std::vector<std::string>& options, const PlayedSound& sound)
        : process_(command(options), environment(sound)) {}

    [[nodiscard]] ChildProcess& process() { return process_; }

    // The window of the next player, once it listens.
    void find_window() {
        ++players_;
        ASSERT_TRUE(eventually([this] { return listening() == players_ || process_.ending(); }));
        player_ = player_pid();
        ASSERT_TRUE(player_ && !process_.ending()) << process_.out() << process_.err();
        window_.emplace(display_, *player_);
    }

    [[nodiscard]] pid_t player() const { return player_.value_or(0); }
    [[nodiscard]] const PlayerWindow& window() const { return *window_; }

    // Whether the window comes to show, bit for bit, several of the pictures, one of them from
    // their last third: that far from a keyframe each is right only if all before it are.
    [[nodiscard]] bool shows(const std::map<Pixels, std::size_t>& pictures) const {
        std::set<std::size_t> seen;
        return eventually([&] {
            const auto found = pictures.find(pixels_of(window_->screenshot()));
            if (found != pictures.end()) {
                seen.insert(found->second);
            }
            return seen.size() >= 4 && *seen.rbegin() >= pictures.size() * 2 / 3;
        });
    }

    [[nodiscard]] bool shows(Point point, Color color) const {
        return eventually([&] { return is_near(window_->screenshot().at(point), color); });
    }

    [[nodiscard]] bool prints(const std::string& text) {
        return eventually(
            [&] { return (process_.out() + process_.err()).find(text) != std::string::npos; });
    }

    // By its own clock, which begins when the player listens.
    [[nodiscard]] bool lasts_ten_seconds() {
        const auto ten_or_more = ContainsRegex("\\[Parent\\] (0:[1-5][0-9]|[1-9][0-9]*:)");
        return eventually([&] { return testing::Value(process_.out(), ten_or_more); });
    }

  private:
    static std::vector<std::string> command(const std::vector<std::string>& options) {
        std::vector<std::string> words = {VESPER_PARENT};
        words.insert(words.end(), options.begin(), options.end());
        return words;
    }
    [[nodiscard]] ChildProcess::Environment environment(const PlayedSound& sound) const {
        auto result = player_environment(display_);
        sound.redirect(result);
        return result;
    }
    // How many players have printed that they listen.
    [[nodiscard]] int listening() {
        const std::string text = process_.out();
        int count = 0;
        for (std::size_t at = 0; (at = text.find("Listening", at)) != std::string::npos; ++at) {
            ++count;
        }
        return count;
    }
    [[nodiscard]] std::optional<pid_t> player_pid() const {
        const std::string pid = std::to_string(process_.pid());
        std::ifstream children("/proc/" + pid + "/task/" + pid + "/children");
        pid_t player = 0;
        return children >> player ? std::optional(player) : std::nullopt;
    }

    VirtualDisplay display_;
    ChildProcess process_;
    PrintedOnFailure printed_{process_};
    int players_ = 0;
    std::optional<pid_t> player_;
    std::optional<PlayerWindow> window_;
};

// A device that is faster than the stream fills up with silence in the middle of its blocks, too,
// where packets are shorter than these. What was sent has hardly a sample without any sound.
SoundBlocks without_pauses(const SoundBlocks& blocks) {
    std::vector<short> samples;
    for (const SoundBlock& block : blocks) {
        for (std::size_t i = 0; i + 1 < block.size(); i += 2) {
            if (block[i] != 0 || block[i + 1] != 0) {
                samples.insert(samples.end(), {block[i], block[i + 1]});
            }
        }
    }
    SoundBlocks dense(samples.size() / SoundBlock().size());
    for (std::size_t i = 0; i < dense.size(); ++i) {
        std::copy_n(samples.begin() + static_cast<std::ptrdiff_t>(i * dense[i].size()),
                    dense[i].size(), dense[i].begin());
    }
    return dense;
}

class Relay : public testing::Test {
  protected:
    Relay() { av_log_set_level(AV_LOG_QUIET); }

    [[nodiscard]] std::string file(const std::string& name) const { return folder_.file(name); }

    // Whether ToneSource's neighbours would call it a tone of 440 Hz.
    void expect_tone_of_440_hz() {
        constexpr std::size_t kEnough = 50;  // blocks of 20 ms
        ASSERT_TRUE(eventually([this] { return sound_.heard().size() >= kEnough; }));
        const SoundBlocks heard = without_pauses(sound_.heard());
        EXPECT_NEAR(frequency(heard), 440, 10);
        EXPECT_GT(root_mean_square(heard), 300);
    }

    TemporaryFolder folder_;
    PlayedSound sound_{folder_.file("played")};
};

struct Film {
    const char* name;
    std::string options;
    std::string first_pass = {};  // options of a run before it
    std::string file = "film.webm";
    bool (*frame)(const PacketBytes& frame) = nullptr;  // what one of the frames is at least
};

void PrintTo(const Film& film, std::ostream* stream) {
    *stream << film.options;
}

class RelayedFilm : public Relay, public testing::WithParamInterface<Film> {};

TEST_P(RelayedFilm, IsShownAsLibavcodecDecodesIt) {
    const std::string path = file(GetParam().file);
    if (!GetParam().first_pass.empty()) {
        make_media(GetParam().first_pass + " -passlogfile " + file("log"), "/dev/null");
        make_media(GetParam().options + " -passlogfile " + file("log"), path);
    } else {
        make_media(GetParam().options, path);
    }
    ASSERT_TRUE(GetParam().frame == nullptr ||
                std::ranges::any_of(packets_of(path, AVMEDIA_TYPE_VIDEO), GetParam().frame));
    const auto pictures = pictures_of(path);
    ASSERT_GE(pictures.size(), 9U);
    RelayingParent parent({"--file", path, "--copy", "--loop"}, sound_);
    ASSERT_NO_FATAL_FAILURE(parent.find_window());
    EXPECT_TRUE(parent.shows(pictures));
}

const std::string kTwoPass = kPicture +
                             "-t 6 -g 100 -c:v libvpx -b:v 150k -auto-alt-ref 1 -lag-in-frames 16 "
                             "-arnr-maxframes 7 ";

INSTANTIATE_TEST_SUITE_P(
    All, RelayedFilm,
    testing::Values(Film{.name = "OfTwoPassesWithAlternateReferences",
                         .options = kTwoPass + "-pass 2",
                         .first_pass = kTwoPass + "-pass 1 -f null",
                         .frame = is_not_shown},
                    Film{"WithErrorResilience",
                         kPicture + kVp8 + "-error-resilient default+partitions"},
                    Film{"WithTemporalLayers",
                         kPicture + kVp8 +
                             "-ts-parameters ts_number_layers=3:ts_target_bitrate=50,100,150:"
                             "ts_rate_decimator=4,2,1:ts_periodicity=4:ts_layer_id=0,2,1,2:"
                             "ts_layering_mode=3"},
                    Film{"WithTokenPartitions", kPicture + kVp8 + "-slices 8"},
                    Film{"OfOddSize", "-f lavfi -i testsrc2=size=353x289:rate=5 " + kVp8},
                    Film{"OfVaryingRate",
                         kPicture + kVp8 + "-vf select=lt(mod(n\\,5)\\,3) -vsync vfr",
                         {},
                         "film.mkv"}),
    [](const auto& film) { return film.param.name; });

TEST_F(Relay, OfAFilmThatGStreamerMadeIsShownAsLibavcodecDecodesIt) {
    const std::string path = file("film.webm");
    run_command(
        split_words("gst-launch-1.0 -q videotestsrc pattern=ball num-buffers=30 ! "
                    "video/x-raw,width=320,height=240,framerate=5/1 ! "
                    "vp8enc deadline=1 token-partitions=2 target-bitrate=150000 "
                    "keyframe-max-dist=100 ! webmmux ! filesink location=" +
                    path));
    const auto pictures = pictures_of(path);
    ASSERT_GE(pictures.size(), 9U);
    RelayingParent parent({"--file", path, "--copy", "--loop"}, sound_);
    ASSERT_NO_FATAL_FAILURE(parent.find_window());
    EXPECT_TRUE(parent.shows(pictures));
}

struct Song {
    const char* name;
    std::string options;
};

void PrintTo(const Song& song, std::ostream* stream) {
    *stream << song.options;
}

class RelayedSound : public Relay, public testing::WithParamInterface<Song> {};

TEST_P(RelayedSound, IsHeard) {
    const std::string path = file("film.mkv");
    make_media(kPicture + kTone + kVp8 + kOpus + GetParam().options, path);
    RelayingParent parent({"--file", path, "--copy", "--loop"}, sound_);
    ASSERT_NO_FATAL_FAILURE(parent.find_window());
    expect_tone_of_440_hz();
}

INSTANTIATE_TEST_SUITE_P(
    All, RelayedSound,
    testing::Values(Song{"Of10Ms", "-frame_duration 10"}, Song{"Of20Ms", "-frame_duration 20"},
                    Song{"Of40Ms", "-frame_duration 40"}, Song{"Of60Ms", "-frame_duration 60"},
                    Song{"OfLongSpeechFrames",
                         "-ac 1 -application voip -frame_duration 60 -b:a 10k -cutoff 4000"},
                    Song{"WithErrorCorrection", "-application voip -fec 1 -packet_loss 20"},
                    Song{"Surround", "-ac 6 -mapping_family 1"}),
    [](const auto& song) { return song.param.name; });

// The blocks of the right channel's sound in both channels.
SoundBlocks right_of(SoundBlocks blocks) {
    for (SoundBlock& block : blocks) {
        for (std::size_t i = 0; i + 1 < block.size(); i += 2) {
            block[i] = block[i + 1];
        }
    }
    return blocks;
}

TEST_F(Relay, OfStereoIsHeardOnBothSidesAsItWasRecorded) {
    const std::string path = file("film.mkv");
    make_media(kPicture + kTwoTones + kVp8 + kOpus, path);
    const auto packets = packets_of(path, AVMEDIA_TYPE_AUDIO);
    ASSERT_TRUE(std::ranges::all_of(packets, is_stereo));
    RelayingParent parent({"--file", path, "--copy", "--loop"}, sound_);
    ASSERT_NO_FATAL_FAILURE(parent.find_window());
    expect_tone_of_440_hz();
    EXPECT_NEAR(frequency(right_of(without_pauses(sound_.heard()))), 880, 20);
}

TEST_F(Relay, OfMonoIsHeardOnBothSidesAlike) {
    const std::string path = file("film.mkv");
    make_media(kPicture + kTone + kVp8 + kOpus, path);
    const auto packets = packets_of(path, AVMEDIA_TYPE_AUDIO);
    ASSERT_TRUE(std::ranges::none_of(packets, is_stereo));
    RelayingParent parent({"--file", path, "--copy", "--loop"}, sound_);
    ASSERT_NO_FATAL_FAILURE(parent.find_window());
    expect_tone_of_440_hz();
    const SoundBlocks heard = sound_.heard();
    EXPECT_EQ(right_of(heard), heard);
}

// Those that are nearly as loud as the loudest.
SoundBlocks loud(const SoundBlocks& blocks) {
    double loudest = 0;
    for (const SoundBlock& block : blocks) {
        loudest = std::max(loudest, root_mean_square({block}));
    }
    SoundBlocks result;
    std::ranges::copy_if(blocks, std::back_inserter(result), [loudest](const SoundBlock& block) {
        return root_mean_square({block}) > 0.9 * loudest;
    });
    return result;
}

// The tone lasts a second before the pause, and another one after it.
TEST_F(Relay, OfDiscontinuousTransmissionIsHeardBeforeAndAfterThePauses) {
    const std::string path = file("film.mkv");
    make_tone_with_a_pause(file("tone.mkv"));
    make_media(kPicture + "-i " + file("tone.mkv") + " -c:a copy " + kVp8, path);
    const auto packets = packets_of(path, AVMEDIA_TYPE_AUDIO);
    ASSERT_GT(std::ranges::count_if(packets, is_pause), 20);
    RelayingParent parent({"--file", path, "--copy", "--loop"}, sound_);
    ASSERT_NO_FATAL_FAILURE(parent.find_window());
    SoundBlocks tone;
    ASSERT_TRUE(eventually([&] {
        constexpr std::size_t kMoreThanASecond = 75;  // blocks of 20 ms
        tone = loud(without_pauses(sound_.heard()));
        return tone.size() >= kMoreThanASecond;
    }));
    EXPECT_NEAR(frequency(tone), 440, 10);
    EXPECT_GT(root_mean_square(tone), 300);
}

// First one size, then another; a parent reads it from a pipe, which the test fills when it is
// ready for what comes next.
struct RelayOfTwoSizes : Relay {
    RelayOfTwoSizes() {
        const std::string encoder = "-c:v libvpx -b:v 150k -deadline realtime ";
        make_media(kPicture + kTone + "-t 0.6 " + encoder + kOpus, file("small.mkv"));
        make_media(
            "-f lavfi -i testsrc2=size=480x360:rate=5 " + kTone + "-t 4 -g 1 " + encoder + kOpus,
            file("large.mkv"));
        std::ofstream(file("list")) << "file small.mkv\nfile large.mkv\n";
        make_media("-f concat -safe 0 -i " + file("list") + " -c copy", file("film.mkv"));
        std::ifstream film(file("film.mkv"), std::ios::binary);
        small.resize(offset_of_second_keyframe(file("film.mkv")));
        film.read(small.data(), std::ssize(small));
        large.assign(std::istreambuf_iterator<char>(film), {});
        EXPECT_EQ(mkfifo(pipe.c_str(), 0600), 0);
        // Does not wait for a reader.
        writer = ::open(pipe.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        // Before there is a parent, which gives up a pipe from which nothing comes for ten seconds.
        rest = small;
        write_what_fits();
    }
    ~RelayOfTwoSizes() override { stop_writing(); }
    void stop_writing() {
        if (writer >= 0) {
            close(std::exchange(writer, -1));
        }
    }
    void write_what_fits() {
        const ssize_t written = ::write(writer, rest.data(), rest.size());
        rest.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
    }
    // As fast as the parent reads it.
    void write_rest(RelayingParent& parent) {
        ASSERT_TRUE(eventually([&] {
            write_what_fits();
            return rest.empty() || parent.process().ending();
        }));
        ASSERT_TRUE(rest.empty()) << parent.process().err();
    }
    void write_large(RelayingParent& parent) {
        rest = large;
        write_rest(parent);
    }
    static std::size_t offset_of_second_keyframe(const std::string& film) {
        AVFormatContext* format = nullptr;
        EXPECT_GE(avformat_open_input(&format, film.c_str(), nullptr, nullptr), 0);
        AVPacket* packet = av_packet_alloc();
        std::int64_t offset = 0;
        for (int keyframes = 0;
             keyframes < 2 && format != nullptr && av_read_frame(format, packet) >= 0;) {
            const auto* parameters = format->streams[packet->stream_index]->codecpar;
            if (parameters->codec_id == AV_CODEC_ID_VP8 && (packet->flags & AV_PKT_FLAG_KEY) != 0) {
                ++keyframes;
                offset = packet->pos;
            }
            av_packet_unref(packet);
        }
        av_packet_free(&packet);
        avformat_close_input(&format);
        return static_cast<std::size_t>(offset);
    }

    std::string small;  // the film up to the other size
    std::string large;
    std::string_view rest;  // of the part that is being written
    std::string pipe = file("pipe");
    int writer = -1;
};

std::vector<std::string> command_line_of(pid_t pid) {
    std::ifstream stream("/proc/" + std::to_string(pid) + "/cmdline", std::ios::binary);
    std::vector<std::string> words;
    for (std::string word; std::getline(stream, word, '\0');) {
        words.push_back(word);
    }
    return words;
}

TEST_F(RelayOfTwoSizes, StartsAPlayerForEachAsLoudAsTheViewerChose) {
    const auto pictures = pictures_of(file("large.mkv"));
    RelayingParent parent({"--file", pipe, "--copy", "--volume", "0.5"}, sound_);
    ASSERT_NO_FATAL_FAILURE(write_rest(parent));
    ASSERT_NO_FATAL_FAILURE(parent.find_window());
    EXPECT_TRUE(eventually([&] { return parent.window().title() == "Stream: pipe"; }));
    EXPECT_EQ(parent.window().size(), (Extent{.width = 320, .height = 240}));
    parent.window().press_key("Up");
    parent.window().press_key("m");
    ASSERT_TRUE(parent.prints("volume 55 % muted"));
    ASSERT_NO_FATAL_FAILURE(write_large(parent));
    ASSERT_TRUE(
        parent.prints("pictures of 480x360 follow those of 320x240: another player is "
                      "started"));
    ASSERT_NO_FATAL_FAILURE(parent.find_window());
    EXPECT_TRUE(eventually([&] { return parent.window().title() == "Stream: pipe"; }));
    EXPECT_THAT(command_line_of(parent.player()),
                testing::IsSupersetOf({"480", "360", "0.550000", "--audio-muted"}));
    EXPECT_TRUE(
        eventually([&] { return pictures.contains(pixels_of(parent.window().screenshot())); }));
    EXPECT_FALSE(parent.process().ending());
}

TEST_F(RelayOfTwoSizes, KeepsThePlayerWithNoRestart) {
    RelayingParent parent({"--file", pipe, "--copy", "--no-restart"}, sound_);
    ASSERT_NO_FATAL_FAILURE(write_rest(parent));
    ASSERT_NO_FATAL_FAILURE(parent.find_window());
    ASSERT_NO_FATAL_FAILURE(write_large(parent));
    stop_writing();
    ASSERT_TRUE(parent.prints("pictures of 480x360 follow those of 320x240: the player stays"));
    EXPECT_EQ(parent.process().wait_for_end(), (Ending{.status = 0, .signal = 0}));
    EXPECT_THAT(parent.process().out(), Not(HasSubstr("480x360")));
}

// A player scales by the size of its first picture.
TEST_F(RelayOfTwoSizes, StartsAnotherPlayerOfTheSizeThatWasAskedFor) {
    const auto pictures = pictures_of(file("large.mkv"));
    RelayingParent parent({"--file", pipe, "--copy", "--size", "480x360"}, sound_);
    ASSERT_NO_FATAL_FAILURE(write_rest(parent));
    ASSERT_NO_FATAL_FAILURE(parent.find_window());
    EXPECT_EQ(parent.window().size(), (Extent{.width = 480, .height = 360}));
    ASSERT_NO_FATAL_FAILURE(write_large(parent));
    ASSERT_TRUE(
        parent.prints("pictures of 480x360 follow those of 320x240: another player is "
                      "started"));
    ASSERT_NO_FATAL_FAILURE(parent.find_window());
    EXPECT_EQ(parent.window().size(), (Extent{.width = 480, .height = 360}));
    EXPECT_TRUE(
        eventually([&] { return pictures.contains(pixels_of(parent.window().screenshot())); }));
}

struct LiveRelay : Relay {
    LiveRelay() {
        std::ofstream(sdp) << "v=0\no=- 0 0 IN IP4 127.0.0.1\ns=live\nc=IN IP4 127.0.0.1\nt=0 0\n"
                           << "m=video " << video_port << " RTP/AVP 96\n"
                           << "a=rtpmap:96 VP8/90000\n"
                           << "m=audio " << sound_port << " RTP/AVP 97\n"
                           << "a=rtpmap:97 opus/48000/2\n";
    }

    // ffmpeg sends this film for ever.
    [[nodiscard]] ChildProcess send_with_ffmpeg(const std::string& film) const {
        const auto address = [](std::uint16_t port) {
            return "rtp://127.0.0.1:" + std::to_string(port);
        };
        return ChildProcess({"ffmpeg",
                             "-nostdin",
                             "-loglevel",
                             "error",
                             "-re",
                             "-stream_loop",
                             "-1",
                             "-i",
                             film,
                             "-map",
                             "0:v",
                             "-c",
                             "copy",
                             "-f",
                             "rtp",
                             address(video_port),
                             "-map",
                             "0:a",
                             "-c",
                             "copy",
                             "-f",
                             "rtp",
                             address(sound_port)});
    }

    // Returns once both ports are being sent to: a parent gives up a sender that takes longer than
    // ten seconds to start.
    void wait_for_sender() const {
        for (const std::uint16_t port : {video_port, sound_port}) {
            UDPSocket receiver;
            ASSERT_TRUE(receiver.bind(port));
            std::uint8_t byte = 0;
            ASSERT_GT(receiver.recv(&byte, 1, static_cast<int>(kPatience.count())), 0);
        }
    }

    std::string sdp = file("live.sdp");
    std::uint16_t video_port = tools::free_pair_of_ports();
    std::uint16_t sound_port = tools::free_pair_of_ports();
};

TEST_F(LiveRelay, OfFfmpegIsShownAsItWasEncodedAndHeard) {
    const std::string film = file("film.mkv");
    make_media(kPicture + kTone + kVp8 + kOpus, film);
    const auto pictures = pictures_of(film);
    const ChildProcess sender = send_with_ffmpeg(film);
    ASSERT_NO_FATAL_FAILURE(wait_for_sender());
    RelayingParent parent({"--file", sdp, "--copy"}, sound_);
    ASSERT_NO_FATAL_FAILURE(parent.find_window());
    EXPECT_TRUE(parent.shows(pictures));
    expect_tone_of_440_hz();
    EXPECT_TRUE(parent.lasts_ten_seconds());
    parent.window().close();
    EXPECT_EQ(parent.process().wait_for_end(), (Ending{.status = 0, .signal = 0}));
    EXPECT_THAT(parent.process().err(), Not(HasSubstr("ends early")));
}

// The fifth and the sixth of the seven colour bars.
TEST_F(LiveRelay, OfGStreamerIsShownAndHeard) {
    const ChildProcess sender(split_words(
        "gst-launch-1.0 -q videotestsrc is-live=true pattern=smpte ! "
        "video/x-raw,width=322,height=242,framerate=10/1 ! vp8enc deadline=1 "
        "target-bitrate=150000 keyframe-max-dist=10 ! rtpvp8pay pt=96 ! "
        "udpsink host=127.0.0.1 port=" +
        std::to_string(video_port) +
        " audiotestsrc is-live=true freq=440 ! audio/x-raw,rate=48000,channels=2 ! opusenc ! "
        "rtpopuspay pt=97 ! udpsink host=127.0.0.1 port=" +
        std::to_string(sound_port)));
    ASSERT_NO_FATAL_FAILURE(wait_for_sender());
    RelayingParent parent({"--file", sdp, "--copy"}, sound_);
    ASSERT_NO_FATAL_FAILURE(parent.find_window());
    EXPECT_EQ(parent.window().size(), (Extent{.width = 322, .height = 242}));
    EXPECT_TRUE(parent.shows({207, 60}, {.red = 255, .green = 0, .blue = 255}));
    EXPECT_TRUE(parent.shows({253, 60}, {.red = 255, .green = 0, .blue = 0}));
    expect_tone_of_440_hz();
    EXPECT_TRUE(parent.lasts_ten_seconds());
    parent.window().close();
    EXPECT_EQ(parent.process().wait_for_end(), (Ending{.status = 0, .signal = 0}));
}

TEST_F(LiveRelay, WithoutASenderEndsAfterTenSeconds) {
    ChildProcess parent({VESPER_PARENT, "--file", sdp, "--copy"}, program_environment());
    EXPECT_EQ(parent.wait_for_end(), (Ending{.status = 2, .signal = 0}));
    EXPECT_EQ(parent.err(), "cannot relay " + sdp + ": nothing came for 10 s\n");
    EXPECT_EQ(parent.out(), "");
}

// By whichever process.
bool is_bound(std::uint16_t port) {
    std::ifstream sockets("/proc/net/udp");
    std::string line;
    std::getline(sockets, line);  // the headings
    while (std::getline(sockets, line)) {
        const std::string local_port = line.substr(line.find(':', line.find(':') + 1) + 1, 4);
        if (std::stoi(local_port, nullptr, 16) == port) {
            return true;
        }
    }
    return false;
}

// The main thread may not yet be ready for an orderly end; then the parent dies of the signal.
TEST_F(LiveRelay, WithoutASenderEndsAtOnceWhenAsked) {
    ChildProcess parent({VESPER_PARENT, "--file", sdp, "--copy"}, program_environment());
    ASSERT_TRUE(eventually([&] { return is_bound(sound_port); }));
    parent.send_signal(SIGTERM);
    EXPECT_THAT(parent.wait_for_end(), AnyOf(Ending{.status = 128 + SIGTERM, .signal = 0},
                                             Ending{.status = 0, .signal = SIGTERM}));
}

TEST_F(LiveRelay, GoesOnAfterASilenceOf20Seconds) {
    const std::string film = file("film.mkv");
    make_media(kPicture + kTone + kVp8 + kOpus, film);
    const auto pictures = pictures_of(film);
    const ChildProcess sender = send_with_ffmpeg(film);
    ASSERT_NO_FATAL_FAILURE(wait_for_sender());
    RelayingParent parent({"--file", sdp, "--copy"}, sound_);
    ASSERT_NO_FATAL_FAILURE(parent.find_window());
    EXPECT_TRUE(parent.shows(pictures));
    sender.send_signal(SIGSTOP);
    // A busy machine may have seen a silence before this one.
    const auto is_silent = [&] {
        const std::string& text = parent.process().err();
        const auto silence = text.rfind(sdp + ": nothing received for 5 s");
        const auto end_of_it = text.rfind(sdp + ": continues after ");
        return silence != std::string::npos &&
               (end_of_it == std::string::npos || end_of_it < silence);
    };
    EXPECT_TRUE(eventually(is_silent));
    std::this_thread::sleep_for(std::chrono::seconds(15));
    EXPECT_TRUE(is_silent());
    sender.send_signal(SIGCONT);
    EXPECT_TRUE(eventually([&] { return !is_silent(); }));
    const std::string continues = sdp + ": continues after ";
    const std::string& text = parent.process().err();
    EXPECT_GT(std::stod(text.substr(text.rfind(continues) + continues.size())), 12);
    EXPECT_TRUE(parent.shows(pictures));
    EXPECT_FALSE(parent.process().ending());
}

// What was sent, in the order in which it was.
std::vector<tools::Datagram> sent_in(const std::string& capture) {
    std::vector<tools::Datagram> datagrams;
    const auto all = tools::read_capture(capture);
    EXPECT_TRUE(all);
    for (const auto& datagram :
         tools::sent_to_player(all.value_or(std::vector<tools::CapturedDatagram>()))) {
        datagrams.push_back(datagram.bytes);
    }
    return datagrams;
}

// The frames and Opus packets in these datagrams.
struct Streams {
    std::vector<PacketBytes> frames;
    std::vector<PacketBytes> sounds;
};

Streams streams_in(const std::vector<tools::Datagram>& datagrams) {
    Streams streams;
    for (const tools::Datagram& datagram : datagrams) {
        if ((read_packet_header(datagram.data()).flags & kScreenAudioFlag) != 0) {
            streams.sounds.emplace_back(datagram.begin() + kPacketHeaderSize, datagram.end());
            continue;
        }
        if (read_video_fragment_header(datagram.data()).fragment_index == 0) {
            streams.frames.emplace_back();
        }
        streams.frames.back().insert(streams.frames.back().end(),
                                     datagram.begin() + kVideoPayloadOffset, datagram.end());
    }
    return streams;
}

// The pipe is full before there is a parent, which gives it up when nothing comes for ten seconds.
TEST_F(Relay, OfStandardInputIsSentBitForBit) {
    const std::string film = file("film.webm");
    make_media(kPicture + kTone + "-t 1 -c:v libvpx -b:v 100k -deadline realtime " + kOpus, film);
    std::ifstream stream(film, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(stream), {}};
    std::string_view rest = bytes;
    const std::string pipe = file("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const int writer = ::open(pipe.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    const auto write_what_fits = [&] {
        const ssize_t written = ::write(writer, rest.data(), rest.size());
        rest.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
    };
    write_what_fits();
    const StreamReceiver player;  // takes nothing, but is there
    ChildProcess parent(
        {"sh", "-c", "exec \"$0\" \"$@\" < '" + pipe + "'", VESPER_PARENT, "--to",
         std::to_string(player.port()), "--file", "-", "--copy", "--capture", file("capture")},
        program_environment());
    // Once it is closed, the pipe has only the parent to keep what is in it.
    EXPECT_TRUE(eventually([&] {
        write_what_fits();
        int waiting = 0;
        return rest.empty() && ioctl(writer, FIONREAD, &waiting) == 0 &&
               waiting < std::ssize(bytes);
    }));
    close(writer);
    EXPECT_EQ(parent.wait_for_end(), (Ending{.status = 0, .signal = 0}));
    EXPECT_EQ(parent.err(), "");
    const Streams sent = streams_in(sent_in(file("capture")));
    EXPECT_EQ(sent.frames, packets_of(film, AVMEDIA_TYPE_VIDEO));
    EXPECT_EQ(sent.sounds, packets_of(film, AVMEDIA_TYPE_AUDIO));
    EXPECT_EQ(sent.frames.size(), 5U);
}

TEST_F(Relay, ACaptureOfItReplaysByteForByte) {
    const std::string film = file("film.webm");
    make_media(kPicture + kTone + kVp8 + kOpus, film);
    const StreamReceiver player;  // takes nothing, but is there
    const std::string port = std::to_string(player.port());
    run_command(
        {VESPER_PARENT, "--to", port, "--file", film, "--copy", "--capture", file("relayed")},
        program_environment());
    run_command({VESPER_PARENT, "--to", port, "--replay", file("relayed"), "--speed", "10",
                 "--capture", file("replayed")},
                program_environment());
    const auto relayed = sent_in(file("relayed"));
    EXPECT_GT(relayed.size(), 100U);
    EXPECT_EQ(relayed, sent_in(file("replayed")));
}

}  // namespace
}  // namespace vesper::test
