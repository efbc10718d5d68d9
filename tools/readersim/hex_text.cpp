#include "readersim/hex_text.h"

#include <cctype>

namespace tovra::readersim {

namespace {

int digitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    const int lower = std::tolower(static_cast<unsigned char>(c));
    if (lower >= 'a' && lower <= 'f') return lower - 'a' + 10;
    return -1;
}

bool isBlank(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

}  // namespace

std::optional<std::vector<std::uint8_t>> parseHex(std::string_view text) {
    std::vector<std::uint8_t> bytes;
    std::size_t i = 0;
    while (i < text.size()) {
        if (isBlank(text[i])) {
            ++i;
            continue;
        }
        if (i + 1 >= text.size()) return std::nullopt;
        const int high = digitValue(text[i]);
        const int low = digitValue(text[i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        bytes.push_back(static_cast<std::uint8_t>(high * 16 + low));
        i += 2;
    }
    return bytes;
}

std::string hexText(const std::uint8_t* data, std::size_t length, bool spaced) {
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(length * 3);
    for (std::size_t i = 0; i < length; ++i) {
        if (spaced && i > 0) text += ' ';
        text += digits[data[i] >> 4];
        text += digits[data[i] & 0x0F];
    }
    return text;
}

}  // namespace tovra::readersim
