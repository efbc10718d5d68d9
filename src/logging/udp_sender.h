#pragma once

#include "platform/net.h"

#include <string>
#include <string_view>

namespace tovra {

// A datagram socket bound to one destination, for log lines sent over UDP.
class UdpSender {
public:
    UdpSender() = default;
    ~UdpSender();
    UdpSender(const UdpSender&) = delete;
    UdpSender& operator=(const UdpSender&) = delete;

    // Numeric IPv4 or IPv6 address and a port from 1 to 65535; false leaves the sender closed.
    bool open(const std::string& address, std::int64_t port);
    void close();
    bool valid() const { return socket_ != platform::kInvalidSocket; }
    void send(std::string_view datagram) const;

private:
    platform::SocketHandle socket_ = platform::kInvalidSocket;
    platform::SocketAddress destination_{};
    bool networkStarted_ = false;
};

} // namespace tovra
