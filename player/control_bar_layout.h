// Where everything on the control bar lies, once for drawing and for hit-testing. All in window
// pixels from the top left; the bar spans the bottom edge of a window of `w` x `h`.
#pragma once

#include <algorithm>

namespace control_bar {

inline constexpr int kHeight = 36;

[[nodiscard]] constexpr int top(int h) {
    return h - kHeight;
}
[[nodiscard]] constexpr int center_y(int h) {
    return h - kHeight / 2;
}

// Speaker icon, which is the mute button. The button reaches from the left edge to
// kMuteButtonRight.
inline constexpr int kSpeakerX = 12;
inline constexpr int kSpeakerWidth = 8;
inline constexpr int kSpeakerHeight = 10;
inline constexpr int kConeX = kSpeakerX + kSpeakerWidth;
inline constexpr int kConeColumns = 8;
inline constexpr int kMuteButtonRight = 44;  // exclusive

// Volume slider.
inline constexpr int kTrackX = 48;
inline constexpr int kTrackThickness = 6;
inline constexpr int kTrackMaxLength = 300;
inline constexpr int kTrackMinLength = 40;
inline constexpr int kTrackReserved = 70;  // width left to the elements beside the track
inline constexpr int kKnobSize = 12;

[[nodiscard]] constexpr int track_length(int w) {
    return std::max(std::min(w - kTrackReserved, kTrackMaxLength), kTrackMinLength);
}

[[nodiscard]] constexpr bool is_on_track(int x, int w) {
    return kTrackX <= x && x <= kTrackX + track_length(w);
}

// Volume, 0.0 to 1.0, that the slider shows at `x`, wherever that is.
[[nodiscard]] constexpr float volume_at(int x, int w) {
    return std::clamp(static_cast<float>(x - kTrackX) / static_cast<float>(track_length(w)), 0.0F,
                      1.0F);
}

// Fullscreen icon, and the wider button around it, which reaches to the right edge.
inline constexpr int kFullscreenIconSize = 16;
[[nodiscard]] constexpr int fullscreen_icon_x(int w) {
    return w - 32;
}
[[nodiscard]] constexpr int fullscreen_button_left(int w) {
    return w - 40;
}

}  // namespace control_bar
