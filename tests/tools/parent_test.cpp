// vesper-parent as a whole, with shell scripts in the player's place where its own side is proved.
extern "C" {
#include <libavutil/log.h>
}

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "net/stream_datagrams.h"
#include "net/udp_socket.h"
#include "tests/support/eventually.h"
#include "tests/support/temporary_folder.h"
#include "tests/tools/grey_picture.h"
#include "tests/tools/ivf_file.h"
#include "tests/tools/media_file.h"
#include "tests/tools/stream_receiver.h"
#include "tools/parent/player_process.h"
#include "tools/stream/capture.h"
#include "tools/stream/free_port.h"
#include "tools/stream/packetizer.h"
#include "tools/stream/vp8_encoder.h"

namespace vesper::tools {
namespace {

using test::eventually;
using testing::Contains;
using testing::ContainsRegex;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Le;
using testing::Not;

constexpr const char* kListening = "[VideoPlayer] Listening on UDP port ";

// One run of vesper-parent, small and quick by default.
class Parent {
  public:
    explicit Parent(const std::vector<std::string>& words,
                    const std::vector<std::string>& size = {"--size", "320x240"}) {
        std::vector<std::string> command = {VESPER_PARENT};
        command.insert(command.end(), size.begin(), size.end());
        command.insert(command.end(), words.begin(), words.end());
        EXPECT_TRUE(process_.start(command));
    }

    // Whether a line of standard output comes to begin with `start`.
    [[nodiscard]] bool prints(const std::string& start) {
        return eventually([&] { return !line_with(start).empty(); });
    }
    // Whether a line of standard output comes to contain `text`.
    [[nodiscard]] bool mentions(const std::string& text) {
        return eventually([&] {
            read();
            return std::ranges::any_of(out_, [&](const std::string& line) {
                return line.find(text) != std::string::npos;
            });
        });
    }
    // First line so far that begins with `start`, or nothing.
    [[nodiscard]] std::string line_with(const std::string& start) {
        read();
        for (const std::string& line : out_) {
            if (line.starts_with(start)) {
                return line;
            }
        }
        return {};
    }
    // Waits for the end; -1 when it does not come.
    [[nodiscard]] int status() {
        const bool ended = eventually([this] {
            read();
            return process_.exit_status() && process_.output() < 0 && process_.errors() < 0;
        });
        return ended ? *process_.exit_status() : -1;
    }
    void send_signal(int signal) const { kill(process_.pid(), signal); }

    [[nodiscard]] const std::vector<std::string>& out() const { return out_; }
    [[nodiscard]] const std::vector<std::string>& err() const { return err_; }

  private:
    void read() {
        process_.read_output([this](std::string_view line) { out_.emplace_back(line); });
        process_.read_errors([this](std::string_view line) { err_.emplace_back(line); });
    }

    PlayerProcess process_;
    std::vector<std::string> out_;
    std::vector<std::string> err_;
};

class ParentTest : public testing::Test {
  protected:
    ParentTest() {
        setenv("SDL_VIDEODRIVER", "dummy", 1);
        setenv("SDL_AUDIODRIVER", "dummy", 1);
        av_log_set_level(AV_LOG_QUIET);
    }

    // A player made of shell commands.
    std::string player(const std::string& commands) const {
        const std::string path = folder_.file("player");
        std::ofstream(path) << "#!/bin/sh\n" << commands << '\n';
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
        return path;
    }
    // One that prints its command line.
    std::string talkative_player() const { return player("printf '%s\\n' \"$@\""); }
    // One that reports that it listens, prints its process id, and keeps running.
    std::string patient_player() const {
        return player("echo \"pid $$\"; echo '" + std::string(kListening) + "1'; exec sleep 1000");
    }
    // One that is patient too, and ignores SIGTERM.
    std::string stubborn_player() const {
        return player("trap '' TERM; echo \"pid $$\"; echo '" + std::string(kListening) +
                      "1'; exec sleep 1000");
    }
    // One that is patient too, but for the first of several, which ends at once.
    std::string player_that_fails_once() const {
        return player("case \"$*\" in *'--streamer-id 1 '*) exit 3 ;; esac; echo '" +
                      std::string(kListening) + "1'; exec sleep 1000");
    }

    test::TemporaryFolder folder_;
};

// Of the patient player; its lines begin with `number` where there are several.
pid_t pid_of(Parent& parent, const std::string& number = {}) {
    const std::string start = number + "pid ";
    return std::stoi(parent.line_with(start).substr(start.size()));
}

// The process's descriptors.
std::set<int> open_files(pid_t pid) {
    std::set<int> numbers;
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
        numbers.insert(std::stoi(entry.path().filename()));
    }
    return numbers;
}

// This thread's system has no close_range() any more, as before Linux 5.9 and in some sandboxes.
// False where system calls cannot be filtered.
bool forbid_close_range() {
    std::array<sock_filter, 4> program = {
        {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
         BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_close_range, 0, 1),
         BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
         BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)}};
    const sock_fprog filter{.len = program.size(), .filter = program.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

// The first moment of a stream; false when a library refuses.
bool write_capture(const std::string& path, const Vp8Settings& video, int sound_packets) {
    Vp8Encoder encoder;
    CaptureWriter capture;
    const Picture picture = test::make_grey_picture(video.width, video.height);
    if (!encoder.open(video) || !capture.open(path)) {
        return false;
    }
    constexpr std::uint16_t kPort = 50000;
    for (const Datagram& datagram : VideoPacketizer().packetize(encoder.encode(picture, true))) {
        capture.write(kPort, kPort + 1, datagram);
    }
    AudioPacketizer sound;
    for (int i = 0; i < sound_packets; ++i) {
        capture.write(kPort, kPort + 1, sound.packetize(Datagram(3)));
    }
    return true;
}

// Whether the process is gone, or dead and only waits to be asked for its status.
bool ended(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string number;
    std::string name;
    std::string state;
    return !(stat >> number >> name >> state) || state == "Z";
}

TEST_F(ParentTest, PassesEverythingToThePlayerOnItsCommandLine) {
    const std::string listen_port = std::to_string(free_port());
    Parent parent({"--player", talkative_player(), "--username", "Ann B", "--volume", "0.5",
                   "--muted", "--listen", listen_port});
    EXPECT_EQ(parent.status(), 0);
    std::vector<std::string> words = parent.out();
    ASSERT_GT(words.size(), 2U);
    words.pop_back();  // the summary
    EXPECT_GT(std::stoi(words.at(1)), 0);
    words.at(1) = "PORT";
    EXPECT_THAT(
        words, ElementsAre("--port", "PORT", "--streamer-id", "1", "--username", "Ann B", "--width",
                           "320", "--height", "240", "--parent-port", listen_port, "--audio-volume",
                           "0.500000", "--has-audio", "--audio-muted"));
}

TEST_F(ParentTest, StartsThePlayerWithoutSoundWhenThereIsNone) {
    Parent parent({"--player", talkative_player(), "--no-sound"});
    EXPECT_EQ(parent.status(), 0);
    EXPECT_THAT(parent.out(), Not(Contains("--has-audio")));
}

TEST_F(ParentTest, ThePlayersStreamerIsTheFileWhereNoNameIsGiven) {
    const std::string file = folder_.file("film.mkv");
    ASSERT_TRUE(test::write_media_file(file, {}));
    Parent parent({"--player", talkative_player(), "--file", file});
    EXPECT_EQ(parent.status(), 0);
    EXPECT_THAT(parent.out(), Contains("film.mkv"));
}

TEST_F(ParentTest, StartsThePlayerWithTheSizeAndSoundOfACapture) {
    const std::string file = folder_.file("loud.pcap");
    ASSERT_TRUE(write_capture(file, {.width = 322, .height = 182}, 1));
    Parent parent({"--player", talkative_player(), "--replay", file}, {});
    EXPECT_EQ(parent.status(), 0);
    EXPECT_THAT(parent.out(), IsSupersetOf({"loud.pcap", "322", "182", "--has-audio"}));
}

TEST_F(ParentTest, CountsTheFramesOfACapture) {
    const std::string file = folder_.file("short.pcap");
    ASSERT_TRUE(write_capture(file, {.width = 322, .height = 182}, 1));
    Parent parent({"--player", patient_player(), "--replay", file}, {});
    EXPECT_EQ(parent.status(), 0);
    EXPECT_THAT(parent.out().back(), HasSubstr("  1 frames in 2 datagrams, "));
}

TEST_F(ParentTest, StartsThePlayerWithoutSoundForASilentCapture) {
    const std::string file = folder_.file("silent.pcap");
    ASSERT_TRUE(write_capture(file, {.width = 322, .height = 182}, 0));
    Parent parent({"--player", talkative_player(), "--replay", file}, {});
    EXPECT_EQ(parent.status(), 0);
    EXPECT_THAT(parent.out(), Not(Contains("--has-audio")));
}

TEST_F(ParentTest, StartsThePlayerWithTheSizeAskedForInsteadOfTheCaptures) {
    const std::string file = folder_.file("large.pcap");
    ASSERT_TRUE(write_capture(file, {.width = 322, .height = 182}, 0));
    Parent parent({"--player", talkative_player(), "--replay", file}, {"--size", "642x362"});
    EXPECT_EQ(parent.status(), 0);
    EXPECT_THAT(parent.out(), IsSupersetOf({"642", "362"}));
}

// Each stream's player could otherwise keep the other's port, and all of them the capture.
void expect_players_inherit_only_input_and_outputs(const std::string& player_program,
                                                   const std::string& capture) {
    Parent parent({"--player", player_program, "--streams", "2", "--capture", capture});
    for (const std::string number : {"1: ", "2: "}) {
        ASSERT_TRUE(parent.prints(number + kListening));
        const pid_t player = pid_of(parent, number);
        // While it starts it opens files of its own for a moment.
        const auto has_only_those = [player] {
            return open_files(player) == std::set<int>({0, 1, 2});
        };
        EXPECT_TRUE(eventually(has_only_those))
            << number << testing::PrintToString(open_files(player));
    }
    parent.send_signal(SIGTERM);
    EXPECT_EQ(parent.status(), 128 + SIGTERM);
}

TEST_F(ParentTest, ThePlayersInheritOnlyInputAndOutputs) {
    expect_players_inherit_only_input_and_outputs(patient_player(), folder_.file("all.pcap"));
}

// The filter lasts as long as its thread, and is inherited by what that starts.
TEST_F(ParentTest, ThePlayersInheritOnlyInputAndOutputsWhereTheSystemCannotCloseRanges) {
    bool filtered = false;
    std::jthread([&] {
        filtered = forbid_close_range();
        if (filtered) {
            expect_players_inherit_only_input_and_outputs(patient_player(),
                                                          folder_.file("all.pcap"));
        }
    }).join();
    if (!filtered) {
        GTEST_SKIP() << "this system filters no system calls";
    }
}

TEST_F(ParentTest, PassesOnThePlayersExitStatus) {
    EXPECT_EQ(Parent({"--player", player("exit 7")}).status(), 7);
}

TEST_F(ParentTest, PassesOnWhichSignalEndedThePlayer) {
    EXPECT_EQ(Parent({"--player", player("kill -9 $$")}).status(), 128 + SIGKILL);
}

TEST_F(ParentTest, PassesOnWhatThePlayerWrites) {
    Parent parent({"--player", player("echo one; echo two >&2; printf three")});
    EXPECT_EQ(parent.status(), 0);
    EXPECT_THAT(parent.out(), ElementsAre("one", "three", ContainsRegex("^\\[Parent\\] ")));
    EXPECT_THAT(parent.err(), ElementsAre("two"));
}

// It would take all our memory, and we would do nothing else.
TEST_F(ParentTest, PassesOnALineWithoutEndInPieces) {
    constexpr std::size_t kLongest = 2 * 64 * 1024;  // bytes
    PlayerProcess process;
    ASSERT_TRUE(process.start({player("exec tr '\\0' x < /dev/zero")}));
    std::vector<std::size_t> pieces;
    EXPECT_TRUE(eventually([&] {
        process.read_output([&](std::string_view line) { pieces.push_back(line.size()); });
        return pieces.size() >= 10;
    }));
    EXPECT_THAT(pieces, Each(Le(kLongest)));
}

TEST_F(ParentTest, SendsNothingBeforeThePlayerListens) {
    Parent parent({"--player", player("echo '[VideoPlayer] Starting'; sleep 1")});
    EXPECT_EQ(parent.status(), 0);
    EXPECT_EQ(parent.out().back(),
              "[Parent] 0:00  0.0 fps  0 kbit/s  0 frames in 0 datagrams, 0 keyframes asked "
              "for");
}

TEST_F(ParentTest, APlayerThatNeverListensDoesNotExtendTheSecondsAskedFor) {
    Parent parent({"--player", player_that_fails_once(), "--streams", "2", "--seconds", "0.1"});
    EXPECT_EQ(parent.status(), 0);
}

TEST_F(ParentTest, APlayerThatNeverListensDoesNotKeepTheFileFromEnding) {
    const std::string file = folder_.file("short.mkv");
    ASSERT_TRUE(test::write_media_file(file, {.frames = 10}));
    Parent parent({"--player", player_that_fails_once(), "--streams", "2", "--file", file});
    EXPECT_EQ(parent.status(), 0);
}

TEST_F(ParentTest, EndsThePlayerOnCtrlC) {
    Parent parent({"--player", patient_player()});
    ASSERT_TRUE(parent.prints(kListening));
    const pid_t player = pid_of(parent);
    parent.send_signal(SIGINT);
    EXPECT_EQ(parent.status(), 128 + SIGINT);
    EXPECT_TRUE(eventually([player] { return ended(player); }));
}

// The player may be a script that prepares something and then starts the real one.
TEST_F(ParentTest, EndsWhatThePlayerStarted) {
    Parent parent({"--player", player("sleep 1000 & echo \"pid $!\"; echo '" +
                                      std::string(kListening) + "1'; wait")});
    ASSERT_TRUE(parent.prints(kListening));
    const pid_t started = pid_of(parent);
    parent.send_signal(SIGTERM);
    EXPECT_EQ(parent.status(), 128 + SIGTERM);
    EXPECT_TRUE(eventually([started] { return ended(started); }));
}

TEST_F(ParentTest, KillsWhatThePlayerStartedAndWillNotEnd) {
    std::optional<PlayerProcess> process(std::in_place);
    ASSERT_TRUE(
        process->start({player("(trap '' TERM; exec sh -c 'echo $$; exec sleep 1000') & wait")}));
    pid_t started = 0;
    ASSERT_TRUE(eventually([&] {
        process->read_output(
            [&](std::string_view line) { started = std::stoi(std::string(line)); });
        return started != 0;
    }));
    process->terminate();
    ASSERT_TRUE(eventually([&] { return ended(process->pid()); }));
    process.reset();
    EXPECT_TRUE(eventually([&] { return ended(started); }));
}

// A pipe that nobody writes into blocks whoever reads it.
TEST_F(ParentTest, EndsOnCtrlCWhileItsFileIsStillBeingOpened) {
    const std::string pipe = folder_.file("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    Parent parent({"--player", patient_player(), "--file", pipe});
    int writer = -1;  // only once there is a reader
    ASSERT_TRUE(eventually([&] {
        writer = open(pipe.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        return writer >= 0;
    }));
    parent.send_signal(SIGINT);
    EXPECT_EQ(parent.status(), 128 + SIGINT);
    close(writer);
}

TEST_F(ParentTest, ThePlayerEndsEvenWhenTheParentIsKilled) {
    Parent parent({"--player", stubborn_player()});
    ASSERT_TRUE(parent.prints(kListening));
    const pid_t player = pid_of(parent);
    parent.send_signal(SIGKILL);
    EXPECT_TRUE(eventually([player] { return ended(player); }));
}

TEST_F(ParentTest, EndsThePlayerAfterTheSecondsAskedFor) {
    Parent parent({"--player", patient_player(), "--seconds", "0.5"});
    ASSERT_TRUE(parent.prints(kListening));
    const pid_t player = pid_of(parent);
    EXPECT_EQ(parent.status(), 0);
    EXPECT_TRUE(eventually([player] { return ended(player); }));
}

TEST_F(ParentTest, EndsWithItsFile) {
    const std::string file = folder_.file("short.mkv");
    ASSERT_TRUE(test::write_media_file(file, {.frames = 10}));
    Parent parent({"--player", patient_player(), "--file", file});
    EXPECT_EQ(parent.status(), 0);
    EXPECT_THAT(parent.err(), IsEmpty());
}

TEST_F(ParentTest, EndsWithAFileThatIsCutShort) {
    const std::string file = folder_.file("film.mkv");
    ASSERT_TRUE(test::write_media_file(file, {.frames = 100, .sound_frames = 200}));
    std::filesystem::resize_file(file, std::filesystem::file_size(file) / 4);
    Parent parent({"--player", patient_player(), "--file", file, "--copy", "--no-sound"}, {});
    EXPECT_EQ(parent.status(), 0);
    EXPECT_THAT(parent.err(),
                ElementsAre(ContainsRegex(
                    "film.mkv: ends after [01]\\.. s of [34]\\.. s: it is cut short$")));
}

TEST_F(ParentTest, FeedsAPlayerThatRunsAlready) {
    test::StreamReceiver receiver;
    const std::uint16_t listen_port = free_port();
    Parent parent(
        {"--to", std::to_string(receiver.port()), "--listen", std::to_string(listen_port)});
    EXPECT_TRUE(test::is_keyframe(receiver.next_frame()));
    receiver.send(kKeyframeRequest, listen_port);
    EXPECT_TRUE(parent.mentions("  1 KFRQ  volume not reported"));
    receiver.send(make_audio_state({.muted = true, .volume = 0.25F}), listen_port);
    EXPECT_TRUE(parent.mentions("  1 KFRQ  volume 25 % muted"));
    parent.send_signal(SIGTERM);
    EXPECT_EQ(parent.status(), 128 + SIGTERM);
}

TEST_F(ParentTest, CountsTheRequestsThatACopiedStreamLeavesUnanswered) {
    const std::string file = folder_.file("film.mkv");
    ASSERT_TRUE(test::write_media_file(file, {}));
    test::StreamReceiver receiver;
    const std::uint16_t listen_port = free_port();
    Parent parent({"--to", std::to_string(receiver.port()), "--listen", std::to_string(listen_port),
                   "--file", file, "--copy", "--loop"});
    EXPECT_TRUE(test::is_keyframe(receiver.next_frame()));
    receiver.send(kKeyframeRequest, listen_port);
    EXPECT_TRUE(parent.mentions("  1 KFRQ (1 unanswered)  "));
    receiver.send(kKeyframeRequest, listen_port);
    EXPECT_TRUE(parent.mentions("  2 KFRQ (2 unanswered)  "));
    parent.send_signal(SIGTERM);
    EXPECT_EQ(parent.status(), 128 + SIGTERM);
}

// Nothing is ever read from this socket, and nobody else is given its port once it is closed.
TEST_F(ParentTest, ReportsWhatThePlayersBufferHadNoRoomFor) {
    UDPSocket player;
    ASSERT_TRUE(player.bind(free_port()));
    ASSERT_TRUE(player.set_recv_buffer(1));  // as small as the system allows
    Parent parent({"--to", std::to_string(player.get_bound_port())});
    EXPECT_TRUE(parent.mentions(" overflowed  "));
    player.reset();
    parent.send_signal(SIGTERM);
    EXPECT_EQ(parent.status(), 128 + SIGTERM);
    EXPECT_THAT(parent.out().back(),
                ContainsRegex(", [1-9][0-9]* lost because a player's buffer was full"));
}

TEST_F(ParentTest, FullLossLetsNothingThrough) {
    const std::string file = folder_.file("loud.pcap");
    ASSERT_TRUE(write_capture(file, {.width = 322, .height = 182}, 10));
    Parent parent({"--player", patient_player(), "--replay", file, "--loss", "100"}, {});
    EXPECT_EQ(parent.status(), 0);
    EXPECT_THAT(parent.out().back(),
                ContainsRegex("  0 kbit/s .* in 0 datagrams, .*, 11 dropped on purpose"));
}

TEST_F(ParentTest, EachImpairmentIsCounted) {
    const std::string file = folder_.file("loud.pcap");
    ASSERT_TRUE(write_capture(file, {.width = 322, .height = 182}, 50));
    Parent parent({"--player", patient_player(), "--replay", file, "--duplicate", "50", "--reorder",
                   "50", "--corrupt", "50", "--truncate", "50", "--jitter", "5"},
                  {});
    EXPECT_EQ(parent.status(), 0);
    EXPECT_THAT(parent.out().back(),
                ContainsRegex("for, [1-9][0-9]* doubled, [1-9][0-9]* reordered, [1-9][0-9]* "
                              "corrupted, [1-9][0-9]* cut short"));
}

TEST_F(ParentTest, StartsSeveralRealPlayersEachWithItsOwnStream) {
    Parent parent({"--streams", "2"});
    EXPECT_TRUE(parent.prints("1: [VideoPlayer] Listening on UDP port "));
    EXPECT_TRUE(parent.prints("2: [VideoPlayer] Listening on UDP port "));
    EXPECT_THAT(parent.line_with("1: [VideoPlayer] Starting"),
                ContainsRegex("for streamer 1 \\(Test picture 1, 320x240, audio=yes\\)$"));
    EXPECT_THAT(parent.line_with("2: [VideoPlayer] Starting"),
                ContainsRegex("for streamer 2 \\(Test picture 2, 320x240, audio=yes\\)$"));
    EXPECT_TRUE(parent.mentions("  volume 100 %, 100 %"));
    parent.send_signal(SIGINT);
    EXPECT_EQ(parent.status(), 128 + SIGINT);
}

TEST_F(ParentTest, BadInputIsOneLineAndStatusTwo) {
    const std::string missing = folder_.file("missing");
    const std::string song = folder_.file("song.mka");
    ASSERT_TRUE(test::write_media_file(song, {.frames = 0}));
    const std::string text = folder_.file("notes.txt");
    std::ofstream(text) << std::string(1000, 'a');
    const std::string garbage = folder_.file("garbage");
    std::ofstream(garbage) << "neither a program nor a script";
    std::filesystem::permissions(garbage, std::filesystem::perms::owner_all);
    const std::string cut_short = folder_.file("cut short.pcap");
    ASSERT_TRUE(write_capture(cut_short, {.width = 320, .height = 240}, 1));
    std::filesystem::resize_file(cut_short, std::filesystem::file_size(cut_short) - 1);

    const std::string no_keyframe = folder_.file("inter.ivf");
    test::write_ivf(no_keyframe, {{0x11, 0, 0, 0}}, [](std::size_t) { return 0; });

    struct Case {
        std::vector<std::string> words;
        std::string line;
    };
    for (const auto& [words, line] : std::vector<Case>{
             {{"--file", missing}, "cannot read " + missing + ": No such file or directory"},
             {{"--file", song}, song + " has no video"},
             {{"--file", text}, text + " has no video"},
             {{"--copy", "--file", missing},
              "cannot relay " + missing + ": No such file or directory"},
             {{"--copy", "--file", text}, "cannot relay " + text + ": has neither video nor sound"},
             {{"--copy", "--file", no_keyframe},
              "cannot relay " + no_keyframe + ": it ends before its first keyframe"},
             {{"--screen", ":4711"}, "cannot grab the display \":4711\": Input/output error"},
             {{"--player", "/dev/null"},
              "vesper-parent: /dev/null cannot be executed: Permission denied"},
             {{"--player", garbage},
              "vesper-parent: " + garbage + " cannot be executed: Exec format error"},
             {{"--player", missing}, "vesper-parent: --player: File does not exist: " + missing},
             {{"--size", "3x4"},
              "vesper-parent: --size: width and height must be even and from 2 to 16382, not "
              "3x4"},
             {{"--replay", missing}, missing + ": No such file or directory"},
             {{"--replay", text}, text + ": not a capture: unknown file format"},
             {{"--replay", cut_short},
              cut_short + ": truncated or damaged after 1 datagrams: truncated dump file; tried to "
                          "read 59 captured bytes, only got 58"},
             {{"--capture", folder_.path()}, std::string(folder_.path()) + ": Is a directory"},
         }) {
        Parent parent(words, {});
        EXPECT_EQ(parent.status(), 2) << line;
        EXPECT_THAT(parent.out(), IsEmpty()) << line;
        EXPECT_THAT(parent.err(), ElementsAre(line));
    }
}

}  // namespace
}  // namespace vesper::tools
