// From datagrams to whole encoded frames: reassembly, the ring's filling side, keyframe requests.
#include <algorithm>
#include <cstdio>
#include <iterator>
#include <numeric>
#include <utility>

#include "client/frame_ring.h"
#include "client/video_receiver.h"
#include "net/stream_datagrams.h"

namespace vesper::client {

namespace {

// Seven frame intervals at 30 frames/s. What is still missing then is lost, on any network that can
// carry a live stream, and waiting longer would only delay the keyframe that helps.
constexpr auto kReassemblyTimeout = std::chrono::milliseconds(250);

// Either limit triggers eviction. 60 incomplete frames is two seconds of a stream at 30 frames/s,
// and 50 MiB is 37 frames of the largest kind: more of either is a broken or hostile sender.
constexpr std::size_t kMaxPartialFrames = 60;
constexpr std::uint64_t kMaxPartialFrameBytes = 52'428'800;

// Evicting down to half the limit makes the work rare.
constexpr std::size_t kPartialFramesAfterEviction = 30;

// Seven times the size of 1000 fragments of 1400 bytes: remains valid if those limits grow.
constexpr std::uint64_t kMaxFrameBytes = 10'485'760;

std::size_t slot_offset(std::size_t fragment_index) {
    return fragment_index * std::size_t{kMaxFragmentPayload};
}

bool is_valid(const VideoFragmentHeader& header, int len) {
    return header.payload_size >= 1 && header.payload_size <= kMaxFragmentPayload &&
           header.payload_size <= len - kVideoPayloadOffset && header.fragment_count >= 1 &&
           header.fragment_count <= kMaxFragmentsPerFrame;
}

}  // namespace

void VideoReceiver::handle_fragment(const std::uint8_t* data, int len) {
    if (!running || len < kVideoPayloadOffset) {
        return;
    }
    const VideoFragmentHeader header = read_video_fragment_header(data);
    if (!is_valid(header, len)) {
        return;
    }

    const std::lock_guard lock(frames_mutex);
    // Strictly older: a late fragment of the last completed frame starts that frame again.
    if (header.frame_id < last_completed_frame_id) {
        return;
    }
    PartialFrame& frame = find_or_begin_frame(header);
    if (!store_fragment(frame, header, data + kVideoPayloadOffset)) {
        return;
    }
    if (frame.received_fragments == frame.total_fragments &&
        !complete_frame(header.frame_id, frame)) {
        return;
    }
    if (drop_stale_frames() && !keyframe_needed) {
        std::fprintf(stderr, "[VideoReceiver] Requesting keyframe due to dropped frames\n");
        keyframe_needed = true;
    }
}

bool VideoReceiver::needs_keyframe_request() {
    return keyframe_needed.exchange(false);
}

// The entry of the header's frame, made (after evicting others if need be) at its first fragment.
VideoReceiver::PartialFrame& VideoReceiver::find_or_begin_frame(const VideoFragmentHeader& header) {
    auto position = partial_frames.find(header.frame_id);
    if (position == partial_frames.end()) {
        make_room_for_frame();
        position = partial_frames.try_emplace(header.frame_id).first;
    }
    PartialFrame& frame = position->second;
    if (frame.total_fragments == 0) {
        begin_frame(frame, header.fragment_count);
    }
    return frame;
}

// The count comes last and the slots are the last to be allocated: when memory is refused, the
// entry takes no fragments, no bytes go uncounted, and the frame's next fragment begins it again.
void VideoReceiver::begin_frame(PartialFrame& frame, std::uint16_t fragment_count) {
    frame.received.assign(fragment_count, false);
    frame.fragment_sizes.assign(fragment_count, 0);
    frame.data.resize(slot_offset(fragment_count));
    frame.first_seen = Clock::now();
    partial_frames_bytes += frame.data.capacity();
    frame.total_fragments = fragment_count;
}

// Evicts whichever frames the map yields first: with this many incomplete, choosing is pointless.
void VideoReceiver::make_room_for_frame() {
    if (partial_frames.size() < kMaxPartialFrames && partial_frames_bytes < kMaxPartialFrameBytes) {
        return;
    }
    while (partial_frames.size() > kPartialFramesAfterEviction) {
        erase_partial_frame(partial_frames.begin());
    }
}

// False when the fragment is not wanted: out of the frame's range (the first fragment seen fixed
// the count) or a copy (the first one wins).
bool VideoReceiver::store_fragment(PartialFrame& frame, const VideoFragmentHeader& header,
                                   const std::uint8_t* payload) {
    const std::size_t index = header.fragment_index;
    if (index >= frame.total_fragments || frame.received[index]) {
        return false;
    }
    std::copy_n(payload, header.payload_size,
                frame.data.begin() + static_cast<std::ptrdiff_t>(slot_offset(index)));
    frame.received[index] = true;
    frame.fragment_sizes[index] = header.payload_size;
    ++frame.received_fragments;
    return true;
}

// Passes the frame to the decode thread and silently drops every older one: a newer picture is
// there. False when the frame's size is absurd; it is then only forgotten.
bool VideoReceiver::complete_frame(std::uint32_t frame_id, const PartialFrame& frame) {
    const std::uint64_t frame_bytes =
        std::accumulate(frame.fragment_sizes.begin(), frame.fragment_sizes.end(), std::uint64_t{0});
    if (frame_bytes == 0 || frame_bytes > kMaxFrameBytes) {
        // Not reachable with 1 to 1000 fragments of 1 to 1400 bytes; the byte count is unchanged.
        oldest_partial_frame = nullptr;
        partial_frames.erase(frame_id);
        return false;
    }
    std::vector<std::uint8_t> encoded_frame;
    encoded_frame.reserve(frame_bytes);
    for (std::size_t i = 0; i < frame.total_fragments; ++i) {
        const std::uint8_t* slot = frame.data.data() + slot_offset(i);
        encoded_frame.insert(encoded_frame.end(), slot, slot + frame.fragment_sizes[i]);
    }
    enqueue_frame(std::move(encoded_frame));
    drop_frames_up_to(frame_id);
    last_completed_frame_id = frame_id;
    return true;
}

void VideoReceiver::enqueue_frame(std::vector<std::uint8_t> encoded_frame) {
    {
        const std::lock_guard lock(queue_mutex);
        if (frame_queue.size() < kFrameQueueSlots) {
            frame_queue.resize(kFrameQueueSlots);
        }
        if (queue_count >= kFrameQueueSlots) {
            queue_head = next_slot(queue_head);  // the oldest frame makes room
        } else {
            ++queue_count;
        }
        frame_queue[queue_tail] = std::move(encoded_frame);
        queue_tail = next_slot(queue_tail);
    }
    queue_cv.notify_one();
}

// No pending frame is older than the last completed one, so in a stream without gaps only two ids
// come into question, however many newer frames are pending.
void VideoReceiver::drop_frames_up_to(std::uint32_t frame_id) {
    if (frame_id - last_completed_frame_id < partial_frames.size()) {
        for (std::uint64_t id = last_completed_frame_id; id <= frame_id; ++id) {
            const auto position = partial_frames.find(static_cast<std::uint32_t>(id));
            if (position != partial_frames.end()) {
                erase_partial_frame(position);
            }
        }
        return;
    }
    for (auto position = partial_frames.begin(); position != partial_frames.end();) {
        position =
            position->first <= frame_id ? erase_partial_frame(position) : std::next(position);
    }
}

// True when a frame was dropped with fragments missing.
bool VideoReceiver::drop_stale_frames() {
    if (partial_frames.empty()) {
        return false;  // reading the clock costs as much as storing a fragment
    }
    const Clock::time_point now = Clock::now();
    const auto is_stale = [now](const PartialFrame& frame) {
        return now - frame.first_seen > kReassemblyTimeout;
    };
    if (oldest_partial_frame != nullptr && !is_stale(*oldest_partial_frame)) {
        return false;
    }
    bool dropped = false;
    oldest_partial_frame = nullptr;
    for (auto position = partial_frames.begin(); position != partial_frames.end();) {
        const auto& [frame_id, frame] = *position;
        if (!is_stale(frame)) {
            if (oldest_partial_frame == nullptr ||
                frame.first_seen < oldest_partial_frame->first_seen) {
                oldest_partial_frame = &frame;
            }
            ++position;
            continue;
        }
        const int missing = frame.total_fragments - frame.received_fragments;
        if (missing > 0) {
            const float loss =
                100.0F * static_cast<float>(missing) / static_cast<float>(frame.total_fragments);
            std::fprintf(
                stderr,
                "[VideoReceiver] Dropped frame %u: %d/%d fragments received (%.1f%% loss)\n",
                frame_id, int{frame.received_fragments}, int{frame.total_fragments},
                static_cast<double>(loss));
            dropped = true;
        }
        position = erase_partial_frame(position);
    }
    return dropped;
}

VideoReceiver::PartialFrameMap::iterator VideoReceiver::erase_partial_frame(
    PartialFrameMap::iterator position) {
    partial_frames_bytes -= position->second.data.capacity();
    if (&position->second == oldest_partial_frame) {
        oldest_partial_frame = nullptr;
    }
    return partial_frames.erase(position);
}

}  // namespace vesper::client
