#pragma once

#include "platform/net.h"

#include <cstdint>

namespace tovra::test {

// A loopback port that nothing listens on right now.
inline std::uint16_t freePort()
{
    namespace net = tovra::platform;
    net::SocketAddress address{};
    net::parseNumericAddress("127.0.0.1", 0, address);
    const auto s = net::openSocket(net::AddressFamily::ipv4, net::SocketKind::stream);
    net::bindSocket(s, address);
    net::localAddress(s, address);
    net::closeSocket(s);
    return static_cast<std::uint16_t>(net::addressPort(address));
}

} // namespace tovra::test
