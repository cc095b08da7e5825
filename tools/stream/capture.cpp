#include "tools/stream/capture.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/udp.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "net/stream_datagrams.h"

namespace vesper::tools {

namespace {

using std::chrono::microseconds;
using std::chrono::seconds;

constexpr int kLargestPacket = 65'535;  // bytes; the most that IPv4's length field can express

constexpr std::size_t kIpHeaderSize = sizeof(ip);       // bytes; without options
constexpr std::size_t kUdpHeaderSize = sizeof(udphdr);  // bytes
constexpr unsigned kIpVersion = 4;
constexpr unsigned kIpWord = 4;           // bytes; the unit of IPv4's header length field
constexpr std::uint8_t kTimeToLive = 64;  // as Linux sends

// The sum of `bytes` as big-endian 16-bit words, an odd last byte being the upper half of one. It
// cannot overflow: a packet has fewer than 2^15 words of fewer than 2^16 each.
std::uint32_t sum_of_words(std::span<const std::uint8_t> bytes) {
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        sum += i % 2 == 0 ? std::uint32_t{bytes[i]} << 8 : bytes[i];
    }
    return sum;
}

// The Internet checksum (RFC 1071) of words that add up to `sum`, in network order.
std::uint16_t checksum(std::uint32_t sum) {
    while (sum > 0xFFFF) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return htons(static_cast<std::uint16_t>(~sum));
}

template <typename Header>
std::span<const std::uint8_t> bytes_of(const Header& header) {
    return {reinterpret_cast<const std::uint8_t*>(&header), sizeof(header)};
}

ip make_ip_header(std::size_t packet_size) {
    ip header{};
    header.ip_v = kIpVersion;
    header.ip_hl = kIpHeaderSize / kIpWord;
    header.ip_len = htons(static_cast<std::uint16_t>(packet_size));
    header.ip_off = htons(IP_DF);
    header.ip_ttl = kTimeToLive;
    header.ip_p = IPPROTO_UDP;
    header.ip_src.s_addr = htonl(INADDR_LOOPBACK);
    header.ip_dst.s_addr = htonl(INADDR_LOOPBACK);
    header.ip_sum = checksum(sum_of_words(bytes_of(header)));
    return header;
}

udphdr make_udp_header(std::uint16_t source_port, std::uint16_t destination_port,
                       std::span<const std::uint8_t> payload) {
    const auto length = static_cast<std::uint16_t>(kUdpHeaderSize + payload.size());
    udphdr header{};
    header.uh_sport = htons(source_port);
    header.uh_dport = htons(destination_port);
    header.uh_ulen = htons(length);
    // The pseudo header of RFC 768: both addresses, the protocol and, once more, the length.
    const in_addr_t address = htonl(INADDR_LOOPBACK);
    header.uh_sum = checksum(2 * sum_of_words(bytes_of(address)) + IPPROTO_UDP + length +
                             sum_of_words(bytes_of(header)) + sum_of_words(payload));
    if (header.uh_sum == 0) {
        header.uh_sum = 0xFFFF;  // 0 would mean "no checksum"
    }
    return header;
}

Datagram make_packet(std::uint16_t source_port, std::uint16_t destination_port,
                     std::span<const std::uint8_t> payload) {
    const std::size_t size = kIpHeaderSize + kUdpHeaderSize + payload.size();
    const ip ip_header = make_ip_header(size);
    const udphdr udp_header = make_udp_header(source_port, destination_port, payload);
    Datagram packet;
    packet.reserve(size);
    for (const auto part : {bytes_of(ip_header), bytes_of(udp_header), payload}) {
        packet.insert(packet.end(), part.begin(), part.end());
    }
    return packet;
}

// Bytes in front of the IP header, by the kind of interface that a capture was taken from.
std::optional<std::size_t> link_header_size(int link_type) {
    switch (link_type) {
        case DLT_RAW:
        case DLT_IPV4:
            return 0;
        case DLT_EN10MB:  // Linux' loopback interface
            return 14;
        case DLT_LINUX_SLL:  // its "any" interface
            return 16;
        case DLT_LINUX_SLL2:
            return 20;
        default:
            return std::nullopt;
    }
}

template <typename Header>
Header read_header(std::span<const std::uint8_t> from) {
    Header header;
    std::memcpy(&header, from.data(), sizeof(header));
    return header;
}

// The datagram in an IP packet; nothing when it is no whole UDP datagram over IPv4.
std::optional<CapturedDatagram> read_packet(std::span<const std::uint8_t> packet) {
    if (packet.size() < kIpHeaderSize) {
        return std::nullopt;
    }
    const auto ip_header = read_header<ip>(packet);
    const std::size_t ip_size = std::size_t{ip_header.ip_hl} * kIpWord;
    const bool is_piece = (ntohs(ip_header.ip_off) & (IP_MF | IP_OFFMASK)) != 0;
    if (ip_header.ip_v != kIpVersion || ip_header.ip_p != IPPROTO_UDP || is_piece ||
        ip_size < kIpHeaderSize || packet.size() < ip_size + kUdpHeaderSize) {
        return std::nullopt;
    }
    const auto datagram = packet.subspan(ip_size);
    const auto udp_header = read_header<udphdr>(datagram);
    const std::size_t length = ntohs(udp_header.uh_ulen);
    if (length < kUdpHeaderSize || length > datagram.size()) {
        return std::nullopt;
    }
    const auto payload = datagram.subspan(kUdpHeaderSize, length - kUdpHeaderSize);
    return CapturedDatagram{.source_port = ntohs(udp_header.uh_sport),
                            .destination_port = ntohs(udp_header.uh_dport),
                            .bytes = {payload.begin(), payload.end()}};
}

// A capture that is open for reading.
class CaptureFile {
  public:
    explicit CaptureFile(const std::string& path) : path_(path) {}
    ~CaptureFile() {
        if (pcap_ != nullptr) {
            pcap_close(pcap_);
        }
    }
    CaptureFile(const CaptureFile&) = delete;
    CaptureFile& operator=(const CaptureFile&) = delete;

    [[nodiscard]] bool open() {
        std::FILE* file = std::fopen(path_.c_str(), "rb");
        if (file == nullptr) {
            std::fprintf(stderr, "%s: %s\n", path_.c_str(), std::strerror(errno));
            return false;
        }
        std::array<char, PCAP_ERRBUF_SIZE> error{};
        pcap_ = pcap_fopen_offline(file, error.data());
        if (pcap_ == nullptr) {
            std::fclose(file);
            std::fprintf(stderr, "%s: not a capture: %s\n", path_.c_str(), error.data());
            return false;
        }
        const auto header_size = link_header_size(pcap_datalink(pcap_));
        if (!header_size) {
            std::fprintf(stderr, "%s: not captured on a loopback interface\n", path_.c_str());
            return false;
        }
        link_header_size_ = *header_size;
        return true;
    }

    // All datagrams up to the end; nothing, with a line, when the file ends too early.
    [[nodiscard]] std::optional<std::vector<CapturedDatagram>> read() {
        std::vector<CapturedDatagram> datagrams;
        pcap_pkthdr* header = nullptr;
        const u_char* data = nullptr;
        int result = 0;
        while ((result = pcap_next_ex(pcap_, &header, &data)) == 1) {
            if (header->caplen < header->len) {
                std::fprintf(stderr, "%s: captured with too small a limit on the packets' size\n",
                             path_.c_str());
                return std::nullopt;
            }
            if (header->caplen < link_header_size_) {
                continue;
            }
            auto datagram = read_packet(std::span(data, header->caplen).subspan(link_header_size_));
            if (datagram) {
                datagram->time = seconds(header->ts.tv_sec) + microseconds(header->ts.tv_usec);
                datagrams.push_back(std::move(*datagram));
            }
        }
        if (result != PCAP_ERROR_BREAK) {
            std::fprintf(stderr, "%s: truncated or damaged after %zu datagrams: %s\n",
                         path_.c_str(), datagrams.size(), pcap_geterr(pcap_));
            return std::nullopt;
        }
        return datagrams;
    }

  private:
    const std::string& path_;
    pcap_t* pcap_ = nullptr;
    std::size_t link_header_size_ = 0;  // bytes
};

}  // namespace

bool CaptureWriter::open(const std::string& path) {
    path_ = path;
    pcap_.reset(pcap_open_dead(DLT_RAW, kLargestPacket));
    if (!pcap_) {
        std::fprintf(stderr, "%s: no memory for a capture\n", path.c_str());
        return false;
    }
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        std::fprintf(stderr, "%s: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    dumper_.reset(pcap_dump_fopen(pcap_.get(), file));
    if (!dumper_ || pcap_dump_flush(dumper_.get()) < 0) {
        std::fprintf(stderr, "%s: cannot be written\n", path.c_str());
        dumper_.reset();
        return false;
    }
    opened_at_ = std::chrono::system_clock::now();
    opened_at_steady_ = SteadyClock::now();
    return true;
}

void CaptureWriter::write(std::uint16_t source_port, std::uint16_t destination_port,
                          std::span<const std::uint8_t> bytes) {
    const Datagram packet = make_packet(source_port, destination_port, bytes);
    const std::lock_guard lock(mutex_);
    if (!dumper_) {
        return;
    }
    const microseconds time = now();
    pcap_pkthdr header{};
    header.ts.tv_sec = std::chrono::duration_cast<seconds>(time).count();
    header.ts.tv_usec = (time % seconds(1)).count();
    header.caplen = static_cast<bpf_u_int32>(packet.size());
    header.len = header.caplen;
    pcap_dump(reinterpret_cast<u_char*>(dumper_.get()), &header, packet.data());
    if (pcap_dump_flush(dumper_.get()) < 0) {
        std::fprintf(stderr, "%s: %s; the capture ends here\n", path_.c_str(),
                     std::strerror(errno));
        dumper_.reset();
    }
}

microseconds CaptureWriter::now() const {
    return std::chrono::duration_cast<microseconds>(opened_at_.time_since_epoch() +
                                                    (SteadyClock::now() - opened_at_steady_));
}

std::optional<std::vector<CapturedDatagram>> read_capture(const std::string& path) {
    CaptureFile file(path);
    if (!file.open()) {
        return std::nullopt;
    }
    return file.read();
}

std::vector<CapturedDatagram> sent_to_player(std::vector<CapturedDatagram> capture) {
    std::erase_if(capture, [](const CapturedDatagram& datagram) {
        return datagram.bytes.empty() || is_keyframe_request(datagram.bytes) ||
               read_audio_state(datagram.bytes).has_value();
    });
    if (!capture.empty()) {
        std::erase_if(capture, [port = capture.front().destination_port](const auto& datagram) {
            return datagram.destination_port != port;
        });
    }
    return capture;
}

}  // namespace vesper::tools
