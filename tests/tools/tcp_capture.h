// A capture file of loopback TCP connections, written from what a test sent and received
// rather than taken off the wire: no root, no capture device, and every chunk is a segment
// of its own whatever the kernel merged. Handshake, sequence and acknowledgement numbers
// and close are those of a real connection, so that a reader of the file reassembles the
// streams as it would in a live capture.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <span>
#include <vector>

namespace tovra::testing {

enum class Side { client, server };

class TcpCapture {
public:
    explicit TcpCapture(const std::filesystem::path& file);

    // Starts a connection (SYN, SYN-ACK, ACK) and returns its index.
    std::size_t open(std::uint16_t clientPort, std::uint16_t serverPort);
    void send(std::size_t connection, Side from, std::span<const std::uint8_t> bytes);
    void close(std::size_t connection);  // FIN both ways and the last ACK

    // Packets written so far: the number the next packet gets in the file is this plus 1.
    std::size_t packets() const { return packets_; }
    bool good() const { return out_.good(); }

private:
    struct Connection {
        std::uint16_t ports[2];
        std::uint32_t next[2];  // the next sequence number of each side
    };
    void segment(Connection& connection, Side from, std::uint8_t flags, std::span<const std::uint8_t> payload);
    void record(std::span<const std::uint8_t> packet);

    std::ofstream out_;
    std::vector<Connection> connections_;
    std::size_t packets_ = 0;
};

}  // namespace tovra::testing
