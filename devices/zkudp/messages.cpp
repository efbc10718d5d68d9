#include "messages.h"

#include "fields.h"

namespace zkudp {
namespace {

constexpr std::size_t kDeviceIdLength = 8;

bool isHex(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

std::optional<Command> commandOf(std::string_view text)
{
    if (equalsNoCase(text, "Discover")) return Command::discover;
    if (equalsNoCase(text, "Announce")) return Command::announce;
    if (equalsNoCase(text, "Setup")) return Command::setup;
    if (equalsNoCase(text, "SetupAck")) return Command::setupAck;
    return std::nullopt;
}

bool readAddress(const Entries& entries, std::string_view key, std::string& text)
{
    const std::string* value = entries.find(key);
    if (value == nullptr) return false;
    const auto address = parseIpv4(*value);
    if (!address) return false;
    text = ipv4Text(*address);
    return true;
}

bool readAnnounce(const Entries& entries, Announce& announce)
{
    const std::string* readerType = entries.find("readertype");
    const std::string* deviceId = entries.find("deviceid");
    const std::string* mac = entries.find("macaddress");
    const std::string* dhcp = entries.find("dhcp");
    const std::string* port = entries.find("port");
    if (readerType == nullptr || deviceId == nullptr || mac == nullptr || dhcp == nullptr || port == nullptr)
        return false;
    if (deviceId->size() != kDeviceIdLength) return false;
    for (const char c : *deviceId)
        if (!isHex(c)) return false;
    if (mac->empty() || (*dhcp != "0" && *dhcp != "1")) return false;
    const auto portNumber = unsignedNumber(*port, 65535);
    if (!portNumber || *portNumber == 0) return false;
    if (!readAddress(entries, "ipaddress", announce.ipAddress) || !readAddress(entries, "netmask", announce.netmask) ||
        !readAddress(entries, "gateway", announce.gateway))
        return false;
    announce.readerType = *readerType;
    announce.deviceId = *deviceId;
    announce.macAddress = *mac;
    announce.dhcp = *dhcp == "1";
    announce.port = static_cast<std::uint16_t>(*portNumber);
    return true;
}

bool readSetupAck(const Entries& entries, Message& message)
{
    const std::string* mac = entries.find("macaddress");
    const std::string* result = entries.find("result");
    if (mac == nullptr || mac->empty() || result == nullptr) return false;
    const auto value = signedNumber(*result);
    if (!value) return false;
    message.macAddress = *mac;
    message.result = *value;
    return true;
}

std::string quoted(std::string_view value) { return "\"" + std::string(value) + "\""; }

std::string header(std::string_view command, std::uint32_t seq)
{
    return "ZKUDP:Version=1:Cmd=" + std::string(command) + ":Seq=" + std::to_string(seq);
}

} // namespace

bool parseMessage(std::string_view datagram, Message& message)
{
    Entries entries;
    if (!entries.split(datagram)) return false;
    const auto& all = entries.all();
    if (all.empty() || all.front().key != "zkudp" || !all.front().value.empty()) return false;
    const std::string* version = entries.find("version");
    const std::string* command = entries.find("cmd");
    const std::string* seq = entries.find("seq");
    if (version == nullptr || command == nullptr || seq == nullptr) return false;
    const auto versionNumber = unsignedNumber(*version);
    const auto commandKind = commandOf(*command);
    const auto seqNumber = unsignedNumber(*seq);
    if (!versionNumber || *versionNumber < 1 || !commandKind || !seqNumber) return false;

    message = Message{};
    message.command = *commandKind;
    message.seq = *seqNumber;
    switch (message.command) {
    case Command::announce: return readAnnounce(entries, message.announce);
    case Command::setupAck: return readSetupAck(entries, message);
    case Command::setup: {
        const std::string* mac = entries.find("macaddress");
        if (mac == nullptr || mac->empty()) return false;
        message.macAddress = *mac;
        return true;
    }
    case Command::discover: return true;
    }
    return false;
}

std::string discoverDatagram(std::uint32_t seq) { return header("Discover", seq); }

std::string setupDatagram(std::uint32_t seq, const SetupFields& fields, std::uint8_t flags)
{
    std::string text = header("Setup", seq) + ":MacAddress=" + quoted(fields.macAddress) +
                       ":Flags=" + std::to_string(flags);
    if (fields.ipAddress) text += ":IpAddress=" + quoted(*fields.ipAddress);
    if (fields.netmask) text += ":Netmask=" + quoted(*fields.netmask);
    if (fields.gateway) text += ":Gateway=" + quoted(*fields.gateway);
    if (fields.dhcp) text += std::string(":Dhcp=") + (*fields.dhcp ? "1" : "0");
    if (fields.port) text += ":Port=" + std::to_string(*fields.port);
    return text;
}

std::string scanInfo(const Announce& announce)
{
    return "UDP:ReaderType=" + quoted(announce.readerType) + ":DeviceId=" + announce.deviceId +
           ":MacAddress=" + quoted(announce.macAddress) + ":IpAddress=" + quoted(announce.ipAddress) +
           ":Netmask=" + quoted(announce.netmask) + ":Gateway=" + quoted(announce.gateway) +
           ":Dhcp=" + (announce.dhcp ? "1" : "0") + ":Port=" + std::to_string(announce.port);
}

} // namespace zkudp
