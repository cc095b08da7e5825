// The geometry of the control bar, shared by drawing and hit-testing. All in window pixels from the
// top left; the bar spans the bottom edge of a window of `w` x `h`, and everything on it is centred
// on its centre line.
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
inline constexpr int kMuteButtonRight = 44;  // exclusive; a gap of 4 before the track

// Volume slider.
inline constexpr int kTrackX = 48;
inline constexpr int kTrackThickness = 6;
inline constexpr int kTrackMaxLength = 300;  // three pixels a per cent
inline constexpr int kTrackMinLength = 40;   // large enough to hit in the smallest window
// 48 to the track's left, 22 to its right. In a window of less than 388 the fullscreen button,
// which is tested first, covers the track's end.
inline constexpr int kTrackReserved = 70;
inline constexpr int kKnobSize = 12;

[[nodiscard]] constexpr int track_length(int w) {
    return std::max(std::min(w - kTrackReserved, kTrackMaxLength), kTrackMinLength);
}

[[nodiscard]] constexpr bool is_on_track(int x, int w) {
    return kTrackX <= x && x <= kTrackX + track_length(w);
}

// Volume, 0.0 to 1.0, of the slider position `x`, clamped for an `x` off the track.
[[nodiscard]] constexpr float volume_at(int x, int w) {
    return std::clamp(static_cast<float>(x - kTrackX) / static_cast<float>(track_length(w)), 0.0F,
                      1.0F);
}

// Fullscreen icon, and the wider button around it, which reaches to the right edge.
inline constexpr int kFullscreenIconWidth = 16;
inline constexpr int kFullscreenIconHeight = 12;
inline constexpr int kFullscreenIconArm = 4;  // length of the corner marks' arms
inline constexpr int kFullscreenIconMargin = 16;
inline constexpr int kFullscreenButtonWidth = 40;  // icon, margin, and 8 to hit it more easily
[[nodiscard]] constexpr int fullscreen_icon_x(int w) {
    return w - kFullscreenIconMargin - kFullscreenIconWidth;
}
[[nodiscard]] constexpr int fullscreen_button_left(int w) {
    return w - kFullscreenButtonWidth;
}

}  // namespace control_bar
