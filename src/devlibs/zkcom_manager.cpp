#include "devlibs/zkcom_manager.h"

#include "api/error_texts.h"

#include <algorithm>

namespace tovra {
namespace {
constexpr std::uint32_t kTrace = logcat::ComManager;
} // namespace

ZkcomManager& ZkcomManager::instance()
{
    // Never destroyed: a detect may still run while the process exits.
    static ZkcomManager* const manager = new ZkcomManager;
    return *manager;
}

ZkcomManager::ZkcomManager() : DeviceLibraryManager("COMman", logcat::ComManager) {}

std::string ZkcomManager::textOf(std::int32_t code)
{
    if (!loaded()) return "COM manager plugin error " + std::to_string(code);
    if (code == err::PluginVersionMismatch) return library().versionText();
    if (code >= -5999 && code <= -5000) return libraryErrorText(code);
    return library().errorText(code);
}

std::int32_t ZkcomManager::detect(const char* deviceType, std::int32_t port)
{
    clearError();
    // From here on the library and its flags no longer change.
    if (const std::int32_t state = loadLibrary(); state < 0) return setError(state);
    std::string device = deviceType != nullptr ? deviceType : "";
    std::transform(device.begin(), device.end(), device.begin(), [](unsigned char c) { return std::tolower(c); });
    if (device.empty()) device = "com";
    if (device != "com") return setError(err::DetectionParameter);
    if (library().detectPort()(port) == 0) {
        TOVRA_LOG_TRACE(logger(), kTrace, "Device ", device, port);
        return 1;
    }
    TOVRA_LOG_TRACE(logger(), kTrace, "Device ", device, port, " not available");
    return 0;
}

} // namespace tovra
