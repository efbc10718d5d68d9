#include "api/reader_registry.h"

#include "api/error_codes.h"

#include <algorithm>
#include <new>

namespace tovra {

ReaderRegistry& ReaderRegistry::instance()
{
    // Never destroyed: readers the application did not delete stay untouched at unload.
    static ReaderRegistry* const registry = new ReaderRegistry;
    return *registry;
}

void ReaderRegistry::dispose(TovraReader* reader)
{
    if (!reader->onOwnThread()) {
        delete reader;
        return;
    }
    ReaderRegistry& registry = instance();
    std::lock_guard guard(registry.retiredLock_);
    registry.retired_.emplace_back(reader);
    registry.retiredCount_.store(registry.retired_.size());
}

void ReaderRegistry::reapRetiredNow()
{
    std::vector<std::unique_ptr<TovraReader>> done;
    {
        std::lock_guard guard(retiredLock_);
        for (auto it = retired_.begin(); it != retired_.end();) {
            if ((*it)->quiescent() && !(*it)->onOwnThread()) {
                done.push_back(std::move(*it));
                it = retired_.erase(it);
            } else {
                ++it;
            }
        }
        retiredCount_.store(retired_.size());
    }
    done.clear(); // joins threads that have ended, outside the lock
}

std::int32_t ReaderRegistry::create(std::int32_t moduleKind, const char* connector)
{
    std::shared_ptr<TovraReader> reader;
    try {
        reader = std::shared_ptr<TovraReader>(new TovraReader(moduleKind, connector), &ReaderRegistry::dispose);
    } catch (const std::bad_alloc&) {
        return err::CannotCreateReader;
    }
    const std::int32_t handle = reader->handle();
    std::lock_guard guard(lock_);
    const auto it = position(handle);
    // After the counter wraps a handle may still be taken: the older reader keeps it.
    if (it == readers_.end() || it->handle != handle) readers_.insert(it, Entry{handle, std::move(reader)});
    return handle;
}

std::int32_t ReaderRegistry::remove(std::int32_t handle)
{
    std::shared_ptr<TovraReader> reader;
    {
        std::lock_guard guard(lock_);
        const auto it = position(handle);
        if (it == readers_.end() || it->handle != handle) return err::InvalidReaderHandle;
        reader = std::move(it->reader);
        readers_.erase(it);
    }
    if (reader->onOwnThread()) reader->markDeleted();
    // Every thread of the reader has ended when this returns, unless this is one of them.
    reader->shutdown();
    reader.reset();
    return err::Ok;
}

std::int32_t ReaderRegistry::terminate(std::int32_t handle)
{
    const std::shared_ptr<TovraReader> reader = find(handle);
    if (!reader) return err::InvalidReaderHandle;
    reader->terminate();
    return err::Ok;
}

std::vector<ReaderRegistry::Entry>::iterator ReaderRegistry::position(std::int32_t handle)
{
    return std::lower_bound(readers_.begin(), readers_.end(), handle,
                            [](const Entry& entry, std::int32_t wanted) { return entry.handle < wanted; });
}

std::shared_ptr<TovraReader> ReaderRegistry::find(std::int32_t handle)
{
    std::shared_lock guard(lock_);
    const auto it = position(handle);
    return it == readers_.end() || it->handle != handle ? nullptr : it->reader;
}

std::int32_t ReaderRegistry::nextHandle(std::int32_t first)
{
    std::lock_guard guard(lock_);
    auto it = readers_.end();
    if (first == 0) it = readers_.begin();
    else if (cursor_) it = position(*cursor_ + 1);
    if (it == readers_.end()) {
        cursor_.reset();
        return 0;
    }
    cursor_ = it->handle;
    return it->handle;
}

} // namespace tovra
