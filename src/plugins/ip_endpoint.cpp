#include "plugins/ip_endpoint.h"

namespace tovra {
namespace {

bool validPort(int port) { return port > 0 && port < 65536; }

} // namespace

void IpEndpoint::reset()
{
    socket_ = platform::kInvalidSocket;
    type_ = platform::SocketKind::stream;
    platform::clearAddress(address_);
}

void IpEndpoint::moveFrom(IpEndpoint& other)
{
    if (&other == this) return;
    socket_ = other.socket_;
    type_ = other.type_;
    address_ = other.address_;
    other.reset();
}

int IpEndpoint::openNumeric(const char* text, int port)
{
    platform::SocketAddress parsed{};
    if (!platform::parseNumericAddress(text, 0, parsed)) return kBadAddress;
    if (!validPort(port)) return kBadPort;
    platform::setAddressPort(parsed, static_cast<std::uint16_t>(port));
    address_ = parsed;
    return openSocket();
}

int IpEndpoint::openResolved(const char* name, int port)
{
    if (!validPort(port)) return kBadPort;
    platform::SocketAddress resolved{};
    if (!platform::resolveHostAddress(name, static_cast<std::uint16_t>(port), resolved)) return kNotResolved;
    address_ = resolved;
    return openSocket();
}

bool IpEndpoint::acceptFrom(platform::SocketHandle listenSocket)
{
    reset();
    socket_ = platform::acceptSocket(listenSocket, &address_);
    if (socket_ == platform::kInvalidSocket) {
        reset();
        return false;
    }
    return true;
}

void IpEndpoint::adopt(platform::SocketHandle socket, const platform::SocketAddress& address)
{
    socket_ = socket;
    type_ = platform::SocketKind::stream;
    address_ = address;
}

int IpEndpoint::openSocket()
{
    socket_ = platform::openSocket(platform::addressFamily(address_), type_);
    return socket_ == platform::kInvalidSocket ? kNoSocket : kOk;
}

} // namespace tovra
