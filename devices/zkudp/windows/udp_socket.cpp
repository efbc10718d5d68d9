// UDP over Windows Sockets. A wait selects the socket together with a second socket on
// the loopback address, to which wake() sends a byte that is never read: the wait ends
// at once, now and every time after.
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <winsock2.h>
#include <ws2tcpip.h>
#include <iphlpapi.h>
#include <mswsock.h>
#include <windows.h>

#include "udp_socket.h"

#include "error_codes.h"

#include <algorithm>
#include <climits>

#ifndef SIO_UDP_CONNRESET
#define SIO_UDP_CONNRESET _WSAIOW(IOC_VENDOR, 12)
#endif

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

// The process's share of Windows Sockets, taken on first use and kept to the end:
// WSACleanup while the library unloads is not safe.
bool networkStarted()
{
    static const int started = [] {
        WSADATA data;
        return ::WSAStartup(MAKEWORD(2, 2), &data);
    }();
    return started == 0;
}

SOCKET openUdp()
{
    const SOCKET s = ::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (s == INVALID_SOCKET) return s;
    ::SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0);
    u_long nonBlocking = 1;
    if (::ioctlsocket(s, FIONBIO, &nonBlocking) != 0) {
        ::closesocket(s);
        return INVALID_SOCKET;
    }
    // Without this a send that drew "port unreachable" fails the next receive.
    BOOL report = FALSE;
    DWORD returned = 0;
    ::WSAIoctl(s, SIO_UDP_CONNRESET, &report, sizeof report, nullptr, 0, &returned, nullptr, nullptr);
    return s;
}

int clampLength(std::size_t length)
{
    return length > static_cast<std::size_t>(INT_MAX) ? INT_MAX : static_cast<int>(length);
}

} // namespace

struct UdpSocket::System {
    SOCKET socket = INVALID_SOCKET;
    SOCKET wakeSocket = INVALID_SOCKET;
    sockaddr_in wakeAddress{};

    ~System()
    {
        if (wakeSocket != INVALID_SOCKET) ::closesocket(wakeSocket);
        if (socket != INVALID_SOCKET) ::closesocket(socket);
    }
};

UdpSocket::UdpSocket(std::unique_ptr<System> system) : system_(std::move(system)) {}
UdpSocket::~UdpSocket() = default;

std::int32_t UdpSocket::open(std::uint32_t localAddress, std::unique_ptr<UdpSocket>& socket)
{
    if (!networkStarted()) return kNetworkUnavailable;
    auto system = std::make_unique<System>();
    system->socket = openUdp();
    if (system->socket == INVALID_SOCKET) return kSocketFailed;
    const BOOL on = TRUE;
    if (::setsockopt(system->socket, SOL_SOCKET, SO_BROADCAST, reinterpret_cast<const char*>(&on), sizeof on) != 0)
        return kSocketFailed;
    const sockaddr_in local = socketAddress(localAddress, 0);
    if (::bind(system->socket, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) return kBindFailed;

    system->wakeSocket = openUdp();
    if (system->wakeSocket == INVALID_SOCKET) return kSocketFailed;
    const sockaddr_in loopback = socketAddress(INADDR_LOOPBACK, 0);
    int length = sizeof system->wakeAddress;
    if (::bind(system->wakeSocket, reinterpret_cast<const sockaddr*>(&loopback), sizeof loopback) != 0 ||
        ::getsockname(system->wakeSocket, reinterpret_cast<sockaddr*>(&system->wakeAddress), &length) != 0)
        return kSocketFailed;
    socket.reset(new UdpSocket(std::move(system)));
    return kOk;
}

bool UdpSocket::send(const void* data, std::size_t size, const Endpoint& to)
{
    const sockaddr_in target = socketAddress(to.address, to.port);
    const int sent = ::sendto(system_->socket, static_cast<const char*>(data), clampLength(size), 0,
                              reinterpret_cast<const sockaddr*>(&target), sizeof target);
    return sent != SOCKET_ERROR && static_cast<std::size_t>(sent) == size;
}

UdpSocket::Wait UdpSocket::wait(int timeoutMs)
{
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(system_->socket, &readable);
    FD_SET(system_->wakeSocket, &readable);
    timeval timeout{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
    const int ready = ::select(0, &readable, nullptr, nullptr, &timeout);
    if (ready == SOCKET_ERROR) return Wait::failed;
    if (FD_ISSET(system_->wakeSocket, &readable)) return Wait::woken;
    if (ready == 0) return Wait::timeout;
    return Wait::readable;
}

UdpSocket::Received UdpSocket::receive(char* buffer, std::size_t size)
{
    Received received;
    sockaddr_in from{};
    int length = sizeof from;
    const int got = ::recvfrom(system_->socket, buffer, clampLength(size), 0, reinterpret_cast<sockaddr*>(&from),
                               &length);
    if (got == SOCKET_ERROR) {
        const int error = ::WSAGetLastError();
        if (error == WSAEWOULDBLOCK) return received;
        // WSAEMSGSIZE: too large, and dropped whole; the resets report earlier sends.
        const bool passing = error == WSAEMSGSIZE || error == WSAECONNRESET || error == WSAENETRESET ||
                             error == WSAEINTR;
        received.kind = passing ? Received::skipped : Received::failed;
        return received;
    }
    if (from.sin_family != AF_INET) {
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
    const char byte = 0;
    ::sendto(system_->wakeSocket, &byte, 1, 0, reinterpret_cast<const sockaddr*>(&system_->wakeAddress),
             sizeof system_->wakeAddress);
}

std::vector<std::uint32_t> broadcastAddresses(std::uint32_t localAddress)
{
    std::vector<std::uint32_t> addresses;
    ULONG size = 16 * 1024;
    std::vector<unsigned char> storage;
    ULONG status = ERROR_BUFFER_OVERFLOW;
    const ULONG flags = GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER;
    for (int tries = 0; tries < 3 && status == ERROR_BUFFER_OVERFLOW; ++tries) {
        storage.resize(size);
        status = ::GetAdaptersAddresses(AF_INET, flags, nullptr,
                                        reinterpret_cast<IP_ADAPTER_ADDRESSES*>(storage.data()), &size);
    }
    if (status != NO_ERROR) return addresses;
    for (auto* adapter = reinterpret_cast<const IP_ADAPTER_ADDRESSES*>(storage.data()); adapter != nullptr;
         adapter = adapter->Next) {
        if (adapter->OperStatus != IfOperStatusUp || adapter->IfType == IF_TYPE_SOFTWARE_LOOPBACK) continue;
        for (auto* unicast = adapter->FirstUnicastAddress; unicast != nullptr; unicast = unicast->Next) {
            const sockaddr* own = unicast->Address.lpSockaddr;
            if (own == nullptr || own->sa_family != AF_INET) continue;
            const std::uint32_t address = ntohl(reinterpret_cast<const sockaddr_in*>(own)->sin_addr.s_addr);
            const unsigned prefix = unicast->OnLinkPrefixLength;
            // /31 and /32 links have no broadcast address of their own.
            if (prefix == 0 || prefix >= 31) continue;
            if (localAddress != 0 && address != localAddress) continue;
            const std::uint32_t host = 0xFFFFFFFFu >> prefix;
            const std::uint32_t broadcast = address | host;
            if (std::find(addresses.begin(), addresses.end(), broadcast) == addresses.end())
                addresses.push_back(broadcast);
        }
    }
    return addresses;
}

} // namespace zkudp
