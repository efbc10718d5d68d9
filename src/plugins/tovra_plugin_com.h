#pragma once

#include "devlibs/device_libraries.h"
#include "plugins/device_library_plugin.h"

#include <cstdint>
#include <string>

namespace tovra {

// A reader on a serial port, through the serial device library: the plugin opens,
// configures, writes, reads and closes only through the library's entry points.
class TovraPluginCom : public DeviceLibraryPlugin<ZkcomLibrary> {
public:
    explicit TovraPluginCom(ConnectionRecord* owner);

    // "com:device=COM4:busaddress=255:baud=38400:frame=8E1:opmode=RS232"
    std::int32_t pliConnect(const char* connector) override;
    // Opens the port that a TovraListenerCom was started with.
    std::int32_t pliAccept(TovraListener* listener) override;
    std::int32_t pliDisconnect(std::int32_t portHandle) override;
    std::int32_t pliTransmit(std::int32_t portHandle, const std::uint8_t* data, std::size_t length) override;
    std::int32_t pliReceive(std::int32_t portHandle, std::uint8_t* buffer, std::size_t bufferSize) override;
    std::int32_t pliPutParam(std::int32_t portHandle, const char* key, const char* value) override;
    std::int32_t pliGetParam(std::int32_t portHandle, const char* key, std::string& value) override;

private:
    // The listener that handed the port over has stopped: the connection counts as ended.
    bool listenerGone() const;
    // Sets the port parameters of a connect; 0 or the first failure of the line settings.
    std::int32_t setUpPort(std::int32_t handle, const std::string& busAddress, const std::string& baud,
                           const std::string& frame, const std::string& opmode);

    bool acceptedByListener_ = false;
};

// A serial line has no connection request: starting the listener hands the port to the
// reader at once, as if the reader had connected.
class TovraListenerCom : public TovraListener {
public:
    explicit TovraListenerCom(ConnectionRecord* owner);
    ~TovraListenerCom() override { stop(); }

    std::int32_t start(const char* connector) override;
    void stop() override;
    const char* acceptedConnector() const override { return connector_.c_str(); }

private:
    TovraLogger& logger() const;

    std::string connector_;
};

// "COM3", "com12" and "7" name ports 3, 12 and 7; "COM3a", "ttyS0" and "COM" none.
bool cutDevice(const std::string& device, std::string& portPrefix, std::string& portNumber);

} // namespace tovra
