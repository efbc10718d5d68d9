#include "port_table.h"

#include "error_codes.h"

#include <climits>

namespace zkcom {

PortTable& PortTable::instance()
{
    static PortTable table;
    return table;
}

std::int32_t PortTable::add(std::shared_ptr<Port> port)
{
    std::lock_guard guard(lock_);
    for (std::size_t tries = ports_.size() + 1; tries > 0; --tries) {
        const std::int32_t handle = next_;
        next_ = next_ == INT32_MAX ? 0 : next_ + 1;
        if (ports_.emplace(handle, port).second) return handle;
    }
    return kOutOfMemory;
}

std::shared_ptr<Port> PortTable::find(std::int32_t handle)
{
    std::lock_guard guard(lock_);
    const auto found = ports_.find(handle);
    return found == ports_.end() ? nullptr : found->second;
}

std::shared_ptr<Port> PortTable::remove(std::int32_t handle)
{
    std::lock_guard guard(lock_);
    const auto found = ports_.find(handle);
    if (found == ports_.end()) return nullptr;
    std::shared_ptr<Port> port = std::move(found->second);
    ports_.erase(found);
    return port;
}

} // namespace zkcom
