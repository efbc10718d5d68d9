#include "error_codes.h"

#include <cstddef>

namespace zkcom {
namespace {

struct Entry {
    std::int32_t code;
    const char* text;
};

constexpr Entry kTexts[] = {
    {kOk, "OK"},
    {kIgnored, "Command not supported by the port, ignored"},
    {kInvalidPortNumber, "Invalid port number"},
    {kCannotOpen, "Cannot open port"},
    {kPortInUse, "Port in use"},
    {kNotASerialPort, "Not a serial port"},
    {kInvalidHandle, "Invalid port handle"},
    {kInvalidArgument, "Invalid argument"},
    {kValueTruncated, "Buffer too small, value truncated"},
    {kUnknownParameter, "Unknown port parameter"},
    {kUnsupportedBaud, "Unsupported baud rate"},
    {kInvalidFrameFormat, "Invalid frame format"},
    {kInvalidOpMode, "Invalid operating mode"},
    {kInvalidTimeout, "Invalid time-out"},
    {kSettingsRejected, "Port rejected the line settings"},
    {kUnknownCommand, "Unknown port command"},
    {kInvalidCommandValue, "Invalid port command value"},
    {kCommandFailed, "Port command failed"},
    {kTransmitFailed, "Transmit failed"},
    {kTransmitStalled, "Transmit stalled, port accepts no data"},
    {kTimeout, "Receive time-out"},
    {kFrameTooLarge, "Received frame larger than the buffer"},
    {kFrameIncomplete, "Received frame incomplete"},
    {kReceiveFailed, "Receive failed"},
    {kHungUp, "Line hung up"},
    {kPortClosed, "Port closed"},
    {kPortAbsent, "Port not present"},
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

} // namespace zkcom
