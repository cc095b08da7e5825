#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <condition_variable>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <numeric>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/allocation_log.h"
#include "tests/support/captured_output.h"
#include "tests/support/fragment_builder.h"
#include "tests/support/hook.h"
#include "tests/support/video_receiver_peer.h"

using SteadyTime = std::chrono::steady_clock::time_point;

// std::condition_variable::notify_one() and std::chrono::steady_clock::now() of libstdc++.
VESPER_HOOK(_ZNSt18condition_variable10notify_oneEv, void, (std::condition_variable * condition),
            (condition))
VESPER_HOOK(_ZNSt6chrono3_V212steady_clock3nowEv, SteadyTime, (), ())

namespace vesper::client {
namespace {

using namespace std::chrono_literals;
using test::FragmentBuilder;
using test::kNothing;
using test::Printed;
using test::printed_by;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

using Bytes = std::vector<std::uint8_t>;

constexpr auto kTimeout = 250ms;  // of an incomplete frame
constexpr std::uint64_t kByteLimit = 52'428'800;

FragmentBuilder fragment(std::uint32_t frame, int index, int count) {
    return FragmentBuilder().frame(frame).index(index).of(count).payload_of_size(10);
}

Bytes joined(std::initializer_list<FragmentBuilder> fragments) {
    Bytes all;
    for (const FragmentBuilder& one : fragments) {
        all.insert(all.end(), one.payload_bytes().begin(), one.payload_bytes().end());
    }
    return all;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

class FragmentReassembly : public test::HookedTest {
  protected:
    // The clock is stopped, so that nothing becomes overdue on a slow machine; pass() advances it.
    void SetUp() override {
        peer.go_live_without_decoder();
        hook__ZNSt6chrono3_V212steady_clock3nowEv = [this] { return now; };
    }

    void TearDown() override {
        EXPECT_EQ(peer.partial_frames_bytes(), held_bytes() + unaccounted_bytes);
        (void)printed_by([this] { owner.reset(); });
        HookedTest::TearDown();
    }

    void deliver(const Bytes& bytes) {
        const Bytes datagram(bytes.begin(), bytes.end());  // no spare capacity to read into
        receiver.handle_fragment(datagram.data(), static_cast<int>(datagram.size()));
    }
    void deliver(const FragmentBuilder& one) { deliver(one.build()); }

    // The first of two fragments of each of `count` frames from `first_id` on.
    void begin_frames(std::uint32_t first_id, std::uint32_t count) {
        for (std::uint32_t i = 0; i < count; ++i) {
            deliver(fragment(first_id + i, 0, 2));
        }
    }

    void pass(std::chrono::nanoseconds time) { now += time; }

    std::uint64_t held_bytes() {
        std::uint64_t bytes = 0;
        for (const auto& [id, frame] : peer.partial_frames()) {
            bytes += frame.data.capacity();
        }
        return bytes;
    }

    std::vector<std::uint32_t> pending_ids() {
        std::vector<std::uint32_t> ids;
        for (const auto& [id, frame] : peer.partial_frames()) {
            ids.push_back(id);
        }
        return ids;
    }

    // Oldest first.
    std::vector<Bytes> queued_frames() {
        std::vector<Bytes> frames;
        for (std::size_t i = 0; i < peer.queue_count(); ++i) {
            frames.push_back(peer.frame_queue().at((peer.queue_head() + i) % 6));
        }
        return frames;
    }

    void expect_untouched() {
        EXPECT_THAT(peer.partial_frames(), IsEmpty());
        EXPECT_EQ(peer.partial_frames_bytes(), 0U);
        EXPECT_EQ(peer.last_completed_frame_id(), 0U);
        EXPECT_THAT(peer.frame_queue(), IsEmpty());
        EXPECT_EQ(peer.queue_head(), 0U);
        EXPECT_EQ(peer.queue_tail(), 0U);
        EXPECT_EQ(peer.queue_count(), 0U);
        EXPECT_FALSE(peer.keyframe_needed());
    }

    void expect_dropped(const Bytes& datagram) {
        EXPECT_EQ(printed_by([&] { deliver(datagram); }), kNothing);
        expect_untouched();
    }

    void expect_delivered(const Bytes& datagram, const Bytes& frame) {
        EXPECT_EQ(printed_by([&] { deliver(datagram); }), kNothing);
        EXPECT_THAT(queued_frames(), ElementsAre(frame));
    }

    // An entry as if `received` fragments of `count`, each of `size` bytes, had arrived: sizes that
    // no datagram can declare.
    void plant_frame(std::uint32_t id, int count, int received, int size, std::size_t data_size) {
        auto& frame = peer.partial_frames()[id];
        frame.total_fragments = static_cast<std::uint16_t>(count);
        frame.received_fragments = static_cast<std::uint16_t>(received);
        frame.data.resize(data_size);
        frame.received.resize(static_cast<std::size_t>(count));
        frame.fragment_sizes.resize(static_cast<std::size_t>(count));
        std::fill_n(frame.received.begin(), received, true);
        std::fill_n(frame.fragment_sizes.begin(), received, static_cast<std::uint16_t>(size));
        frame.first_seen = std::chrono::steady_clock::now();
        peer.partial_frames_bytes() += frame.data.capacity();
    }

    std::unique_ptr<VideoReceiver> owner = std::make_unique<VideoReceiver>();
    VideoReceiver& receiver = *owner;
    VideoReceiverPeer peer{receiver};
    SteadyTime now = std::chrono::steady_clock::now();
    std::uint64_t unaccounted_bytes = 0;  // by which partial_frames_bytes is too high
};

// ---- what is taken for a fragment ----

TEST_F(FragmentReassembly, NothingChangesWhileNotRunning) {
    peer.running() = false;
    expect_dropped(fragment(1, 0, 1).build());
    expect_dropped(fragment(1, 0, 3).build());
}

TEST_F(FragmentReassembly, NothingChangesOnceStoppedAgain) {
    deliver(fragment(1, 0, 2));
    pass(kTimeout + 1ms);
    peer.running() = false;
    EXPECT_EQ(printed_by([&] { deliver(fragment(1, 1, 2)); }), kNothing);
    EXPECT_THAT(pending_ids(), ElementsAre(1U));
    EXPECT_EQ(peer.partial_frames().at(1).received_fragments, 1);
}

TEST_F(FragmentReassembly, ADatagramShorterThan40BytesIsDropped) {
    const Bytes whole = fragment(1, 0, 1).build();
    for (const std::ptrdiff_t length : {0, 27, 28, 39}) {
        expect_dropped(Bytes(whole.begin(), whole.begin() + length));
    }
    receiver.handle_fragment(whole.data(), -1);
    expect_untouched();
}

TEST_F(FragmentReassembly, AHeaderWithoutPayloadIsDropped) {
    expect_dropped(FragmentBuilder().payload({}).build());
    expect_dropped(FragmentBuilder().payload({}).declared_payload_size(1).build());
}

TEST_F(FragmentReassembly, TheSmallestFragmentHas41Bytes) {
    const Bytes datagram = FragmentBuilder().payload({0x5A}).build();
    ASSERT_THAT(datagram, SizeIs(41));
    expect_delivered(datagram, {0x5A});
}

TEST_F(FragmentReassembly, PayloadSize0IsDroppedWhateverFollows) {
    expect_dropped(FragmentBuilder().payload_of_size(100).declared_payload_size(0).build());
}

TEST_F(FragmentReassembly, PayloadOf1400BytesIn1440IsAccepted) {
    const FragmentBuilder full = FragmentBuilder().payload_of_size(1400);
    ASSERT_THAT(full.build(), SizeIs(1440));
    expect_delivered(full.build(), full.payload_bytes());
}

TEST_F(FragmentReassembly, PayloadOf1400BytesIn1439IsDropped) {
    expect_dropped(FragmentBuilder().payload_of_size(1399).declared_payload_size(1400).build());
}

TEST_F(FragmentReassembly, PayloadOf1401BytesIsDroppedWhateverTheLength) {
    expect_dropped(FragmentBuilder().payload_of_size(1401).build());
    expect_dropped(FragmentBuilder().payload_of_size(60'000).declared_payload_size(1401).build());
    expect_dropped(FragmentBuilder().payload_of_size(65'496).declared_payload_size(65'535).build());
    expect_dropped(FragmentBuilder().payload_of_size(65'496).build());
}

TEST_F(FragmentReassembly, FragmentCount0AndAbove1000AreDropped) {
    expect_dropped(fragment(1, 0, 0).build());
    expect_dropped(fragment(1, 0, 1001).build());
    expect_dropped(fragment(1, 0, 65'535).build());
}

TEST_F(FragmentReassembly, FragmentCounts1And1000AreAccepted) {
    expect_delivered(fragment(1, 0, 1).build(), fragment(1, 0, 1).payload_bytes());
    Bytes whole;
    for (int i = 0; i < 1000; ++i) {
        const FragmentBuilder one = fragment(2, i, 1000).payload_of_size(1400);
        whole.insert(whole.end(), one.payload_bytes().begin(), one.payload_bytes().end());
        deliver(one);
    }
    EXPECT_THAT(whole, SizeIs(1'400'000));
    ASSERT_THAT(queued_frames(), SizeIs(2));
    EXPECT_EQ(queued_frames()[1], whole);
}

TEST_F(FragmentReassembly, BytesThatAreTheSendersOwnChangeNothing) {
    // All of the packet header, which only distinguishes fragments from sound packets, and bytes 38
    // and 39.
    Bytes datagram = fragment(5, 0, 1).build();
    std::fill_n(datagram.begin(), 28, std::uint8_t{0xFF});
    datagram[38] = 0xFF;
    datagram[39] = 0xFF;
    expect_delivered(datagram, fragment(5, 0, 1).payload_bytes());
    EXPECT_EQ(peer.last_completed_frame_id(), 5U);
}

TEST_F(FragmentReassembly, BytesAfterTheDeclaredPayloadAreIgnored) {
    expect_delivered(FragmentBuilder().payload({1, 2, 3, 4, 5}).declared_payload_size(3).build(),
                     {1, 2, 3});
}

TEST_F(FragmentReassembly, FieldsAreLittleEndianAndNeedNoAlignment) {
    Bytes shifted = {0};  // puts every field at an odd offset
    shifted.resize(1 + 28);
    const Bytes rest = {0x04, 0x03, 0x02, 0x01,  // frame 0x01020304
                        0x02, 0x01,              // fragment 258
                        0xE7, 0x03,              // of 999
                        0x03, 0x00,              // 3 bytes
                        0x00, 0x00, 7,    8,    9};
    shifted.insert(shifted.end(), rest.begin(), rest.end());
    receiver.handle_fragment(shifted.data() + 1, static_cast<int>(shifted.size()) - 1);

    ASSERT_THAT(pending_ids(), ElementsAre(0x01020304U));
    const auto& frame = peer.partial_frames().at(0x01020304);
    EXPECT_EQ(frame.total_fragments, 999);
    EXPECT_TRUE(frame.received[258]);
    EXPECT_EQ(frame.fragment_sizes[258], 3);
    EXPECT_EQ(frame.data[258 * 1400 + 2], 9);
}

// ---- an entry and its fragments ----

TEST_F(FragmentReassembly, FirstFragmentSetsUpTheWholeSlotBuffer) {
    const FragmentBuilder middle = fragment(8, 1, 3).payload({1, 2, 3});
    EXPECT_EQ(printed_by([&] { deliver(middle); }), kNothing);

    ASSERT_THAT(pending_ids(), ElementsAre(8U));
    const auto& frame = peer.partial_frames().at(8);
    EXPECT_EQ(frame.total_fragments, 3);
    EXPECT_EQ(frame.received_fragments, 1);
    Bytes slots(3 * 1400);
    std::iota(slots.begin() + 1400, slots.begin() + 1403, std::uint8_t{1});
    EXPECT_EQ(frame.data, slots);
    EXPECT_THAT(frame.received, ElementsAre(false, true, false));
    EXPECT_THAT(frame.fragment_sizes, ElementsAre(0, 3, 0));
    EXPECT_EQ(frame.first_seen, now);
    EXPECT_EQ(peer.partial_frames_bytes(), frame.data.capacity());
    EXPECT_EQ(peer.queue_count(), 0U);
}

TEST_F(FragmentReassembly, LaterFragmentsKeepTheTimeOfTheFirst) {
    const SteadyTime first_seen = now;
    deliver(fragment(8, 0, 3));
    pass(100ms);
    deliver(fragment(8, 1, 3));
    EXPECT_EQ(peer.partial_frames().at(8).first_seen, first_seen);
    EXPECT_EQ(peer.partial_frames().at(8).received_fragments, 2);
}

TEST_F(FragmentReassembly, LaterFragmentsAllocateNothing) {
    deliver(fragment(8, 0, 3));
    const Bytes second = fragment(8, 1, 3).build();
    const auto log = test::allocations_of(
        [&] { receiver.handle_fragment(second.data(), static_cast<int>(second.size())); });
    EXPECT_THAT(log.allocations(), IsEmpty());
    EXPECT_EQ(peer.partial_frames().at(8).received_fragments, 2);
}

TEST_F(FragmentReassembly, FirstFragmentSeenFixesTheCount) {
    deliver(fragment(1, 0, 3));
    deliver(fragment(1, 4, 5));  // beyond the three
    EXPECT_EQ(peer.partial_frames().at(1).received_fragments, 1);
    deliver(fragment(1, 2, 5));  // within them
    EXPECT_EQ(peer.partial_frames().at(1).received_fragments, 2);
    EXPECT_EQ(peer.partial_frames().at(1).total_fragments, 3);
    deliver(fragment(1, 1, 1));  // declares fewer than its own index
    EXPECT_THAT(queued_frames(),
                ElementsAre(joined({fragment(1, 0, 3), fragment(1, 1, 3), fragment(1, 2, 3)})));
}

TEST_F(FragmentReassembly, CountsOfLaterFragmentsAreStillRangeChecked) {
    deliver(fragment(1, 0, 3));
    deliver(fragment(1, 1, 1001));
    deliver(fragment(1, 2, 0));
    EXPECT_EQ(peer.partial_frames().at(1).received_fragments, 1);
}

TEST_F(FragmentReassembly, IndexOutOfRangeStillMakesTheEntry) {
    EXPECT_EQ(printed_by([&] { deliver(fragment(5, 3, 3)); }), kNothing);
    ASSERT_THAT(pending_ids(), ElementsAre(5U));
    const auto& frame = peer.partial_frames().at(5);
    EXPECT_EQ(frame.total_fragments, 3);
    EXPECT_EQ(frame.received_fragments, 0);
    EXPECT_EQ(frame.data, Bytes(3 * 1400));
    EXPECT_EQ(peer.partial_frames_bytes(), frame.data.capacity());
    EXPECT_GE(peer.partial_frames_bytes(), 4200U);

    deliver(fragment(5, 65'535, 3));
    for (int i = 0; i < 3; ++i) {
        deliver(fragment(5, i, 3));
    }
    EXPECT_THAT(queued_frames(), SizeIs(1));
}

TEST_F(FragmentReassembly, FirstCopyOfAFragmentWins) {
    const FragmentBuilder first = fragment(1, 0, 2).payload({1, 2, 3});
    deliver(first);
    EXPECT_EQ(printed_by([&] { deliver(fragment(1, 0, 2).payload({9, 9, 9, 9})); }), kNothing);
    EXPECT_EQ(peer.partial_frames().at(1).received_fragments, 1);
    deliver(fragment(1, 1, 2).payload({4}));
    EXPECT_THAT(queued_frames(), ElementsAre(Bytes{1, 2, 3, 4}));
}

// An application that catches std::bad_alloc and continues loses that fragment, and nothing else.
TEST_F(FragmentReassembly, AFrameWhoseMemoryIsRefusedBeginsAgainWithItsNextFragment) {
    deliver(fragment(1, 0, 1));  // the first frame ever also makes the table and the ring
    std::uint32_t id = 2;
    for (const int refused : {1, 2, 3, 4}) {  // the entry and its three lists
        SCOPED_TRACE(refused);
        // More slots than the fragments that come later declare.
        const Bytes first = fragment(id, 9, 10).build();
        test::fail_allocation(refused);
        EXPECT_THROW(receiver.handle_fragment(first.data(), static_cast<int>(first.size())),
                     std::bad_alloc);
        EXPECT_EQ(peer.partial_frames_bytes(), held_bytes());

        deliver(fragment(id, 9, 3));  // beyond the end of the frame that it begins
        for (const int index : {2, 1, 0}) {
            EXPECT_EQ(peer.last_completed_frame_id(), id - 1);
            deliver(fragment(id, index, 3));
        }
        EXPECT_EQ(peer.last_completed_frame_id(), id);
        EXPECT_EQ(queued_frames().back(),
                  joined({fragment(id, 0, 3), fragment(id, 1, 3), fragment(id, 2, 3)}));
        EXPECT_THAT(pending_ids(), IsEmpty());
        EXPECT_EQ(peer.partial_frames_bytes(), 0U);
        ++id;
    }
}

TEST_F(FragmentReassembly, AFrameWhoseMemoryIsRefusedAndThatNeverComesAgainGoesSilently) {
    for (const int refused : {2, 3, 4}) {
        SCOPED_TRACE(refused);
        const Bytes first = fragment(7, 0, 1000).build();
        test::fail_allocation(refused);
        EXPECT_THROW(receiver.handle_fragment(first.data(), static_cast<int>(first.size())),
                     std::bad_alloc);
        pass(kTimeout + 1ms);
        EXPECT_EQ(printed_by([&] { deliver(fragment(0, 0, 1)); }), kNothing);
        EXPECT_THAT(pending_ids(), IsEmpty());
        EXPECT_EQ(peer.partial_frames_bytes(), 0U);
    }
}

// ---- completion ----

TEST_F(FragmentReassembly, AFrameOfOneFragmentReachesTheRingAtOnce) {
    expect_delivered(fragment(1, 0, 1).build(), fragment(1, 0, 1).payload_bytes());
    EXPECT_THAT(peer.partial_frames(), IsEmpty());
    EXPECT_EQ(peer.partial_frames_bytes(), 0U);
    EXPECT_EQ(peer.last_completed_frame_id(), 1U);
}

TEST_F(FragmentReassembly, FramesNumberedFrom0AreTaken) {
    deliver(fragment(0, 0, 1));
    deliver(fragment(1, 0, 1));
    EXPECT_THAT(queued_frames(), SizeIs(2));
}

TEST_F(FragmentReassembly, FragmentsInAnyOrderMakeTheSameFrame) {
    for (const int index : {0, 1, 2}) {
        deliver(fragment(1, index, 3));
    }
    const Bytes in_order = joined({fragment(1, 0, 3), fragment(1, 1, 3), fragment(1, 2, 3)});
    ASSERT_THAT(queued_frames(), ElementsAre(in_order));
    for (const int index : {2, 0, 0, 1}) {  // one of them twice
        deliver(fragment(1, index, 3));
    }
    EXPECT_THAT(queued_frames(), ElementsAre(in_order, in_order));
}

TEST_F(FragmentReassembly, AShortLastFragmentEndsTheFrame) {
    const auto slice = [](int index, std::size_t size) {
        return fragment(1, index, 3).payload_of_size(size);
    };
    for (const auto& one : {slice(0, 1400), slice(1, 1400), slice(2, 1)}) {
        deliver(one);
    }
    ASSERT_THAT(queued_frames(),
                ElementsAre(joined({slice(0, 1400), slice(1, 1400), slice(2, 1)})));
    EXPECT_THAT(queued_frames()[0], SizeIs(2801));
}

TEST_F(FragmentReassembly, EveryFragmentMayHaveItsOwnSize) {
    const auto slice = [](int index, std::size_t size) {
        return fragment(1, index, 3).payload_of_size(size);
    };
    for (const auto& one : {slice(1, 1400), slice(2, 700), slice(0, 1)}) {
        deliver(one);
    }
    EXPECT_THAT(queued_frames(), ElementsAre(joined({slice(0, 1), slice(1, 1400), slice(2, 700)})));
}

TEST_F(FragmentReassembly, ACompletedFrameIsAllocatedOnceAndMovedIntoTheRing) {
    deliver(fragment(1, 0, 2).payload_of_size(1400));
    const Bytes last = fragment(1, 1, 2).payload_of_size(77).build();
    const auto log = test::allocations_of(
        [&] { receiver.handle_fragment(last.data(), static_cast<int>(last.size())); });

    std::vector<const void*> of_frame_size;
    for (const auto& [address, size] : log.allocations()) {
        if (size == 1477) {
            of_frame_size.push_back(address);
        }
    }
    const Bytes& in_ring = peer.frame_queue().at(0);
    EXPECT_THAT(of_frame_size, ElementsAre(in_ring.data()));
    EXPECT_THAT(in_ring, SizeIs(1477));
    EXPECT_EQ(in_ring.capacity(), in_ring.size());
}

TEST_F(FragmentReassembly, AFrameCostsItsEntryAndItsThreeListsAtFirstAndItselfAtLast) {
    deliver(fragment(1, 0, 1));  // the first frame ever also makes the table and the ring
    const auto sizes_allocated_by = [this](const FragmentBuilder& one) {
        const Bytes datagram = one.build();
        const auto log = test::allocations_of(
            [&] { receiver.handle_fragment(datagram.data(), static_cast<int>(datagram.size())); });
        std::vector<std::size_t> sizes;
        for (const auto& allocation : log.allocations()) {
            sizes.push_back(allocation.size);
        }
        return sizes;
    };
    constexpr std::size_t kSlots = 100 * 1400;
    constexpr std::size_t kFlags = 16;  // bytes of 100 bits, in whole words
    constexpr std::size_t kSizes = 100 * sizeof(std::uint16_t);
    const auto first = sizes_allocated_by(fragment(2, 0, 100).payload_of_size(1400));
    ASSERT_THAT(first, SizeIs(4));
    EXPECT_THAT(std::vector(first.begin() + 1, first.end()), ElementsAre(kFlags, kSizes, kSlots));
    for (int i = 1; i < 99; ++i) {
        EXPECT_THAT(sizes_allocated_by(fragment(2, i, 100).payload_of_size(1400)), IsEmpty());
    }
    EXPECT_THAT(sizes_allocated_by(fragment(2, 99, 100).payload_of_size(50)),
                ElementsAre(99 * 1400 + 50));
}

TEST_F(FragmentReassembly, AFrameThatFallsOutOfTheRingIsReleasedAtOnce) {
    for (std::uint32_t id = 1; id <= 6; ++id) {
        deliver(fragment(id, 0, 1));
    }
    const void* const oldest = peer.frame_queue().at(0).data();
    const Bytes seventh = fragment(7, 0, 1).build();
    const auto log = test::allocations_of(
        [&] { receiver.handle_fragment(seventh.data(), static_cast<int>(seventh.size())); });
    EXPECT_THAT(log.releases(), testing::Contains(oldest));
}

TEST_F(FragmentReassembly, FragmentsOlderThanTheLastCompletedFrameAreDropped) {
    deliver(fragment(10, 0, 1));
    EXPECT_EQ(printed_by([&] {
                  deliver(fragment(9, 0, 1));
                  deliver(fragment(9, 0, 2));
                  deliver(fragment(0, 0, 1));
              }),
              kNothing);
    EXPECT_THAT(queued_frames(), SizeIs(1));
    EXPECT_THAT(peer.partial_frames(), IsEmpty());
}

TEST_F(FragmentReassembly, FrameIdsDoNotWrap) {
    deliver(fragment(0xFFFFFFFF, 0, 1));
    deliver(fragment(0, 0, 1));
    deliver(fragment(0x80000000, 0, 1));
    EXPECT_THAT(queued_frames(), SizeIs(1));
    EXPECT_EQ(peer.last_completed_frame_id(), 0xFFFFFFFFU);
}

TEST_F(FragmentReassembly, LateFragmentOfTheLastCompletedFrameStartsItAgain) {
    deliver(fragment(10, 0, 2));
    deliver(fragment(10, 1, 2));
    deliver(fragment(10, 1, 2));
    ASSERT_THAT(pending_ids(), ElementsAre(10U));
    EXPECT_EQ(peer.partial_frames().at(10).received_fragments, 1);
    EXPECT_THAT(queued_frames(), SizeIs(1));
}

TEST_F(FragmentReassembly, LateCopyOfAOneFragmentFrameDeliversItAgain) {
    deliver(fragment(10, 0, 1));
    deliver(fragment(10, 0, 1));
    EXPECT_THAT(queued_frames(), ElementsAre(fragment(10, 0, 1).payload_bytes(),
                                             fragment(10, 0, 1).payload_bytes()));
    EXPECT_EQ(peer.last_completed_frame_id(), 10U);
}

TEST_F(FragmentReassembly, CompletionErasesOlderFramesSilentlyAndKeepsNewerOnes) {
    begin_frames(11, 3);
    EXPECT_EQ(printed_by([&] { deliver(fragment(12, 1, 2)); }), kNothing);
    EXPECT_THAT(pending_ids(), ElementsAre(13U));
    EXPECT_THAT(queued_frames(), SizeIs(1));
    EXPECT_FALSE(receiver.needs_keyframe_request());
}

TEST_F(FragmentReassembly, CompletionErasesOlderFramesWhateverGapItLeaves) {
    // The frame completed last, its successors, and frames as far apart as numbers can be.
    constexpr std::uint32_t kLastId = 0xFFFFFFFF;
    const std::vector<std::uint32_t> ids = {10, 11, 12, 14, 15, 19, 40, 41, 90, kLastId};
    for (const std::uint32_t completed : ids) {
        SCOPED_TRACE(completed);
        auto another = std::make_unique<VideoReceiver>();
        VideoReceiverPeer its(*another);
        its.go_live_without_decoder();
        const auto deliver_there = [&](const FragmentBuilder& one) {
            const Bytes datagram = one.build();
            another->handle_fragment(datagram.data(), static_cast<int>(datagram.size()));
        };
        deliver_there(fragment(10, 0, 1));
        std::vector<std::uint32_t> newer;
        for (const std::uint32_t id : ids) {
            deliver_there(fragment(id, 0, 2));
            if (id > completed) {
                newer.push_back(id);
            }
        }
        deliver_there(fragment(completed, 1, 2));
        std::vector<std::uint32_t> left;
        for (const auto& [id, frame] : its.partial_frames()) {
            left.push_back(id);
        }
        EXPECT_THAT(left, testing::UnorderedElementsAreArray(newer));
        EXPECT_EQ(its.last_completed_frame_id(), completed);
        (void)printed_by([&] { another.reset(); });
    }
}

TEST_F(FragmentReassembly, OlderFramesGoSilentlyAtACompletionEvenWhenOverdue) {
    deliver(fragment(11, 0, 2));
    pass(kTimeout + 1ms);
    EXPECT_EQ(printed_by([&] { deliver(fragment(12, 0, 1)); }), kNothing);
    EXPECT_THAT(pending_ids(), IsEmpty());
    EXPECT_FALSE(receiver.needs_keyframe_request());
}

TEST_F(FragmentReassembly, AnOverdueFrameIsStillDeliveredByItsLastFragment) {
    deliver(fragment(1, 0, 2));
    pass(1h);
    EXPECT_EQ(printed_by([&] { deliver(fragment(1, 1, 2)); }), kNothing);
    EXPECT_THAT(queued_frames(), SizeIs(1));
    EXPECT_FALSE(receiver.needs_keyframe_request());
}

// One datagram carries at most 1400 bytes and a frame at most 1000 of them, so these two sizes can
// only be planted.
TEST_F(FragmentReassembly, AFrameOf10485760BytesIsStillDelivered) {
    plant_frame(3, 161, 160, 65'535, 160 * 1400 + 65'535);
    deliver(fragment(3, 160, 161).payload_of_size(160));
    ASSERT_THAT(queued_frames(), SizeIs(1));
    EXPECT_THAT(queued_frames()[0], SizeIs(10'485'760));
}

TEST_F(FragmentReassembly, ALargerFrameIsForgottenAndItsBytesStayCounted) {
    deliver(fragment(9, 0, 2));
    pass(kTimeout + 1ms);  // frame 9 stays: the call ends before the search for overdue frames
    plant_frame(3, 161, 160, 65'535, 160 * 1400 + 65'535);
    unaccounted_bytes = peer.partial_frames().at(3).data.capacity();
    int notifications = 0;
    hook__ZNSt18condition_variable10notify_oneEv = [&](auto) { ++notifications; };

    EXPECT_EQ(printed_by([&] { deliver(fragment(3, 160, 161).payload_of_size(161)); }), kNothing);
    EXPECT_THAT(pending_ids(), ElementsAre(9U));
    EXPECT_EQ(peer.last_completed_frame_id(), 0U);
    EXPECT_THAT(peer.frame_queue(), IsEmpty());
    EXPECT_EQ(notifications, 0);
}

// ---- the ring ----

class FragmentReassemblyRing : public FragmentReassembly {
  protected:
    // Completes the one-fragment frames up to `last`; frame n holds the one byte n.
    void complete_frames_up_to(std::uint32_t last) {
        for (; next <= last; ++next) {
            deliver(fragment(next, 0, 1).payload({static_cast<std::uint8_t>(next)}));
        }
    }

    std::uint32_t next = 1;
};

TEST_F(FragmentReassemblyRing, GrowsToExactlySixSlotsAtTheFirstFrame) {
    deliver(fragment(1, 0, 2));
    EXPECT_THAT(peer.frame_queue(), IsEmpty());
    deliver(fragment(1, 1, 2));
    EXPECT_THAT(peer.frame_queue(), SizeIs(6));
    complete_frames_up_to(20);
    EXPECT_THAT(peer.frame_queue(), SizeIs(6));
}

TEST_F(FragmentReassemblyRing, HoldsSixFrames) {
    complete_frames_up_to(5);
    EXPECT_THAT(peer.frame_queue(),
                ElementsAre(Bytes{1}, Bytes{2}, Bytes{3}, Bytes{4}, Bytes{5}, Bytes{}));
    EXPECT_EQ(peer.queue_head(), 0U);
    EXPECT_EQ(peer.queue_tail(), 5U);
    EXPECT_EQ(peer.queue_count(), 5U);
    complete_frames_up_to(6);
    EXPECT_THAT(peer.frame_queue(),
                ElementsAre(Bytes{1}, Bytes{2}, Bytes{3}, Bytes{4}, Bytes{5}, Bytes{6}));
    EXPECT_EQ(peer.queue_head(), 0U);
    EXPECT_EQ(peer.queue_tail(), 0U);
    EXPECT_EQ(peer.queue_count(), 6U);
}

TEST_F(FragmentReassemblyRing, SeventhFrameOverwritesTheOldestSilently) {
    complete_frames_up_to(6);
    EXPECT_EQ(printed_by([this] { complete_frames_up_to(7); }), kNothing);
    EXPECT_THAT(peer.frame_queue(),
                ElementsAre(Bytes{7}, Bytes{2}, Bytes{3}, Bytes{4}, Bytes{5}, Bytes{6}));
    EXPECT_EQ(peer.queue_head(), 1U);
    EXPECT_EQ(peer.queue_tail(), 1U);
    EXPECT_EQ(peer.queue_count(), 6U);
    EXPECT_FALSE(receiver.needs_keyframe_request());
}

TEST_F(FragmentReassemblyRing, KeepsTheNewestSixOfThirteenFrames) {
    complete_frames_up_to(13);
    EXPECT_THAT(peer.frame_queue(),
                ElementsAre(Bytes{13}, Bytes{8}, Bytes{9}, Bytes{10}, Bytes{11}, Bytes{12}));
    EXPECT_EQ(peer.queue_head(), 1U);
    EXPECT_EQ(peer.queue_tail(), 1U);
    EXPECT_EQ(peer.queue_count(), 6U);
}

TEST_F(FragmentReassemblyRing, FillsOnWhereADrainedRingEnded) {
    complete_frames_up_to(4);
    peer.queue_head() = peer.queue_tail();  // as the decode thread leaves it
    peer.queue_count() = 0;
    complete_frames_up_to(7);
    EXPECT_THAT(queued_frames(), ElementsAre(Bytes{5}, Bytes{6}, Bytes{7}));
    EXPECT_EQ(peer.queue_head(), 4U);
    EXPECT_EQ(peer.queue_tail(), 1U);
    EXPECT_EQ(peer.queue_count(), 3U);
}

TEST_F(FragmentReassemblyRing, IsFilledWithTheRingsMutexHeldInsideTheFramesMutex) {
    hook__ZNSt6chrono3_V212steady_clock3nowEv = nullptr;  // for the deadline
    std::atomic<bool> done{false};
    std::jthread caller;  // joins also when an assertion leaves early
    {
        const std::lock_guard ring_is_busy(peer.queue_mutex());
        caller = std::jthread([&] {
            complete_frames_up_to(1);
            done = true;
        });
        const auto deadline = std::chrono::steady_clock::now() + 60s;
        while (peer.frames_mutex().try_lock()) {  // until the caller is inside
            peer.frames_mutex().unlock();
            ASSERT_LT(std::chrono::steady_clock::now(), deadline);
            std::this_thread::yield();
        }
        EXPECT_FALSE(done);
        EXPECT_EQ(peer.queue_count(), 0U);
    }
    caller.join();
    EXPECT_EQ(peer.queue_count(), 1U);
}

TEST_F(FragmentReassemblyRing, NotifiesAfterReleasingTheRingAndBeforeReleasingTheFrames) {
    deliver(fragment(1, 0, 2));
    int notifications = 0;
    hook__ZNSt18condition_variable10notify_oneEv = [&](std::condition_variable* condition) {
        ++notifications;
        EXPECT_EQ(condition, &peer.queue_cv());
        bool ring_was_free = false;
        bool frames_were_free = false;
        std::thread([&] {
            ring_was_free = peer.queue_mutex().try_lock();
            if (ring_was_free) {
                peer.queue_mutex().unlock();
            }
            frames_were_free = peer.frames_mutex().try_lock();
            if (frames_were_free) {
                peer.frames_mutex().unlock();
            }
        }).join();
        EXPECT_TRUE(ring_was_free);
        EXPECT_FALSE(frames_were_free);
        // The frame is in the ring; what reassembly remembers of it changes afterwards.
        EXPECT_EQ(peer.queue_count(), 1U);
        EXPECT_EQ(peer.last_completed_frame_id(), 0U);
        EXPECT_THAT(pending_ids(), UnorderedElementsAre(1U, 2U));
    };
    deliver(fragment(2, 0, 1));
    EXPECT_EQ(notifications, 1);
    EXPECT_TRUE(peer.frames_mutex().try_lock());
    peer.frames_mutex().unlock();
}

TEST_F(FragmentReassemblyRing, NotifiesOnceForEachFrameAndForNothingElse) {
    int notifications = 0;
    hook__ZNSt18condition_variable10notify_oneEv = [&](auto) { ++notifications; };
    deliver(fragment(1, 0, 2));
    deliver(fragment(1, 0, 2));
    deliver(fragment(1, 5, 2));
    EXPECT_EQ(notifications, 0);
    deliver(fragment(1, 1, 2));
    EXPECT_EQ(notifications, 1);
    next = 2;
    complete_frames_up_to(10);  // the last four into a full ring
    EXPECT_EQ(notifications, 10);
}

// ---- eviction ----

class FragmentReassemblyEviction : public FragmentReassembly {
  protected:
    // Entries of the largest kind: 1,400,000 bytes each.
    void begin_large_frames(std::uint32_t first_id, std::uint32_t count) {
        for (std::uint32_t i = 0; i < count; ++i) {
            deliver(fragment(first_id + i, 0, 1000));
        }
    }
};

TEST_F(FragmentReassemblyEviction, A61stFrameBringsTheTableDownTo30First) {
    begin_frames(1, 60);
    EXPECT_THAT(peer.partial_frames(), SizeIs(60));
    EXPECT_EQ(printed_by([&] { deliver(fragment(100, 0, 2)); }), kNothing);
    EXPECT_THAT(peer.partial_frames(), SizeIs(31));
    EXPECT_EQ(peer.partial_frames().count(100), 1U);
    EXPECT_FALSE(receiver.needs_keyframe_request());
}

TEST_F(FragmentReassemblyEviction, SixtyFramesMayBePending) {
    begin_frames(1, 59);
    deliver(fragment(60, 0, 2));
    EXPECT_THAT(peer.partial_frames(), SizeIs(60));
}

TEST_F(FragmentReassemblyEviction, FragmentsOfAKnownFrameEvictNothing) {
    begin_frames(1, 60);
    deliver(fragment(33, 0, 2));
    deliver(fragment(34, 2, 2));
    EXPECT_THAT(peer.partial_frames(), SizeIs(60));
    deliver(fragment(1, 1, 2));  // completes and leaves the table, alone
    EXPECT_THAT(peer.partial_frames(), SizeIs(59));
}

TEST_F(FragmentReassemblyEviction, FragmentsOlderThanTheLastCompletedFrameEvictNothing) {
    deliver(fragment(50, 0, 1));
    begin_frames(51, 60);
    deliver(fragment(49, 0, 2));
    EXPECT_THAT(peer.partial_frames(), SizeIs(60));
}

TEST_F(FragmentReassemblyEviction, ANewFrameEvictsEvenWhenItsFragmentIsThenRefused) {
    begin_frames(1, 60);
    deliver(fragment(100, 2, 2));
    EXPECT_THAT(peer.partial_frames(), SizeIs(31));
    EXPECT_EQ(peer.partial_frames().at(100).received_fragments, 0);
}

TEST_F(FragmentReassemblyEviction, EvictedFramesAreNeitherReportedNorAskedForEvenWhenOverdue) {
    begin_frames(1, 60);
    pass(kTimeout + 1ms);
    const Printed printed = printed_by([&] { deliver(fragment(100, 0, 2)); });
    // The 30 that the eviction left are overdue: a line each, and the request.
    EXPECT_EQ(printed.out, "");
    EXPECT_THAT(lines_of(printed.err), SizeIs(31));
    EXPECT_THAT(pending_ids(), ElementsAre(100U));
}

TEST_F(FragmentReassemblyEviction, ByteBudgetOf52428800BringsTheTableDownTo30) {
    begin_large_frames(1, 37);
    deliver(fragment(38, 0, 449));
    ASSERT_EQ(peer.partial_frames_bytes(), 52'428'600U);
    deliver(fragment(39, 0, 1000));  // below the budget: all stay
    EXPECT_THAT(peer.partial_frames(), SizeIs(39));
    ASSERT_GE(peer.partial_frames_bytes(), kByteLimit);
    EXPECT_EQ(printed_by([&] { deliver(fragment(40, 0, 2)); }), kNothing);
    EXPECT_THAT(peer.partial_frames(), SizeIs(31));
    EXPECT_EQ(peer.partial_frames().count(40), 1U);
    EXPECT_FALSE(receiver.needs_keyframe_request());
}

TEST_F(FragmentReassemblyEviction, ByteBudgetIsUsedUpAtExactly52428800) {
    begin_frames(1, 40);
    unaccounted_bytes = kByteLimit - 1 - peer.partial_frames_bytes();
    peer.partial_frames_bytes() += unaccounted_bytes;
    deliver(fragment(41, 0, 2));
    EXPECT_THAT(peer.partial_frames(), SizeIs(41));

    const std::uint64_t missing = kByteLimit - held_bytes();
    peer.partial_frames_bytes() = kByteLimit;
    unaccounted_bytes = missing;
    deliver(fragment(42, 0, 2));
    EXPECT_THAT(peer.partial_frames(), SizeIs(31));
}

TEST_F(FragmentReassemblyEviction, ThirtyFramesStayHoweverManyBytesTheyHold) {
    begin_frames(1, 30);
    unaccounted_bytes = kByteLimit;
    peer.partial_frames_bytes() += kByteLimit;
    deliver(fragment(31, 0, 2));
    EXPECT_THAT(peer.partial_frames(), SizeIs(31));
}

// ---- overdue frames ----

class FragmentReassemblyTimeout : public FragmentReassembly {
  protected:
    // What the next accepted fragment makes the receiver print. It is all of frame 0, so that it
    // leaves nothing pending, takes nothing else with it, and may come again and again.
    Printed next_fragment() {
        return printed_by([this] { deliver(fragment(0, 0, 1)); });
    }

    // The next `count` of the frame's 11 fragments, 40 ms apart.
    void deliver_slowly(std::uint32_t frame, int count) {
        for (int i = 0; i < count; ++i) {
            deliver(fragment(frame, next_slow_index++ % 11, 11));
            pass(40ms);
        }
    }

    int next_slow_index = 0;
};

TEST_F(FragmentReassemblyTimeout, AFrame251MsOldIsReportedAndAKeyframeRequested) {
    deliver(fragment(7, 0, 4));
    deliver(fragment(7, 2, 4));
    pass(251ms);
    EXPECT_EQ(
        printed_by([&] { deliver(fragment(8, 0, 2)); }),
        (Printed{.out = "",
                 .err = "[VideoReceiver] Dropped frame 7: 2/4 fragments received (50.0% loss)\n"
                        "[VideoReceiver] Requesting keyframe due to dropped frames\n"}));
    EXPECT_THAT(pending_ids(), ElementsAre(8U));
    EXPECT_TRUE(receiver.needs_keyframe_request());
}

TEST_F(FragmentReassemblyTimeout, AFrameOfExactly250MsIsKept) {
    deliver(fragment(7, 0, 4));
    pass(kTimeout);
    EXPECT_EQ(next_fragment(), kNothing);
    EXPECT_EQ(peer.partial_frames().count(7), 1U);
    EXPECT_FALSE(receiver.needs_keyframe_request());
}

TEST_F(FragmentReassemblyTimeout, AFrameTheLeastBitOlderIsDropped) {
    deliver(fragment(7, 0, 4));
    pass(kTimeout + 1ns);
    EXPECT_EQ(next_fragment().err,
              "[VideoReceiver] Dropped frame 7: 1/4 fragments received (75.0% loss)\n"
              "[VideoReceiver] Requesting keyframe due to dropped frames\n");
    EXPECT_EQ(peer.partial_frames().count(7), 0U);
}

TEST_F(FragmentReassemblyTimeout, NothingIsDroppedUntilAnotherFragmentIsAccepted) {
    deliver(fragment(5, 0, 1));
    deliver(fragment(7, 0, 4));
    deliver(fragment(8, 0, 2));
    pass(kTimeout + 1ms);
    EXPECT_EQ(printed_by([&] {
                  EXPECT_FALSE(receiver.needs_keyframe_request());
                  deliver(fragment(9, 0, 0));   // malformed
                  deliver(fragment(4, 0, 2));   // older than the last completed frame
                  deliver(fragment(8, 0, 2));   // a copy
                  deliver(fragment(8, 2, 2));   // beyond its frame's count
                  deliver(fragment(10, 7, 2));  // the same, for a frame begun by it
              }),
              kNothing);
    EXPECT_THAT(pending_ids(), UnorderedElementsAre(7U, 8U, 10U));
    EXPECT_FALSE(receiver.needs_keyframe_request());
}

TEST_F(FragmentReassemblyTimeout, AnOverdueFrameIsDroppedByItsOwnFragmentThatDoesNotCompleteIt) {
    deliver(fragment(7, 0, 4));
    deliver(fragment(7, 1, 4));
    pass(kTimeout + 1ms);
    EXPECT_EQ(printed_by([&] { deliver(fragment(7, 2, 4)); }).err,
              "[VideoReceiver] Dropped frame 7: 3/4 fragments received (25.0% loss)\n"
              "[VideoReceiver] Requesting keyframe due to dropped frames\n");
    EXPECT_THAT(pending_ids(), IsEmpty());
}

// What arrives after the drop starts the frame again, with a time of its own. Nothing will complete
// it, so it is in turn overdue when the next frame, as slow, is still arriving.
TEST_F(FragmentReassemblyTimeout, AFrameSlowerThan250MsIsDroppedTwiceWithTwoRequests) {
    EXPECT_EQ(printed_by([this] { deliver_slowly(7, 8); }).err,
              "[VideoReceiver] Dropped frame 7: 8/11 fragments received (27.3% loss)\n"
              "[VideoReceiver] Requesting keyframe due to dropped frames\n");
    EXPECT_TRUE(receiver.needs_keyframe_request());

    EXPECT_EQ(printed_by([this] { deliver_slowly(7, 3); }), kNothing);
    ASSERT_THAT(pending_ids(), ElementsAre(7U));
    EXPECT_FALSE(receiver.needs_keyframe_request());

    EXPECT_EQ(printed_by([this] { deliver_slowly(8, 5); }).err,
              "[VideoReceiver] Dropped frame 7: 3/11 fragments received (72.7% loss)\n"
              "[VideoReceiver] Requesting keyframe due to dropped frames\n");
    EXPECT_TRUE(receiver.needs_keyframe_request());
    EXPECT_THAT(queued_frames(), IsEmpty());
}

TEST_F(FragmentReassemblyTimeout, TheRestOfASlowFrameGoesSilentlyWhenTheNextFrameCompletesInTime) {
    (void)printed_by([this] { deliver_slowly(7, 11); });
    ASSERT_TRUE(receiver.needs_keyframe_request());
    ASSERT_THAT(pending_ids(), ElementsAre(7U));
    EXPECT_EQ(printed_by([this] {
                  deliver(fragment(8, 0, 1));
                  pass(kTimeout);
                  deliver(fragment(9, 0, 1));
              }),
              kNothing);
    EXPECT_FALSE(receiver.needs_keyframe_request());
}

TEST_F(FragmentReassemblyTimeout, OverdueNewerFramesAreReportedAtACompletion) {
    deliver(fragment(13, 0, 2));
    pass(kTimeout + 1ms);
    EXPECT_EQ(printed_by([&] { deliver(fragment(12, 0, 1)); }).err,
              "[VideoReceiver] Dropped frame 13: 1/2 fragments received (50.0% loss)\n"
              "[VideoReceiver] Requesting keyframe due to dropped frames\n");
    EXPECT_THAT(queued_frames(), SizeIs(1));
}

TEST_F(FragmentReassemblyTimeout, EachFrameHasItsOwnTimeWhicheverGoBeforeIt) {
    deliver(fragment(5, 0, 2));
    pass(100ms);
    deliver(fragment(9, 0, 2));
    pass(100ms);
    deliver(fragment(7, 0, 2));
    deliver(fragment(5, 1, 2));  // the oldest completes, the other two stay
    ASSERT_THAT(pending_ids(), UnorderedElementsAre(7U, 9U));
    pass(kTimeout - 100ms);
    EXPECT_EQ(printed_by([this] { deliver(fragment(20, 0, 2)); }), kNothing);
    pass(1ns);
    EXPECT_EQ(printed_by([this] { deliver(fragment(21, 0, 2)); }).err,
              "[VideoReceiver] Dropped frame 9: 1/2 fragments received (50.0% loss)\n"
              "[VideoReceiver] Requesting keyframe due to dropped frames\n");
    pass(100ms - 1ns);
    EXPECT_EQ(printed_by([this] { deliver(fragment(22, 0, 2)); }), kNothing);
    pass(1ns);
    EXPECT_EQ(printed_by([this] { deliver(fragment(23, 0, 2)); }).err,
              "[VideoReceiver] Dropped frame 7: 1/2 fragments received (50.0% loss)\n");
    EXPECT_THAT(pending_ids(), UnorderedElementsAre(20U, 21U, 22U, 23U));
}

TEST_F(FragmentReassemblyTimeout, LossIsPrintedWithOneDecimal) {
    struct Row {
        int received;
        int total;
        const char* text;
    };
    const std::vector<Row> rows = {
        {0, 3, "0/3 fragments received (100.0% loss)"},
        {1, 3, "1/3 fragments received (66.7% loss)"},
        {2, 3, "2/3 fragments received (33.3% loss)"},
        {6, 7, "6/7 fragments received (14.3% loss)"},
        {15, 16, "15/16 fragments received (6.2% loss)"},  // 6.25 rounds to even
        {1, 16, "1/16 fragments received (93.8% loss)"},
        {1, 1000, "1/1000 fragments received (99.9% loss)"},
        {999, 1000, "999/1000 fragments received (0.1% loss)"},
        {0, 1, "0/1 fragments received (100.0% loss)"},
    };
    peer.keyframe_needed() = true;  // keeps the request line away
    for (const Row& row : rows) {
        deliver(fragment(7, row.total, row.total));  // begins the frame, carries no data for it
        for (int index = 0; index < row.received; ++index) {
            deliver(fragment(7, index, row.total));
        }
        pass(kTimeout + 1ms);
        EXPECT_EQ(next_fragment().err,
                  std::string("[VideoReceiver] Dropped frame 7: ") + row.text + "\n");
    }
}

TEST_F(FragmentReassemblyTimeout, FrameIdsArePrintedUnsigned) {
    deliver(fragment(0xFFFFFFFF, 0, 2));
    pass(kTimeout + 1ms);
    EXPECT_EQ(next_fragment().err,
              "[VideoReceiver] Dropped frame 4294967295: 1/2 fragments received (50.0% loss)\n"
              "[VideoReceiver] Requesting keyframe due to dropped frames\n");
}

TEST_F(FragmentReassemblyTimeout, SeveralFramesDroppedTogetherShareOneRequest) {
    begin_frames(1, 3);
    pass(kTimeout + 1ms);
    const std::vector<std::string> lines = lines_of(next_fragment().err);
    EXPECT_THAT(lines, UnorderedElementsAre(
                           "[VideoReceiver] Dropped frame 1: 1/2 fragments received (50.0% loss)",
                           "[VideoReceiver] Dropped frame 2: 1/2 fragments received (50.0% loss)",
                           "[VideoReceiver] Dropped frame 3: 1/2 fragments received (50.0% loss)",
                           "[VideoReceiver] Requesting keyframe due to dropped frames"));
    EXPECT_EQ(lines.back(), "[VideoReceiver] Requesting keyframe due to dropped frames");
}

TEST_F(FragmentReassemblyTimeout, NoSecondRequestLineWhileOneIsPending) {
    deliver(fragment(1, 0, 2));
    pass(kTimeout + 1ms);
    EXPECT_EQ(next_fragment().err,
              "[VideoReceiver] Dropped frame 1: 1/2 fragments received (50.0% loss)\n"
              "[VideoReceiver] Requesting keyframe due to dropped frames\n");

    deliver(fragment(2, 0, 2));
    pass(kTimeout + 1ms);
    EXPECT_EQ(next_fragment().err,
              "[VideoReceiver] Dropped frame 2: 1/2 fragments received (50.0% loss)\n");
    EXPECT_TRUE(receiver.needs_keyframe_request());

    deliver(fragment(3, 0, 2));  // the request was taken: the next drop asks again
    pass(kTimeout + 1ms);
    EXPECT_EQ(next_fragment().err,
              "[VideoReceiver] Dropped frame 3: 1/2 fragments received (50.0% loss)\n"
              "[VideoReceiver] Requesting keyframe due to dropped frames\n");
    EXPECT_TRUE(receiver.needs_keyframe_request());
}

TEST_F(FragmentReassemblyTimeout, ARequestOfTheDecodeThreadCountsAsPending) {
    peer.keyframe_needed() = true;
    deliver(fragment(1, 0, 2));
    pass(kTimeout + 1ms);
    EXPECT_EQ(next_fragment().err,
              "[VideoReceiver] Dropped frame 1: 1/2 fragments received (50.0% loss)\n");
    EXPECT_TRUE(receiver.needs_keyframe_request());
}

TEST_F(FragmentReassemblyTimeout, AnOverdueFrameThatMissesNothingGoesSilently) {
    plant_frame(1, 2, 2, 10, 2800);
    pass(kTimeout + 1ms);
    EXPECT_EQ(next_fragment(), kNothing);
    EXPECT_EQ(peer.partial_frames().count(1), 0U);
    EXPECT_FALSE(receiver.needs_keyframe_request());
}

// ---- the keyframe flag ----

TEST_F(FragmentReassembly, EachRequestIsReportedExactlyOnce) {
    EXPECT_FALSE(receiver.needs_keyframe_request());
    peer.keyframe_needed() = true;
    EXPECT_TRUE(receiver.needs_keyframe_request());
    EXPECT_FALSE(receiver.needs_keyframe_request());
}

TEST_F(FragmentReassembly, OneRequestIsReportedToOneOfManyAskers) {
    constexpr int kAskers = 4;
    constexpr int kRounds = 500;
    std::atomic<int> reported{0};
    std::barrier round(kAskers, [this]() noexcept { peer.keyframe_needed() = true; });
    std::vector<std::thread> askers;
    for (int i = 0; i < kAskers; ++i) {
        askers.emplace_back([&] {
            for (int n = 0; n < kRounds; ++n) {
                round.arrive_and_wait();
                reported += receiver.needs_keyframe_request() ? 1 : 0;
            }
        });
    }
    for (std::thread& asker : askers) {
        asker.join();
    }
    EXPECT_EQ(reported, kRounds);
}

// ---- threads ----

// Each of four threads delivers its own fragment of every frame, while one more drains the ring.
// However the threads interleave, frame n+1 completes after frame n, and no frame is torn.
TEST_F(FragmentReassembly, FragmentsMayComeFromSeveralThreads) {
    constexpr int kSenders = 4;
    constexpr std::uint32_t kFrames = 50;  // fewer than make an eviction necessary
    std::atomic<std::uint32_t> notifications{0};
    hook__ZNSt18condition_variable10notify_oneEv = [&](auto) { ++notifications; };

    std::vector<Bytes> drained;
    const auto drain = [&] {
        const std::lock_guard lock(peer.queue_mutex());
        for (; peer.queue_count() > 0; --peer.queue_count()) {
            drained.push_back(std::move(peer.frame_queue()[peer.queue_head()]));
            peer.queue_head() = (peer.queue_head() + 1) % 6;
        }
    };
    std::atomic<bool> all_sent{false};
    std::thread drainer([&] {
        while (!all_sent) {
            drain();
            std::this_thread::yield();
        }
    });
    std::vector<std::thread> senders;
    for (int index = 0; index < kSenders; ++index) {
        senders.emplace_back([this, index] {
            for (std::uint32_t id = 1; id <= kFrames; ++id) {
                deliver(fragment(id, index, kSenders).payload_of_size(1400));
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    all_sent = true;
    drainer.join();
    drain();

    EXPECT_EQ(notifications, kFrames);
    EXPECT_EQ(peer.last_completed_frame_id(), kFrames);
    EXPECT_THAT(peer.partial_frames(), IsEmpty());
    // A slow drainer may lose the oldest frames, never the order or the end.
    std::uint32_t id = 1;
    for (const Bytes& frame : drained) {
        const auto whole = [](std::uint32_t n) {
            Bytes bytes;
            for (int index = 0; index < kSenders; ++index) {
                const auto one = fragment(n, index, kSenders).payload_of_size(1400);
                bytes.insert(bytes.end(), one.payload_bytes().begin(), one.payload_bytes().end());
            }
            return bytes;
        };
        while (id <= kFrames && frame != whole(id)) {
            ++id;
        }
        EXPECT_LE(id, kFrames) << "a torn, repeated or misplaced frame";
        ++id;
    }
    ASSERT_THAT(drained, testing::Not(IsEmpty()));
    EXPECT_EQ(id, kFrames + 1);
}

}  // namespace
}  // namespace vesper::client
