// Facts about the operating system the library runs on.
#pragma once

namespace tovra::platform {

// The separator between directory names in a path: '/' or '\\'.
char pathSeparator();
// "Linux" or "Windows".
const char* osName();
// The base name of the USB gadget device library, "" where the system has none.
const char* gadgetLibraryBaseName();
// Sets how many descriptors the process may hold open (its soft limit), for tests of
// running out of them; false where the system has no such limit or refuses.
bool setOpenFileLimit(unsigned long count);
// The descriptor the next open would get; 0 where this cannot be told.
unsigned long lowestFreeDescriptor();
// Whether the process's standard error goes to a terminal (a person watching) rather
// than to a file or pipe, for programs that draw progress only where it is seen.
bool standardErrorIsTerminal();

}  // namespace tovra::platform
