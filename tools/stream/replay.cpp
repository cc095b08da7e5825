#include "tools/stream/replay.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "net/stream_datagrams.h"

namespace vesper::tools {

void replay(std::vector<CapturedDatagram> stream, double speed, Clock::time_point start,
            Link& link) {
    Clock::time_point due = start;
    for (CapturedDatagram& datagram : stream) {
        const std::chrono::duration<double> since_first = datagram.time - stream.front().time;
        due =
            std::max(due, start + std::chrono::duration_cast<Clock::duration>(since_first / speed));
        link.send(std::move(datagram.bytes), due);
    }
}

bool carries_sound(std::span<const CapturedDatagram> stream) {
    return std::ranges::any_of(stream, [](const CapturedDatagram& datagram) {
        return datagram.bytes.size() > kPacketHeaderSize &&
               (read_packet_header(datagram.bytes.data()).flags & kScreenAudioFlag) != 0;
    });
}

}  // namespace vesper::tools
