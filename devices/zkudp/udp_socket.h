// The operating system's side of the library: one implementation file per system
// (linux/ over BSD sockets, poll and an eventfd; windows/ over Windows Sockets with a
// loopback socket to wake a wait). Everything else in the library is the same on both.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace zkudp {

// An IPv4 address and port, both in host byte order.
struct Endpoint {
    std::uint32_t address = 0;
    std::uint16_t port = 0;
    bool operator==(const Endpoint&) const = default;
};

// A non-blocking UDP socket that may send broadcasts, with a way to end its waits from
// another thread. send and wake may run on any thread at the same time as the others.
class UdpSocket {
public:
    // Binds to `localAddress` (0: any) on a port of the system's choosing.
    // kOk and the socket, or an error code.
    static std::int32_t open(std::uint32_t localAddress, std::unique_ptr<UdpSocket>& socket);
    ~UdpSocket();
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    // True when the whole datagram went out.
    bool send(const void* data, std::size_t size, const Endpoint& to);

    enum class Wait { readable, woken, timeout, failed };
    // Waits up to `timeoutMs` for a datagram; woken at once and ever after wake().
    Wait wait(int timeoutMs);

    struct Received {
        enum Kind {
            datagram, // `size` bytes from `from`
            skipped,  // something that is no datagram for us (too large, an error report)
            none,     // nothing waiting
            failed,
        };
        Kind kind = none;
        std::size_t size = 0;
        Endpoint from;
    };
    // Takes the next datagram without waiting. One larger than `size` is skipped whole.
    Received receive(char* buffer, std::size_t size);

    void wake();

private:
    struct System;
    explicit UdpSocket(std::unique_ptr<System> system);
    std::unique_ptr<System> system_;
};

// The directed broadcast address of each IPv4 interface that is up and can broadcast,
// loopback aside; only the interface that holds `localAddress` unless that is 0.
std::vector<std::uint32_t> broadcastAddresses(std::uint32_t localAddress);

} // namespace zkudp
