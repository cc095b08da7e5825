#include "tools/parent/status.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>

namespace vesper::tools {

namespace {

constexpr std::chrono::seconds kPeriod(1);

// Carriage return and "erase in line" (ECMA-48).
constexpr const char* kClearLine = "\r\033[K";

template <typename... Values>
[[nodiscard]] std::string format(const char* pattern, Values... values) {
    std::string text(static_cast<std::size_t>(std::snprintf(nullptr, 0, pattern, values...)), '\0');
    std::snprintf(text.data(), text.size() + 1, pattern, values...);
    return text;
}

// What the terminal shows of `text` in one line: carriage return and erasing work on one only. The
// last column stays free, because some terminals move on to the next line after it.
[[nodiscard]] std::string_view one_line(std::string_view text) {
    winsize terminal{};
    const bool is_terminal = ioctl(STDOUT_FILENO, TIOCGWINSZ, &terminal) == 0;
    return is_terminal && terminal.ws_col > 0 ? text.substr(0, terminal.ws_col - 1U) : text;
}

[[nodiscard]] std::string clock_text(std::chrono::duration<double> time) {
    const auto seconds = static_cast<std::int64_t>(time.count());
    return format("%" PRId64 ":%02" PRId64, seconds / 60, seconds % 60);
}

// Frames and kilobits per second over `time`.
[[nodiscard]] std::string rates(std::uint64_t frames, std::uint64_t bytes,
                                std::chrono::duration<double> time) {
    const double seconds = time.count() > 0 ? time.count() : 1;
    return format("%.1f fps  %.0f kbit/s", static_cast<double>(frames) / seconds,
                  static_cast<double>(bytes) * 8 / 1000 / seconds);
}

[[nodiscard]] std::string audio_text(const std::vector<std::optional<AudioState>>& players) {
    std::string text = "volume";
    const char* separator = " ";
    for (const auto& state : players) {
        text += separator;
        text += !state ? "not reported"
                       : format("%.0f %%%s", static_cast<double>(state->volume) * 100,
                                state->muted ? " muted" : "");
        separator = ", ";
    }
    return text;
}

[[nodiscard]] bool same(const std::optional<AudioState>& a, const std::optional<AudioState>& b) {
    return a.has_value() == b.has_value() &&
           (!a || (a->muted == b->muted && a->volume == b->volume));
}

// Whether a player reported something in between.
[[nodiscard]] bool heard_something(const Figures& before, const Figures& now) {
    return before.keyframe_requests != now.keyframe_requests ||
           !std::ranges::equal(before.audio, now.audio, same);
}

}  // namespace

std::string status_text(const Figures& before, const Figures& now) {
    return clock_text(now.time) + "  " +
           rates(now.frames - before.frames, now.bytes - before.bytes, now.time - before.time) +
           format("  %" PRIu64 " sent, %" PRIu64 " dropped", now.datagrams, now.impaired.lost) +
           (now.overflowed > 0 ? format(", %" PRIu64 " overflowed", now.overflowed) : "") +
           format("  %" PRIu64 " KFRQ", now.keyframe_requests) +
           (now.unanswered > 0 ? format(" (%" PRIu64 " unanswered)", now.unanswered) : "") + "  " +
           audio_text(now.audio);
}

std::string summary_text(const Figures& figures) {
    std::string text =
        clock_text(figures.time) + "  " + rates(figures.frames, figures.bytes, figures.time) +
        format("  %" PRIu64 " frames in %" PRIu64 " datagrams, %" PRIu64 " keyframes asked for",
               figures.frames, figures.datagrams, figures.keyframe_requests);
    const auto add = [&text](std::uint64_t count, const char* what) {
        if (count > 0) {
            text += format(", %" PRIu64 " %s", count, what);
        }
    };
    add(figures.unanswered, "of them not sent");
    add(figures.impaired.lost, "dropped on purpose");
    add(figures.impaired.duplicated, "doubled");
    add(figures.impaired.reordered, "reordered");
    add(figures.impaired.corrupted, "corrupted");
    add(figures.impaired.truncated, "cut short");
    add(figures.overflowed, "lost because a player's buffer was full");
    add(figures.send_failures, "not taken by the system");
    add(figures.skipped, "pictures skipped because encoding fell behind");
    return text;
}

void StatusReporter::update(const Figures& figures) {
    if (last_.audio.empty()) {
        last_ = figures;  // what the players were started with is no news
    }
    const bool period_over = figures.time - before_.time >= kPeriod;
    if (!period_over && !heard_something(last_, figures)) {
        return;
    }
    text_ = status_text(before_, figures);
    last_ = figures;
    if (period_over) {
        before_ = figures;
    }
    clear();
    show();
}

void StatusReporter::print(std::FILE* stream, std::string_view line) {
    clear();
    std::fprintf(stream, "%.*s\n", static_cast<int>(line.size()), line.data());
    if (in_place_ && !text_.empty()) {
        show();
    }
}

void StatusReporter::finish(const Figures& figures) {
    clear();
    std::printf("[Parent] %s\n", summary_text(figures).c_str());
}

void StatusReporter::clear() {
    if (shown_) {
        std::fputs(kClearLine, stdout);
        std::fflush(stdout);
        shown_ = false;
    }
}

void StatusReporter::show() {
    if (in_place_) {
        const std::string_view line = one_line(text_);
        std::printf("%.*s", static_cast<int>(line.size()), line.data());
    } else {
        std::printf("[Parent] %s\n", text_.c_str());
    }
    std::fflush(stdout);
    shown_ = in_place_;
}

}  // namespace vesper::tools
