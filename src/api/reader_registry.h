#pragma once

#include "reader/tovra_reader.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

namespace tovra {

// Every live reader by handle. The mutex guards only the map: readers are called
// outside it, except for terminate, which never blocks.
class ReaderRegistry {
public:
    static ReaderRegistry& instance();

    // The new handle, or -5001 when the reader cannot be made.
    std::int32_t create(std::int32_t moduleKind, const char* connector);
    // 0, or -5002 for an unknown handle. The reader is destroyed outside the lock.
    std::int32_t remove(std::int32_t handle);
    std::int32_t terminate(std::int32_t handle);
    // Null for an unknown handle.
    TovraReader* find(std::int32_t handle);
    // With 0 the smallest live handle, otherwise the next one after the last answer; 0 past the end.
    std::int32_t nextHandle(std::int32_t first);

private:
    ReaderRegistry() = default;

    std::mutex lock_;
    std::map<std::int32_t, std::unique_ptr<TovraReader>> readers_;
    // The enumeration cursor as the handle it stands on, so that deleting that reader
    // cannot leave it dangling; none once it has passed the end.
    std::optional<std::int32_t> cursor_;
};

} // namespace tovra
