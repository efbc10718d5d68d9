// Feeds arbitrary datagrams to the UDP discovery library's datagram reader, and the same
// bytes as the application's target and set-up texts. Whatever the reader accepts must
// survive a round trip: an Announce's scan-info line reads back as the same reader, and a
// set-up text read as valid makes a Setup datagram that reads back with its MAC address.
#include "error_codes.h"
#include "fields.h"
#include "messages.h"
#include "requests.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

void check(bool condition)
{
    if (!condition) std::abort();
}

bool sameReader(const zkudp::Announce& a, const zkudp::Announce& b)
{
    return a.readerType == b.readerType && a.deviceId == b.deviceId && a.macAddress == b.macAddress &&
           a.ipAddress == b.ipAddress && a.netmask == b.netmask && a.gateway == b.gateway && a.dhcp == b.dhcp &&
           a.port == b.port;
}

void readDatagram(std::string_view datagram)
{
    zkudp::Message message;
    if (!zkudp::parseMessage(datagram, message)) return;
    check(datagram.size() <= zkudp::kMaxText);
    if (message.command == zkudp::Command::announce) {
        const zkudp::Announce& announce = message.announce;
        check(!announce.macAddress.empty() && announce.macAddress.size() <= zkudp::kMaxValue);
        check(announce.deviceId.size() == 8 && announce.port != 0);
        const std::string line = zkudp::scanInfo(announce);
        check(line.rfind("UDP:", 0) == 0);
        // The line's body is an Announce's body: read it back as one.
        zkudp::Message again;
        check(zkudp::parseMessage("ZKUDP:Version=1:Cmd=Announce:Seq=1" + line.substr(3), again));
        check(sameReader(again.announce, announce));
    }
    if (message.command == zkudp::Command::setupAck) check(!message.macAddress.empty());
}

void readApplicationTexts(const std::string& text)
{
    zkudp::Target target;
    const std::int32_t targetResult = zkudp::parseTarget(text.c_str(), target);
    check(targetResult == zkudp::kOk || targetResult == zkudp::kInvalidTarget);
    if (targetResult == zkudp::kOk) check(target.port != 0 && target.lost != 0 && target.address != 0);

    zkudp::SetupFields fields;
    const std::int32_t setupResult = zkudp::parseSetup(text.c_str(), fields);
    if (setupResult != zkudp::kOk) return;
    zkudp::Message message;
    check(zkudp::parseMessage(zkudp::setupDatagram(7, fields, 0xA5), message));
    check(message.command == zkudp::Command::setup && message.seq == 7 && message.macAddress == fields.macAddress);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    readDatagram(bytes);
    // The application hands its texts over as C strings.
    readApplicationTexts(std::string(bytes.substr(0, bytes.find('\0'))));
    return 0;
}
