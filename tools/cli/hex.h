// Bytes as the tool reads and writes them: hexadecimal text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tovra::cli {

using Bytes = std::vector<std::uint8_t>;

// Two hex digits per byte, either case; blanks between bytes are allowed ("65 00",
// "6500"). Nothing for an odd digit count or a character that is not a hex digit.
std::optional<Bytes> parseHex(std::string_view text);

// The request arguments of `tovra transceive`: arguments are joined into one request;
// a ',' (an argument of its own or inside one) ends a request and starts the next.
// Each piece between blanks and commas holds whole bytes. On failure, `error` says why.
std::optional<std::vector<Bytes>> parseRequests(const std::vector<std::string>& arguments, std::string& error);

// Upper-case hex: "65 00" with blanks, "6500" without.
std::string hexText(const std::uint8_t* data, std::size_t length, bool spaced);
inline std::string hexText(const Bytes& bytes, bool spaced) { return hexText(bytes.data(), bytes.size(), spaced); }

}  // namespace tovra::cli
