// Loopback sockets of the scale benchmark and its peer, and the plain blocking-socket
// client every library figure is compared with.
#pragma once

#include "readersim/frame_codec.h"
#include "scale/measure.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <vector>

namespace tovra::bench {

inline sockaddr_in loopback(std::uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

inline void setNoDelay(int socket)
{
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

// A blocking connection to 127.0.0.1:port; -1 when refused.
inline int connectLoopback(std::uint16_t port)
{
    const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    if (connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close(s);
        return -1;
    }
    setNoDelay(s);
    return s;
}

// A non-blocking listening socket on a free loopback port.
inline int listenLoopback(int backlog = 16)
{
    const int s = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(0);
    if (bind(s, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || listen(s, backlog) != 0)
        throw std::runtime_error("cannot listen on loopback");
    return s;
}

inline std::uint16_t localPort(int socket)
{
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

inline bool receiveExactly(int socket, std::uint8_t* into, std::size_t length)
{
    for (std::size_t got = 0; got < length;) {
        const ssize_t n = recv(socket, into + got, length - got, 0);
        if (n <= 0) return false;
        got += static_cast<std::size_t>(n);
    }
    return true;
}

// One request frame sent and its response read whole, as a plain client does it.
class RawExchange {
public:
    explicit RawExchange(const std::vector<std::uint8_t>& payload)
    {
        readersim::Frame frame;
        frame.flags = readersim::kDirectionRequest;
        frame.payload = payload;
        wire_ = readersim::encode(frame);
    }

    bool roundTrip(int socket) const
    {
        if (send(socket, wire_.data(), wire_.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(wire_.size()))
            return false;
        std::uint8_t response[256];
        if (!receiveExactly(socket, response, 3)) return false;
        const std::size_t length = std::size_t{response[1]} << 8 | response[2];
        return length >= 3 && length <= sizeof response && receiveExactly(socket, response + 3, length - 3);
    }

private:
    std::vector<std::uint8_t> wire_;
};

// The plain client with what a client that also hears frames it did not ask for pays on
// each exchange: every connection in an epoll set of its own, which stops watching it for
// the client's own exchange and watches again afterwards.
class WatchedConnections {
public:
    explicit WatchedConnections(const std::vector<int>& sockets) : sockets_(sockets)
    {
        for (const int s : sockets) {
            watches_.push_back(epoll_create1(EPOLL_CLOEXEC));
            epoll_event event{};
            event.events = EPOLLIN;
            if (watches_.back() < 0 || epoll_ctl(watches_.back(), EPOLL_CTL_ADD, s, &event) != 0)
                throw std::runtime_error("cannot watch a plain connection");
        }
    }
    ~WatchedConnections()
    {
        for (const int watch : watches_) close(watch);
    }
    WatchedConnections(const WatchedConnections&) = delete;
    WatchedConnections& operator=(const WatchedConnections&) = delete;

    bool roundTrip(const RawExchange& exchange, std::size_t i) const
    {
        watch(i, 0);
        const bool done = exchange.roundTrip(sockets_[i]);
        watch(i, EPOLLIN);
        return done;
    }

private:
    void watch(std::size_t i, std::uint32_t events) const
    {
        epoll_event event{};
        event.events = events;
        epoll_ctl(watches_[i], EPOLL_CTL_MOD, sockets_[i], &event);
    }

    const std::vector<int>& sockets_;
    std::vector<int> watches_;
};

// Accepts one connection on each listener from a single epoll thread, telling `accepted`
// each listener's index; the monotonic time each was taken, 0 for those still waiting after
// `timeoutMs`.
template <typename Accepted>
std::vector<std::int64_t> acceptEach(const std::vector<int>& listeners, int timeoutMs, Accepted accepted)
{
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    for (std::size_t i = 0; i < listeners.size(); ++i) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = i;
        epoll_ctl(epoll, EPOLL_CTL_ADD, listeners[i], &event);
    }
    std::vector<std::int64_t> taken(listeners.size(), 0);
    std::vector<epoll_event> events(256);
    const std::int64_t deadline = monotonicNanos() + std::int64_t{timeoutMs} * 1'000'000;
    for (std::size_t left = listeners.size(); left > 0 && monotonicNanos() < deadline;) {
        const int ready = epoll_wait(epoll, events.data(), static_cast<int>(events.size()), 100);
        for (int e = 0; e < ready; ++e) {
            const std::size_t i = events[e].data.u64;
            const int socket = accept4(listeners[i], nullptr, nullptr, SOCK_CLOEXEC);
            if (socket < 0) continue;
            taken[i] = monotonicNanos();
            epoll_ctl(epoll, EPOLL_CTL_DEL, listeners[i], nullptr);
            accepted(i);
            close(socket);
            --left;
        }
    }
    close(epoll);
    return taken;
}

inline std::vector<std::int64_t> acceptEach(const std::vector<int>& listeners, int timeoutMs)
{
    return acceptEach(listeners, timeoutMs, [](std::size_t) {});
}

} // namespace tovra::bench
