#include "error_codes.h"

namespace zkudp {
namespace {

struct Entry {
    std::int32_t code;
    const char* text;
};

constexpr Entry kTexts[] = {
    {kOk, "OK"},
    {kInvalidTarget, "Invalid discovery target"},
    {kAlreadyRunning, "Discovery already running"},
    {kNotRunning, "Discovery not running"},
    {kStopFromHandler, "Discovery cannot be stopped from its own handler"},
    {kSetupFromHandler, "A set-up cannot wait on the discovery thread"},
    {kInvalidSetupText, "Invalid set-up text"},
    {kMissingMacAddress, "Set-up text without MacAddress"},
    {kInvalidSetupValue, "Invalid value in the set-up text"},
    {kNoAcknowledgement, "No acknowledgement from the reader"},
    {kStoppedDuringSetup, "Discovery stopped before the reader acknowledged"},
    {kNetworkUnavailable, "Network not available"},
    {kSocketFailed, "Cannot open a UDP socket"},
    {kBindFailed, "Cannot bind the UDP socket to the local address"},
    {kSendFailed, "Cannot send the datagram"},
    {kThreadFailed, "Cannot start the discovery thread"},
    {kOutOfMemory, "Out of memory"},
    {kInternalError, "Internal error"},
};

} // namespace

const char* resultText(std::int32_t code)
{
    for (const Entry& entry : kTexts)
        if (entry.code == code) return entry.text;
    return nullptr;
}

} // namespace zkudp
