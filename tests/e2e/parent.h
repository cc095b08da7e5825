// The parent application's end of the wire.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "net/udp_socket.h"
#include "tools/stream/free_port.h"
#include "tools/stream/packetizer.h"

namespace vesper::test {

using Message = std::vector<std::uint8_t>;

// "AUDS", the mute byte, and the volume as the machine holds it.
[[nodiscard]] Message audio_state(bool muted, float volume);

class Parent {
  public:
    // Throws std::runtime_error when no port is free.
    Parent();

    // Where the player's messages arrive.
    [[nodiscard]] std::uint16_t port() const { return port_; }

    // The application ends, and nothing listens on the port; a new one listens there again, and
    // throws std::runtime_error if the port is taken.
    void die() { socket_.reset(); }
    void come_back();

    // Sends to the player at `player_port`, in order, never more at once than fits a socket's
    // default buffer; returns when the player has taken all of them. False when it does not.
    bool send(std::span<const tools::Datagram> datagrams, std::uint16_t player_port);

    // Sends without waiting for anything, for a player that is about to end.
    void send_now(const tools::Datagram& datagram, std::uint16_t player_port);

    // The player's next message, waiting for it; empty when none comes within kPatience.
    [[nodiscard]] Message next_message();

    // The player's next message, if one has come already; empty when none has.
    [[nodiscard]] Message waiting_message();

    // Whether no message waits. After the player's end that is final.
    [[nodiscard]] bool has_no_message();

  private:
    [[nodiscard]] Message receive(int limit);  // ms

    UDPSocket socket_;
    std::uint16_t port_ = tools::free_port();
};

}  // namespace vesper::test
