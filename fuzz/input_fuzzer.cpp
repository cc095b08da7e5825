// Any sequence of mouse and keyboard events to WindowInput, in windows and over frames of any size.
#include <SDL2/SDL_events.h>

#include <algorithm>
#include <cmath>

#include "fuzz/support/fake_window.h"
#include "fuzz/support/input.h"
#include "fuzz/support/input_steps.h"
#include "fuzz/support/require.h"
#include "player/window_input.h"
#include "tests/support/video_receiver_peer.h"

using namespace vesper::fuzz;
using vesper::client::VideoReceiver;
using vesper::client::VideoReceiverPeer;

namespace {

constexpr std::uint16_t kParentPort = 5000;  // nothing is really sent

// The largest coordinates of any window system: Wayland's have 24 bits before the point, sign
// included, X11's have 16 bits in all.
constexpr std::int32_t kCoordinateLimit = 1 << 23;

// The size of a picture's row in bytes is an int.
constexpr std::int32_t kFrameLimit = 1 << 29;

std::int32_t coordinate(InputReader& input) {
    return input.number<std::int32_t>() % kCoordinateLimit;
}

std::int32_t frame_size(InputReader& input) {
    return input.number<std::int32_t>() % kFrameLimit;
}

bool same(float a, float b) {
    return a == b || (std::isnan(a) && std::isnan(b));
}

class Player {
  public:
    explicit Player(InputReader& input) {
        fake_desktop() = {};
        const auto flags = input.number<std::uint8_t>();
        args_.has_audio = (flags & kHasAudio) != 0;
        args_.parent_port = (flags & kHasParent) != 0 ? kParentPort : std::uint16_t{0};
        state_.muted = (flags & kStartMuted) != 0;
        state_.window = (flags & kNoWindow) != 0 ? nullptr : fake_window();
        state_.volume = std::clamp(input.number<float>(), 0.0F, 1.0F);
        began_nan_ = std::isnan(state_.volume);
        peer_.frame_width() = frame_size(input);
        peer_.frame_height() = frame_size(input);
        require(socket_.bind(0), "a socket");
        input_.apply_audio_state();
    }

    void take_step(InputReader& input);
    void check();

  private:
    void send(SDL_Event event);
    void wheel(InputReader& input);
    void check_rectangle(int start, int size, int frame);

    Args args_;
    PlayerState state_;
    VideoReceiver receiver_;
    VideoReceiverPeer peer_{receiver_};
    vesper::UDPSocket socket_;
    WindowInput input_{args_, state_, receiver_, socket_};
    bool began_nan_ = false;
};

void Player::send(SDL_Event event) {
    const bool muted = state_.muted;
    const float volume = state_.volume;
    const std::uint64_t reports = fake_desktop().reports;
    input_.handle_event(event);
    if (args_.parent_port != 0 && (muted != state_.muted || !same(volume, state_.volume))) {
        require(fake_desktop().reports == reports + 1, "a change of the audio state is reported");
    }
}

void Player::wheel(InputReader& input) {
    FakeDesktop& desktop = fake_desktop();
    desktop.mouse_x = coordinate(input);
    desktop.mouse_y = coordinate(input);
    SDL_Event event{};
    event.type = SDL_MOUSEWHEEL;
    event.wheel.y = input.number<std::int32_t>();
    send(event);
}

void Player::take_step(InputReader& input) {
    SDL_Event event{};
    switch (static_cast<InputStep>(input.number<std::uint8_t>() % kInputSteps)) {
        case InputStep::resize:
            fake_desktop().width = coordinate(input);
            fake_desktop().height = coordinate(input);
            break;
        case InputStep::wheel:
            wheel(input);
            break;
        case InputStep::motion:
            event.type = SDL_MOUSEMOTION;
            event.motion.x = coordinate(input);
            event.motion.y = coordinate(input);
            send(event);
            break;
        case InputStep::press:
            event.type = SDL_MOUSEBUTTONDOWN;
            event.button.button = input.number<std::uint8_t>();
            event.button.clicks = input.number<std::uint8_t>();
            event.button.x = coordinate(input);
            event.button.y = coordinate(input);
            send(event);
            break;
        case InputStep::release:
            event.type = SDL_MOUSEBUTTONUP;
            event.button.button = input.number<std::uint8_t>();
            send(event);
            break;
        case InputStep::key:
            event.type = SDL_KEYDOWN;
            event.key.keysym.sym = input.number<std::int32_t>();
            send(event);
            break;
        case InputStep::event:
            event.type = input.number<std::uint32_t>();
            event.window.event = input.number<std::uint8_t>();
            send(event);
            break;
        case InputStep::hide:
            state_.bar_visible = false;
            break;
    }
}

void Player::check() {
    require(state_.zoom_level >= 1.0F && state_.zoom_level <= 10.0F, "zoom from 1 to 10");
    require((state_.volume >= 0.0F && state_.volume <= 1.0F) ||
                (began_nan_ && std::isnan(state_.volume)),
            "volume from 0 to 1, or the NaN that it began as");
    require(same(peer_.audio_volume(), state_.muted ? 0.0F : state_.volume),
            "the receiver plays as the state requires");
    require(fake_desktop().reports == 0 || (fake_desktop().last_report.muted == state_.muted &&
                                            same(fake_desktop().last_report.volume, state_.volume)),
            "the parent knows the audio state");
    require(args_.parent_port != 0 || fake_desktop().reports == 0, "no parent, no reports");
    require(state_.is_fullscreen == fake_desktop().fullscreen, "fullscreen as requested");
    require(std::isfinite(state_.zoom_center_x) && std::isfinite(state_.zoom_center_y),
            "the view has a centre");
    if (peer_.zoom_enabled()) {
        check_rectangle(peer_.zoom_x(), peer_.zoom_w(), receiver_.frame_width());
        check_rectangle(peer_.zoom_y(), peer_.zoom_h(), receiver_.frame_height());
    }
}

void Player::check_rectangle(int start, int size, int frame) {
    require(start >= 0 && size >= 1 && size <= frame && start <= frame - size,
            "the zoom rectangle lies in the frame");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    InputReader input(data, size);
    Player player(input);
    while (!input.done()) {
        player.take_step(input);
        player.check();
    }
    return 0;
}
