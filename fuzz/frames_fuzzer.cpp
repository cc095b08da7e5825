// Any sequence of encoded frames, damaged or of changing size, through the decode thread up to the
// published picture. The input: a byte that chooses the receiver's size, then for each frame u8
// flags, u16 length, that many bytes.
#include <array>

#include "fuzz/support/frames_input.h"
#include "fuzz/support/input.h"
#include "fuzz/support/live_receiver.h"
#include "tools/stream/packetizer.h"

using namespace vesper::fuzz;

namespace {

// The stream's own size, larger, smaller, and extreme shapes.
constexpr std::array<std::array<int, 2>, 8> kReceiverSizes = {
    {{64, 40}, {160, 90}, {16, 16}, {1, 1}, {33, 17}, {3, 200}, {200, 3}, {127, 65}}};

std::array<int, 2> receiver_size(std::uint8_t choice) {
    return (choice & kEveryRemainder) != 0 ? size_with_remainders(choice)
                                           : kReceiverSizes[choice % kReceiverSizes.size()];
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    prepare_process();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    InputReader input(data, size);
    const auto [width, height] = receiver_size(input.number<std::uint8_t>());
    LiveReceiver live(width, height);
    vesper::tools::VideoPacketizer packetizer;
    while (!input.done()) {
        const auto flags = input.number<std::uint8_t>();
        const auto length = input.number<std::uint16_t>();
        if (const auto frame = input.bytes(length); !frame.empty()) {
            for (const auto& datagram : packetizer.packetize(frame)) {
                live.receive(datagram);
            }
        }
        if ((flags & kQueueWithNext) == 0) {
            live.settle();
            live.receiver().render();
        }
        live.check();
    }
    live.check_still_plays();
    return 0;
}
