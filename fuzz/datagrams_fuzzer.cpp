// Any sequence of datagrams, passed through the player's classification to a live receiver:
// fragments to pictures, packets to sound, with time passing and the stream ending in between.
#include "fuzz/support/datagram_steps.h"
#include "fuzz/support/good_stream.h"
#include "fuzz/support/input.h"
#include "fuzz/support/live_receiver.h"
#include "net/stream_datagrams.h"

using namespace vesper;
using namespace vesper::fuzz;

namespace {

// More than an input could contain, so that a few bytes reach the limits on memory.
void receive_fragment(InputReader& input, LiveReceiver& live) {
    VideoFragmentHeader header;
    header.frame_id = input.number<std::uint32_t>();
    header.fragment_index = input.number<std::uint16_t>();
    header.fragment_count = input.number<std::uint16_t>();
    header.payload_size = input.number<std::uint16_t>();
    std::vector<std::uint8_t> datagram(std::size_t{kVideoPayloadOffset} +
                                       header.payload_size % (kMaxFragmentPayload + 1));
    write_packet_header({}, datagram.data());
    write_video_fragment_header(header, datagram.data());
    live.receive(datagram);
}

void take_step(InputReader& input, LiveReceiver& live) {
    switch (static_cast<DatagramStep>(input.number<std::uint8_t>() % kDatagramSteps)) {
        case DatagramStep::datagram: {
            const auto length = input.number<std::uint16_t>();
            live.receive(input.bytes(length));
            break;
        }
        case DatagramStep::fragment:
            receive_fragment(input, live);
            break;
        case DatagramStep::age:
            live.age(std::chrono::milliseconds(input.number<std::uint16_t>()));
            break;
        case DatagramStep::settle:
            live.settle();
            break;
        case DatagramStep::render:
            live.receiver().render();
            break;
        case DatagramStep::volume:
            live.receiver().set_audio_volume(input.number<float>());
            break;
        case DatagramStep::ask:
            (void)live.receiver().needs_keyframe_request();
            break;
        case DatagramStep::end:
            live.receiver().mark_stream_ended();
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    prepare_process();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    LiveReceiver live(kGoodWidth, kGoodHeight);
    for (InputReader input(data, size); !input.done();) {
        take_step(input, live);
        live.check();
    }
    live.check_still_plays();
    return 0;
}
