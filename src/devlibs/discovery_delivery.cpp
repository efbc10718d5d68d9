#include "devlibs/discovery_delivery.h"

#include <algorithm>

namespace tovra {

void DiscoveryDelivery::set(void* context, TOVRA_DiscoveryCallback callback)
{
    {
        std::lock_guard guard(lock_);
        context_ = context;
        callback_ = callback;
        ++sets_;
    }
    // A stop that waits may owe nothing more to a delivery that waits in turn.
    finished_.notify_all();
}

DiscoveryDelivery::SwitchedOff DiscoveryDelivery::switchOff()
{
    std::lock_guard guard(lock_);
    const bool wasOn = callback_ != nullptr;
    context_ = nullptr;
    callback_ = nullptr;
    return {wasOn, sets_, begun_};
}

void DiscoveryDelivery::awaitEnd(const SwitchedOff& off)
{
    const std::thread::id self = std::this_thread::get_id();
    std::unique_lock guard(lock_);
    markWaiting(self, true);
    // A delivery that waits in a stop of its own, after a newer start, may wait for this
    // very thread: it is not waited for, and this stop leaves the newer start's
    // registration alone.
    finished_.wait(guard, [&] {
        return std::all_of(running_.begin(), running_.end(), [&](const Running& delivery) {
            return delivery.thread == self || delivery.number >= off.begun || (delivery.waiting && sets_ != off.sets);
        });
    });
    markWaiting(self, false);
}

void DiscoveryDelivery::markWaiting(std::thread::id thread, bool waiting)
{
    bool any = false;
    for (Running& delivery : running_) {
        if (delivery.thread != thread) continue;
        delivery.waiting = waiting;
        any = true;
    }
    if (any) finished_.notify_all();
}

bool DiscoveryDelivery::setSince(const SwitchedOff& off) const
{
    std::lock_guard guard(lock_);
    return sets_ != off.sets;
}

bool DiscoveryDelivery::isSet() const
{
    std::lock_guard guard(lock_);
    return callback_ != nullptr;
}

bool DiscoveryDelivery::deliveringHere() const
{
    const std::thread::id self = std::this_thread::get_id();
    std::lock_guard guard(lock_);
    return std::any_of(running_.begin(), running_.end(),
                       [&](const Running& delivery) { return delivery.thread == self; });
}

bool DiscoveryDelivery::deliver(std::int32_t event, const char* line)
{
    const std::thread::id self = std::this_thread::get_id();
    TOVRA_DiscoveryCallback callback = nullptr;
    void* context = nullptr;
    std::uint64_t number = 0;
    {
        std::lock_guard guard(lock_);
        if (callback_ == nullptr) return false;
        callback = callback_;
        context = context_;
        number = begun_++;
        running_.push_back({self, number, false});
    }
    callback(context, event, line);
    {
        std::lock_guard guard(lock_);
        running_.erase(std::find_if(running_.begin(), running_.end(),
                                    [&](const Running& delivery) { return delivery.number == number; }));
    }
    finished_.notify_all();
    return true;
}

} // namespace tovra
