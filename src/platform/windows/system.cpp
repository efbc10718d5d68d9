#include "platform/system.h"

namespace tovra::platform {

char pathSeparator() { return '\\'; }
const char* gadgetLibraryBaseName() { return ""; }
const char* osName() { return "Windows"; }

bool setOpenFileLimit(unsigned long) { return false; }

unsigned long lowestFreeDescriptor() { return 0; }

}  // namespace tovra::platform
