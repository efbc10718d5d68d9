#include "devlibs/zkcom_manager.h"

#include "api/error_codes.h"
#include "api/error_texts.h"
#include "api/version.h"
#include "logging/log.h"

#include <algorithm>

namespace tovra {
namespace {
constexpr std::uint32_t kTrace = logcat::ComManager;
constexpr std::uint32_t kError = logcat::Error | logcat::ComManager;
} // namespace

ZkcomManager& ZkcomManager::instance()
{
    // Never destroyed: a detect may still run while the process exits.
    static ZkcomManager* const manager = new ZkcomManager;
    return *manager;
}

ZkcomManager::ZkcomManager() : logger_(TovraLogger::forManager("COMman")) {}

std::int32_t ZkcomManager::loadLibrary()
{
    if (!library_) {
        TOVRA_LOG_TRACE(*logger_, kTrace, "TOVRA Version:", versionText(), " Load ZKCOM");
        library_ = std::make_unique<ZkcomLibrary>();
        loaded_ = library_->load();
        if (!loaded_) {
            TOVRA_LOG_ERROR(*logger_, kError, "Load ZKCOM failed: ", library_->statusText());
        } else {
            versionOk_ = library_->isCompatible();
            if (versionOk_) TOVRA_LOG_TRACE(*logger_, kTrace, library_->versionText());
            else TOVRA_LOG_ERROR(*logger_, kError, library_->versionText());
        }
    }
    if (!loaded_) return err::CannotLoadPlugin;
    return versionOk_ ? err::Ok : err::PluginVersionMismatch;
}

std::int32_t ZkcomManager::setError(std::int32_t code)
{
    // The library's text function runs without the manager's lock held.
    std::string text;
    if (!loaded_) text = "COM manager plugin error " + std::to_string(code);
    else if (code == err::PluginVersionMismatch) text = library_->versionText();
    else if (code >= -5999 && code <= -5000) text = libraryErrorText(code);
    else text = library_->errorText(code);
    TOVRA_LOG_ERROR(*logger_, kError, text);
    std::lock_guard guard(lock_);
    lastError_ = code;
    lastErrorText_ = std::move(text);
    return code;
}

std::int32_t ZkcomManager::detect(const char* deviceType, std::int32_t port)
{
    std::int32_t loaded = 0;
    {
        std::lock_guard guard(lock_);
        lastError_ = 0;
        lastErrorText_.clear();
        loaded = loadLibrary();
    }
    // From here on the library and its flags no longer change.
    if (loaded < 0) return setError(loaded);
    std::string device = deviceType != nullptr ? deviceType : "";
    std::transform(device.begin(), device.end(), device.begin(), [](unsigned char c) { return std::tolower(c); });
    if (device.empty()) device = "com";
    if (device != "com") return setError(err::DetectionParameter);
    if (library_->detectPort()(port) == 0) {
        TOVRA_LOG_TRACE(*logger_, kTrace, "Device ", device, port);
        return 1;
    }
    TOVRA_LOG_TRACE(*logger_, kTrace, "Device ", device, port, " not available");
    return 0;
}

std::int32_t ZkcomManager::lastError() const
{
    std::lock_guard guard(lock_);
    return lastError_;
}

const char* ZkcomManager::lastErrorText() const
{
    thread_local std::string text;
    std::lock_guard guard(lock_);
    text = lastErrorText_;
    return text.c_str();
}

} // namespace tovra
