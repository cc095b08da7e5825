// Links all that there is, and needs neither display nor sound to run.
#include <cstdio>

#include "client/video_receiver.h"
#include "net/udp_socket.h"

int main() {
    vesper::UDPSocket socket;
    const vesper::client::VideoReceiver receiver;
    std::printf("window %u\n", receiver.get_window_id());
    return socket.bind(0) ? 0 : 1;
}
