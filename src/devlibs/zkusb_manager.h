#pragma once

#include "devlibs/device_libraries.h"
#include "devlibs/device_library_manager.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tovra {

// "USB:ReaderType="<name>":DeviceId=<id>"
std::string usbScanInfo(const char* deviceName, const std::string& deviceId);
// The id of a plug or unplug event, as eight upper-case hexadecimal digits.
std::string usbEventId(std::uint32_t deviceId);

// Finds USB readers through ZKUSB and reports readers plugged in or pulled out, for the
// application (pseudo-handle -1). Start and stop take turns; the handlers run on the
// library's threads.
class ZkusbManager : public DiscoveryManager<ZkusbLibrary> {
public:
    static ZkusbManager& instance();

    // The number of readers reported, or an error.
    std::int32_t startDiscover(void* context, TOVRA_DiscoveryCallback callback);
    std::int32_t stopDiscover();
    // The line of the last start's reader `index`, copied for the calling thread; null
    // past the end.
    const char* scanInfo(std::int32_t index) const;

private:
    ZkusbManager();
    std::string textOf(std::int32_t code) override;
    void onEvent(std::int32_t event, std::uint32_t deviceId, const char* deviceName);
    std::string scanListPara(std::int32_t index, const char* key) const;

    // The library hands the handlers 32 bits of context, too few for a pointer: they
    // find the one manager themselves.
    static void ZKUSB_CALL cbPlug(std::uint32_t handleOrContext, std::uint32_t deviceId, const char* deviceName);
    static void ZKUSB_CALL cbUnplug(std::uint32_t handleOrContext, std::uint32_t deviceId, const char* deviceName);

    mutable std::mutex listLock_;
    std::vector<std::string> scanList_;
    ZKUSB_EventRecord plugRecord_;
    ZKUSB_EventRecord unplugRecord_;
};

// The same over ZKUSB2, whose events wait in the library until the handler takes them.
// No export reaches it.
class Zkusb2Manager : public DiscoveryManager<Zkusb2Library> {
public:
    static Zkusb2Manager& instance();

    // The number of readers present (each reported as it comes), or an error.
    std::int32_t startDiscover(void* context, TOVRA_DiscoveryCallback callback);
    std::int32_t stopDiscover() { return stopScanning(); }

private:
    Zkusb2Manager();
    std::string textOf(std::int32_t code) override;
    void takeEvents();

    static void ZKUSB2_CALL cbEvent(void* context);
};

} // namespace tovra
