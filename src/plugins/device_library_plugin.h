#pragma once

#include "api/error_codes.h"
#include "api/error_texts.h"
#include "logging/log.h"
#include "plugins/tovra_plugin.h"
#include "reader/connection_record.h"

#include <cstdint>
#include <string>

namespace tovra {

// A transport that reaches its hardware through a device library: the plugin owns its
// own loader, loads it when made, and refuses every operation while the library is
// missing (-5021) or too old (-5022).
template <typename Library>
class DeviceLibraryPlugin : public TovraPlugin {
public:
    const char* pliGetErrorText(std::int32_t code) override
    try {
        // Per thread: two threads asking at once must not share one text.
        thread_local std::string text;
        if (!loaded_) text.clear();
        else if (code == err::PluginVersionMismatch) text = library_.versionText();
        else text = library_.errorText(code);
        return text.c_str();
    } catch (...) {
        return "";
    }

    const char* pliGetVersion() override { return loaded_ ? library_.rawVersion() : ""; }

protected:
    DeviceLibraryPlugin(ConnectionRecord* owner, std::int32_t kind, std::uint32_t category)
        : TovraPlugin(owner), category_(category)
    {
        kind_ = kind;
        loaded_ = library_.load();
        if (!loaded_) {
            TOVRA_LOG_ERROR(logger(), category_ | logcat::Error, "Load ", library_.name(), " failed: ",
                            library_.statusText());
            return;
        }
        versionOk_ = library_.isCompatible();
        if (versionOk_) TOVRA_LOG_TRACE(logger(), category_, library_.versionText());
        else TOVRA_LOG_ERROR(logger(), category_ | logcat::Error, library_.versionText());
    }

    // 0 while the library can be used; else -5021 or -5022, stored as the last error.
    std::int32_t libraryState()
    {
        if (!loaded_) return fail(err::CannotLoadPlugin);
        if (!versionOk_) return fail(err::PluginVersionMismatch);
        return err::Ok;
    }
    // The text a refused operation logs.
    std::string refusalText(std::int32_t code)
    {
        return code == err::PluginVersionMismatch ? library_.versionText() : libraryErrorText(code);
    }

    TovraLogger& logger() const { return owner_->logger(); }
    std::uint32_t category() const { return category_; }

    Library library_;
    bool versionOk_ = false;

private:
    const std::uint32_t category_;
};

} // namespace tovra

// Refuses the current operation while the plugin's library cannot be used, logging the
// refusal under the operation's own name.
#define TOVRA_REQUIRE_LIBRARY()                                                                \
    do {                                                                                       \
        if (const std::int32_t tovraRefused_ = libraryState(); tovraRefused_ < 0) {            \
            TOVRA_LOG_ERROR(logger(), category() | ::tovra::logcat::Error, refusalText(tovraRefused_)); \
            return tovraRefused_;                                                              \
        }                                                                                      \
    } while (0)
