// Sockets over Windows Sockets 2.
#include "platform/net.h"
#include "platform/socket_detail.h"

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

using detail::nativeFamily;

namespace {

SOCKET sock(SocketHandle socket) { return static_cast<SOCKET>(socket); }

const sockaddr* asSockaddr(const SocketAddress& address) {
    return reinterpret_cast<const sockaddr*>(address.storage);
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

bool setWaitingReceive(SocketHandle socket) { return setNonBlocking(socket, true); }

std::ptrdiff_t sendNow(SocketHandle socket, const void* data, std::size_t length) {
    return sendBytes(socket, data, length);
}

std::ptrdiff_t recvWithin(SocketHandle socket, void* buffer, std::size_t length, int timeoutMs, int&) {
    const int ready = waitSocket(socket, true, false, timeoutMs < 1 ? 1 : timeoutMs);
    if (ready < 0) return -1;
    if (ready == 0) {
        ::WSASetLastError(WSAEWOULDBLOCK);
        return -1;
    }
    return recvBytes(socket, buffer, length);
}

std::ptrdiff_t sendDatagram(SocketHandle socket, const void* data, std::size_t length,
                            const SocketAddress& to) {
    const int r = ::sendto(sock(socket), static_cast<const char*>(data), clampLength(length), 0,
                           asSockaddr(to), addressLength(to));
    return r == SOCKET_ERROR ? -1 : r;
}

std::ptrdiff_t recvDatagram(SocketHandle socket, void* buffer, std::size_t length, SocketAddress& from) {
    SOCKADDR_STORAGE storage{};
    int size = sizeof storage;
    const int r = ::recvfrom(sock(socket), static_cast<char*>(buffer), clampLength(length), 0,
                             reinterpret_cast<sockaddr*>(&storage), &size);
    if (r == SOCKET_ERROR) return -1;
    clearAddress(from);
    std::memcpy(from.storage, &storage, sizeof storage);
    return r;
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

int waitReadableOrWoken(SocketHandle socket, SocketHandle wake, int timeoutMs) {
    fd_set readSet, exceptSet;
    FD_ZERO(&readSet);
    FD_ZERO(&exceptSet);
    FD_SET(sock(socket), &readSet);
    FD_SET(sock(wake), &readSet);
    FD_SET(sock(socket), &exceptSet);
    timeval timeout{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
    const int r = ::select(0, &readSet, nullptr, &exceptSet, timeoutMs < 0 ? nullptr : &timeout);
    if (r == SOCKET_ERROR) return -1;
    if (r == 0) return 0;
    int result = 0;
    if (FD_ISSET(sock(socket), &readSet)) result |= kWaitReadable;
    if (FD_ISSET(sock(socket), &exceptSet)) result |= kWaitReadable | kWaitError;
    if (FD_ISSET(sock(wake), &readSet)) result |= kWaitWoken;
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

}  // namespace tovra::platform
