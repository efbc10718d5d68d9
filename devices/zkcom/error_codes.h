// The library's own result codes, all within -1001..-1099, and their texts.
#pragma once

#include <cstdint>

namespace zkcom {

enum Result : std::int32_t {
    kOk = 0,
    kIgnored = 1, // a port command the port cannot carry out

    kInvalidPortNumber = -1001,
    kCannotOpen = -1002,
    kPortInUse = -1003,
    kNotASerialPort = -1004,
    kInvalidHandle = -1005,
    kInvalidArgument = -1006,
    kValueTruncated = -1007,
    kUnknownParameter = -1008,
    kUnsupportedBaud = -1010,
    kInvalidFrameFormat = -1011,
    kInvalidOpMode = -1012,
    kInvalidTimeout = -1013,
    kSettingsRejected = -1014,
    kUnknownCommand = -1016,
    kInvalidCommandValue = -1017,
    kCommandFailed = -1018,
    kTransmitFailed = -1020,
    kTransmitStalled = -1021,
    kTimeout = -1030,
    kFrameTooLarge = -1031,
    kFrameIncomplete = -1032,
    kReceiveFailed = -1033,
    kHungUp = -1034,
    kPortClosed = -1035,
    kPortAbsent = -1040,
    kOutOfMemory = -1098,
    kInternalError = -1099,
};

// The text of a code, or null for a code that is not ours.
const char* resultText(std::int32_t code);

} // namespace zkcom
