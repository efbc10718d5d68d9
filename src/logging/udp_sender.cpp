#include "logging/udp_sender.h"

namespace tovra {

UdpSender::~UdpSender()
{
    close();
    if (networkStarted_) platform::stopNetwork();
}

bool UdpSender::open(const std::string& address, std::int64_t port)
{
    close();
    if (address.empty() || port < 1 || port > 65535) return false;
    if (!networkStarted_) networkStarted_ = platform::startNetwork() == 0;

    platform::SocketAddress destination{};
    if (!platform::parseNumericAddress(address.c_str(), static_cast<std::uint16_t>(port), destination))
        return false;
    socket_ = platform::openSocket(platform::addressFamily(destination), platform::SocketKind::datagram);
    destination_ = destination;
    return valid();
}

void UdpSender::close()
{
    if (valid()) platform::closeSocket(socket_);
    socket_ = platform::kInvalidSocket;
}

void UdpSender::send(std::string_view datagram) const
{
    if (valid()) platform::sendDatagram(socket_, datagram.data(), datagram.size(), destination_);
}

} // namespace tovra
