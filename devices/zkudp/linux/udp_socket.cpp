// UDP over BSD sockets. Waits poll the socket together with an eventfd that wake() sets
// for good, so a stop never waits out a round.
#include "udp_socket.h"

#include "error_codes.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zkudp {
namespace {

sockaddr_in socketAddress(std::uint32_t address, std::uint16_t port)
{
    sockaddr_in native{};
    native.sin_family = AF_INET;
    native.sin_addr.s_addr = htonl(address);
    native.sin_port = htons(port);
    return native;
}

} // namespace

struct UdpSocket::System {
    int fd = -1;
    int wakeFd = -1;

    ~System()
    {
        if (wakeFd >= 0) ::close(wakeFd);
        if (fd >= 0) ::close(fd);
    }
};

UdpSocket::UdpSocket(std::unique_ptr<System> system) : system_(std::move(system)) {}
UdpSocket::~UdpSocket() = default;

std::int32_t UdpSocket::open(std::uint32_t localAddress, std::unique_ptr<UdpSocket>& socket)
{
    auto system = std::make_unique<System>();
    system->fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (system->fd < 0) return kSocketFailed;
    const int on = 1;
    if (::setsockopt(system->fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0) return kSocketFailed;
    const sockaddr_in local = socketAddress(localAddress, 0);
    if (::bind(system->fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) return kBindFailed;
    system->wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (system->wakeFd < 0) return kSocketFailed;
    socket.reset(new UdpSocket(std::move(system)));
    return kOk;
}

bool UdpSocket::send(const void* data, std::size_t size, const Endpoint& to)
{
    const sockaddr_in target = socketAddress(to.address, to.port);
    ssize_t sent;
    do {
        sent = ::sendto(system_->fd, data, size, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&target),
                        sizeof target);
    } while (sent < 0 && errno == EINTR);
    return sent >= 0 && static_cast<std::size_t>(sent) == size;
}

UdpSocket::Wait UdpSocket::wait(int timeoutMs)
{
    pollfd polled[2] = {{system_->fd, POLLIN, 0}, {system_->wakeFd, POLLIN, 0}};
    const int ready = ::poll(polled, 2, timeoutMs);
    if (ready < 0) return errno == EINTR ? Wait::timeout : Wait::failed; // the caller looks at its clock
    if (polled[1].revents != 0) return Wait::woken;
    if (ready == 0) return Wait::timeout;
    if ((polled[0].revents & POLLNVAL) != 0) return Wait::failed;
    return Wait::readable; // an error shows up, and is cleared, in the receive
}

UdpSocket::Received UdpSocket::receive(char* buffer, std::size_t size)
{
    Received received;
    sockaddr_in from{};
    socklen_t length = sizeof from;
    ssize_t got;
    do {
        // MSG_TRUNC: the datagram's real length, so that one cut to the buffer is noticed.
        got = ::recvfrom(system_->fd, buffer, size, MSG_TRUNC, reinterpret_cast<sockaddr*>(&from), &length);
    } while (got < 0 && errno == EINTR);
    if (got < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK) return received;
        // Reports of earlier sends (ICMP errors) and the like: nothing to read, go on.
        received.kind = errno == EBADF || errno == ENOTSOCK || errno == EFAULT ? Received::failed : Received::skipped;
        return received;
    }
    if (static_cast<std::size_t>(got) > size || from.sin_family != AF_INET) {
        received.kind = Received::skipped;
        return received;
    }
    received.kind = Received::datagram;
    received.size = static_cast<std::size_t>(got);
    received.from = Endpoint{ntohl(from.sin_addr.s_addr), ntohs(from.sin_port)};
    return received;
}

void UdpSocket::wake()
{
    const std::uint64_t one = 1;
    // Only a counter at its limit refuses, and that one wakes every poll already.
    [[maybe_unused]] const ssize_t written = ::write(system_->wakeFd, &one, sizeof one);
}

std::vector<std::uint32_t> broadcastAddresses(std::uint32_t localAddress)
{
    std::vector<std::uint32_t> addresses;
    ifaddrs* interfaces = nullptr;
    if (::getifaddrs(&interfaces) != 0) return addresses;
    for (const ifaddrs* at = interfaces; at != nullptr; at = at->ifa_next) {
        if (at->ifa_addr == nullptr || at->ifa_addr->sa_family != AF_INET) continue;
        if ((at->ifa_flags & IFF_UP) == 0 || (at->ifa_flags & IFF_LOOPBACK) != 0) continue;
        if ((at->ifa_flags & IFF_BROADCAST) == 0 || at->ifa_broadaddr == nullptr) continue;
        const auto* own = reinterpret_cast<const sockaddr_in*>(at->ifa_addr);
        const auto* broadcast = reinterpret_cast<const sockaddr_in*>(at->ifa_broadaddr);
        if (localAddress != 0 && ntohl(own->sin_addr.s_addr) != localAddress) continue;
        const std::uint32_t address = ntohl(broadcast->sin_addr.s_addr);
        if (address != 0 && std::find(addresses.begin(), addresses.end(), address) == addresses.end())
            addresses.push_back(address);
    }
    ::freeifaddrs(interfaces);
    return addresses;
}

} // namespace zkudp
