#pragma once

#include "support/wait.h"
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

// A discovery callback whose first `callbacks` calls meet `parties` in all (those calls and
// other threads arriving through meet()) and then each call `inside`: a stop, start or
// set-up from inside the callback at the moment another thread, or another call of the
// callback, calls too. Counts the calls still running and those begun once `stopped` is set.
struct Crossing {
    std::int32_t (*inside)(Crossing&) = nullptr;
    int callbacks = 1;
    int parties = 2;
    // Yields of the callbacks between the meeting and their call. The last to arrive
    // would otherwise nearly always go first: a test varies it to have either side first.
    int lag = 0;
    std::atomic<int> calls{0};
    std::atomic<int> arrived{0};
    std::atomic<int> insideDone{0};
    std::atomic<int> running{0};
    std::atomic<bool> stopped{false};
    std::atomic<int> afterStop{0};
    std::mutex lock;
    std::vector<std::int32_t> insideResults;

    // False when the others did not come in time.
    bool meet()
    {
        ++arrived;
        return spinUntil([&] { return arrived >= parties; });
    }
    std::vector<std::int32_t> results()
    {
        std::lock_guard guard(lock);
        return insideResults;
    }
};

inline void TOVRA_CALL onCrossing(void* context, std::int32_t, const char*)
{
    Crossing& crossing = *static_cast<Crossing*>(context);
    if (crossing.stopped) ++crossing.afterStop;
    ++crossing.running;
    if (++crossing.calls <= crossing.callbacks) {
        const bool met = crossing.meet();
        for (int i = 0; i < crossing.lag; ++i) std::this_thread::yield();
        const std::int32_t result = met ? crossing.inside(crossing) : 1;
        {
            std::lock_guard guard(crossing.lock);
            crossing.insideResults.push_back(result);
        }
        ++crossing.insideDone;
    }
    --crossing.running;
}

} // namespace tovra::test
