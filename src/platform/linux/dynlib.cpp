// Shared libraries through the dynamic linker.
#include "platform/dynlib.h"

#include <dlfcn.h>

namespace tovra::platform {

namespace {
thread_local std::string loadFailure;
}

LibraryHandle loadLibrary(const char* path) {
    if (path == nullptr || *path == '\0') {
        loadFailure = "empty library name";
        return nullptr;
    }
    ::dlerror();
    void* library = ::dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* reason = ::dlerror();
        loadFailure = reason != nullptr ? reason : "dlopen failed";
    }
    return library;
}

void* findSymbol(LibraryHandle library, const char* name) {
    if (library == nullptr || name == nullptr) return nullptr;
    return ::dlsym(library, name);
}

bool unloadLibrary(LibraryHandle library) { return library != nullptr && ::dlclose(library) == 0; }

std::string lastLoadError() { return loadFailure; }

std::string libraryFileName(std::string_view baseName) {
    std::string name = "lib";
    name.append(baseName);
    name.append(".so");
    return name;
}

}  // namespace tovra::platform
