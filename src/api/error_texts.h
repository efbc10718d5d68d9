#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tovra {

// Message of a library code, "---" for reserved and foreign codes.
std::string_view libraryErrorMessage(std::int32_t code);

// "TOVRA error: code=<code>: <message>"
std::string libraryErrorText(std::int32_t code);

// Text of the status byte a reader puts into each response.
std::string readerStatusText(std::uint8_t status);

} // namespace tovra
