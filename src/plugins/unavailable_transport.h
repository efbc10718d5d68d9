#pragma once

#include "plugins/tovra_plugin.h"

#include <string>

namespace tovra {

// Stands in for a transport this build does not have yet: every operation answers -5024.
class TovraPluginUnavailable : public TovraPlugin {
public:
    TovraPluginUnavailable(ConnectionRecord* owner, std::int32_t kind, std::string transportName);

    const char* pliGetErrorText(std::int32_t code) override;
    std::int32_t pliConnect(const char* connector) override;
    std::int32_t pliAccept(TovraListener* listener) override;
    std::int32_t pliDisconnect(std::int32_t portHandle) override;
    std::int32_t pliTransmit(std::int32_t portHandle, const std::uint8_t* data, std::size_t length) override;
    std::int32_t pliReceive(std::int32_t portHandle, std::uint8_t* buffer, std::size_t bufferSize) override;
    std::int32_t pliPutParam(std::int32_t portHandle, const char* key, const char* value) override;
    std::int32_t pliGetParam(std::int32_t portHandle, const char* key, std::string& value) override;

private:
    const std::string transportName_;
    std::string errorText_;
};

class TovraListenerUnavailable : public TovraListener {
public:
    TovraListenerUnavailable(ConnectionRecord* owner, std::int32_t kind);

    std::int32_t start(const char* connector) override;
    void stop() override {}
};

} // namespace tovra
