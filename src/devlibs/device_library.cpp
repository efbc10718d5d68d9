#include "devlibs/device_library.h"

#include "platform/dynlib.h"

namespace tovra {

DeviceLibrary::DeviceLibrary(const DeviceLibraryDescription& description)
    : description_(description), entries_(description.entryPoints.size(), nullptr)
{
}

bool DeviceLibrary::load()
{
    return loadFile(description_.fileBase.empty() ? std::string() : platform::libraryFileName(description_.fileBase));
}

bool DeviceLibrary::loadFile(const std::string& file)
{
    if (module_ != nullptr) unload();
    if (!file.empty()) {
        module_ = platform::loadLibrary(file.c_str());
        if (module_ == nullptr) status_ = "Error=" + platform::lastLoadError();
    }
    if (module_ != nullptr)
        for (std::size_t i = 0; i < entries_.size(); ++i)
            entries_[i] = platform::findSymbol(module_, description_.entryPoints[i]);
    return check();
}

bool DeviceLibrary::check()
{
    if (module_ == nullptr) {
        if (description_.loadFailure != nullptr) status_ = description_.loadFailure;
        else if (status_.empty()) status_ = "Error=" + platform::lastLoadError();
        return false;
    }
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        if (entries_[i] == nullptr) {
            status_ = description_.entryPoints[i];
            return false;
        }
    }
    status_.clear();
    available_ = LibraryVersion::parse(rawVersion());
    return true;
}

const char* DeviceLibrary::rawVersion() const
{
    if (module_ == nullptr || entries_.empty() || entries_[0] == nullptr) return "";
    const char* text = entry<const char* (*)()>(0)();
    return text != nullptr ? text : "";
}

std::string DeviceLibrary::versionText()
{
    const std::string name(description_.name);
    if (!check()) return name + " library not loaded";
    if (isCompatible()) return name + " version: " + available_.text();
    return name + " version mismatch: required " + description_.required.text() + " - available " +
           available_.text();
}

void DeviceLibrary::unload()
{
    if (module_ == nullptr) return;
    platform::unloadLibrary(module_);
    module_ = nullptr;
    entries_.assign(entries_.size(), nullptr);
    status_.clear();
    available_.reset();
}

} // namespace tovra
