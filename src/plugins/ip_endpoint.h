#pragma once

#include "platform/net.h"

#include <string>

namespace tovra {

// A TCP socket together with the address it talks to. Shared by the TCP plugin and the TCP
// listener. The endpoint never closes its socket by itself: whoever holds it closes it, and
// moveFrom hands the socket on without a copy staying behind.
class IpEndpoint {
public:
    // Results of openNumeric and openResolved.
    static constexpr int kOk = 0;
    static constexpr int kNoSocket = -1;
    static constexpr int kBadAddress = -2;
    static constexpr int kBadPort = -3;
    static constexpr int kNotResolved = -4;

    IpEndpoint() { reset(); }
    IpEndpoint(const IpEndpoint&) = delete;
    IpEndpoint& operator=(const IpEndpoint&) = delete;

    // No socket, stream type, no address.
    void reset();
    // Takes all fields of `other`, then resets it.
    void moveFrom(IpEndpoint& other);

    // A numeric IPv4 or IPv6 text (-2 otherwise), a port of 1..65535 (-3 otherwise), then a new
    // stream socket of that family (-1 when it cannot be made). 0 on success.
    int openNumeric(const char* text, int port);
    // The port first (-3), then the host name's first IPv4 or IPv6 address (-4), then the
    // socket (-1). 0 on success.
    int openResolved(const char* name, int port);

    // Resets, then accepts one pending connection of `listenSocket` into this endpoint, the
    // peer's address included. False when accept failed (the endpoint stays reset).
    bool acceptFrom(platform::SocketHandle listenSocket);
    // Takes a socket that was opened elsewhere, with the address it belongs to.
    void adopt(platform::SocketHandle socket, const platform::SocketAddress& address);

    bool valid() const { return socket_ != platform::kInvalidSocket; }
    platform::SocketHandle socket() const { return socket_; }
    platform::SocketKind socketType() const { return type_; }
    const platform::SocketAddress& address() const { return address_; }

    // 16 for IPv4, 28 for IPv6, 0 otherwise (the platform's sockaddr sizes).
    int addressLength() const { return platform::addressLength(address_); }
    // Numeric address text, "" when there is none.
    std::string addressText() const { return platform::addressText(address_); }
    // Port in host order, -1 when there is no address.
    int port() const { return platform::addressPort(address_); }

private:
    int openSocket();

    platform::SocketHandle socket_ = platform::kInvalidSocket;
    platform::SocketKind type_ = platform::SocketKind::stream;
    platform::SocketAddress address_{};
};

// The socket-error suffix of TCP error log lines.
inline std::string natError(int error) { return "NatError=" + std::to_string(error); }
inline std::string natError() { return natError(platform::lastSocketError()); }

} // namespace tovra
