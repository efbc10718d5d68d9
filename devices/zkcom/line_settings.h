// Port numbers, parameter names and line settings as the callers spell them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zkcom {

inline constexpr int kMaxPortNumber = 255;

struct LineSettings {
    std::uint32_t baud = 38400;
    int dataBits = 8;
    char parity = 'E'; // 'N', 'E' or 'O'
    int stopBits = 1;
};

bool sameIgnoringCase(std::string_view a, std::string_view b);
std::string lowerCase(std::string_view text);

// Decimal digits only, at most `limit`.
std::optional<std::uint32_t> parseDecimal(std::string_view text, std::uint32_t limit);
// "1".."255"; anything else names no port.
std::optional<int> parsePortNumber(const char* text);

bool isStandardBaud(std::uint32_t baud);
// "8E1" style: data bits 5-8, parity N/E/O (either case), stop bits 1 or 2.
bool parseFrameFormat(std::string_view text, LineSettings& settings);
std::string frameFormatText(const LineSettings& settings);

} // namespace zkcom
