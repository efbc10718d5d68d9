#include "platform/waker.h"

namespace tovra::platform {

bool SocketWaker::open()
{
    close();
    std::lock_guard guard(lock_);
    const SocketHandle opened = openSocket(AddressFamily::ipv4, SocketKind::datagram);
    if (opened == kInvalidSocket) return false;
    SocketAddress self{};
    if (!parseNumericAddress("127.0.0.1", 0, self) || !bindSocket(opened, self) || !localAddress(opened, self) ||
        !setNonBlocking(opened, true)) {
        closeSocket(opened);
        return false;
    }
    socket_ = opened;
    self_ = self;
    return true;
}

void SocketWaker::close()
{
    std::lock_guard guard(lock_);
    if (socket_ == kInvalidSocket) return;
    closeSocket(socket_);
    socket_ = kInvalidSocket;
}

void SocketWaker::wake()
{
    std::lock_guard guard(lock_);
    if (socket_ == kInvalidSocket) return;
    const char byte = 1;
    sendDatagram(socket_, &byte, 1, self_);
}

void SocketWaker::drain()
{
    std::lock_guard guard(lock_);
    if (socket_ == kInvalidSocket) return;
    char bytes[16];
    SocketAddress from{};
    while (recvDatagram(socket_, bytes, sizeof bytes, from) > 0) {
    }
}

} // namespace tovra::platform
