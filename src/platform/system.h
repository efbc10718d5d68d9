// Facts about the operating system the library runs on.
#pragma once

namespace tovra::platform {

// The separator between directory names in a path: '/' or '\\'.
char pathSeparator();
// "Linux" or "Windows".
const char* osName();
// The base name of the USB gadget device library, "" where the system has none.
const char* gadgetLibraryBaseName();

}  // namespace tovra::platform
