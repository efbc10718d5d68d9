#include "platform/system.h"

#include <io.h>
#include <stdio.h>

namespace tovra::platform {

char pathSeparator() { return '\\'; }
const char* gadgetLibraryBaseName() { return ""; }
const char* osName() { return "Windows"; }

bool setOpenFileLimit(unsigned long) { return false; }

unsigned long lowestFreeDescriptor() { return 0; }

bool standardErrorIsTerminal() { return ::_isatty(::_fileno(stderr)) != 0; }

}  // namespace tovra::platform
