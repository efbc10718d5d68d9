#pragma once

#include <chrono>
#include <thread>

namespace tovra::test {

// Polls `condition` until it holds or `limit` passes; generous limits, no timing luck.
template <typename Condition>
bool waitUntil(Condition condition, std::chrono::milliseconds limit = std::chrono::milliseconds(10000))
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// The same without sleeping between looks, for threads that are to meet at once.
template <typename Condition>
bool spinUntil(Condition condition, std::chrono::milliseconds limit = std::chrono::milliseconds(10000))
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::yield();
    }
    return true;
}

} // namespace tovra::test
