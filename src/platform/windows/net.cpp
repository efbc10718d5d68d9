// Sockets over Windows Sockets 2.
#include "platform/net.h"

#include "platform/windows/win.h"

#include <climits>
#include <cstring>

// Keep-alive tuning options of Windows 10 (ws2ipdef.h); older headers lack them.
#ifndef TCP_KEEPALIVE
#define TCP_KEEPALIVE 3
#endif
#ifndef TCP_KEEPIDLE
#define TCP_KEEPIDLE TCP_KEEPALIVE
#endif
#ifndef TCP_KEEPCNT
#define TCP_KEEPCNT 16
#endif
#ifndef TCP_KEEPINTVL
#define TCP_KEEPINTVL 17
#endif

namespace tovra::platform {

static_assert(sizeof(SOCKADDR_STORAGE) <= sizeof(SocketAddress::storage));
static_assert(alignof(SOCKADDR_STORAGE) <= alignof(SocketAddress));

namespace {

SOCKET sock(SocketHandle socket) { return static_cast<SOCKET>(socket); }

const sockaddr* asSockaddr(const SocketAddress& address) {
    return reinterpret_cast<const sockaddr*>(address.storage);
}

ADDRESS_FAMILY familyOf(const SocketAddress& address) {
    ADDRESS_FAMILY family;
    std::memcpy(&family, address.storage + offsetof(sockaddr, sa_family), sizeof family);
    return family;
}

int nativeFamily(AddressFamily family) {
    switch (family) {
        case AddressFamily::ipv4: return AF_INET;
        case AddressFamily::ipv6: return AF_INET6;
        default: return AF_UNSPEC;
    }
}

bool setIntOption(SocketHandle socket, int level, int name, int value) {
    return ::setsockopt(sock(socket), level, name, reinterpret_cast<const char*>(&value),
                        sizeof value) == 0;
}

int clampLength(std::size_t length) {
    return length > static_cast<std::size_t>(INT_MAX) ? INT_MAX : static_cast<int>(length);
}

// The process's own share of the socket library, taken on first use and kept
// until the process ends (WSACleanup at unload time is not safe).
struct ProcessNetwork {
    int result;
    ProcessNetwork() {
        WSADATA data;
        result = ::WSAStartup(MAKEWORD(2, 2), &data);
    }
};

}  // namespace

bool ensureNetwork() {
    static const ProcessNetwork network;
    return network.result == 0;
}

int startNetwork() {
    WSADATA data;
    return ::WSAStartup(MAKEWORD(2, 2), &data);
}

void stopNetwork() { ::WSACleanup(); }

int lastSocketError() { return ::WSAGetLastError(); }
bool isConnectionReset(int error) { return error == WSAECONNRESET; }
bool isConnectionRefused(int error) { return error == WSAECONNREFUSED; }
bool isConnectInProgress(int error) { return error == WSAEWOULDBLOCK || error == WSAEALREADY; }
bool isWouldBlock(int error) { return error == WSAEWOULDBLOCK; }
bool isOptionUnsupported(int error) { return error == WSAENOPROTOOPT; }

SocketHandle openSocket(AddressFamily family, SocketKind kind) {
    if (!ensureNetwork()) return kInvalidSocket;
    const int native = nativeFamily(family);
    if (native == AF_UNSPEC) {
        ::WSASetLastError(WSAEAFNOSUPPORT);
        return kInvalidSocket;
    }
    const int type = kind == SocketKind::stream ? SOCK_STREAM : SOCK_DGRAM;
    const SOCKET s = ::socket(native, type, 0);
    return s == INVALID_SOCKET ? kInvalidSocket : static_cast<SocketHandle>(s);
}

int closeSocket(SocketHandle socket) {
    if (socket == kInvalidSocket) {
        ::WSASetLastError(WSAENOTSOCK);
        return -1;
    }
    return ::closesocket(sock(socket)) == 0 ? 0 : -1;
}

bool shutdownSocket(SocketHandle socket) { return ::shutdown(sock(socket), SD_BOTH) == 0; }

bool setNonBlocking(SocketHandle socket, bool on) {
    u_long mode = on ? 1 : 0;
    return ::ioctlsocket(sock(socket), FIONBIO, &mode) == 0;
}

int connectSocket(SocketHandle socket, const SocketAddress& address) {
    if (::connect(sock(socket), asSockaddr(address), addressLength(address)) == 0) return 0;
    const int error = ::WSAGetLastError();
    return error != 0 ? error : -1;
}

bool bindSocket(SocketHandle socket, const SocketAddress& address) {
    return ::bind(sock(socket), asSockaddr(address), addressLength(address)) == 0;
}

bool listenSocket(SocketHandle socket, int backlog) { return ::listen(sock(socket), backlog) == 0; }

SocketHandle acceptSocket(SocketHandle socket, SocketAddress* peer) {
    SOCKADDR_STORAGE storage{};
    int length = sizeof storage;
    const SOCKET s = ::accept(sock(socket), reinterpret_cast<sockaddr*>(&storage), &length);
    if (s == INVALID_SOCKET) return kInvalidSocket;
    if (peer != nullptr) {
        clearAddress(*peer);
        std::memcpy(peer->storage, &storage, sizeof storage);
    }
    return static_cast<SocketHandle>(s);
}

bool localAddress(SocketHandle socket, SocketAddress& address) {
    SOCKADDR_STORAGE storage{};
    int length = sizeof storage;
    if (::getsockname(sock(socket), reinterpret_cast<sockaddr*>(&storage), &length) != 0) return false;
    clearAddress(address);
    std::memcpy(address.storage, &storage, sizeof storage);
    return true;
}

std::ptrdiff_t sendBytes(SocketHandle socket, const void* data, std::size_t length) {
    const int r = ::send(sock(socket), static_cast<const char*>(data), clampLength(length), 0);
    return r == SOCKET_ERROR ? -1 : r;
}

std::ptrdiff_t recvBytes(SocketHandle socket, void* buffer, std::size_t length) {
    const int r = ::recv(sock(socket), static_cast<char*>(buffer), clampLength(length), 0);
    return r == SOCKET_ERROR ? -1 : r;
}

std::ptrdiff_t sendDatagram(SocketHandle socket, const void* data, std::size_t length,
                            const SocketAddress& to) {
    const int r = ::sendto(sock(socket), static_cast<const char*>(data), clampLength(length), 0,
                           asSockaddr(to), addressLength(to));
    return r == SOCKET_ERROR ? -1 : r;
}

long availableBytes(SocketHandle socket) {
    u_long count = 0;
    if (::ioctlsocket(sock(socket), FIONREAD, &count) != 0) return -1;
    return count > static_cast<u_long>(LONG_MAX) ? LONG_MAX : static_cast<long>(count);
}

int waitSocket(SocketHandle socket, bool readable, bool writable, int timeoutMs) {
    // select counts sockets, not descriptor values, so any socket fits one set.
    // A failed connect is reported in the exception set on Windows.
    fd_set readSet, writeSet, exceptSet;
    FD_ZERO(&readSet);
    FD_ZERO(&writeSet);
    FD_ZERO(&exceptSet);
    if (readable) FD_SET(sock(socket), &readSet);
    if (writable) FD_SET(sock(socket), &writeSet);
    FD_SET(sock(socket), &exceptSet);
    timeval timeout{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
    const int r = ::select(0, &readSet, &writeSet, &exceptSet, timeoutMs < 0 ? nullptr : &timeout);
    if (r == SOCKET_ERROR) return -1;
    if (r == 0) return 0;
    int result = 0;
    if (FD_ISSET(sock(socket), &readSet)) result |= kWaitReadable;
    if (FD_ISSET(sock(socket), &writeSet)) result |= kWaitWritable;
    if (FD_ISSET(sock(socket), &exceptSet)) {
        result |= kWaitError;
        if (readable) result |= kWaitReadable;
        if (writable) result |= kWaitWritable;
    }
    return result;
}

bool setLinger(SocketHandle socket, bool on, int seconds) {
    if (seconds < 0 || seconds > USHRT_MAX) {
        ::WSASetLastError(WSAEINVAL);
        return false;
    }
    linger value{static_cast<u_short>(on ? 1 : 0), static_cast<u_short>(seconds)};
    return ::setsockopt(sock(socket), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&value),
                        sizeof value) == 0;
}

bool setReuseAddress(SocketHandle socket, bool on) {
    return setIntOption(socket, SOL_SOCKET, SO_REUSEADDR, on ? 1 : 0);
}
bool setNoDelay(SocketHandle socket, bool on) {
    return setIntOption(socket, IPPROTO_TCP, TCP_NODELAY, on ? 1 : 0);
}
bool setKeepAlive(SocketHandle socket, bool on) {
    return setIntOption(socket, SOL_SOCKET, SO_KEEPALIVE, on ? 1 : 0);
}
bool setKeepIdle(SocketHandle socket, int seconds) {
    if (setIntOption(socket, IPPROTO_TCP, TCP_KEEPIDLE, seconds)) return true;
    if (::WSAGetLastError() != WSAENOPROTOOPT) return false;
    // Older stacks only take idle time and interval together, in milliseconds.
    if (seconds < 0 || seconds > static_cast<int>(ULONG_MAX / 1000)) {
        ::WSASetLastError(WSAEINVAL);
        return false;
    }
    tcp_keepalive values{1, static_cast<ULONG>(seconds) * 1000, 1000};
    DWORD returned = 0;
    return ::WSAIoctl(sock(socket), SIO_KEEPALIVE_VALS, &values, sizeof values, nullptr, 0, &returned,
                      nullptr, nullptr) == 0;
}
bool setKeepCount(SocketHandle socket, int count) {
    return setIntOption(socket, IPPROTO_TCP, TCP_KEEPCNT, count);
}
bool setKeepInterval(SocketHandle socket, int seconds) {
    return setIntOption(socket, IPPROTO_TCP, TCP_KEEPINTVL, seconds);
}

bool socketError(SocketHandle socket, int& error) {
    int value = 0;
    int length = sizeof value;
    if (::getsockopt(sock(socket), SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&value), &length) != 0)
        return false;
    error = value;
    return true;
}

void clearAddress(SocketAddress& address) { std::memset(address.storage, 0, sizeof address.storage); }

AddressFamily addressFamily(const SocketAddress& address) {
    switch (familyOf(address)) {
        case AF_INET: return AddressFamily::ipv4;
        case AF_INET6: return AddressFamily::ipv6;
        default: return AddressFamily::none;
    }
}

int addressPort(const SocketAddress& address) {
    u_short port;
    switch (familyOf(address)) {
        case AF_INET: std::memcpy(&port, address.storage + offsetof(sockaddr_in, sin_port), sizeof port); break;
        case AF_INET6: std::memcpy(&port, address.storage + offsetof(sockaddr_in6, sin6_port), sizeof port); break;
        default: return -1;
    }
    return ntohs(port);
}

bool setAddressPort(SocketAddress& address, std::uint16_t port) {
    const u_short net = htons(port);
    switch (familyOf(address)) {
        case AF_INET: std::memcpy(address.storage + offsetof(sockaddr_in, sin_port), &net, sizeof net); return true;
        case AF_INET6: std::memcpy(address.storage + offsetof(sockaddr_in6, sin6_port), &net, sizeof net); return true;
        default: return false;
    }
}

int addressLength(const SocketAddress& address) {
    switch (familyOf(address)) {
        case AF_INET: return sizeof(sockaddr_in);
        case AF_INET6: return sizeof(sockaddr_in6);
        default: return 0;
    }
}

std::string addressText(const SocketAddress& address) {
    char text[128] = {};
    const void* raw = nullptr;
    const int family = familyOf(address);
    if (family == AF_INET) raw = address.storage + offsetof(sockaddr_in, sin_addr);
    else if (family == AF_INET6) raw = address.storage + offsetof(sockaddr_in6, sin6_addr);
    if (raw == nullptr || !ensureNetwork()) return {};
    if (::inet_ntop(family, raw, text, sizeof text - 1) == nullptr) return {};
    return text;
}

bool parseNumericAddress(const char* text, std::uint16_t port, SocketAddress& address) {
    if (text == nullptr || !ensureNetwork()) return false;
    sockaddr_in v4{};
    if (::inet_pton(AF_INET, text, &v4.sin_addr) == 1) {
        v4.sin_family = AF_INET;
        v4.sin_port = htons(port);
        clearAddress(address);
        std::memcpy(address.storage, &v4, sizeof v4);
        return true;
    }
    sockaddr_in6 v6{};
    if (::inet_pton(AF_INET6, text, &v6.sin6_addr) == 1) {
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(port);
        clearAddress(address);
        std::memcpy(address.storage, &v6, sizeof v6);
        return true;
    }
    return false;
}

bool resolveHostAddress(const char* name, std::uint16_t port, SocketAddress& address,
                        AddressFamily family) {
    if (name == nullptr || *name == '\0' || !ensureNetwork()) return false;
    addrinfo hints{};
    hints.ai_family = nativeFamily(family);
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    if (::getaddrinfo(name, nullptr, &hints, &list) != 0) return false;
    bool found = false;
    for (const addrinfo* a = list; a != nullptr && !found; a = a->ai_next) {
        const bool usable = (a->ai_family == AF_INET && a->ai_addrlen >= sizeof(sockaddr_in)) ||
                            (a->ai_family == AF_INET6 && a->ai_addrlen >= sizeof(sockaddr_in6));
        if (!usable || a->ai_addrlen > sizeof address.storage) continue;
        clearAddress(address);
        std::memcpy(address.storage, a->ai_addr, a->ai_addrlen);
        setAddressPort(address, port);
        found = true;
    }
    ::freeaddrinfo(list);
    return found;
}

}  // namespace tovra::platform
