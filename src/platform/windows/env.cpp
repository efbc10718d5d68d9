// Environment over the Win32 process environment. The C runtime's putenv
// cannot hold an empty value (it removes the variable), and the runtime copies
// its own changes into this environment, so reading here sees both.
#include "platform/env.h"

#include "platform/windows/win.h"

#include <vector>

namespace tovra::platform {

std::optional<std::string> getEnv(const char* name) {
    if (name == nullptr || *name == '\0') return std::nullopt;
    std::vector<char> buffer(256);
    for (;;) {
        ::SetLastError(ERROR_SUCCESS);
        const DWORD length = ::GetEnvironmentVariableA(name, buffer.data(), static_cast<DWORD>(buffer.size()));
        if (length == 0) {
            if (::GetLastError() == ERROR_ENVVAR_NOT_FOUND) return std::nullopt;
            return std::string();
        }
        // A result not smaller than the buffer is the size needed, terminator included.
        if (length < buffer.size()) return std::string(buffer.data(), length);
        buffer.resize(length);
    }
}

bool setEnv(const char* name, const char* value) {
    return name != nullptr && *name != '\0' && value != nullptr &&
           ::SetEnvironmentVariableA(name, value) != 0;
}

bool unsetEnv(const char* name) {
    if (name == nullptr || *name == '\0') return false;
    return ::SetEnvironmentVariableA(name, nullptr) != 0 || ::GetLastError() == ERROR_ENVVAR_NOT_FOUND;
}

}  // namespace tovra::platform
