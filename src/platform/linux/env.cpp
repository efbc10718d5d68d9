// Environment over the C library's environ.
#include "platform/env.h"

#include <stdlib.h>

namespace tovra::platform {

std::optional<std::string> getEnv(const char* name) {
    if (name == nullptr) return std::nullopt;
    const char* value = ::getenv(name);
    if (value == nullptr) return std::nullopt;
    return std::string(value);
}

bool setEnv(const char* name, const char* value) {
    return name != nullptr && value != nullptr && ::setenv(name, value, 1) == 0;
}

bool unsetEnv(const char* name) { return name != nullptr && ::unsetenv(name) == 0; }

}  // namespace tovra::platform
