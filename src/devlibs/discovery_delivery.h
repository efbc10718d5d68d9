#pragma once

#include "tovra/tovra.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace tovra {

// The application's discovery callback, called from a device library's threads. A stop
// switches it off and then waits, apart, for the deliveries still running on other
// threads: the wait must not hold the lock that a callback calling in needs. A stop from
// inside the callback does not wait for itself.
class DiscoveryDelivery {
public:
    // Where a switch-off left the deliveries and the starts.
    struct SwitchedOff {
        bool wasOn = false;
        std::uint64_t sets = 0;
        std::uint64_t begun = 0;
    };

    void set(void* context, TOVRA_DiscoveryCallback callback);
    // No delivery begins after this, until the next set().
    SwitchedOff switchOff();
    // Returns once the deliveries begun before the switch-off have ended, but for the
    // calling thread's own and, once a start has come since, those waiting here in a stop
    // of their own.
    void awaitEnd(const SwitchedOff& off);
    // Whether set() came after the switch-off: a newer start then owns the library's
    // registration that the stop would take back.
    bool setSince(const SwitchedOff& off) const;
    bool isSet() const;
    // True inside the callback, on its thread.
    bool deliveringHere() const;
    // Calls the callback, unless none is set; false then.
    bool deliver(std::int32_t event, const char* line);

private:
    struct Running {
        std::thread::id thread;
        std::uint64_t number;
        bool waiting; // in awaitEnd(), from inside the callback
    };

    // The lock held.
    void markWaiting(std::thread::id thread, bool waiting);

    mutable std::mutex lock_;
    std::condition_variable finished_;
    void* context_ = nullptr;
    TOVRA_DiscoveryCallback callback_ = nullptr;
    std::uint64_t sets_ = 0;
    std::uint64_t begun_ = 0;
    // The deliveries inside the callback now, numbered as they began.
    std::vector<Running> running_;
};

} // namespace tovra
