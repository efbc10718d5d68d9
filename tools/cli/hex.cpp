#include "hex.h"

#include <cctype>

namespace tovra::cli {

namespace {

int digitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    const int lower = std::tolower(static_cast<unsigned char>(c));
    if (lower >= 'a' && lower <= 'f') return lower - 'a' + 10;
    return -1;
}

bool isBlank(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// Splits at ',' keeping empty pieces, so that ",," shows as an empty request.
std::vector<std::string_view> splitAtCommas(std::string_view text) {
    std::vector<std::string_view> pieces;
    for (std::size_t comma = text.find(','); comma != std::string_view::npos; comma = text.find(',')) {
        pieces.push_back(text.substr(0, comma));
        text.remove_prefix(comma + 1);
    }
    pieces.push_back(text);
    return pieces;
}

}  // namespace

std::optional<Bytes> parseHex(std::string_view text) {
    Bytes bytes;
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

std::optional<std::vector<Bytes>> parseRequests(const std::vector<std::string>& arguments, std::string& error) {
    std::vector<Bytes> requests(1);
    for (const std::string& argument : arguments) {
        const auto pieces = splitAtCommas(argument);
        for (std::size_t i = 0; i < pieces.size(); ++i) {
            if (i > 0) requests.emplace_back();
            const auto bytes = parseHex(pieces[i]);
            if (!bytes) {
                error = "not whole hex bytes: \"" + std::string(pieces[i]) + "\"";
                return std::nullopt;
            }
            requests.back().insert(requests.back().end(), bytes->begin(), bytes->end());
        }
    }
    for (std::size_t i = 0; i < requests.size(); ++i) {
        if (requests[i].empty()) {
            error = "request " + std::to_string(i + 1) + " is empty";
            return std::nullopt;
        }
    }
    return requests;
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

}  // namespace tovra::cli
