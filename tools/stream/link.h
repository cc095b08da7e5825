// The wire between a parent and one player: the one place that every datagram in either direction
// passes through. Datagrams are submitted with the time at which they are due; a thread of the
// link's own takes each when it is due, applies the impairments, sends the result, and receives the
// player's messages.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <thread>

#include "net/stream_datagrams.h"
#include "net/udp_socket.h"
#include "tools/stream/impairments.h"
#include "tools/stream/packetizer.h"

namespace vesper::tools {

// Which way a datagram goes.
enum class Direction { kToPlayer, kFromPlayer };

class Link {
  public:
    // Callbacks; each may be empty. Called on the link's thread.
    struct Handlers {
        std::function<void()> keyframe_requested = {};
        std::function<void(const AudioState&)> audio_state_reported = {};
        // Every datagram as it is on the wire, after the impairments.
        std::function<void(Direction, std::span<const std::uint8_t>)> datagram_passed = {};
    };

    struct Counters {
        std::uint64_t datagrams_sent = 0;
        std::uint64_t bytes_sent = 0;
        std::uint64_t send_failures = 0;  // a full system buffer, or a line gives the reason
        std::uint64_t keyframe_requests = 0;
        Impairments::Counters impaired;
    };

    explicit Link(const ImpairmentSettings& impairments = {}) : impairments_(impairments) {}
    // Stops.
    ~Link();
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    // Binds 127.0.0.1:`listen_port` (0: any) for a player on 127.0.0.1:`player_port`. False, with a
    // line on standard error, when the port is taken.
    [[nodiscard]] bool open(std::uint16_t listen_port, std::uint16_t player_port);

    // The port that the player listens on, and the one that it sends to; 0 before open().
    [[nodiscard]] std::uint16_t player_port() const { return player_port_; }
    [[nodiscard]] std::uint16_t listen_port() const { return socket_.get_bound_port(); }

    // Starts the thread; once, after open().
    void start(Handlers handlers);

    // Sends `datagram` at `due`; of two that are due at the same time, the one submitted first goes
    // first. Any thread.
    void send(Datagram datagram, Clock::time_point due);

    // Whether everything submitted has been sent or was lost to an impairment. Any thread.
    [[nodiscard]] bool idle() const;

    // Sends everything that is still waiting as soon as possible. Any thread.
    void hurry();

    // Ends the thread; what is still waiting is not sent. Not from a handler.
    void stop();

    // Any thread.
    [[nodiscard]] Counters counters() const;

  private:
    void run();
    void impair_due();
    void send_departures();
    void send_now(const Datagram& datagram);
    void receive();
    [[nodiscard]] std::optional<Departure> take_due();

    // The thread's own, once started.
    UDPSocket socket_;
    std::uint16_t player_port_ = 0;
    Handlers handlers_;
    Impairments impairments_;
    std::deque<Departure> departures_;  // what the impairments left, in order of time

    std::thread thread_;
    mutable std::mutex mutex_;       // guards the rest
    std::deque<Departure> waiting_;  // submitted, in order of time
    Counters counters_;
    bool idle_ = true;
    bool running_ = false;
};

}  // namespace vesper::tools
