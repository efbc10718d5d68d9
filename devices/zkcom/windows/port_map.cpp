// Port numbers to device names, and presence without opening: opening a port pulses DTR,
// and that resets some readers.
#define WIN32_LEAN_AND_MEAN
#define NOMINMAX
#include <windows.h>

#include "serial_line.h"

#include "error_codes.h"

#include <string_view>
#include <vector>

namespace zkcom {
namespace {

constexpr std::string_view kDevicePrefix = "\\\\.\\";

} // namespace

// The process environment itself: the C runtime's copy misses SetEnvironmentVariable.
std::optional<std::string> environmentValue(const char* name)
{
    std::vector<char> buffer(256);
    for (;;) {
        const DWORD length = ::GetEnvironmentVariableA(name, buffer.data(), static_cast<DWORD>(buffer.size()));
        if (length == 0) return std::nullopt;
        if (length < buffer.size()) return std::string(buffer.data(), length);
        buffer.resize(length);
    }
}

std::string portPath(int number)
{
    const std::string suffix = std::to_string(number);
    if (auto mapped = environmentValue(("ZKCOM_COM" + suffix).c_str())) return *mapped;
    return std::string(kDevicePrefix) + "COM" + suffix;
}

std::int32_t detectPort(int number)
{
    const std::string path = portPath(number);
    if (path.compare(0, kDevicePrefix.size(), kDevicePrefix) == 0) {
        // The DOS device table names every port the system has, open or not.
        char target[1024];
        const std::string name = path.substr(kDevicePrefix.size());
        if (::QueryDosDeviceA(name.c_str(), target, sizeof target) != 0) return kOk;
        return ::GetLastError() == ERROR_INSUFFICIENT_BUFFER ? kOk : kPortAbsent;
    }
    return ::GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES ? kOk : kPortAbsent;
}

} // namespace zkcom
