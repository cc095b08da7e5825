#include "tests/e2e/live_stream_fixture.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "net/stream_datagrams.h"

namespace vesper::test {

namespace {

std::vector<Point> field_centers() {
    std::vector<Point> centers;
    for (int y = kFieldSize / 2; y < kPictureSize.height; y += kFieldSize) {
        for (int x = kFieldSize / 2; x < kPictureSize.width; x += kFieldSize) {
            centers.push_back({.x = x, .y = y});
        }
    }
    return centers;
}

// Where a window of `size` shows this point of a picture of kPictureSize: it is filled.
Point in_window(Point point, Extent size) {
    return {.x = point.x * size.width / kPictureSize.width,
            .y = point.y * size.height / kPictureSize.height};
}

// What FFmpeg's decoder returns for an invalid frame: AVERROR_INVALIDDATA.
constexpr int kInvalidData = -1094995529;

template <typename... Values>
std::string formatted(const char* format, Values... values) {
    std::array<char, 160> line{};
    std::snprintf(line.data(), line.size(), format, values...);
    return line.data();
}

// Each line is read for its figures and written again with them: it must come out the same.

bool is_dropped_frame(const std::string& line) {
    unsigned int frame_id = 0;
    int received = 0;
    int total = 0;
    if (std::sscanf(line.c_str(), "[VideoReceiver] Dropped frame %10u: %4d/%4d", &frame_id,
                    &received, &total) != 3 ||
        received < 1 || received >= total || total > kMaxFragmentsPerFrame) {
        return false;
    }
    return line + "\n" == dropped_frame_line(frame_id, received, total);
}

bool is_broken_frame(const std::string& line) {
    std::size_t bytes = 0;
    if (std::sscanf(line.c_str(), "[VideoReceiver] VP8 send_packet error: %*d (frame %zu",
                    &bytes) == 1) {
        return line == formatted("[VideoReceiver] VP8 send_packet error: %d (frame %zu bytes)",
                                 kInvalidData, bytes);
    }
    return line == formatted("[VideoReceiver] VP8 receive_frame error: %d", kInvalidData);
}

// Dropped frames are possible on any network: a busy machine may delay the player between two
// fragments for longer than it waits for the second.
bool network_explains(const std::string& line) {
    return is_dropped_frame(line) || is_broken_frame(line) ||
           line == "[VideoReceiver] Requesting keyframe due to dropped frames" ||
           line == formatted("[VideoReceiver] VP8 receive_frame error: %d", -EAGAIN);
}

}  // namespace

std::string dropped_frame_line(std::uint32_t frame_id, int received, int total) {
    const float loss = 100.0F * static_cast<float>(total - received) / static_cast<float>(total);
    return formatted("[VideoReceiver] Dropped frame %u: %d/%d fragments received (%.1f%% loss)\n",
                     frame_id, received, total, static_cast<double>(loss));
}

void LiveStreamTest::start_stream() {
    start_player({"--has-audio"});
    show_first_picture(flat_picture(kFirstColor, stream_size));
    expect_color(kFirstPoint, kFirstColor);
}

void LiveStreamTest::stream(std::chrono::milliseconds time, const LiveStream::Network& network) {
    ASSERT_TRUE(live.run(time, network)) << "the player does not take its datagrams";
}

void LiveStreamTest::expect_good_picture() {
    const auto requests = [this] {
        live.take_messages();
        return live.counters().keyframe_requests;
    };
    const auto good = [this] {
        const Screenshot shot = window->screenshot();
        return std::ranges::all_of(field_centers(), [&shot](Point point) {
            return is_near(shot.at(in_window(point, shot.size)), field_color(point));
        });
    };
    for (std::uint64_t seen = requests(), before = seen + 1; seen != before;) {
        before = seen;
        show_picture(fields_picture(stream_size));
        (void)eventually([&] { return good() || requests() != before; });
        seen = good() ? before : requests();
    }
    const Screenshot shot = window->screenshot();
    for (const Point point : field_centers()) {
        const Color shown = shot.at(in_window(point, shot.size));
        EXPECT_TRUE(is_near(shown, field_color(point)))
            << "field at " << point << ": " << shown << ", not " << field_color(point);
    }
}

void LiveStreamTest::expect_explained_end() {
    ASSERT_FALSE(player->ending()) << "the player did not live";
    window->close();
    (void)player->wait_for_end();
    live.take_messages();
    for (std::uint64_t i = 0; i < live.counters().keyframe_requests; ++i) {
        progress_text += keyframe_request_line();
    }
    const std::string written = player->err();
    ASSERT_TRUE(written.starts_with(failure_text)) << written;
    std::istringstream rest(written.substr(failure_text.size()));
    for (std::string line; std::getline(rest, line);) {
        EXPECT_TRUE(network_explains(line)) << line;
    }
    failure_text = written;
    expect_end_of_normal_run();
}

}  // namespace vesper::test
