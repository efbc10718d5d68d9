// Loading shared libraries at run time (device libraries, custom transports).
#pragma once

#include <string>
#include <string_view>

namespace tovra::platform {

// The loaded module; null when none.
using LibraryHandle = void*;

// Loads a library by file name or path with all symbols bound at once
// (dlopen RTLD_NOW / LoadLibraryA, the platform's search order applies).
// Null on failure; the reason is then kept for lastLoadError().
LibraryHandle loadLibrary(const char* path);
// The address of an exported symbol, or null.
void* findSymbol(LibraryHandle library, const char* name);
// Releases one reference taken by loadLibrary. false for a null handle or failure.
bool unloadLibrary(LibraryHandle library);
// Why the calling thread's most recent failed loadLibrary failed: dlerror()'s
// text on Linux, the decimal GetLastError() value on Windows. "" if no load
// has failed on this thread.
std::string lastLoadError();
// The platform's file name of a library from its base name:
// "zkcom" gives "libzkcom.so" on Linux and "zkcom.dll" on Windows.
std::string libraryFileName(std::string_view baseName);

// Casts a symbol address from findSymbol to a function pointer type.
template <typename Function>
Function symbolAs(void* symbol) {
    return reinterpret_cast<Function>(symbol);
}

}  // namespace tovra::platform
