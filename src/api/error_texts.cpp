#include "api/error_texts.h"

#include <array>
#include <charconv>

namespace tovra {
namespace {

constexpr std::string_view kReserved = "---";

// Indexed by code + 5033, from -5033 up to -5001.
constexpr std::array<std::string_view, 33> kLibraryMessages = {
    "The operation is not yet started",       // -5033
    "The operation is already started",       // -5032
    kReserved,                                // -5031
    "Invalid listener type",                  // -5030
    kReserved, kReserved, kReserved, kReserved, kReserved, // -5029 .. -5025
    "Plugin function is not implemented",     // -5024
    kReserved,                                // -5023
    "Plugin version mismatch",                // -5022
    "Cannot load plugin",                     // -5021
    "Invalid plugin type",                    // -5020
    kReserved,                                // -5019
    "Not connected",                          // -5018
    "Payload too large",                      // -5017
    kReserved,                                // -5016
    "Receive timeout",                        // -5015
    kReserved, kReserved,                     // -5014, -5013
    "Disconnected by peer",                   // -5012
    "Communication is terminated",            // -5011
    "Invalid null pointer parameter",         // -5010
    "Listener parameter error",               // -5009
    "Listener already running",               // -5008
    "Reader module disconnect failed",        // -5007
    "Detection failed",                       // -5006
    "Detection parameter error",              // -5005
    "Reader module connect failed",           // -5004
    "Connection parameter error",             // -5003
    "Invalid reader handle",                  // -5002
    "Cannot create a reader module",          // -5001
};

struct StatusText {
    std::uint8_t status;
    std::string_view text;
};

constexpr StatusText kStatusTexts[] = {
    {0x00, "Ok"},
    {0x01, "No transponder in reader field"},
    {0x02, "False transponder data"},
    {0x03, "Transponder write error"},
    {0x04, "Transponder address error"},
    {0x05, "Wrong transponder type"},
    {0x06, "Transponder read error"},
    {0x07, "Select error"},
    {0x08, "Authent error"},
    {0x09, "Invalid address"},
    {0x0A, "Transponder changed"},
    {0x0B, "RF collision"},
    {0x0C, "RF weak collision"},
    {0x0E, "General error"},
    {0x0F, "Reader is busy"},
    {0x10, "EEPROM Error"},
    {0x11, "Parameter range error"},
    {0x13, "Login request"},
    {0x14, "Login error"},
    {0x15, "Read protection"},
    {0x16, "Write protection"},
    {0x17, "Firmware activation required"},
    {0x18, "Wrong firmware"},
    {0x19, "Crypto processing error"},
    {0x20, "External device communication error"},
    {0x31, "No SAM detected"},
    {0x32, "Requested SAM is not activated"},
    {0x33, "SAM is already activated"},
    {0x34, "Requested protocol is not supported by the SAM"},
    {0x35, "SAM communication error"},
    {0x36, "SAM Timeout"},
    {0x40, "Data file is not opened"},
    {0x41, "Data file is open"},
    {0x42, "Data file length error"},
    {0x80, "Unknown Command"},
    {0x81, "Protocol length error"},
    {0x82, "Command not available"},
    {0x83, "RF communication error"},
    {0x84, "RF warning"},
    {0x85, "Synchronization error"},
    {0x86, "Unsupported command option"},
    {0x90, "Data table overrun"},
    {0x92, "No valid data"},
    {0x93, "Data table overflow"},
    {0x94, "More data"},
    {0x95, "Iso error"},
    {0x96, "Iso14443 error"},
    {0x97, "Crypto processing error in RF communication"},
    {0xF1, "Hardware warning"},
    {0xF2, "Initialization warning"},
    {0xF8, "Internal process cancelled"},
};

} // namespace

std::string_view libraryErrorMessage(std::int32_t code)
{
    const std::int64_t index = std::int64_t{code} + 5033;
    if (index < 0 || index >= static_cast<std::int64_t>(kLibraryMessages.size())) return kReserved;
    return kLibraryMessages[static_cast<std::size_t>(index)];
}

std::string libraryErrorText(std::int32_t code)
{
    std::string text = "TOVRA error: code=";
    text += std::to_string(code);
    text += ": ";
    text += libraryErrorMessage(code);
    return text;
}

std::string readerStatusText(std::uint8_t status)
{
    for (const auto& entry : kStatusTexts)
        if (entry.status == status) return std::string(entry.text);
    // Unknown bytes print in lower-case hexadecimal without padding ("Reader status 0xd").
    char digits[2];
    const auto end = std::to_chars(digits, digits + sizeof digits, status, 16).ptr;
    return "Reader status 0x" + std::string(digits, end);
}

} // namespace tovra
