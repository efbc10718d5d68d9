#pragma once

#include "devlibs/library_version.h"

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tovra {

// What sets one device library apart from the others.
struct DeviceLibraryDescription {
    std::string_view name;     // "ZKCOM", in log lines and version texts
    std::string_view fileBase; // "zkcom" gives libzkcom.so / zkcom.dll; empty: none here
    // In resolution order; the first is the version query, the second the error text.
    std::span<const char* const> entryPoints;
    LibraryVersion required;
    // The status after a failed load instead of "Error=" and the system's reason.
    const char* loadFailure = nullptr;
};

// A device library loaded at run time: its entry points resolved by name and its version
// checked against the one required. Used by the thread of its owner; no lock.
class DeviceLibrary {
public:
    explicit DeviceLibrary(const DeviceLibraryDescription& description);
    ~DeviceLibrary() { unload(); }
    DeviceLibrary(const DeviceLibrary&) = delete;
    DeviceLibrary& operator=(const DeviceLibrary&) = delete;

    // Loads the library by file name and resolves every entry point, then check().
    bool load();
    // The same with the file named as it stands (the system's search rules apply).
    bool loadFile(const std::string& file);
    // Every entry point there: the available version is read from the library.
    bool check();
    // An unreadable version counts as older than any required one.
    bool isCompatible() const { return available_.valid() && available_ >= description_.required; }
    // "ZKCOM version: 05.00.00", the mismatch line, or "ZKCOM library not loaded".
    std::string versionText();
    // Why the last load failed: "Error=..." or the first missing entry point; "" after a good one.
    const std::string& statusText() const { return status_; }
    void unload();

    std::string_view name() const { return description_.name; }
    const LibraryVersion& required() const { return description_.required; }
    const LibraryVersion& available() const { return available_; }
    // The version query's own text, "" while not loaded.
    const char* rawVersion() const;

protected:
    // A text a library handed out, "" for none.
    static std::string textOf(const char* text) { return text != nullptr ? text : ""; }

    template <typename Function>
    Function entry(std::size_t index) const
    {
        return reinterpret_cast<Function>(entries_[index]);
    }

private:
    const DeviceLibraryDescription& description_;
    void* module_ = nullptr;
    std::vector<void*> entries_;
    std::string status_;
    LibraryVersion available_;
};

} // namespace tovra
