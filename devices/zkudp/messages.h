// The datagrams of the discovery protocol: what the library sends, and what it reads out
// of whatever arrives. Pure text code, shared with the fuzz target.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zkudp {

enum class Command { discover, announce, setup, setupAck };

// A reader's answer to a Discover, its fields checked: DeviceId 8 hex digits, the
// addresses dotted IPv4, Dhcp 0 or 1, Port 1..65535, MacAddress not empty.
struct Announce {
    std::string readerType;
    std::string deviceId;
    std::string macAddress;
    std::string ipAddress;
    std::string netmask;
    std::string gateway;
    bool dhcp = false;
    std::uint16_t port = 0;
};

struct Message {
    Command command = Command::discover;
    std::uint32_t seq = 0;
    Announce announce;           // Announce
    std::string macAddress;      // SetupAck, Setup
    std::int32_t result = 0;     // SetupAck
};

// Reads one datagram. False for anything that is not a well-formed message of ours
// (Version 1 or later): the caller drops it.
bool parseMessage(std::string_view datagram, Message& message);

// New settings for one reader; unset fields stay as the reader has them.
struct SetupFields {
    std::string macAddress;
    std::optional<std::string> ipAddress;
    std::optional<std::string> netmask;
    std::optional<std::string> gateway;
    std::optional<bool> dhcp;
    std::optional<std::uint16_t> port;
};

std::string discoverDatagram(std::uint32_t seq);
std::string setupDatagram(std::uint32_t seq, const SetupFields& fields, std::uint8_t flags);
// The line the application gets for a reader.
std::string scanInfo(const Announce& announce);

} // namespace zkudp
