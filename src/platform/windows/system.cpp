#include "platform/system.h"

namespace tovra::platform {

char pathSeparator() { return '\\'; }
const char* gadgetLibraryBaseName() { return ""; }
const char* osName() { return "Windows"; }

}  // namespace tovra::platform
