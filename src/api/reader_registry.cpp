#include "api/reader_registry.h"

#include "api/error_codes.h"

#include <new>

namespace tovra {

ReaderRegistry& ReaderRegistry::instance()
{
    // Never destroyed: readers the application did not delete stay untouched at unload.
    static ReaderRegistry* const registry = new ReaderRegistry;
    return *registry;
}

std::int32_t ReaderRegistry::create(std::int32_t moduleKind, const char* connector)
{
    std::unique_ptr<TovraReader> reader;
    try {
        reader = std::make_unique<TovraReader>(moduleKind, connector);
    } catch (const std::bad_alloc&) {
        return err::CannotCreateReader;
    }
    const std::int32_t handle = reader->handle();
    std::lock_guard guard(lock_);
    readers_.emplace(handle, std::move(reader));
    return handle;
}

std::int32_t ReaderRegistry::remove(std::int32_t handle)
{
    std::unique_ptr<TovraReader> reader;
    {
        std::lock_guard guard(lock_);
        const auto it = readers_.find(handle);
        if (it == readers_.end()) return err::InvalidReaderHandle;
        reader = std::move(it->second);
        readers_.erase(it);
    }
    reader.reset();
    return err::Ok;
}

std::int32_t ReaderRegistry::terminate(std::int32_t handle)
{
    std::lock_guard guard(lock_);
    const auto it = readers_.find(handle);
    if (it == readers_.end()) return err::InvalidReaderHandle;
    it->second->terminate();
    return err::Ok;
}

TovraReader* ReaderRegistry::find(std::int32_t handle)
{
    std::lock_guard guard(lock_);
    const auto it = readers_.find(handle);
    return it == readers_.end() ? nullptr : it->second.get();
}

std::int32_t ReaderRegistry::nextHandle(std::int32_t first)
{
    std::lock_guard guard(lock_);
    auto it = readers_.end();
    if (first == 0) it = readers_.begin();
    else if (cursor_) it = readers_.upper_bound(*cursor_);
    if (it == readers_.end()) {
        cursor_.reset();
        return 0;
    }
    cursor_ = it->first;
    return it->first;
}

} // namespace tovra
