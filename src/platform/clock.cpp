// Local-time formatting, the same on every OS over its own localTime().
#include "platform/clock.h"

#include <vector>

namespace tovra::platform {

std::string formatLocalTime(std::int64_t wallMicros, const char* format) {
    std::tm parts{};
    if (format == nullptr || *format == '\0' || !localTime(wallMicros, parts)) return {};
    // strftime gives 0 both for "too small" and for an empty result: grow a
    // few times, then give up.
    for (std::size_t size = 128; size <= 8192; size *= 4) {
        std::vector<char> buffer(size);
        const std::size_t length = std::strftime(buffer.data(), size, format, &parts);
        if (length > 0) return std::string(buffer.data(), length);
    }
    return {};
}

}  // namespace tovra::platform
