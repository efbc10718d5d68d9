// Process environment variables.
#pragma once

#include <optional>
#include <string>

namespace tovra::platform {

// The variable's value; nullopt when it is not set (an empty value is set).
std::optional<std::string> getEnv(const char* name);
// Sets or replaces a variable; an empty value is kept as set and empty.
bool setEnv(const char* name, const char* value);
// Removes a variable; removing one that is not set succeeds.
bool unsetEnv(const char* name);

}  // namespace tovra::platform
