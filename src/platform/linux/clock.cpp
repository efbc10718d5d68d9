// Clocks over clock_gettime.
#include "platform/clock.h"

#include <time.h>

namespace tovra::platform {

namespace {

std::int64_t micros(clockid_t clock) {
    timespec now{};
    ::clock_gettime(clock, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

}  // namespace

std::int64_t monotonicMicros() { return micros(CLOCK_MONOTONIC); }
std::int64_t wallClockMicros() { return micros(CLOCK_REALTIME); }

bool localTime(std::int64_t wallMicros, std::tm& out) {
    // Floor division, so instants before 1970 fall in the right second.
    std::int64_t seconds = wallMicros / 1000000;
    if (wallMicros % 1000000 < 0) --seconds;
    const auto t = static_cast<time_t>(seconds);
    return ::localtime_r(&t, &out) != nullptr;
}

}  // namespace tovra::platform
