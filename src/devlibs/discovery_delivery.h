#pragma once

#include "tovra/tovra.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace tovra {

// The application's discovery callback, called from a device library's threads. Clearing
// it waits for deliveries still running on other threads, so that nothing reaches the
// application after a stop returns; a stop from inside the callback does not wait for
// itself.
class DiscoveryDelivery {
public:
    void set(void* context, TOVRA_DiscoveryCallback callback);
    void clear();
    bool isSet() const;
    // True inside the callback, on its thread.
    bool deliveringHere() const;
    // Calls the callback, unless none is set; false then.
    bool deliver(std::int32_t event, const char* line);

private:
    mutable std::mutex lock_;
    std::condition_variable finished_;
    void* context_ = nullptr;
    TOVRA_DiscoveryCallback callback_ = nullptr;
    // The threads inside the callback now.
    std::vector<std::thread::id> running_;
};

} // namespace tovra
