#include "fuzz/reassembly/model.h"

#include <array>
#include <cstdio>

namespace vesper::fuzz {

namespace {

constexpr auto kTimeout = std::chrono::milliseconds(250);

std::uint32_t number(std::span<const std::uint8_t> bytes) {
    std::uint32_t value = 0;
    for (std::size_t i = bytes.size(); i > 0; --i) {
        value = value * 256 + bytes[i - 1];
    }
    return value;
}

}  // namespace

void ReassemblyModel::take(std::span<const std::uint8_t> datagram, Time now,
                           std::vector<std::uint32_t> gone) {
    completed = false;
    frames_changed = false;
    lines.clear();
    if (!running) {
        return;
    }
    if (datagram.size() < 40) {
        ++met_.malformed;
        return;
    }
    const std::uint32_t id = number(datagram.subspan(28, 4));
    const int index = static_cast<int>(number(datagram.subspan(32, 2)));
    const int count = static_cast<int>(number(datagram.subspan(34, 2)));
    const std::size_t size = number(datagram.subspan(36, 2));
    if (size < 1 || size > 1400 || size > datagram.size() - 40 || count < 1 || count > 1000) {
        ++met_.malformed;
        return;
    }
    if (id < last_completed) {
        ++met_.older_than_the_last_completed;
        return;
    }

    if (!frames.contains(id)) {
        if (is_full()) {
            ++(frames.size() >= 60 ? met_.evictions_at_60_frames
                                   : met_.evictions_at_the_byte_limit);
            while (frames.size() > 30) {
                if (gone.empty()) {
                    gone.push_back(frames.begin()->first);  // which the receiver still has
                }
                frames.erase(gone.back());
                gone.pop_back();
            }
        }
        frames[id].total = count;
        frames[id].first_seen = now;
        frames_changed = true;
        ++met_.frames_begun;
        met_.begun_again += id == last_completed ? 1 : 0;
    }
    Frame& frame = frames[id];
    if (index >= frame.total) {
        ++met_.beyond_the_frame;
        return;
    }
    if (frame.fragments.contains(index)) {
        ++met_.copies;
        return;
    }
    met_.other_counts += count != frame.total ? 1 : 0;
    const auto payload = datagram.subspan(40, size);
    frame.fragments[index] = std::string(payload.begin(), payload.end());

    if (static_cast<int>(frame.fragments.size()) == frame.total) {
        complete(id);
    }
    drop_overdue(now);
}

void ReassemblyModel::complete(std::uint32_t id) {
    std::string whole;
    for (const auto& [index, bytes] : frames[id].fragments) {
        whole += bytes;
    }
    ++frames_completed;
    ++met_.frames_completed;
    met_.largest_frames += frames[id].total == 1000 ? 1 : 0;
    ring.push_back(whole);
    if (ring.size() > 6) {
        ring.pop_front();
        ++met_.pushed_out_of_the_ring;
    }
    last_completed = id;
    completed = true;
    frames_changed = true;
    while (!frames.empty() && frames.begin()->first <= id) {
        met_.given_up_at_a_completion += frames.begin()->first < id ? 1 : 0;
        frames.erase(frames.begin());
    }
}

void ReassemblyModel::drop_overdue(Time now) {
    for (auto position = frames.begin(); position != frames.end();) {
        const auto& [id, frame] = *position;
        const auto age = now - frame.first_seen;
        if (age <= kTimeout) {
            met_.kept_at_exactly_250_ms += age == kTimeout ? 1 : 0;
            ++position;
            continue;
        }
        const int received = static_cast<int>(frame.fragments.size());
        const float loss =
            100.0F * static_cast<float>(frame.total - received) / static_cast<float>(frame.total);
        std::array<char, 200> line{};
        std::snprintf(line.data(), line.size(),
                      "[VideoReceiver] Dropped frame %u: %d/%d fragments received (%.1f%% loss)\n",
                      id, received, frame.total, static_cast<double>(loss));
        lines.emplace_back(line.data());
        frames_changed = true;
        ++met_.dropped_overdue;
        met_.dropped_1_ns_overdue += age == kTimeout + std::chrono::nanoseconds(1) ? 1 : 0;
        position = frames.erase(position);
    }
    if (!lines.empty() && !keyframe_needed) {
        lines.emplace_back("[VideoReceiver] Requesting keyframe due to dropped frames\n");
        keyframe_needed = true;
        ++met_.keyframe_requests;
    }
}

std::uint64_t ReassemblyModel::bytes_held() const {
    std::uint64_t bytes = 0;
    for (const auto& [id, frame] : frames) {
        bytes += static_cast<std::uint64_t>(frame.total) * 1400;
    }
    return bytes;
}

bool ReassemblyModel::is_full() const {
    return frames.size() >= 60 || bytes_held() >= 52'428'800;
}

}  // namespace vesper::fuzz
