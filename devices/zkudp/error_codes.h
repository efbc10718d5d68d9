// The library's own result codes, all within -1601..-1630, and their texts.
#pragma once

#include <cstdint>

namespace zkudp {

enum Result : std::int32_t {
    kOk = 0,

    kInvalidTarget = -1601,
    kAlreadyRunning = -1602,
    kNotRunning = -1603,
    kStopFromHandler = -1604,
    kSetupFromHandler = -1605,
    kInvalidSetupText = -1606,
    kMissingMacAddress = -1607,
    kInvalidSetupValue = -1608,
    kNoAcknowledgement = -1609,
    kStoppedDuringSetup = -1610,
    kNetworkUnavailable = -1611,
    kSocketFailed = -1612,
    kBindFailed = -1613,
    kSendFailed = -1614,
    kThreadFailed = -1615,
    kOutOfMemory = -1629,
    kInternalError = -1630,
};

// The text of a code, or null for a code that is not ours.
const char* resultText(std::int32_t code);

} // namespace zkudp
