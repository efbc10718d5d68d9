#include "rules.h"

#include <algorithm>

namespace tovra::cli {

namespace {

bool isBlankLine(const std::string& line) {
    return line.find_first_not_of(" \t\r") == std::string::npos;
}

}  // namespace

bool Answers::readRules(std::istream& in, std::string& error) {
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        line = line.substr(0, line.find('#'));
        if (isBlankLine(line)) continue;
        const auto equals = line.find('=');
        const auto prefix = equals == std::string::npos ? std::nullopt : parseHex(line.substr(0, equals));
        const auto response = equals == std::string::npos ? std::nullopt : parseHex(line.substr(equals + 1));
        if (!prefix || !response || response->empty()) {
            error = "line " + std::to_string(number) + ": expected REQUEST-HEX-PREFIX = RESPONSE-HEX";
            return false;
        }
        rules_.push_back({*prefix, *response});
    }
    return true;
}

std::optional<Bytes> Answers::answer(const Bytes& request) const {
    for (const Rule& rule : rules_) {
        if (rule.prefix.size() <= request.size() && std::equal(rule.prefix.begin(), rule.prefix.end(), request.begin())) {
            return rule.response;
        }
    }
    return fallback_;
}

}  // namespace tovra::cli
