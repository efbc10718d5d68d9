// When a long-running command (listen, discover) ends: on Ctrl-C or SIGTERM, when its
// time is up, or when something it waits for has happened.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>

namespace tovra::cli {

class Ending {
public:
    using Clock = std::chrono::steady_clock;

    // Ctrl-C and SIGTERM end the waits from now on, instead of the process.
    static void catchSignals();
    static bool interrupted();

    // Wakes a waiter to look at its condition again; for the library's threads.
    void wake();
    // Until `done` holds, a signal came, or `seconds` (when not 0) are up.
    void wait(const std::function<bool()>& done, unsigned seconds);

private:
    std::mutex mutex_;
    std::condition_variable changed_;
};

}  // namespace tovra::cli
