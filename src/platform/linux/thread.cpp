#include "platform/thread.h"

#include <unistd.h>

namespace tovra::platform {

std::uint64_t currentThreadId() { return static_cast<std::uint64_t>(::gettid()); }

}  // namespace tovra::platform
