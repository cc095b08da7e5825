#include "tests/e2e/player_fixture.h"

#include <algorithm>
#include <concepts>
#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include "net/stream_datagrams.h"
#include "tests/e2e/printed_on_failure.h"
#include "tests/support/numbered_addresses.h"

namespace vesper::test {

namespace {

// The bar's background is black with this opacity, of 255.
constexpr int kBarOpacity = 180;

std::string number(std::integral auto value) {
    return std::to_string(value);
}

std::string size_text(Extent size) {
    return number(size.width) + "x" + number(size.height);
}

Color beneath_bar(Color picture) {
    const auto darkened = [](int value) { return value * (255 - kBarOpacity) / 255; };
    return {darkened(picture.red), darkened(picture.green), darkened(picture.blue)};
}

}  // namespace

// The suite runs once more with each renderer and the heap guard.
ChildProcess::Environment program_environment() {
    const char* const library = std::getenv("VESPER_E2E_PRELOAD");
    const std::string support = VESPER_TEST_SUPPORT "/";
    ChildProcess::Environment environment = {
        // LeakSanitizer of g++ 12 and clang 14 guesses the extent of a library's thread-local data
        // from what lies before it, and crashes at exit where the guess is wrong. Without the guess
        // it still finds such data, by the pointers to it.
        {"ASAN_OPTIONS", "exitcode=99:verify_asan_link_order=0:intercept_tls_get_addr=0"},
        {"UBSAN_OPTIONS", "print_stacktrace=1"},
        {"LSAN_OPTIONS", "print_suppressions=0:suppressions='" + support + "lsan.supp'"},
        {"TSAN_OPTIONS", "exitcode=99:suppressions='" + support +
                             "tsan.supp':external_symbolizer_path='" + support +
                             "llvm-symbolizer'"},
    };
#ifdef VESPER_E2E_PRELOAD
    preload(environment, VESPER_E2E_PRELOAD);
#endif
    if (library != nullptr) {
        preload(environment, library);
    }
    return environment;
}

ChildProcess::Environment player_environment(const VirtualDisplay& display) {
    const char* const renderer = std::getenv("VESPER_E2E_RENDERER");
    ChildProcess::Environment environment = program_environment();
    environment.insert({
        {"DISPLAY", display.name()},
        {"SDL_VIDEODRIVER", "x11"},
        {"SDL_RENDER_DRIVER", renderer != nullptr ? renderer : "software"},
        {"SDL_FRAMEBUFFER_ACCELERATION", "0"},
        {"SDL_AUDIODRIVER", "dummy"},
    });
    return environment;
}

PlayerTest::PlayerTest(const tools::Vp8Settings& stream)
    : stream_size{.width = stream.width, .height = stream.height},
      environment(player_environment(display)),
      video(stream) {}

PlayerTest::~PlayerTest() {
    if (player) {
        print_on_failure(*player);
    }
}

void PlayerTest::TearDown() {
    if (player && !player->ending()) {
        expect_clean_end();
    }
}

void PlayerTest::run_player(const std::vector<std::string>& arguments,
                            ChildProcess::Output output) {
    std::vector<std::string> command = {VESPER_PLAYER};
    command.insert(command.end(), arguments.begin(), arguments.end());
    player.emplace(command, environment, output);
}

void PlayerTest::start_player(const std::vector<std::string>& more) {
    start_player_anywhere(more);
    window.emplace(display, player->pid());
}

void PlayerTest::start_player_anywhere(const std::vector<std::string>& more) {
    std::vector<std::string> arguments = {"--port",        number(port),
                                          "--parent-port", number(parent.port()),
                                          "--width",       number(stream_size.width),
                                          "--height",      number(stream_size.height),
                                          "--username",    "Ann",
                                          "--streamer-id", "7"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    has_audio = std::ranges::find(more, "--has-audio") != more.end();
    run_player(arguments);
    if (!eventually([this] { return player->out() == start_up_text(); })) {
        throw std::runtime_error("the player did not start");
    }
}

void PlayerTest::expect_clean_end() {
    if (!window) {
        ADD_FAILURE() << "a player without a window to close";
        return;
    }
    window->close();
    expect_end_of_normal_run();
}

void PlayerTest::expect_end_of_normal_run() {
    EXPECT_EQ(player->wait_for_end(), Ending{});
    EXPECT_EQ(with_numbered_addresses(player->out()),
              start_up_text() + progress_text + shut_down_text());
    EXPECT_EQ(player->err(), failure_text);
}

void PlayerTest::send(const std::vector<tools::Datagram>& datagrams) {
    ASSERT_TRUE(parent.send(datagrams, port)) << "the player does not take its datagrams";
}

void PlayerTest::show_first_picture(const tools::Picture& picture) {
    show_picture(picture);
    failure_text += "[VideoReceiver] VP8 receive_frame error: -11\n";
    expect_keyframe_request();
}

void PlayerTest::expect_keyframe_request() {
    EXPECT_EQ(parent.next_message(), Message(kKeyframeRequest.begin(), kKeyframeRequest.end()));
    progress_text += keyframe_request_line();
}

std::string PlayerTest::keyframe_request_line() const {
    return "[VideoPlayer] Sent keyframe request to parent (port " + number(parent.port()) + ")\n";
}

bool PlayerTest::shows_color(Point point, Color color) const {
    return is_near(window->screenshot().at(point), color);
}

void PlayerTest::expect_color(Point point, Color color) {
    // Once a test has failed, the points that are wrong with the first one are only listed.
    const auto limit = HasFailure() ? std::chrono::milliseconds(100) : kPatience;
    EXPECT_TRUE(eventually([&] { return shows_color(point, color); }, limit))
        << "at " << point << ": " << window->screenshot().at(point) << ", not " << color;
}

bool PlayerTest::bar_is_visible_over(Color picture) const {
    return shows_color(kBarPoint, beneath_bar(picture));
}

void PlayerTest::keep_bar() {
    preload(environment, VESPER_KEEP_BAR);
}

void PlayerTest::let_bar_go() {
    player->send_signal(SIGUSR1);
}

std::string PlayerTest::start_up_text() const {
    std::string text = "[VideoPlayer] Starting on port " + number(port) + " for streamer 7 (Ann, " +
                       size_text(stream_size) + ", audio=" + (has_audio ? "yes" : "no") +
                       ")\n"
                       "[VideoReceiver] Standalone initialized (" +
                       size_text(stream_size) + ")\n";
    if (has_audio && has_sound_device) {
        text +=
            "[Audio] Opened playback device: 48000 Hz, 2 ch, 960 samples\n"
            "[VideoReceiver] Screen audio enabled (stereo, 48kHz)\n";
    }
    return text + "[VideoPlayer] Listening on UDP port " + number(port) + "\n";
}

std::string PlayerTest::shut_down_text() {
    return "[VideoPlayer] Shutting down\n" + destructor_text();
}

std::string PlayerTest::destructor_text(int uid, int window_id, int first_address) {
    const std::string uid_text = "uid=" + number(uid);
    const std::string window_text = "#" + number(first_address);
    const std::string renderer_text = "#" + number(first_address + 1);
    const std::string texture_text = "#" + number(first_address + 2);
    const std::string destroying = "[RECV SDL DESTROY] " + uid_text + ": ";
    return "[VideoReceiver] Destructor called for " + uid_text +
           ", cleanup_done=0\n"
           "[VideoReceiver] Destructor calling stop()\n"
           "[VideoReceiver] Stopping decode thread and cleaning up codecs for user " +
           number(uid) +
           "\n"
           "[VideoReceiver] Signaling decode thread to stop\n"
           "[VideoReceiver] Waiting for decode thread to join...\n"
           "[VideoReceiver] Decode thread joined successfully\n"
           "[VideoReceiver] Decode and codec cleanup complete\n"
           "[RECV SDL DESTROY] " +
           uid_text + ", window_id=" + number(window_id) + ": START (window=" + window_text +
           ", renderer=" + renderer_text + ", texture=" + texture_text + ")\n" +  //
           destroying + "Sleeping 10ms for event processing\n" +                  //
           destroying + "Destroying texture " + texture_text + "\n" +             //
           destroying + "Texture destroyed\n" +                                   //
           destroying + "Destroying renderer " + renderer_text + "\n" +           //
           destroying + "Renderer destroyed\n" +                                  //
           destroying + "Destroying window " + window_text + " (ID=" + number(window_id) + ")\n" +
           destroying + "Window destroyed\n" +  //
           destroying + "COMPLETE\n" +
           "[VideoReceiver] Stop complete\n"
           "[VideoReceiver] Destructor complete for " +
           uid_text + "\n";
}

std::string PlayerTest::destructor_text_without_stream() {
    return "[VideoReceiver] Destructor called for uid=0, cleanup_done=0\n"
           "[VideoReceiver] Destructor calling stop()\n"
           "[VideoReceiver] Stopping decode thread and cleaning up codecs for user 0\n"
           "[VideoReceiver] Decode and codec cleanup complete\n"
           "[RECV SDL DESTROY] uid=0, window_id=1: START (window=(nil), renderer=(nil), "
           "texture=(nil))\n"
           "[RECV SDL DESTROY] uid=0: COMPLETE\n"
           "[VideoReceiver] Stop complete\n"
           "[VideoReceiver] Destructor complete for uid=0\n";
}

}  // namespace vesper::test
