#include "line_settings.h"

#include <algorithm>

namespace zkcom {
namespace {

char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr std::uint32_t kStandardBauds[] = {1200,  2400,   4800,   9600,   19200,  38400,
                                            57600, 115200, 230400, 460800, 921600};

} // namespace

bool sameIgnoringCase(std::string_view a, std::string_view b)
{
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return lower(x) == lower(y); });
}

std::string lowerCase(std::string_view text)
{
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), lower);
    return result;
}

std::optional<std::uint32_t> parseDecimal(std::string_view text, std::uint32_t limit)
{
    if (text.empty()) return std::nullopt;
    std::uint64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + static_cast<std::uint64_t>(c - '0');
        if (value > limit) return std::nullopt;
    }
    return static_cast<std::uint32_t>(value);
}

std::optional<int> parsePortNumber(const char* text)
{
    if (text == nullptr) return std::nullopt;
    const auto number = parseDecimal(text, kMaxPortNumber);
    if (!number || *number == 0) return std::nullopt;
    return static_cast<int>(*number);
}

bool isStandardBaud(std::uint32_t baud)
{
    return std::find(std::begin(kStandardBauds), std::end(kStandardBauds), baud) != std::end(kStandardBauds);
}

bool parseFrameFormat(std::string_view text, LineSettings& settings)
{
    if (text.size() != 3) return false;
    const char parity = static_cast<char>(lower(text[1]) - 'a' + 'A');
    if (text[0] < '5' || text[0] > '8' || (parity != 'N' && parity != 'E' && parity != 'O') ||
        (text[2] != '1' && text[2] != '2'))
        return false;
    settings.dataBits = text[0] - '0';
    settings.parity = parity;
    settings.stopBits = text[2] - '0';
    return true;
}

std::string frameFormatText(const LineSettings& settings)
{
    return {static_cast<char>('0' + settings.dataBits), settings.parity, static_cast<char>('0' + settings.stopBits)};
}

} // namespace zkcom
