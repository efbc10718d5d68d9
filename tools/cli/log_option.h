// --log CATEGORIES: the library's own log, on standard error, without a parameter file.
#pragma once

#include <optional>
#include <string>

namespace tovra::cli {

// The logging parameter text for a comma-separated list of categories ("reader,error",
// with or without the "log" of the configuration keys, or "all"); nothing when a name is
// unknown.
std::optional<std::string> loggingParameter(const std::string& categories);
// The category names, for the help text.
std::string loggingCategoryNames();

// Hands the text to the library and writes its log lines to standard error. Only takes
// effect before the first reader or discovery manager logs, so it comes first.
void enableLogging(const std::string& parameter);

}  // namespace tovra::cli
