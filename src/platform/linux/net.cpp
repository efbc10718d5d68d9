// Sockets over the POSIX/Linux socket interface.
#include "platform/net.h"
#include "platform/socket_detail.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tovra::platform {

static_assert(sizeof(sockaddr_storage) <= sizeof(SocketAddress::storage));
static_assert(alignof(sockaddr_storage) <= alignof(SocketAddress));

using detail::nativeFamily;

namespace {

int fd(SocketHandle socket) {
    return socket < 0 || socket > INT_MAX ? -1 : static_cast<int>(socket);
}

const sockaddr* asSockaddr(const SocketAddress& address) {
    return reinterpret_cast<const sockaddr*>(address.storage);
}



bool setIntOption(SocketHandle socket, int level, int name, int value) {
    return ::setsockopt(fd(socket), level, name, &value, sizeof value) == 0;
}

std::ptrdiff_t clampLength(std::size_t length) {
    return length > static_cast<std::size_t>(PTRDIFF_MAX) ? PTRDIFF_MAX
                                                          : static_cast<std::ptrdiff_t>(length);
}

}  // namespace

bool ensureNetwork() { return true; }
int startNetwork() { return 0; }
void stopNetwork() {}

int lastSocketError() { return errno; }
bool isConnectionReset(int error) { return error == ECONNRESET; }
bool isConnectionRefused(int error) { return error == ECONNREFUSED; }
bool isConnectInProgress(int error) { return error == EINPROGRESS || error == EALREADY; }
bool isWouldBlock(int error) { return error == EAGAIN || error == EWOULDBLOCK; }
bool isOptionUnsupported(int error) { return error == ENOPROTOOPT; }

SocketHandle openSocket(AddressFamily family, SocketKind kind) {
    const int native = nativeFamily(family);
    if (native == AF_UNSPEC) {
        errno = EAFNOSUPPORT;
        return kInvalidSocket;
    }
    const int type = kind == SocketKind::stream ? SOCK_STREAM : SOCK_DGRAM;
    const int s = ::socket(native, type | SOCK_CLOEXEC, 0);
    return s < 0 ? kInvalidSocket : s;
}

int closeSocket(SocketHandle socket) {
    if (fd(socket) < 0) {
        errno = EBADF;
        return -1;
    }
    // Linux releases the descriptor even when close reports EINTR: never retry.
    return ::close(fd(socket)) == 0 || errno == EINTR ? 0 : -1;
}

bool shutdownSocket(SocketHandle socket) { return ::shutdown(fd(socket), SHUT_RDWR) == 0; }

bool setNonBlocking(SocketHandle socket, bool on) {
    const int flags = ::fcntl(fd(socket), F_GETFL);
    if (flags < 0) return false;
    const int wanted = on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
    return wanted == flags || ::fcntl(fd(socket), F_SETFL, wanted) == 0;
}

int connectSocket(SocketHandle socket, const SocketAddress& address) {
    const auto length = static_cast<socklen_t>(addressLength(address));
    if (::connect(fd(socket), asSockaddr(address), length) == 0) return 0;
    int error = errno;
    if (error == EINTR) {
        // An interrupted blocking connect goes on in the background; finish it.
        pollfd p{fd(socket), POLLOUT, 0};
        while (::poll(&p, 1, -1) < 0 && errno == EINTR) {}
        if (!socketError(socket, error)) error = errno;
        if (error == 0) return 0;
    }
    return error != 0 ? error : -1;
}

bool bindSocket(SocketHandle socket, const SocketAddress& address) {
    const auto length = static_cast<socklen_t>(addressLength(address));
    return ::bind(fd(socket), asSockaddr(address), length) == 0;
}

bool listenSocket(SocketHandle socket, int backlog) { return ::listen(fd(socket), backlog) == 0; }

SocketHandle acceptSocket(SocketHandle socket, SocketAddress* peer) {
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    int s;
    do {
        s = ::accept4(fd(socket), reinterpret_cast<sockaddr*>(&storage), &length, SOCK_CLOEXEC);
    } while (s < 0 && errno == EINTR);
    if (s < 0) return kInvalidSocket;
    if (peer != nullptr) {
        clearAddress(*peer);
        std::memcpy(peer->storage, &storage, sizeof storage);
    }
    return s;
}

bool localAddress(SocketHandle socket, SocketAddress& address) {
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    if (::getsockname(fd(socket), reinterpret_cast<sockaddr*>(&storage), &length) != 0) return false;
    clearAddress(address);
    std::memcpy(address.storage, &storage, sizeof storage);
    return true;
}

std::ptrdiff_t sendBytes(SocketHandle socket, const void* data, std::size_t length) {
    ssize_t r;
    do {
        r = ::send(fd(socket), data, static_cast<std::size_t>(clampLength(length)), MSG_NOSIGNAL);
    } while (r < 0 && errno == EINTR);
    return r;
}

std::ptrdiff_t recvBytes(SocketHandle socket, void* buffer, std::size_t length) {
    ssize_t r;
    do {
        r = ::recv(fd(socket), buffer, static_cast<std::size_t>(clampLength(length)), 0);
    } while (r < 0 && errno == EINTR);
    return r;
}

bool setWaitingReceive(SocketHandle socket) { return setNonBlocking(socket, false); }

std::ptrdiff_t sendNow(SocketHandle socket, const void* data, std::size_t length) {
    ssize_t r;
    do {
        r = ::send(fd(socket), data, static_cast<std::size_t>(clampLength(length)), MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (r < 0 && errno == EINTR);
    return r;
}

std::ptrdiff_t recvWithin(SocketHandle socket, void* buffer, std::size_t length, int timeoutMs, int& waitSet) {
    timeoutMs = timeoutMs < 1 ? 1 : timeoutMs; // 0 would wait forever
    if (timeoutMs != waitSet) {
        const timeval wait{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
        if (::setsockopt(fd(socket), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait) != 0) return -1;
        waitSet = timeoutMs;
    }
    const ssize_t r = ::recv(fd(socket), buffer, static_cast<std::size_t>(clampLength(length)), 0);
    // A signal ends the wait early, as the time running out would: the caller's deadline
    // decides whether to wait again.
    if (r < 0 && errno == EINTR) errno = EAGAIN;
    return r;
}

std::ptrdiff_t sendDatagram(SocketHandle socket, const void* data, std::size_t length,
                            const SocketAddress& to) {
    const auto toLength = static_cast<socklen_t>(addressLength(to));
    ssize_t r;
    do {
        r = ::sendto(fd(socket), data, length, MSG_NOSIGNAL, asSockaddr(to), toLength);
    } while (r < 0 && errno == EINTR);
    return r;
}

std::ptrdiff_t recvDatagram(SocketHandle socket, void* buffer, std::size_t length, SocketAddress& from) {
    sockaddr_storage storage{};
    socklen_t size = sizeof storage;
    ssize_t r;
    do {
        r = ::recvfrom(fd(socket), buffer, static_cast<std::size_t>(clampLength(length)), 0,
                       reinterpret_cast<sockaddr*>(&storage), &size);
    } while (r < 0 && errno == EINTR);
    if (r >= 0) {
        clearAddress(from);
        std::memcpy(from.storage, &storage, sizeof storage);
    }
    return r;
}

long availableBytes(SocketHandle socket) {
    int count = 0;
    return ::ioctl(fd(socket), FIONREAD, &count) == 0 ? count : -1;
}

// poll, resumed after a signal with what is left of the time-out: its result, 0 on time-out.
static int pollRetrying(pollfd* p, nfds_t count, int timeoutMs) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs);
    int remaining = timeoutMs < 0 ? -1 : timeoutMs;
    for (;;) {
        const int r = ::poll(p, count, remaining);
        if (r >= 0) return r;
        if (errno != EINTR) return -1;
        if (timeoutMs >= 0) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
            remaining = left.count() > 0 ? static_cast<int>(left.count()) : 0;
        }
    }
}

int waitSocket(SocketHandle socket, bool readable, bool writable, int timeoutMs) {
    pollfd p{fd(socket), 0, 0};
    if (readable) p.events |= POLLIN;
    if (writable) p.events |= POLLOUT;
    if (const int r = pollRetrying(&p, 1, timeoutMs); r <= 0) return r;
    if (p.revents & POLLNVAL) {
        errno = EBADF;
        return -1;
    }
    int result = 0;
    if (p.revents & POLLIN) result |= kWaitReadable;
    if (p.revents & POLLOUT) result |= kWaitWritable;
    if (p.revents & (POLLERR | POLLHUP)) {
        result |= kWaitError;
        if (readable) result |= kWaitReadable;
        if (writable) result |= kWaitWritable;
    }
    return result;
}

int waitReadableOrWoken(SocketHandle socket, SocketHandle wake, int timeoutMs) {
    pollfd p[2] = {{fd(socket), POLLIN, 0}, {fd(wake), POLLIN, 0}};
    if (const int r = pollRetrying(p, 2, timeoutMs); r <= 0) return r;
    if ((p[0].revents | p[1].revents) & POLLNVAL) {
        errno = EBADF;
        return -1;
    }
    int result = 0;
    if (p[0].revents & POLLIN) result |= kWaitReadable;
    if (p[0].revents & (POLLERR | POLLHUP)) result |= kWaitReadable | kWaitError;
    if (p[1].revents != 0) result |= kWaitWoken;
    return result;
}

bool setLinger(SocketHandle socket, bool on, int seconds) {
    linger value{on ? 1 : 0, seconds};
    return ::setsockopt(fd(socket), SOL_SOCKET, SO_LINGER, &value, sizeof value) == 0;
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
    return setIntOption(socket, IPPROTO_TCP, TCP_KEEPIDLE, seconds);
}
bool setKeepCount(SocketHandle socket, int count) {
    return setIntOption(socket, IPPROTO_TCP, TCP_KEEPCNT, count);
}
bool setKeepInterval(SocketHandle socket, int seconds) {
    return setIntOption(socket, IPPROTO_TCP, TCP_KEEPINTVL, seconds);
}

bool socketError(SocketHandle socket, int& error) {
    int value = 0;
    socklen_t length = sizeof value;
    if (::getsockopt(fd(socket), SOL_SOCKET, SO_ERROR, &value, &length) != 0) return false;
    error = value;
    return true;
}

}  // namespace tovra::platform
