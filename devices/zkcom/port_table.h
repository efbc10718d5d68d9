// Open ports by handle. Callers hold a port by shared pointer for the length of a call,
// so that closing a handle never pulls a port from under a call still inside it.
#pragma once

#include "port.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

namespace zkcom {

class PortTable {
public:
    static PortTable& instance();

    // The new handle, or kOutOfMemory when every handle is taken.
    std::int32_t add(std::shared_ptr<Port> port);
    std::shared_ptr<Port> find(std::int32_t handle);
    std::shared_ptr<Port> remove(std::int32_t handle);

private:
    std::mutex lock_;
    std::map<std::int32_t, std::shared_ptr<Port>> ports_;
    // Handles count up and come round only after two thousand million opens, so that a
    // stale handle does not reach a port opened since.
    std::int32_t next_ = 0;
};

} // namespace zkcom
