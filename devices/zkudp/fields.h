// The parameter syntax the wire and the application's texts share: key=value entries
// separated by ':', keys without case, values that may be quoted ("..."), with ':' allowed
// inside the quotes. Every text comes from outside (the network, the application), so
// everything here is bounded and rejects rather than guesses.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zkudp {

// A reader's datagram is a few hundred bytes; anything far larger is not one of ours.
inline constexpr std::size_t kMaxText = 2048;
inline constexpr std::size_t kMaxEntries = 32;
inline constexpr std::size_t kMaxKey = 32;
inline constexpr std::size_t kMaxValue = 64;

struct Entry {
    std::string key; // lower case
    std::string value;
};

class Entries {
public:
    // False when the text is longer than kMaxText, holds a control character, has more
    // than kMaxEntries entries or a key or value beyond its bound, or ends inside quotes.
    // Blanks outside quotes are dropped; entries without a key are skipped.
    bool split(std::string_view text);

    // The first entry with this key (lower case), or null.
    const std::string* find(std::string_view key) const;
    const std::vector<Entry>& all() const { return entries_; }

private:
    std::vector<Entry> entries_;
};

// Strict decimal numbers: digits only (a leading '-' for signed), no blanks, in range.
std::optional<std::uint32_t> unsignedNumber(std::string_view text, std::uint32_t max = UINT32_MAX);
std::optional<std::int32_t> signedNumber(std::string_view text);

// Dotted-decimal IPv4 ("192.168.0.1"), in host byte order.
std::optional<std::uint32_t> parseIpv4(std::string_view text);
std::string ipv4Text(std::uint32_t address);

bool equalsNoCase(std::string_view a, std::string_view b);
std::string upperCase(std::string_view text);

} // namespace zkudp
