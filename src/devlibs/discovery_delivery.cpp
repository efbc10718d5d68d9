#include "devlibs/discovery_delivery.h"

#include <algorithm>

namespace tovra {

void DiscoveryDelivery::set(void* context, TOVRA_DiscoveryCallback callback)
{
    std::lock_guard guard(lock_);
    context_ = context;
    callback_ = callback;
}

void DiscoveryDelivery::clear()
{
    const std::thread::id self = std::this_thread::get_id();
    std::unique_lock guard(lock_);
    context_ = nullptr;
    callback_ = nullptr;
    finished_.wait(guard, [&] {
        return std::all_of(running_.begin(), running_.end(), [&](std::thread::id id) { return id == self; });
    });
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
    return std::find(running_.begin(), running_.end(), self) != running_.end();
}

bool DiscoveryDelivery::deliver(std::int32_t event, const char* line)
{
    const std::thread::id self = std::this_thread::get_id();
    TOVRA_DiscoveryCallback callback = nullptr;
    void* context = nullptr;
    {
        std::lock_guard guard(lock_);
        if (callback_ == nullptr) return false;
        callback = callback_;
        context = context_;
        running_.push_back(self);
    }
    callback(context, event, line);
    {
        std::lock_guard guard(lock_);
        running_.erase(std::find(running_.begin(), running_.end(), self));
    }
    finished_.notify_all();
    return true;
}

} // namespace tovra
