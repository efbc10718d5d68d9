#include "requests.h"

#include "error_codes.h"
#include "fields.h"

namespace zkudp {
namespace {

// Beyond this a reader would count as gone only after hours even at short intervals.
constexpr std::uint32_t kMaxLost = 1000000;

std::optional<std::uint16_t> portOf(const std::string& text)
{
    const auto port = unsignedNumber(text, 65535);
    if (!port || *port == 0) return std::nullopt;
    return static_cast<std::uint16_t>(*port);
}

} // namespace

std::int32_t parseTarget(const char* text, Target& target)
{
    target = Target{};
    Entries entries;
    if (!entries.split(text != nullptr ? text : "")) return kInvalidTarget;
    for (const Entry& entry : entries.all()) {
        if (entries.find(entry.key) != &entry.value) continue; // the first of a key counts
        if (entry.key == "address") {
            const auto address = parseIpv4(entry.value);
            if (!address || *address == 0) return kInvalidTarget;
            target.address = *address;
        } else if (entry.key == "port") {
            const auto port = portOf(entry.value);
            if (!port) return kInvalidTarget;
            target.port = *port;
        } else if (entry.key == "lost") {
            const auto lost = unsignedNumber(entry.value, kMaxLost);
            if (!lost || *lost == 0) return kInvalidTarget;
            target.lost = *lost;
        } else if (entry.key == "bind") {
            const auto address = parseIpv4(entry.value);
            if (!address) return kInvalidTarget;
            target.bind = *address;
        } else {
            return kInvalidTarget;
        }
    }
    return kOk;
}

std::int32_t parseSetup(const char* text, SetupFields& fields)
{
    fields = SetupFields{};
    Entries entries;
    if (text == nullptr || !entries.split(text)) return kInvalidSetupText;
    bool haveMac = false;
    for (const Entry& entry : entries.all()) {
        if (entries.find(entry.key) != &entry.value) continue;
        const std::string& value = entry.value;
        if (entry.key == "macaddress") {
            if (value.empty()) return kInvalidSetupValue;
            fields.macAddress = value;
            haveMac = true;
        } else if (entry.key == "ipaddress" || entry.key == "netmask" || entry.key == "gateway") {
            const auto address = parseIpv4(value);
            if (!address) return kInvalidSetupValue;
            auto& field = entry.key == "ipaddress" ? fields.ipAddress
                          : entry.key == "netmask" ? fields.netmask
                                                   : fields.gateway;
            field = ipv4Text(*address);
        } else if (entry.key == "dhcp") {
            if (value != "0" && value != "1") return kInvalidSetupValue;
            fields.dhcp = value == "1";
        } else if (entry.key == "port") {
            fields.port = portOf(value);
            if (!fields.port) return kInvalidSetupValue;
        } else {
            return kInvalidSetupText;
        }
    }
    return haveMac ? kOk : kMissingMacAddress;
}

} // namespace zkudp
