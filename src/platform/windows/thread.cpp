#include "platform/thread.h"

#include "platform/windows/win.h"

namespace tovra::platform {

std::uint64_t currentThreadId() { return ::GetCurrentThreadId(); }

}  // namespace tovra::platform
