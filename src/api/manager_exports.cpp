// The exported functions of the discovery managers, and their last errors.
#include "api/manager_exports.h"

#include "api/error_codes.h"
#include "api/guarded.h"
#include "devlibs/zkble_manager.h"
#include "devlibs/zkcom_manager.h"
#include "devlibs/zkudp_manager.h"
#include "devlibs/zkusb_manager.h"
#include "tovra/tovra.h"

namespace tovra {
namespace {

constexpr std::int32_t kUsbManager = -1;
constexpr std::int32_t kBleManager = -2;
constexpr std::int32_t kComManager = -3;
constexpr std::int32_t kUdpManager = -4;

} // namespace

std::int32_t managerLastError(std::int32_t handle)
{
    switch (handle) {
    case kUsbManager: return ZkusbManager::instance().lastError();
    case kBleManager: return ZkbleManager::instance().lastError();
    case kComManager: return ZkcomManager::instance().lastError();
    case kUdpManager: return ZkudpManager::instance().lastError();
    default: return err::Ok;
    }
}

const char* managerLastErrorText(std::int32_t handle)
{
    switch (handle) {
    case kUsbManager: return ZkusbManager::instance().lastErrorText();
    case kBleManager: return ZkbleManager::instance().lastErrorText();
    case kComManager: return ZkcomManager::instance().lastErrorText();
    case kUdpManager: return ZkudpManager::instance().lastErrorText();
    default: return "";
    }
}

} // namespace tovra

extern "C" {

TOVRA_API std::int32_t TOVRA_CALL TOVRA_ComManagerDetect(const char* deviceType, std::int32_t port)
{
    return tovra::guarded(tovra::err::CannotLoadPlugin,
                          [&] { return tovra::ZkcomManager::instance().detect(deviceType, port); });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_UsbManagerStartDiscover(void* userContext, TOVRA_DiscoveryCallback callback)
{
    return tovra::guarded(tovra::err::CannotLoadPlugin,
                          [&] { return tovra::ZkusbManager::instance().startDiscover(userContext, callback); });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_UsbManagerStopDiscover()
{
    return tovra::guarded(tovra::err::CannotLoadPlugin, [] { return tovra::ZkusbManager::instance().stopDiscover(); });
}

TOVRA_API const char* TOVRA_CALL TOVRA_UsbManagerScanInfo(std::int32_t index)
{
    return tovra::guarded(static_cast<const char*>(nullptr),
                          [&] { return tovra::ZkusbManager::instance().scanInfo(index); });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_BleManagerStartDiscover(void* userContext, TOVRA_DiscoveryCallback callback)
{
    return tovra::guarded(tovra::err::CannotLoadPlugin,
                          [&] { return tovra::ZkbleManager::instance().startDiscover(userContext, callback); });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_BleManagerStopDiscover()
{
    return tovra::guarded(tovra::err::CannotLoadPlugin, [] { return tovra::ZkbleManager::instance().stopDiscover(); });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_UdpManagerSetEventCallback(void* userContext, TOVRA_DiscoveryCallback callback)
{
    return tovra::guarded(tovra::err::CannotLoadPlugin,
                          [&] { return tovra::ZkudpManager::instance().setEventCallback(userContext, callback); });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_UdpManagerStartDiscover(std::uint32_t intervalMs, const char* target)
{
    return tovra::guarded(tovra::err::CannotLoadPlugin,
                          [&] { return tovra::ZkudpManager::instance().startDiscover(intervalMs, target); });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_UdpManagerStopDiscover()
{
    return tovra::guarded(tovra::err::CannotLoadPlugin, [] { return tovra::ZkudpManager::instance().stopDiscover(); });
}

TOVRA_API std::int32_t TOVRA_CALL TOVRA_UdpManagerSetup(const char* setupText, std::uint8_t flags)
{
    return tovra::guarded(tovra::err::CannotLoadPlugin,
                          [&] { return tovra::ZkudpManager::instance().setup(setupText, flags); });
}

} // extern "C"
