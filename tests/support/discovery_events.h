#pragma once

#include "tovra/tovra.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tovra::test {

// What a discovery callback was told, and on which threads.
struct Heard {
    std::mutex lock;
    std::vector<std::pair<std::int32_t, std::string>> events;
    std::vector<std::thread::id> threads;
    std::atomic<int> count{0};
    // Set once a stop has returned: a delivery that still comes is counted here.
    std::atomic<bool> stopped{false};
    std::atomic<int> afterStop{0};
    // A stop asked for from inside the callback, and what it answered.
    std::int32_t (*stopInside)() = nullptr;
    std::atomic<std::int32_t> stopResult{1};

    std::vector<std::pair<std::int32_t, std::string>> taken()
    {
        std::lock_guard guard(lock);
        return events;
    }
    // The last line of `event` that contains `part`, or "".
    std::string lineWith(std::int32_t event, const std::string& part)
    {
        std::lock_guard guard(lock);
        for (auto it = events.rbegin(); it != events.rend(); ++it)
            if (it->first == event && it->second.find(part) != std::string::npos) return it->second;
        return {};
    }
};

inline void TOVRA_CALL onDiscovery(void* context, std::int32_t event, const char* line)
{
    Heard& heard = *static_cast<Heard*>(context);
    if (heard.stopped) ++heard.afterStop;
    {
        std::lock_guard guard(heard.lock);
        heard.events.emplace_back(event, line != nullptr ? line : "(null)");
        heard.threads.push_back(std::this_thread::get_id());
    }
    ++heard.count;
    if (auto stop = std::exchange(heard.stopInside, nullptr)) heard.stopResult = stop();
}

} // namespace tovra::test
