#pragma once

#include <cstdint>
#include <string_view>

namespace tovra {

// Reads a decimal number the way atoi does (leading blanks, a sign, digits up to the first
// other character; 0 when there are none) but saturates instead of overflowing.
constexpr std::int32_t atoiLike(std::string_view text)
{
    std::size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    std::int64_t value = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        value = value * 10 + (text[i] - '0');
        if (value > INT32_MAX) {
            value = negative ? std::int64_t{INT32_MAX} + 1 : INT32_MAX;
            break;
        }
    }
    return static_cast<std::int32_t>(negative ? -value : value);
}

} // namespace tovra
