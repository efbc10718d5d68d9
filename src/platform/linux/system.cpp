#include "platform/system.h"

namespace tovra::platform {

char pathSeparator() { return '/'; }
const char* gadgetLibraryBaseName() { return "zkgadget"; }
const char* osName() { return "Linux"; }

}  // namespace tovra::platform
