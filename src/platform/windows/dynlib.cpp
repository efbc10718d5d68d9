// Shared libraries through the Windows loader.
#include "platform/dynlib.h"

#include "platform/windows/win.h"

namespace tovra::platform {

namespace {
thread_local std::string loadFailure;
}

LibraryHandle loadLibrary(const char* path) {
    if (path == nullptr || *path == '\0') {
        loadFailure = std::to_string(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    // No message box for a missing file or a dependency that cannot be found.
    DWORD oldMode = 0;
    const BOOL modeSet = ::SetThreadErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX, &oldMode);
    HMODULE library = ::LoadLibraryA(path);
    const DWORD error = ::GetLastError();
    if (modeSet) ::SetThreadErrorMode(oldMode, nullptr);
    if (library == nullptr) loadFailure = std::to_string(error);
    ::SetLastError(error);
    return reinterpret_cast<LibraryHandle>(library);
}

void* findSymbol(LibraryHandle library, const char* name) {
    if (library == nullptr || name == nullptr) return nullptr;
    return reinterpret_cast<void*>(::GetProcAddress(static_cast<HMODULE>(library), name));
}

bool unloadLibrary(LibraryHandle library) {
    return library != nullptr && ::FreeLibrary(static_cast<HMODULE>(library)) != 0;
}

std::string lastLoadError() { return loadFailure; }

std::string libraryFileName(std::string_view baseName) {
    std::string name(baseName);
    name.append(".dll");
    return name;
}

}  // namespace tovra::platform
