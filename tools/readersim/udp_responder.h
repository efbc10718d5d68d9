// Simulated readers answering network discovery over UDP, for tests and the simulator
// program. The responder binds a UDP port and answers each Discover with one Announce
// per reader (to the request's source, with the request's Seq), and applies a Setup sent
// to one of its readers' MAC addresses, answering SetupAck. Its parsing is its own (on
// ZkParameter), apart from the discovery library's, so that each checks the other.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tovra::readersim {

// One reader as the responder announces it.
struct SimulatedReader {
    std::string macAddress;  // identifies the reader; compared without case
    std::string readerType = "tovra-readersim";
    std::string deviceId = "00000001";  // 8 hex digits
    std::string ipAddress = "127.0.0.1";
    std::string netmask = "255.0.0.0";
    std::string gateway = "0.0.0.0";
    bool dhcp = false;
    std::uint16_t port = 10001;  // the TCP port the reader listens on
    // What the reader answers to a set-up; the set-up is applied only when this is 0.
    std::int32_t setupResult = 0;
};

// A Discover as the responder received it.
struct DiscoverSeen {
    std::string address;  // the sender's, numeric
    std::uint16_t port = 0;
    std::uint32_t seq = 0;
};

// A Setup as the responder received it, whether or not one of its readers had the MAC.
struct SetupSeen {
    std::uint32_t seq = 0;
    std::string macAddress;
    int flags = -1;  // -1 when the datagram had none
    bool answered = false;
};

class UdpResponder {
public:
    UdpResponder();
    ~UdpResponder();  // stop()
    UdpResponder(const UdpResponder&) = delete;
    UdpResponder& operator=(const UdpResponder&) = delete;

    // Binds 127.0.0.1 (every local address with anyAddress) on `port`, 0 for one the
    // system chooses, and starts answering. False when bound already or binding fails.
    bool start(std::uint16_t port = 0, bool anyAddress = false);
    std::uint16_t port() const;  // the bound port, 0 when not running
    // Stops answering and closes the port; returns once its thread has ended, at once
    // rather than after some poll period. Readers and records stay.
    void stop();

    // --- Readers, also while running -------------------------------------------
    // Adds the reader, or replaces the one with the same MAC address.
    void setReader(const SimulatedReader& reader);
    bool removeReader(const std::string& macAddress);
    std::optional<SimulatedReader> reader(const std::string& macAddress) const;
    std::vector<SimulatedReader> readers() const;

    // --- Observation -------------------------------------------------------------
    std::size_t discoversSeen() const;
    std::optional<DiscoverSeen> lastDiscover() const;
    // Until discoversSeen() >= total.
    bool waitForDiscovers(std::size_t total, std::chrono::milliseconds timeout);
    std::vector<SetupSeen> setupsSeen() const;
    // Datagrams that were neither a Discover nor a Setup it could read.
    std::size_t ignoredDatagrams() const;

    // Receives one line per Discover, Setup and ignored datagram, on the responder's thread.
    void setLog(std::function<void(const std::string&)> log);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace tovra::readersim
