// Clocks and local time.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace tovra::platform {

// Microseconds of a clock that never jumps (for deadlines and intervals).
std::int64_t monotonicMicros();
// Microseconds since 1970-01-01 00:00:00 UTC (the system clock).
std::int64_t wallClockMicros();

// The local-time breakdown of a wall-clock value; false if it cannot be
// represented. Thread-safe (localtime_r / localtime_s).
bool localTime(std::int64_t wallMicros, std::tm& out);
// strftime of the local time of a wall-clock value; "" on failure or when the
// result is empty. Use the C89 conversions only: the Windows runtime knows no others.
std::string formatLocalTime(std::int64_t wallMicros, const char* format);

}  // namespace tovra::platform
