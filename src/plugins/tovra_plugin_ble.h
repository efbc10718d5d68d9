#pragma once

#include "devlibs/device_libraries.h"
#include "plugins/device_library_plugin.h"

#include <cstdint>
#include <string>

namespace tovra {

// What a Bluetooth connector asks for.
struct BleConnection {
    enum Mode { none = 0, lowEnergy = 1, serialPort = 2 };
    Mode mode = none;
    std::string macAddress;
    // Only the serial port profile uses it.
    bool secure = true;
};

// Reads the connector section by section; a later section overrides an earlier one.
BleConnection bleConnection(const char* connector);

// A reader over Bluetooth Low Energy ("bthle") or the serial port profile ("bthspp"),
// through the ZKBLE library, which delivers whole frames.
class TovraPluginBle : public WholeFramePlugin<ZkbleLibrary> {
public:
    explicit TovraPluginBle(ConnectionRecord* owner);

    std::int32_t pliConnect(const char* connector) override;
};

} // namespace tovra
