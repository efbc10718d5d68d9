// Bytes as the tool reads and writes them: hexadecimal text.
#pragma once

#include "readersim/hex_text.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tovra::cli {

using Bytes = std::vector<std::uint8_t>;

using readersim::hexText;
using readersim::parseHex;

// The request arguments of `tovra transceive`: arguments are joined into one request;
// a ',' (an argument of its own or inside one) ends a request and starts the next.
// Each piece between blanks and commas holds whole bytes. On failure, `error` says why.
std::optional<std::vector<Bytes>> parseRequests(const std::vector<std::string>& arguments, std::string& error);


}  // namespace tovra::cli
