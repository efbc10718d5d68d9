#include "tools/tcp_capture.h"

#include <vector>

namespace tovra::testing {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t kFin = 0x01, kSyn = 0x02, kPush = 0x08, kAck = 0x10;
constexpr std::uint32_t kLoopback = 0x7F000001;
// Fixed start values and clock keep the file the same from run to run but for the ports.
constexpr std::uint32_t kInitialSequence[2] = {0x10000000, 0x20000000};
constexpr std::uint32_t kFirstSecond = 1700000000;

void put16(Bytes& out, std::uint32_t value) {
    out.push_back(static_cast<std::uint8_t>(value >> 8));
    out.push_back(static_cast<std::uint8_t>(value));
}

void put32(Bytes& out, std::uint32_t value) {
    put16(out, value >> 16);
    put16(out, value & 0xFFFF);
}

void putLittle32(Bytes& out, std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<std::uint8_t>(value >> shift));
}

std::uint16_t ipChecksum(std::span<const std::uint8_t> header) {
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i + 1 < header.size(); i += 2) {
        sum += static_cast<std::uint32_t>(header[i] << 8 | header[i + 1]);
    }
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum);
}

}  // namespace

TcpCapture::TcpCapture(const std::filesystem::path& file) : out_(file, std::ios::binary) {
    Bytes header;
    putLittle32(header, 0xA1B2C3D4);  // microsecond time stamps
    putLittle32(header, 0x00040002);  // version 2.4
    putLittle32(header, 0);           // time zone
    putLittle32(header, 0);           // accuracy
    putLittle32(header, 65535 + 54);  // snap length: the largest segment with its headers
    putLittle32(header, 1);           // Ethernet
    out_.write(reinterpret_cast<const char*>(header.data()), static_cast<std::streamsize>(header.size()));
}

std::size_t TcpCapture::open(std::uint16_t clientPort, std::uint16_t serverPort) {
    connections_.push_back({{clientPort, serverPort}, {kInitialSequence[0], kInitialSequence[1]}});
    Connection& connection = connections_.back();
    segment(connection, Side::client, kSyn, {});
    segment(connection, Side::server, kSyn | kAck, {});
    segment(connection, Side::client, kAck, {});
    return connections_.size() - 1;
}

void TcpCapture::send(std::size_t connection, Side from, std::span<const std::uint8_t> bytes) {
    segment(connections_.at(connection), from, kPush | kAck, bytes);
}

void TcpCapture::close(std::size_t index) {
    Connection& connection = connections_.at(index);
    segment(connection, Side::client, kFin | kAck, {});
    segment(connection, Side::server, kFin | kAck, {});
    segment(connection, Side::client, kAck, {});
}

void TcpCapture::segment(Connection& connection, Side from, std::uint8_t flags,
                         std::span<const std::uint8_t> payload) {
    const int self = from == Side::client ? 0 : 1;
    const int peer = 1 - self;
    const bool ack = (flags & kAck) != 0;
    Bytes packet(12, 0);  // Ethernet addresses: zero, as on a loopback device
    put16(packet, 0x0800);

    const std::size_t ip = packet.size();
    put16(packet, 0x4500);
    put16(packet, static_cast<std::uint32_t>(20 + 20 + payload.size()));
    put16(packet, static_cast<std::uint32_t>(packets_ & 0xFFFF));  // identification
    put16(packet, 0x4000);                                         // don't fragment
    put16(packet, 64 << 8 | 6);                                    // TTL, TCP
    put16(packet, 0);
    put32(packet, kLoopback);
    put32(packet, kLoopback);
    const std::uint16_t checksum = ipChecksum(std::span(packet).subspan(ip, 20));
    packet[ip + 10] = static_cast<std::uint8_t>(checksum >> 8);
    packet[ip + 11] = static_cast<std::uint8_t>(checksum);

    put16(packet, connection.ports[self]);
    put16(packet, connection.ports[peer]);
    put32(packet, connection.next[self]);
    put32(packet, ack ? connection.next[peer] : 0);
    put16(packet, 5U << 12 | flags);
    put16(packet, 65535);  // window
    put32(packet, 0);      // checksum (left unset, as with offloading) and urgent pointer
    packet.insert(packet.end(), payload.begin(), payload.end());
    // SYN and FIN take a sequence number each, like a byte.
    connection.next[self] += static_cast<std::uint32_t>(payload.size()) + ((flags & (kSyn | kFin)) != 0 ? 1 : 0);
    record(packet);
}

void TcpCapture::record(std::span<const std::uint8_t> packet) {
    Bytes header;
    // One millisecond apart, so that the order never depends on the clock.
    putLittle32(header, kFirstSecond + static_cast<std::uint32_t>(packets_ / 1000));
    putLittle32(header, static_cast<std::uint32_t>(packets_ % 1000) * 1000);
    putLittle32(header, static_cast<std::uint32_t>(packet.size()));
    putLittle32(header, static_cast<std::uint32_t>(packet.size()));
    out_.write(reinterpret_cast<const char*>(header.data()), static_cast<std::streamsize>(header.size()));
    out_.write(reinterpret_cast<const char*>(packet.data()), static_cast<std::streamsize>(packet.size()));
    ++packets_;
}

}  // namespace tovra::testing
