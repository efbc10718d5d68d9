#pragma once

#include "devlibs/device_libraries.h"
#include "devlibs/device_library_manager.h"

#include <cstdint>
#include <string>

namespace tovra {

// "BLE:ReaderType=<type>:DeviceId=<8 hex>:MacAddress="<address>""
std::string bleScanInfo(const ZKBLE_ScanRecord& record);

// Reports Bluetooth readers coming into range or leaving, for the application
// (pseudo-handle -2). The handler runs on the library's thread.
class ZkbleManager : public DiscoveryManager<ZkbleLibrary> {
public:
    static ZkbleManager& instance();

    std::int32_t startDiscover(void* context, TOVRA_DiscoveryCallback callback);
    std::int32_t stopDiscover() { return stopScanning(); }

private:
    ZkbleManager();
    std::string textOf(std::int32_t code) override;
    void onEvent(std::uint32_t eventType, const ZKBLE_ScanRecord* record);

    static void ZKBLE_CALL cbEvent(void* context, std::uint32_t eventType, const ZKBLE_ScanRecord* record);
};

} // namespace tovra
