// Port numbers to device paths, and presence without opening: opening a port pulses DTR,
// and that resets some readers.
#include "serial_line.h"

#include "error_codes.h"

#include <climits>
#include <cstdlib>
#include <fstream>
#include <string_view>
#include <sys/stat.h>

namespace zkcom {
namespace {

constexpr std::string_view kUartPrefix = "/dev/ttyS";

// The kernel makes a ttyS node for every UART slot it could drive; the sysfs type of an
// empty slot is 0 (PORT_UNKNOWN).
bool isEmptyUartSlot(const std::string& device)
{
    if (device.compare(0, kUartPrefix.size(), kUartPrefix) != 0) return false;
    const std::string index = device.substr(kUartPrefix.size());
    if (!parseDecimal(index, 9999)) return false;
    std::ifstream type("/sys/class/tty/ttyS" + index + "/type");
    int value = -1;
    return type >> value && value == 0;
}

} // namespace

std::optional<std::string> environmentValue(const char* name)
{
    const char* value = std::getenv(name);
    if (value == nullptr || *value == '\0') return std::nullopt;
    return std::string(value);
}

std::string portPath(int number)
{
    const std::string suffix = std::to_string(number);
    if (auto mapped = environmentValue(("ZKCOM_COM" + suffix).c_str())) return *mapped;
    if (auto folder = environmentValue("ZKCOM_PORTDIR")) return *folder + "/com" + suffix;
    return std::string(kUartPrefix) + std::to_string(number - 1);
}

std::int32_t detectPort(int number)
{
    const std::string path = portPath(number);
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || !S_ISCHR(status.st_mode)) return kPortAbsent;
    char resolved[PATH_MAX];
    if (::realpath(path.c_str(), resolved) != nullptr && isEmptyUartSlot(resolved)) return kPortAbsent;
    return kOk;
}

} // namespace zkcom
