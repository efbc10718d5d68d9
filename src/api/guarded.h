#pragma once

#include "api/reader_registry.h"

namespace tovra {

// The body of an exported function: readers deleted from their own threads are reaped on
// the way in, and nothing thrown inside leaves; only a failed allocation or a refused
// thread gets to `onFailure`.
template <typename Result, typename Call>
Result guarded(Result onFailure, Call&& call) noexcept
{
    try {
        ReaderRegistry::instance().reapRetired();
        return call();
    } catch (...) {
        return onFailure;
    }
}

} // namespace tovra
