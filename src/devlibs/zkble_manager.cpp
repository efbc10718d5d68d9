#include "devlibs/zkble_manager.h"

#include <cstdio>
#include <cstring>

namespace tovra {
namespace {

constexpr std::uint32_t kTrace = logcat::BleManager;

} // namespace

std::string bleScanInfo(const ZKBLE_ScanRecord& record)
{
    char head[64];
    std::snprintf(head, sizeof head, "BLE:ReaderType=%u:DeviceId=%08X:MacAddress=\"",
                  static_cast<unsigned>(record.readerType), static_cast<unsigned>(record.deviceId));
    // The address may fill its field without a terminating zero.
    return head + std::string(record.macAddress, strnlen(record.macAddress, sizeof record.macAddress)) + "\"";
}

ZkbleManager& ZkbleManager::instance()
{
    // Never destroyed: the library's thread may still call in while the process exits.
    static ZkbleManager* const manager = new ZkbleManager;
    return *manager;
}

ZkbleManager::ZkbleManager() : DiscoveryManager("BLEman", logcat::BleManager) {}

std::string ZkbleManager::textOf(std::int32_t code)
{
    return discoveryText(code, "BLE manager plugin error ");
}

std::int32_t ZkbleManager::startDiscover(void* context, TOVRA_DiscoveryCallback callback)
{
    std::lock_guard operation(operationLock_);
    clearError();
    if (const std::int32_t state = loadLibrary(); state < 0) return setError(state);
    keepCallback(context, callback);
    library().registerScanCallback()(this, &ZkbleManager::cbEvent);
    const std::int32_t started = library().startScan()();
    if (started < 0) return setError(started);
    return err::Ok;
}

void ZkbleManager::onEvent(std::uint32_t eventType, const ZKBLE_ScanRecord* record)
try {
    if (!delivery_.isSet()) {
        TOVRA_LOG_TRACE(logger(), kTrace, "No event-callback set");
        return;
    }
    if ((eventType != ZKBLE_EVENT_SEEN && eventType != ZKBLE_EVENT_GONE) || record == nullptr) {
        TOVRA_LOG_TRACE(logger(), kTrace, "Unknown event type:", eventType);
        return;
    }
    const std::string line = bleScanInfo(*record);
    TOVRA_LOG_TRACE(logger(), kTrace, "Event-callback: state=", eventType, " scanInfo=", line);
    delivery_.deliver(static_cast<std::int32_t>(eventType), line.c_str());
} catch (...) {
    // Nothing may leave into the library's thread.
}

void ZKBLE_CALL ZkbleManager::cbEvent(void*, std::uint32_t eventType, const ZKBLE_ScanRecord* record)
{
    instance().onEvent(eventType, record);
}

} // namespace tovra
