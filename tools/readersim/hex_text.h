// Bytes as the tools read and write them: hexadecimal text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tovra::readersim {

// Two hex digits per byte, either case; blanks between bytes are allowed ("65 00",
// "6500"). Nothing for an odd digit count or a character that is not a hex digit.
std::optional<std::vector<std::uint8_t>> parseHex(std::string_view text);

// Upper-case hex: "65 00" with blanks, "6500" without.
std::string hexText(const std::uint8_t* data, std::size_t length, bool spaced);
inline std::string hexText(const std::vector<std::uint8_t>& bytes, bool spaced)
{
    return hexText(bytes.data(), bytes.size(), spaced);
}

}  // namespace tovra::readersim
