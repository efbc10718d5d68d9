#include "platform/system.h"

namespace tovra::platform {

char pathSeparator() { return '/'; }
const char* osName() { return "Linux"; }

}  // namespace tovra::platform
