#include "hex.h"

namespace tovra::cli {

namespace {

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

}  // namespace tovra::cli
