#include "fuzz/support/live_receiver.h"

#include <SDL2/SDL.h>

extern "C" {
#include <libavutil/log.h>
}

#include <algorithm>
#include <cstddef>
#include <limits>
#include <mutex>
#include <thread>
#include <vector>

#include "client/frame_ring.h"
#include "client/picture_format.h"
#include "fuzz/support/good_stream.h"
#include "fuzz/support/library_guards.h"
#include "fuzz/support/require.h"
#include "net/stream_datagrams.h"
#include "tests/support/fragment_builder.h"

namespace vesper::fuzz {

namespace {

// What the receiver promises about memory: see handle_fragment().
constexpr std::size_t kMaxPartialFrames = 60;
constexpr std::uint64_t kLargestPartialFrame =
    std::uint64_t{kMaxFragmentsPerFrame} * kMaxFragmentPayload;  // bytes
constexpr std::uint64_t kMostBytes = 52'428'800 + kLargestPartialFrame;

// The decoder delivers pictures a frame late, and a damaged stream may cost it a few more.
constexpr int kFramesUntilPicture = 8;

// A decode thread that makes no progress in this time hangs, however busy the machine is.
constexpr auto kHang = std::chrono::seconds(60);

constexpr std::uint64_t kSoundOfOnePacket = 960 * 2 * sizeof(short);  // bytes

}  // namespace

// Every input makes a whole receiver: with the sanitizer's usual quarantine of 256 MB, each would
// run on fresh pages, which take longer to map than the receiver takes to run.
extern "C" const char* __asan_default_options() {  // NOLINT: the sanitizer's name
    return "quarantine_size_mb=16";
}

void prepare_process() {
    SDL_setenv("SDL_VIDEODRIVER", "dummy", 1);
    // SDL connects to the buses. Without an address libdbus looks for one, and starts one.
    SDL_setenv("DBUS_SESSION_BUS_ADDRESS", "disabled:", 1);
    SDL_setenv("DBUS_SYSTEM_BUS_ADDRESS", "disabled:", 1);
    require(SDL_Init(SDL_INIT_VIDEO) == 0, "SDL has a dummy video driver");
    av_log_set_level(AV_LOG_QUIET);
}

LiveReceiver::LiveReceiver(int width, int height) {
    forget_converter();
    require(receiver_.init_for_udp(width, height), "the receiver starts");
    receiver_.enable_audio(true);
}

void LiveReceiver::receive(std::span<const std::uint8_t> datagram) {
    // A copy of its own, so that reading past its end is detected.
    const std::vector<std::uint8_t> received(datagram.begin(), datagram.end());
    const int length = static_cast<int>(received.size());
    if (length < kPacketHeaderSize) {
        return;
    }
    if ((read_packet_header(received.data()).flags & kScreenAudioFlag) != 0) {
        receiver_.handle_screen_audio(received.data(), length);
    } else {
        receiver_.handle_fragment(received.data(), length);
        if (length >= kVideoPayloadOffset) {
            check_fragments(read_video_fragment_header(received.data()).frame_id);
        }
    }
}

void LiveReceiver::wait_for_empty_ring() {
    const auto deadline = std::chrono::steady_clock::now() + kHang;
    while (peer_.running()) {
        {
            const std::lock_guard lock(peer_.queue_mutex());
            if (peer_.queue_count() == 0) {
                return;
            }
        }
        require(std::chrono::steady_clock::now() < deadline, "the decode thread comes round");
        std::this_thread::yield();
    }
}

// The decode thread skips empty frames; once it has taken one, all frames before it are done.
void LiveReceiver::settle() {
    wait_for_empty_ring();
    {
        const std::lock_guard lock(peer_.queue_mutex());
        if (peer_.frame_queue().empty()) {
            return;  // nothing was ever queued
        }
        if (!peer_.running()) {
            return;
        }
        peer_.frame_queue()[peer_.queue_tail()].clear();
        peer_.queue_tail() = client::next_slot(peer_.queue_tail());
        ++peer_.queue_count();
    }
    peer_.queue_cv().notify_one();
    wait_for_empty_ring();
}

void LiveReceiver::age(std::chrono::milliseconds by) {
    const std::lock_guard lock(peer_.frames_mutex());
    for (auto& [id, frame] : peer_.partial_frames()) {
        frame.first_seen -= by;
    }
}

void LiveReceiver::check() {
    check_partial_frames();
    check_ring();
    check_picture();
}

void LiveReceiver::check_partial_frames() {
    const std::lock_guard lock(peer_.frames_mutex());
    require(peer_.last_completed_frame_id() >= last_completed_seen_,
            "the last completed frame never grows older");
    last_completed_seen_ = peer_.last_completed_frame_id();
    require(peer_.partial_frames().size() <= kMaxPartialFrames, "at most 60 partial frames");

    std::uint64_t bytes = 0;
    for (const auto& [id, frame] : peer_.partial_frames()) {
        bytes += frame.data.capacity();
        const std::size_t count = frame.total_fragments;
        require(id >= last_completed_seen_, "no partial frame is older than the last completed");
        require(count >= 1 && count <= kMaxFragmentsPerFrame, "1 to 1000 fragments");
        require(frame.data.size() == count * kMaxFragmentPayload &&
                    frame.received.size() == count && frame.fragment_sizes.size() == count,
                "one slot to a fragment");
        require(frame.received_fragments < count, "a complete frame does not wait");
    }
    require(bytes == peer_.partial_frames_bytes(), "the byte count is the sum of the buffers");
    require(bytes < kMostBytes, "no new frame above the byte budget");
}

// Checks only the frame that a datagram belonged to: checking all would take longer than receiving.
void LiveReceiver::check_fragments(std::uint32_t frame_id) {
    const std::lock_guard lock(peer_.frames_mutex());
    const auto position = peer_.partial_frames().find(frame_id);
    if (position == peer_.partial_frames().end()) {
        return;
    }
    const auto& frame = position->second;
    require(std::ranges::count(frame.received, true) == frame.received_fragments,
            "every stored fragment is counted once");
    for (std::size_t i = 0; i < frame.total_fragments; ++i) {
        require(frame.fragment_sizes[i] <= kMaxFragmentPayload &&
                    (frame.fragment_sizes[i] != 0) == frame.received[i],
                "1 to 1400 bytes in a stored fragment's slot, none in another's");
    }
}

void LiveReceiver::check_ring() {
    const std::lock_guard lock(peer_.queue_mutex());
    const std::size_t slots = peer_.frame_queue().size();
    require(slots == 0 || slots == client::kFrameQueueSlots, "the ring has six slots");
    require(peer_.queue_count() <= slots, "at most six queued frames");
    require(peer_.queue_head() < client::kFrameQueueSlots &&
                peer_.queue_tail() < client::kFrameQueueSlots,
            "ring positions are slots");
    require(
        (peer_.queue_head() + peer_.queue_count()) % client::kFrameQueueSlots == peer_.queue_tail(),
        "the queued frames lie between head and tail");
}

void LiveReceiver::check_picture() {
    const std::lock_guard lock(peer_.picture_mutex());
    const std::size_t size =
        client::picture_size(receiver_.frame_width(), receiver_.frame_height());
    require(peer_.picture().size() == size && peer_.convert_buffer().size() == size,
            "both pictures keep their size");
    const std::size_t writable = size + client::kConverterOverrun;
    require(peer_.picture().capacity() >= writable && peer_.convert_buffer().capacity() >= writable,
            "both pictures keep room for the converter's overrun");
}

void LiveReceiver::check_still_plays() {
    if (!peer_.running()) {
        return;
    }
    check_plays_video();
    check_plays_sound();
}

// After every frame that the input completed, and none that it began: the first fragment of a
// frame fixes its count, and the first copy of a fragment wins. Nothing when the input used up the
// numbers.
std::optional<std::uint32_t> LiveReceiver::unused_frame_id() {
    std::uint64_t id = std::uint64_t{peer_.last_completed_frame_id()} + 1;
    while (id <= std::numeric_limits<std::uint32_t>::max()) {
        const auto candidate = static_cast<std::uint32_t>(id);
        if (!peer_.partial_frames().contains(candidate)) {
            return candidate;
        }
        ++id;
    }
    return std::nullopt;
}

void LiveReceiver::check_plays_video() {
    settle();
    {
        const std::lock_guard lock(peer_.picture_mutex());
        peer_.picture_ready() = false;
    }
    for (int i = 0; i < kFramesUntilPicture; ++i) {
        const auto id = unused_frame_id();
        if (!id) {
            return;
        }
        receive(test::FragmentBuilder().frame(*id).payload(good_keyframe()).build());
        require(peer_.last_completed_frame_id() == *id, "a whole frame completes");
        settle();
        if (shows_good_picture()) {
            return;
        }
    }
    require(false, "a good stream brings a picture");
}

// The colour can be checked only if the converter was made for pictures of this size.
bool LiveReceiver::shows_good_picture() {
    const std::lock_guard lock(peer_.picture_mutex());
    if (!peer_.picture_ready()) {
        return false;
    }
    const ConverterSource source = converter_source();
    if (source.width != kGoodWidth || source.height != kGoodHeight) {
        return true;
    }
    const auto& first_pixel = peer_.picture();  // B, G, R, A
    return first_pixel[0] < 60 && first_pixel[1] > 200 && first_pixel[2] < 60;
}

// Repeats the last number, so that nothing is concealed before it.
void LiveReceiver::check_plays_sound() {
    const auto& packet = good_opus_packet();
    std::vector<std::uint8_t> datagram(kPacketHeaderSize);
    write_packet_header({.sequence = peer_.last_audio_sequence(),
                         .payload_size = static_cast<std::uint16_t>(packet.size()),
                         .flags = kScreenAudioFlag},
                        datagram.data());
    datagram.insert(datagram.end(), packet.begin(), packet.end());
    const std::uint64_t before = queued_sound_bytes();
    receive(datagram);
    require(queued_sound_bytes() - before == kSoundOfOnePacket, "a good packet is heard");
}

}  // namespace vesper::fuzz
