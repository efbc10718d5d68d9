// Clocks over the performance counter and the precise system time.
#include "platform/clock.h"

#include "platform/windows/win.h"

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

}  // namespace tovra::platform
