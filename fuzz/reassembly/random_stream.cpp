#include "fuzz/reassembly/random_stream.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <utility>

#include "net/stream_datagrams.h"

namespace vesper::fuzz {

namespace {

constexpr std::size_t kMaxExtraBytes = 60;  // after the payload

template <typename T, std::size_t kCount>
T one_of(RandomStream& stream, const T (&choices)[kCount]) {
    return choices[stream.below(kCount)];
}

}  // namespace

RandomStream::RandomStream(std::uint64_t seed)
    : random_(seed),
      bytes_(8192),
      buffer_(kVideoPayloadOffset + kMaxFragmentPayload + kMaxExtraBytes) {
    using namespace std::chrono_literals;
    std::generate(bytes_.begin(), bytes_.end(),
                  [this] { return static_cast<std::uint8_t>(random_()); });

    all_large_ = chance(10);
    length_ = all_large_ ? 300 : 1 + below(10'000);
    pace_ = one_of(*this, {0ns, 100ns, 10'000ns, 100'000ns, 1'000'000ns, 5'000'000ns});
    pauses_ = one_of(*this, {0U, 2U, 6U, 30U});

    largest_count_ = one_of(*this, {1U, 2U, 3U, 3U, 5U, 5U, 12U, 40U, 150U});
    if (chance(30)) {
        largest_count_ = kMaxFragmentsPerFrame;
    }
    gap_ = one_of(*this, {0U, 0U, 20U, 300U});
    abandoned_ = one_of(*this, {0U, 0U, 30U, 500U, 990U});
    one_missing_ = one_of(*this, {0U, 0U, 100U, 980U});
    constexpr std::uint32_t kLastId = std::numeric_limits<std::uint32_t>::max();
    next_frame_ = one_of(*this, {0U, 1U, kLastId / 2, static_cast<std::uint32_t>(random_()),
                                 kLastId - static_cast<std::uint32_t>(below(1500))});

    lost_ = one_of(*this, {0U, 0U, 10U, 100U, 400U});
    doubled_ = one_of(*this, {0U, 0U, 10U, 100U, 500U});
    late_ = one_of(*this, {0U, 0U, 2U, 50U});
    lies_ = one_of(*this, {0U, 0U, 5U, 50U, 300U});
    large_payloads_ = one_of(*this, {0U, 0U, 0U, 30U, 500U});
    const bool lets_large_frames_through =
        largest_count_ == kMaxFragmentsPerFrame && !all_large_ && chance(600);
    if (lets_large_frames_through) {
        abandoned_ = one_missing_ = lost_ = late_ = 0;
        lies_ = std::min(lies_, 5U);
        pace_ = 100ns;
        pauses_ = 0;
        length_ += 5000;
    }

    begin_frame();
    const std::size_t on_the_way = one_of(*this, {1U, 1U, 2U, 5U, 20U, 100U, 400U});
    line_.resize(lets_large_frames_through ? 2 : on_the_way);
    std::generate(line_.begin(), line_.end(), [this] { return sent(); });
    held_back_.fill(line_.front());
}

void RandomStream::begin_frame() {
    next_frame_ += chance(gap_) ? 1 + static_cast<std::uint32_t>(below(100)) : 0;
    const unsigned count =
        all_large_ ? kMaxFragmentsPerFrame : 1 + static_cast<unsigned>(below(largest_count_));
    current_ = {.frame = next_frame_++, .index = 0, .count = static_cast<std::uint16_t>(count)};
    if (largest_count_ == kMaxFragmentsPerFrame && chance(200)) {
        current_.count = kMaxFragmentsPerFrame;
    }
    end_ = current_.count;
    if (all_large_ || chance(abandoned_)) {
        end_ = 1 + static_cast<int>(below(std::min<std::size_t>(current_.count, 3)));
    }
    missing_ = chance(one_missing_) ? static_cast<int>(below(current_.count)) : -1;
}

RandomStream::Fragment RandomStream::sent() {
    for (;;) {
        if (current_.index >= end_) {
            begin_frame();
        }
        const Fragment fragment = current_;
        ++current_.index;
        if (fragment.index != missing_ && !chance(lost_)) {
            return fragment;
        }
    }
}

RandomStream::Fragment RandomStream::arrived() {
    Fragment& on_the_way = line_[below(line_.size())];
    const Fragment fragment = on_the_way;
    if (!chance(doubled_)) {
        on_the_way = sent();
    }
    if (chance(late_)) {
        return std::exchange(held_back_[below(held_back_.size())], fragment);
    }
    return fragment;
}

std::span<const std::uint8_t> RandomStream::next() {
    const Fragment fragment = arrived();
    VideoFragmentHeader header = {
        .frame_id = fragment.frame,
        .fragment_index = fragment.index,
        .fragment_count = fragment.count,
        .payload_size = static_cast<std::uint16_t>(1 + below(15)),
    };
    if (chance(large_payloads_)) {
        header.payload_size = static_cast<std::uint16_t>(chance(500) ? 1400 : 1 + below(1400));
    }
    std::size_t size = std::size_t{kVideoPayloadOffset} + header.payload_size;

    if (chance(lies_)) {
        const auto any16 = static_cast<std::uint16_t>(random_());
        switch (below(14)) {
            case 0:
                header.fragment_count = one_of<std::uint16_t>(*this, {0, 1, 999, 1000, 1001});
                break;
            case 1:
                header.fragment_count = any16;
                break;
            case 2:
            case 3:
                header.fragment_count = static_cast<std::uint16_t>(1 + below(6));
                break;
            case 4:
                header.fragment_index = any16;
                break;
            case 5:
            case 6:
                header.fragment_index =
                    static_cast<std::uint16_t>(header.fragment_count + below(3) - 1);
                break;
            case 7:
                header.payload_size = one_of<std::uint16_t>(*this, {0, 1401, 65'535});
                size = chance(700) ? buffer_.size() : size;
                break;
            case 8:  // one byte more than there is
                header.payload_size = static_cast<std::uint16_t>(header.payload_size + 1);
                break;
            case 9:  // all of the largest kind, and one byte short of it
                header.payload_size = 1400;
                size = kVideoPayloadOffset + 1400 - below(2);
                break;
            case 10:
                size += below(kMaxExtraBytes) % (buffer_.size() - size + 1);
                break;
            case 11:
                size = below(kVideoPayloadOffset + 2);
                break;
            case 12:
                header.frame_id += static_cast<std::uint32_t>(below(100)) - 50;
                break;
            case 13:
                header.frame_id =
                    chance(20) ? static_cast<std::uint32_t>(random_()) : header.frame_id + 2;
                break;
        }
    }

    // The whole datagram is written, then as much of it as is sent moves to the buffer's end.
    std::array<std::uint8_t, kVideoPayloadOffset> head{};
    const std::uint8_t* const random_bytes = bytes_.data() + below(bytes_.size() - buffer_.size());
    write_video_fragment_header(header, head.data());
    std::copy_n(random_bytes, kPacketHeaderSize, head.begin());  // never read
    const std::span datagram(buffer_.end() - static_cast<std::ptrdiff_t>(size), buffer_.end());
    const std::size_t from_head = std::min(size, head.size());
    std::copy_n(head.begin(), from_head, datagram.begin());
    std::copy_n(random_bytes, size - from_head,
                datagram.begin() + static_cast<std::ptrdiff_t>(from_head));
    return datagram;
}

}  // namespace vesper::fuzz
