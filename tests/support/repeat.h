#pragma once

namespace tovra::test {

// How often a race is repeated: the sanitizers and wine run everything several times
// slower, so they get fewer rounds of the same race.
#if defined(_WIN32)
inline constexpr int kRepeatDivisor = 10;
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr int kRepeatDivisor = 4;
#else
inline constexpr int kRepeatDivisor = 1;
#endif

constexpr int repeat(int rounds)
{
    return rounds / kRepeatDivisor > 0 ? rounds / kRepeatDivisor : 1;
}

} // namespace tovra::test
