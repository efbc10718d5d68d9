#pragma once

#include "devlibs/device_library.h"
#include "plugins/tovra_plugin.h"
#include "tovra/transport.h"

#include <cstdint>
#include <string>

namespace tovra {

class TovraLogger;

// A transport library the application brings ("cust:libname=..."); loaded on connect.
class CustomTransportLibrary : public DeviceLibrary {
public:
    CustomTransportLibrary();

    TOVRA_PLI_GetErrorText_t getErrorText() const { return entry<TOVRA_PLI_GetErrorText_t>(1); }
    TOVRA_PLI_Connect_t connect() const { return entry<TOVRA_PLI_Connect_t>(2); }
    TOVRA_PLI_Disconnect_t disconnect() const { return entry<TOVRA_PLI_Disconnect_t>(3); }
    TOVRA_PLI_Transmit_t transmit() const { return entry<TOVRA_PLI_Transmit_t>(4); }
    TOVRA_PLI_Receive_t receive() const { return entry<TOVRA_PLI_Receive_t>(5); }

    std::string errorText(std::int32_t code) const { return textOf(getErrorText()(code)); }
};

// A reader reached through the application's own transport library. There is no version
// check; every operation but the texts answers -5021 while the library is not loaded.
class TovraPluginCust : public TovraPlugin {
public:
    explicit TovraPluginCust(ConnectionRecord* owner);

    const char* pliGetErrorText(std::int32_t code) override;
    const char* pliGetVersion() override;
    std::int32_t pliConnect(const char* connector) override;
    std::int32_t pliDisconnect(std::int32_t portHandle) override;
    std::int32_t pliTransmit(std::int32_t portHandle, const std::uint8_t* data, std::size_t length) override;
    std::int32_t pliReceive(std::int32_t portHandle, std::uint8_t* buffer, std::size_t bufferSize) override;
    std::int32_t pliPutParam(std::int32_t portHandle, const char* key, const char* value) override;
    std::int32_t pliGetParam(std::int32_t portHandle, const char* key, std::string& value) override;

private:
    TovraLogger& logger() const;
    // -5021, stored and logged, while the library is not there.
    std::int32_t notLoaded();

    CustomTransportLibrary library_;
};

} // namespace tovra
