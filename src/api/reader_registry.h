#pragma once

#include "reader/tovra_reader.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <vector>

namespace tovra {

// Every live reader by handle. The lock guards only the map, and readers are called outside
// it; every call looks its reader up, so lookups share the lock. A call holds its reader for
// as long as it runs, so a concurrent delete never frees it under the call.
class ReaderRegistry {
public:
    static ReaderRegistry& instance();

    // The new handle, or -5001 when the reader cannot be made.
    std::int32_t create(std::int32_t moduleKind, const char* connector);
    // 0, or -5002 for an unknown handle. The reader is shut down and destroyed outside the
    // lock; from one of its own callbacks, once that callback has returned.
    std::int32_t remove(std::int32_t handle);
    std::int32_t terminate(std::int32_t handle);
    // Null for an unknown handle.
    std::shared_ptr<TovraReader> find(std::int32_t handle);
    // With 0 the smallest live handle, otherwise the next one after the last answer; 0 past the end.
    std::int32_t nextHandle(std::int32_t first);

    // Destroys the readers deleted from their own threads whose threads have all ended.
    // Cheap when there are none; called on the way into every export.
    void reapRetired()
    {
        if (retiredCount_.load(std::memory_order_relaxed) != 0) reapRetiredNow();
    }

private:
    ReaderRegistry() = default;
    // The last holder of a reader lets go: destroyed here, unless this is one of the
    // reader's own threads, which cannot wait for itself.
    static void dispose(TovraReader* reader);
    void reapRetiredNow();

    struct Entry {
        std::int32_t handle;
        std::shared_ptr<TovraReader> reader;
    };
    // The first entry whose handle is not below `handle`.
    std::vector<Entry>::iterator position(std::int32_t handle);

    std::shared_mutex lock_;
    // Sorted by handle, and compact: every export looks its reader up here.
    std::vector<Entry> readers_;
    // The enumeration cursor as the handle it stands on, so that deleting that reader
    // cannot leave it dangling; none once it has passed the end.
    std::optional<std::int32_t> cursor_;

    std::mutex retiredLock_;
    std::vector<std::unique_ptr<TovraReader>> retired_;
    std::atomic<std::size_t> retiredCount_{0};
};

} // namespace tovra
