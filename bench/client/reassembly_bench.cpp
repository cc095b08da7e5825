// Bytes a second through handle_fragment(), whole frames, compared with three floors on the same
// bytes:
//
//   floor      all that reassembly cannot do without, written down in one function over the same
//              containers: checks, locks, the table's entry, cleared slots, flags, sizes, one look
//              at the clock for each fragment, the finished frame, the ring
//   copies     only the two copies, each into fresh memory: fragments into the frame's slots, slots
//              into the finished frame
//   one_copy   fragments into fresh memory once, which no reassembly that takes fragments of any
//              size in any order can reach
//
// The floors never have other frames pending. The last two neither clear their memory nor keep any
// state nor lock. Like the receiver's ring, all keep six frames.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "client/frame_ring.h"
#include "client/video_receiver.h"
#include "net/stream_datagrams.h"
#include "tests/support/video_receiver_peer.h"

using vesper::client::kFrameQueueSlots;
using vesper::client::VideoReceiver;
using vesper::client::VideoReceiverPeer;

namespace {

constexpr std::uint32_t kFirstPendingId = 1U << 31U;  // newer than any frame that completes
constexpr std::size_t kPayload = vesper::kMaxFragmentPayload;  // every fragment is full

using Datagram = std::vector<std::uint8_t>;

enum class Order {
    kInOrder,
    kReversed,
    kShuffled,
    kDoubled,      // each fragment but the last is followed by its copy
    kLastDoubled,  // the last too: its copy starts the frame over, with memory for all of it
};

const char* name_of(Order order) {
    switch (order) {
        case Order::kInOrder:
            return "in_order";
        case Order::kReversed:
            return "reversed";
        case Order::kShuffled:
            return "shuffled";
        case Order::kDoubled:
            return "doubled";
        case Order::kLastDoubled:
            return "last_doubled_too";
    }
    return "";
}

void write_header(Datagram& datagram, std::uint32_t frame_id, int index, int count) {
    vesper::write_video_fragment_header({.frame_id = frame_id,
                                         .fragment_index = static_cast<std::uint16_t>(index),
                                         .fragment_count = static_cast<std::uint16_t>(count),
                                         .payload_size = static_cast<std::uint16_t>(kPayload)},
                                        datagram.data());
}

Datagram fragment(std::uint32_t frame_id, int index, int count) {
    Datagram datagram(vesper::kVideoPayloadOffset + kPayload, static_cast<std::uint8_t>(index));
    vesper::write_packet_header({}, datagram.data());
    write_header(datagram, frame_id, index, count);
    return datagram;
}

// Gives the datagrams of one frame the number of another.
void renumber(std::vector<Datagram>& datagrams, std::uint32_t frame_id) {
    for (Datagram& datagram : datagrams) {
        const auto header = vesper::read_video_fragment_header(datagram.data());
        write_header(datagram, frame_id, header.fragment_index, header.fragment_count);
    }
}

// The datagrams of one frame as they arrive.
std::vector<Datagram> arrivals(int count, Order order) {
    std::vector<Datagram> datagrams;
    for (int i = 0; i < count; ++i) {
        datagrams.push_back(fragment(0, i, count));
        const bool is_last = i + 1 == count;
        if (order == Order::kLastDoubled || (order == Order::kDoubled && !is_last)) {
            datagrams.push_back(datagrams.back());
        }
    }
    if (order == Order::kReversed) {
        std::reverse(datagrams.begin(), datagrams.end());
    } else if (order == Order::kShuffled) {
        std::shuffle(datagrams.begin(), datagrams.end(), std::mt19937(1));
    }
    return datagrams;
}

// Frames that stay incomplete: newer than the one under test, and never old enough to be dropped.
void add_pending_frames(VideoReceiver& receiver, VideoReceiverPeer& peer, int count) {
    for (int i = 0; i < count; ++i) {
        const Datagram datagram = fragment(kFirstPendingId + static_cast<std::uint32_t>(i), 0, 2);
        receiver.handle_fragment(datagram.data(), static_cast<int>(datagram.size()));
    }
    for (auto& [id, frame] : peer.partial_frames()) {
        frame.first_seen += std::chrono::hours(24);
    }
}

void count_work(benchmark::State& state, int count, std::size_t datagrams) {
    state.SetBytesProcessed(state.iterations() * count * static_cast<std::int64_t>(kPayload));
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(datagrams));
}

void player(benchmark::State& state, int count, Order order, int pending) {
    std::vector<Datagram> datagrams = arrivals(count, order);
    VideoReceiver receiver;
    VideoReceiverPeer peer(receiver);
    peer.go_live_without_decoder();
    add_pending_frames(receiver, peer, pending);
    std::uint32_t frame_id = 0;
    for (auto _ : state) {
        renumber(datagrams, ++frame_id);
        for (const Datagram& datagram : datagrams) {
            receiver.handle_fragment(datagram.data(), static_cast<int>(datagram.size()));
        }
    }
    count_work(state, count, datagrams.size());
    if (peer.queue_count() == 0 || peer.frame_queue()[peer.queue_head()].size() !=
                                       static_cast<std::size_t>(count) * kPayload) {
        state.SkipWithError("no frames came out");
    }
}

class Floor {
  public:
    void take(const std::uint8_t* datagram, int len) {
        if (!running_ || len < vesper::kVideoPayloadOffset) {
            return;
        }
        const auto header = vesper::read_video_fragment_header(datagram);
        if (header.payload_size < 1 || header.payload_size > vesper::kMaxFragmentPayload ||
            header.payload_size > len - vesper::kVideoPayloadOffset || header.fragment_count < 1 ||
            header.fragment_count > vesper::kMaxFragmentsPerFrame) {
            return;
        }
        const std::lock_guard lock(frames_mutex_);
        if (header.frame_id < last_completed_) {
            return;
        }
        VideoReceiverPeer::PartialFrame& frame = frames_[header.frame_id];
        if (frame.total_fragments == 0) {
            frame.total_fragments = header.fragment_count;
            frame.received.resize(header.fragment_count);
            frame.fragment_sizes.resize(header.fragment_count);
            frame.data.resize(header.fragment_count * kPayload);
            bytes_ += frame.data.capacity();
        }
        const std::size_t index = header.fragment_index;
        if (index >= frame.total_fragments || frame.received[index]) {
            return;
        }
        const auto now = std::chrono::steady_clock::now();
        if (frame.received_fragments == 0) {
            frame.first_seen = now;
        }
        std::copy_n(datagram + vesper::kVideoPayloadOffset, header.payload_size,
                    frame.data.data() + index * kPayload);
        frame.received[index] = true;
        frame.fragment_sizes[index] = header.payload_size;
        if (++frame.received_fragments == frame.total_fragments) {
            std::uint64_t size = 0;
            for (const std::uint16_t one : frame.fragment_sizes) {
                size += one;
            }
            std::vector<std::uint8_t> finished;
            finished.reserve(size);
            const std::uint8_t* slot = frame.data.data();
            for (const std::uint16_t one : frame.fragment_sizes) {
                finished.insert(finished.end(), slot, slot + one);
                slot += kPayload;
            }
            {
                const std::lock_guard ring_lock(ring_mutex_);
                ring_[tail_] = std::move(finished);
                tail_ = vesper::client::next_slot(tail_);
            }
            ring_filled_.notify_one();
            last_completed_ = header.frame_id;
            for (auto one = frames_.begin(); one != frames_.end();) {
                if (one->first <= header.frame_id) {
                    bytes_ -= one->second.data.capacity();
                    one = frames_.erase(one);
                } else {
                    ++one;
                }
            }
        } else if (now - frame.first_seen > std::chrono::milliseconds(250)) {
            overdue_ = true;
        }
    }

    // Of the frame completed last.
    [[nodiscard]] std::size_t frame_size() const {
        return ring_[(tail_ + kFrameQueueSlots - 1) % kFrameQueueSlots].size();
    }

  private:
    std::atomic<bool> running_{true};
    std::mutex frames_mutex_;
    std::unordered_map<std::uint32_t, VideoReceiverPeer::PartialFrame> frames_;
    std::uint64_t bytes_ = 0;
    std::uint32_t last_completed_ = 0;
    bool overdue_ = false;  // on a machine that stood still
    std::mutex ring_mutex_;
    std::condition_variable ring_filled_;
    std::vector<std::vector<std::uint8_t>> ring_{kFrameQueueSlots};
    std::size_t tail_ = 0;
};

void floor_of_all_steps(benchmark::State& state, int count, Order order) {
    std::vector<Datagram> datagrams = arrivals(count, order);
    Floor floor;
    std::uint32_t frame_id = 0;
    for (auto _ : state) {
        renumber(datagrams, ++frame_id);
        for (const Datagram& datagram : datagrams) {
            floor.take(datagram.data(), static_cast<int>(datagram.size()));
        }
    }
    count_work(state, count, datagrams.size());
    if (floor.frame_size() != static_cast<std::size_t>(count) * kPayload) {
        state.SkipWithError("no frames came out");
    }
}

using Memory = std::unique_ptr<std::uint8_t[]>;

Memory fresh(std::size_t size) {
    return std::make_unique_for_overwrite<std::uint8_t[]>(size);
}

// The destination of a datagram's payload; the second copy of a fragment has none.
struct Copy {
    const std::uint8_t* payload;
    std::size_t offset;
};

std::vector<Copy> copies_of(const std::vector<Datagram>& datagrams) {
    std::vector<Copy> copies;
    std::vector<bool> seen(datagrams.size());
    for (const Datagram& datagram : datagrams) {
        const std::size_t index =
            vesper::read_video_fragment_header(datagram.data()).fragment_index;
        if (!seen[index]) {
            seen[index] = true;
            copies.push_back({.payload = datagram.data() + vesper::kVideoPayloadOffset,
                              .offset = index * kPayload});
        }
    }
    return copies;
}

template <bool kTwice>
void bare_copies(benchmark::State& state, int count, Order order) {
    std::vector<Datagram> datagrams = arrivals(count, order);
    const std::vector<Copy> copies = copies_of(datagrams);
    const std::size_t frame_size = static_cast<std::size_t>(count) * kPayload;
    std::array<Memory, kFrameQueueSlots> ring;
    std::size_t tail = 0;
    std::uint32_t frame_id = 0;
    for (auto _ : state) {
        renumber(datagrams, ++frame_id);  // as for the player
        Memory slots = fresh(frame_size);
        for (const Copy& copy : copies) {
            std::memcpy(slots.get() + copy.offset, copy.payload, kPayload);
        }
        benchmark::DoNotOptimize(slots.get());
        benchmark::ClobberMemory();
        if constexpr (kTwice) {
            Memory frame = fresh(frame_size);
            std::memcpy(frame.get(), slots.get(), frame_size);
            benchmark::DoNotOptimize(frame.get());
            benchmark::ClobberMemory();
            ring[tail] = std::move(frame);
        } else {
            ring[tail] = std::move(slots);
        }
        tail = vesper::client::next_slot(tail);
    }
    count_work(state, count, datagrams.size());
}

void add(int count, Order order, std::initializer_list<int> pending_counts) {
    const std::string frame =
        "reassembly/" + std::to_string(count) + "_fragments/" + name_of(order);
    for (const int pending : pending_counts) {
        benchmark::RegisterBenchmark(
            (frame + "/" + std::to_string(pending) + "_pending/player").c_str(), player, count,
            order, pending);
    }
    benchmark::RegisterBenchmark((frame + "/floor").c_str(), floor_of_all_steps, count, order);
    benchmark::RegisterBenchmark((frame + "/copies").c_str(), bare_copies<true>, count, order);
    benchmark::RegisterBenchmark((frame + "/one_copy").c_str(), bare_copies<false>, count, order);
}

}  // namespace

int main(int argc, char** argv) {
    // Freed memory stays with the process. Otherwise it depends on what ran before whether buffers
    // of a megabyte are fresh pages, which cost as much as everything else.
    mallopt(M_MMAP_THRESHOLD, 1 << 24);
    mallopt(M_TRIM_THRESHOLD, 1 << 28);
    // 107 fragments are a keyframe of 150 kB, 1000 the largest frame there can be.
    for (const int count : {1, 3, 10, 32, 107, 330, 1000}) {
        add(count, Order::kInOrder, {0, 1, 15, 30, 45, 59});
    }
    // A single fragment comes in order, and all that can be doubled of it is the last.
    add(1, Order::kLastDoubled, {0});
    for (const int count : {10, 107, 1000}) {
        for (const Order order : {Order::kReversed, Order::kShuffled, Order::kDoubled}) {
            add(count, order, {0, 1, 59});
        }
        add(count, Order::kLastDoubled, {0});
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
