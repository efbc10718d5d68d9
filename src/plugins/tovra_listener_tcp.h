#pragma once

#include "api/error_codes.h"
#include "plugins/ip_endpoint.h"
#include "plugins/tovra_plugin.h"

namespace tovra {

// Lets a reader connect to the host over TCP. For now it only holds the endpoint of an
// accepted connection, which TovraPluginTcp::pliAccept takes over.
class TovraListenerTcp : public TovraListener {
public:
    explicit TovraListenerTcp(ConnectionRecord* owner) : TovraListener(owner) { kind_ = 3; }

    std::int32_t start(const char*) override { return err::NotImplemented; }
    void stop() override {}

    // The socket and peer address of the connection being handed over.
    IpEndpoint& acceptedEndpoint() { return acceptEndpoint_; }

private:
    IpEndpoint acceptEndpoint_;
};

} // namespace tovra
