// Socket addresses: one implementation over each OS's socket headers, which CMake picks.
#include "platform/net.h"
#include "platform/socket_detail.h"

#include "socket_headers.h" // of the OS built for

#include <cstddef>
#include <cstring>

namespace tovra::platform {

namespace detail {

int familyOf(const SocketAddress& address) {
    NativeFamily family;
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

}  // namespace detail

using detail::familyOf;
using detail::nativeFamily;

void clearAddress(SocketAddress& address) { std::memset(address.storage, 0, sizeof address.storage); }

AddressFamily addressFamily(const SocketAddress& address) {
    switch (familyOf(address)) {
        case AF_INET: return AddressFamily::ipv4;
        case AF_INET6: return AddressFamily::ipv6;
        default: return AddressFamily::none;
    }
}

int addressPort(const SocketAddress& address) {
    std::uint16_t port;
    switch (familyOf(address)) {
        case AF_INET: std::memcpy(&port, address.storage + offsetof(sockaddr_in, sin_port), sizeof port); break;
        case AF_INET6: std::memcpy(&port, address.storage + offsetof(sockaddr_in6, sin6_port), sizeof port); break;
        default: return -1;
    }
    return ntohs(port);
}

bool setAddressPort(SocketAddress& address, std::uint16_t port) {
    const std::uint16_t net = htons(port);
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
    if (raw == nullptr || !detail::networkReady()) return {};
    if (::inet_ntop(family, raw, text, sizeof text - 1) == nullptr) return {};
    return text;
}

bool parseNumericAddress(const char* text, std::uint16_t port, SocketAddress& address) {
    if (text == nullptr || !detail::networkReady()) return false;
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
    if (name == nullptr || *name == '\0' || !detail::networkReady()) return false;
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
