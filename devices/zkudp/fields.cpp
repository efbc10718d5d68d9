#include "fields.h"

namespace zkudp {
namespace {

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }
char upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }
bool isControl(char c)
{
    const auto u = static_cast<unsigned char>(c);
    return u < 0x20 || u == 0x7F;
}

} // namespace

bool Entries::split(std::string_view text)
{
    entries_.clear();
    if (text.size() > kMaxText) return false;

    enum class Phase { key, value, quoted } phase = Phase::key;
    Entry entry;
    const auto finish = [&] {
        if (!entry.key.empty()) entries_.push_back(std::move(entry));
        entry = Entry{};
        phase = Phase::key;
        return entries_.size() <= kMaxEntries;
    };
    for (const char c : text) {
        if (phase != Phase::quoted && isBlank(c)) continue;
        if (isControl(c)) return false;
        switch (phase) {
        case Phase::key:
            if (c == ':') {
                if (!finish()) return false;
            } else if (c == '=') {
                phase = Phase::value;
            } else {
                if (entry.key.size() == kMaxKey) return false;
                entry.key += lower(c);
            }
            break;
        case Phase::value:
            if (c == ':') {
                if (!finish()) return false;
            } else if (c == '"') {
                phase = Phase::quoted;
            } else {
                if (entry.value.size() == kMaxValue) return false;
                entry.value += c;
            }
            break;
        case Phase::quoted:
            if (c == '"') {
                phase = Phase::value;
            } else {
                if (entry.value.size() == kMaxValue) return false;
                entry.value += c;
            }
            break;
        }
    }
    if (phase == Phase::quoted) return false;
    return finish();
}

const std::string* Entries::find(std::string_view key) const
{
    for (const Entry& entry : entries_)
        if (entry.key == key) return &entry.value;
    return nullptr;
}

std::optional<std::uint32_t> unsignedNumber(std::string_view text, std::uint32_t max)
{
    if (text.empty() || text.size() > 10) return std::nullopt;
    std::uint64_t value = 0;
    for (const char c : text) {
        if (!isDigit(c)) return std::nullopt;
        value = value * 10 + static_cast<std::uint64_t>(c - '0');
    }
    if (value > max) return std::nullopt;
    return static_cast<std::uint32_t>(value);
}

std::optional<std::int32_t> signedNumber(std::string_view text)
{
    const bool negative = !text.empty() && text.front() == '-';
    const auto magnitude = unsignedNumber(negative ? text.substr(1) : text, negative ? 2147483648u : 2147483647u);
    if (!magnitude) return std::nullopt;
    return negative ? static_cast<std::int32_t>(-static_cast<std::int64_t>(*magnitude))
                    : static_cast<std::int32_t>(*magnitude);
}

std::optional<std::uint32_t> parseIpv4(std::string_view text)
{
    std::uint32_t address = 0;
    for (int part = 0; part < 4; ++part) {
        if (part > 0) {
            if (text.empty() || text.front() != '.') return std::nullopt;
            text.remove_prefix(1);
        }
        std::size_t digits = 0;
        while (digits < text.size() && isDigit(text[digits])) ++digits;
        if (digits == 0 || digits > 3) return std::nullopt;
        const auto octet = unsignedNumber(text.substr(0, digits), 255);
        if (!octet) return std::nullopt;
        address = address << 8 | *octet;
        text.remove_prefix(digits);
    }
    if (!text.empty()) return std::nullopt;
    return address;
}

std::string ipv4Text(std::uint32_t address)
{
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        if (shift != 24) text += '.';
        text += std::to_string(address >> shift & 0xFFu);
    }
    return text;
}

bool equalsNoCase(std::string_view a, std::string_view b)
{
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (lower(a[i]) != lower(b[i])) return false;
    return true;
}

std::string upperCase(std::string_view text)
{
    std::string result(text);
    for (char& c : result) c = upper(c);
    return result;
}

} // namespace zkudp
