// Feeds arbitrary byte streams to the TCP plugin's frame receive over a loopback connection.
#include "logging/tovra_logger.h"
#include "platform/net.h"
#include "plugins/tovra_listener_tcp.h"
#include "plugins/tovra_plugin_tcp.h"
#include "protocol/protocol_frame.h"
#include "reader/connection_record.h"

#include <cstdlib>
#include <memory>

using namespace tovra;
using namespace tovra::platform;

namespace {

// Bigger than the largest frame, so that oversized lengths and frames that follow each other
// are both reached.
constexpr std::size_t kMaxStream = 40000;

struct Harness {
    TovraLogger logger{1};
    ConnectionRecord record;
    SocketHandle server = kInvalidSocket;
    SocketAddress address{};
    std::unique_ptr<std::uint8_t[]> buffer = std::make_unique<std::uint8_t[]>(ProtocolFrame::maxLength);

    Harness()
    {
        record.bind(nullptr, logger, 1);
        server = openSocket(AddressFamily::ipv4, SocketKind::stream);
        if (!parseNumericAddress("127.0.0.1", 0, address) || !bindSocket(server, address) ||
            !listenSocket(server, 16) || !localAddress(server, address))
            std::abort();
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static Harness harness;

    const SocketHandle writer = openSocket(AddressFamily::ipv4, SocketKind::stream);
    if (writer == kInvalidSocket || connectSocket(writer, harness.address) != 0) std::abort();
    TovraListenerTcp listener(&harness.record);
    if (!listener.acceptedSocket()->acceptFrom(harness.server)) std::abort();
    auto plugin = std::make_unique<TovraPluginTcp>(&harness.record);
    const std::int32_t handle = plugin->pliAccept(&listener);
    if (handle < 0) std::abort();

    // Whatever fits into the socket buffers now; then end-of-stream, so that the reader
    // never has to wait for its time-out.
    setNonBlocking(writer, true);
    for (std::size_t sent = 0, total = size < kMaxStream ? size : kMaxStream; sent < total;) {
        const std::ptrdiff_t r = sendBytes(writer, data + sent, total - sent);
        if (r <= 0) break;
        sent += static_cast<std::size_t>(r);
    }
    shutdownSocket(writer);

    // Odd input sizes also give the caller's buffer that size, so that its limit is crossed too.
    const std::size_t bufferSize = size % 2 == 1 && size < ProtocolFrame::maxLength ? size : ProtocolFrame::maxLength;
    std::int32_t result = 0;
    for (int frames = 0; frames <= 40000; ++frames) {
        result = plugin->pliReceive(handle, harness.buffer.get(), bufferSize);
        if (result < 0) break;
        if (result < 3 || static_cast<std::size_t>(result) > bufferSize) std::abort();
    }
    if (result >= 0) std::abort(); // the stream has an end

    // A reset leaves no connection waiting in TIME_WAIT, so runs do not use up ports.
    setLinger(writer, true, 0);
    closeSocket(writer);
    plugin->pliDisconnect(handle);
    return 0;
}
