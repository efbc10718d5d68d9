#include "devlibs/zkusb_manager.h"

#include <cstdio>
#include <cstring>

namespace tovra {
namespace {

constexpr std::uint32_t kTrace = logcat::UsbManager;
constexpr char kErrorPrefix[] = "USB manager plugin error ";

static_assert(sizeof(ZKUSB_EventRecord) == 32 || sizeof(void*) != 8, "the library reads 32 bytes");

ZKUSB_EventRecord eventRecord(std::int32_t event, void* context, ZKUSB_EventHandler handler)
{
    ZKUSB_EventRecord record{};
    record.event = event;
    record.callbackType = ZKUSB_CALLBACK_TYPE;
    record.context = context;
    record.handler = handler;
    return record;
}

} // namespace

std::string usbScanInfo(const char* deviceName, const std::string& deviceId)
{
    return std::string("USB:ReaderType=\"") + (deviceName != nullptr ? deviceName : "") + "\":DeviceId=" + deviceId;
}

std::string usbEventId(std::uint32_t deviceId)
{
    char text[16];
    std::snprintf(text, sizeof text, "%08X", static_cast<unsigned>(deviceId));
    return text;
}

ZkusbManager& ZkusbManager::instance()
{
    // Never destroyed: the library's threads may still call in while the process exits.
    static ZkusbManager* const manager = new ZkusbManager;
    return *manager;
}

ZkusbManager::ZkusbManager()
    : DiscoveryManager("USBman", logcat::UsbManager),
      plugRecord_(eventRecord(ZKUSB_EVENT_PLUG, this, &ZkusbManager::cbPlug)),
      unplugRecord_(eventRecord(ZKUSB_EVENT_UNPLUG, this, &ZkusbManager::cbUnplug))
{
}

std::string ZkusbManager::textOf(std::int32_t code) { return discoveryText(code, kErrorPrefix); }

std::string ZkusbManager::scanListPara(std::int32_t index, const char* key) const
{
    char value[1024] = {};
    if (library().getScanListPara()(index, key, value, static_cast<std::int32_t>(sizeof value)) < 0) return {};
    value[sizeof value - 1] = '\0';
    return value;
}

std::int32_t ZkusbManager::startDiscover(void* context, TOVRA_DiscoveryCallback callback)
{
    std::vector<std::string> lines;
    {
        std::lock_guard operation(operationLock_);
        clearError();
        {
            std::lock_guard list(listLock_);
            scanList_.clear();
        }
        if (const std::int32_t state = loadLibrary(); state < 0) return setError(state);
        std::int32_t count = 0;
        const std::int32_t scanned = library().scan()(15, 0);
        if (scanned < 0 && scanned != ZKUSB_NO_DEVICE) return setError(scanned);
        if (scanned >= 0) count = std::max(library().getScanListSize()(), 0);
        TOVRA_LOG_TRACE(logger(), kTrace, count, " devices detected");

        keepCallback(context, callback);
        if (library().addEventHandler()(0, &plugRecord_) == 0) library().addEventHandler()(0, &unplugRecord_);

        for (std::int32_t index = 0; index < count; ++index) {
            lines.push_back(usbScanInfo(scanListPara(index, "DeviceName").c_str(), scanListPara(index, "Device-ID")));
            TOVRA_LOG_TRACE(logger(), kTrace, "Reader scanned:", lines.back());
        }
        std::lock_guard list(listLock_);
        scanList_ = lines;
    }
    // Outside the lock: the callback may stop discovery.
    for (const std::string& line : lines) delivery_.deliver(ZKUSB_EVENT_PLUG, line.c_str());
    return static_cast<std::int32_t>(lines.size());
}

std::int32_t ZkusbManager::stopDiscover()
{
    return stopDelivering([this] {
        library().delEventHandler()(0, &plugRecord_);
        library().delEventHandler()(0, &unplugRecord_);
    });
}

const char* ZkusbManager::scanInfo(std::int32_t index) const
{
    thread_local std::string line;
    std::lock_guard list(listLock_);
    if (index < 0 || static_cast<std::size_t>(index) >= scanList_.size()) return nullptr;
    line = scanList_[static_cast<std::size_t>(index)];
    return line.c_str();
}

void ZkusbManager::onEvent(std::int32_t event, std::uint32_t deviceId, const char* deviceName)
try {
    library().scan()(15, 0);
    const bool plug = event == ZKUSB_EVENT_PLUG;
    if (!delivery_.isSet()) {
        TOVRA_LOG_TRACE(logger(), kTrace, plug ? "No plug-callback set" : "No unplug-callback set");
        return;
    }
    const std::string line = usbScanInfo(deviceName, usbEventId(deviceId));
    TOVRA_LOG_TRACE(logger(), kTrace, plug ? "Event-callback for new reader: " : "Event-callback for reader gone: ",
                    line);
    delivery_.deliver(event, line.c_str());
} catch (...) {
    // Nothing may leave into the library's thread.
}

void ZKUSB_CALL ZkusbManager::cbPlug(std::uint32_t, std::uint32_t deviceId, const char* deviceName)
{
    instance().onEvent(ZKUSB_EVENT_PLUG, deviceId, deviceName);
}

void ZKUSB_CALL ZkusbManager::cbUnplug(std::uint32_t, std::uint32_t deviceId, const char* deviceName)
{
    instance().onEvent(ZKUSB_EVENT_UNPLUG, deviceId, deviceName);
}

Zkusb2Manager& Zkusb2Manager::instance()
{
    static Zkusb2Manager* const manager = new Zkusb2Manager;
    return *manager;
}

Zkusb2Manager::Zkusb2Manager() : DiscoveryManager("USBman", logcat::UsbManager) {}

std::string Zkusb2Manager::textOf(std::int32_t code) { return discoveryText(code, kErrorPrefix); }

std::int32_t Zkusb2Manager::startDiscover(void* context, TOVRA_DiscoveryCallback callback)
{
    std::lock_guard operation(operationLock_);
    clearError();
    if (const std::int32_t state = loadLibrary(); state < 0) return setError(state);
    keepCallback(context, callback);
    const std::int32_t registered = library().registerScanCallback()(this, &Zkusb2Manager::cbEvent);
    if (registered < 0) return setError(registered);
    const std::int32_t count = library().startScan()();
    if (count < 0) return setError(count);
    TOVRA_LOG_TRACE(logger(), kTrace, count, " devices detected");
    return count;
}

void Zkusb2Manager::takeEvents()
try {
    ZKUSB2_Event event{};
    while (library().getNextEvent()(&event) > 0) {
        if (!delivery_.isSet()) {
            TOVRA_LOG_TRACE(logger(), kTrace, "No event callback registered");
            continue;
        }
        if (event.type != ZKUSB2_EVENT_PLUG && event.type != ZKUSB2_EVENT_UNPLUG) {
            TOVRA_LOG_TRACE(logger(), kTrace, "Unknown event type:", event.type);
            continue;
        }
        const std::string name(event.deviceName, strnlen(event.deviceName, sizeof event.deviceName));
        const std::string line = usbScanInfo(name.c_str(), usbEventId(event.deviceId));
        TOVRA_LOG_TRACE(logger(), kTrace, "Event-callback: state=", event.type, " scanInfo=", line);
        delivery_.deliver(event.type, line.c_str());
    }
} catch (...) {
}

void ZKUSB2_CALL Zkusb2Manager::cbEvent(void*) { instance().takeEvents(); }

} // namespace tovra
