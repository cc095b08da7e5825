#include "tools/stream/free_port.h"

#include "net/udp_socket.h"

namespace vesper::tools {

std::uint16_t free_port() {
    UDPSocket socket;
    return socket.bind(0) ? socket.get_bound_port() : std::uint16_t{0};
}

}  // namespace vesper::tools
