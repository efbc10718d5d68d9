// Answers of `tovra listen` to a reader's requests: rules from a file, then a fixed answer.
//
// Rule file: one rule a line, "REQUEST-HEX-PREFIX = RESPONSE-HEX"; blanks between bytes
// are allowed; '#' starts a comment; blank lines are skipped. A request gets the response
// of the first rule (in file order) whose prefix it starts with; an empty prefix matches
// every request.
#pragma once

#include "hex.h"

#include <istream>
#include <optional>
#include <string>
#include <vector>

namespace tovra::cli {

class Answers {
public:
    // Reads rules; false with `error` ("line N: ...") when a line is not a rule.
    bool readRules(std::istream& in, std::string& error);
    void setFallback(Bytes answer) { fallback_ = std::move(answer); }

    // The response to `request`, or nothing when no rule matches and there is no fallback.
    std::optional<Bytes> answer(const Bytes& request) const;

private:
    struct Rule {
        Bytes prefix;
        Bytes response;
    };
    std::vector<Rule> rules_;
    std::optional<Bytes> fallback_;
};

}  // namespace tovra::cli
