// Wakes a thread that sleeps on a socket: a loopback datagram socket that becomes readable
// when another thread asks, waited on together with the socket (waitReadableOrWoken).
#pragma once

#include "platform/net.h"

#include <mutex>

namespace tovra::platform {

class SocketWaker {
public:
    SocketWaker() = default;
    ~SocketWaker() { close(); }
    SocketWaker(const SocketWaker&) = delete;
    SocketWaker& operator=(const SocketWaker&) = delete;

    // A fresh waker, not woken yet; false when no loopback socket could be made.
    bool open();
    // Safe against a wake at the same moment: the socket is not reused under it.
    void close();
    // From any thread; does nothing when closed.
    void wake();
    // Takes back what wakes are pending, so that the next wait sleeps again.
    void drain();
    SocketHandle socket() const { return socket_; }

private:
    std::mutex lock_;
    SocketHandle socket_ = kInvalidSocket;
    SocketAddress self_{};
};

} // namespace tovra::platform
