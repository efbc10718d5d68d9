// Thread identity.
#pragma once

#include <cstdint>

namespace tovra::platform {

// The operating system's id of the calling thread (as shown by system tools).
std::uint64_t currentThreadId();

}  // namespace tovra::platform
