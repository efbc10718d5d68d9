// Clocks over the performance counter and the precise system time.
#include "platform/clock.h"

#include "platform/windows/win.h"

#include <vector>

namespace tovra::platform {

namespace {

std::int64_t counterFrequency() {
    static const std::int64_t frequency = [] {
        LARGE_INTEGER f;
        return ::QueryPerformanceFrequency(&f) && f.QuadPart > 0 ? f.QuadPart : 1;
    }();
    return frequency;
}

// 100-ns intervals between 1601-01-01 and 1970-01-01.
constexpr std::int64_t kEpochDifference = 116444736000000000LL;

}  // namespace

std::int64_t monotonicMicros() {
    LARGE_INTEGER now;
    ::QueryPerformanceCounter(&now);
    const std::int64_t frequency = counterFrequency();
    // Split to keep the multiplication from overflowing.
    return now.QuadPart / frequency * 1000000 + now.QuadPart % frequency * 1000000 / frequency;
}

std::int64_t wallClockMicros() {
    FILETIME now;
    ::GetSystemTimePreciseAsFileTime(&now);
    const std::int64_t ticks =
        static_cast<std::int64_t>((static_cast<std::uint64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime);
    return (ticks - kEpochDifference) / 10;
}

bool localTime(std::int64_t wallMicros, std::tm& out) {
    std::int64_t seconds = wallMicros / 1000000;
    if (wallMicros % 1000000 < 0) --seconds;
    const auto t = static_cast<__time64_t>(seconds);
    return ::_localtime64_s(&out, &t) == 0;
}

std::string formatLocalTime(std::int64_t wallMicros, const char* format) {
    std::tm parts{};
    if (format == nullptr || *format == '\0' || !localTime(wallMicros, parts)) return {};
    for (std::size_t size = 128; size <= 8192; size *= 4) {
        std::vector<char> buffer(size);
        const std::size_t length = std::strftime(buffer.data(), size, format, &parts);
        if (length > 0) return std::string(buffer.data(), length);
    }
    return {};
}

}  // namespace tovra::platform
