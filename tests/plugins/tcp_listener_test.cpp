#include "api/error_codes.h"
#include "logging/tovra_logger.h"
#include "platform/net.h"
#include "plugins/tovra_listener_tcp.h"
#include "plugins/tovra_plugin_tcp.h"
#include "reader/connection_record.h"
#include "support/process_counts.h"
#include "support/wait.h"

#include "support/capturing_logger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tovra {
namespace {

using namespace platform;
using namespace std::chrono_literals;
constexpr int kPatience = 10000; // ms; only reached when something is broken

using test::CapturingLogger;
using test::openDescriptors;

SocketAddress addressOf(const char* text, int port)
{
    SocketAddress address{};
    EXPECT_TRUE(parseNumericAddress(text, static_cast<std::uint16_t>(port), address));
    return address;
}

int localPort(SocketHandle s)
{
    SocketAddress bound{};
    EXPECT_TRUE(localAddress(s, bound));
    return addressPort(bound);
}

// A port nobody listens on right now.
int freePort()
{
    const SocketHandle s = openSocket(AddressFamily::ipv4, SocketKind::stream);
    EXPECT_TRUE(bindSocket(s, addressOf("127.0.0.1", 0)));
    const int port = localPort(s);
    closeSocket(s);
    return port;
}

// True once the other side has closed the connection: end of stream or a reset.
bool closedByPeer(SocketHandle s, int patienceMs = kPatience)
{
    if ((waitSocket(s, true, false, patienceMs) & kWaitReadable) == 0) return false;
    char byte = 0;
    return recvBytes(s, &byte, 1) <= 0;
}

class TcpListener : public ::testing::Test {
protected:
    void SetUp() override
    {
        record.bind(nullptr, logger, 9);
        record.acceptedEntry = [this](ConnectionRecord& owner) { return onAccept(owner); };
    }
    void TearDown() override
    {
        listener.stop();
        for (SocketHandle s : clients) closeSocket(s);
    }

    // Takes the connection over with a new plugin, as the reader does, unless declining.
    std::int32_t onAccept(ConnectionRecord& owner)
    {
        std::lock_guard guard(lock);
        text = owner.connectionText();
        if (decline) return -5040;
        auto plugin = std::make_unique<TovraPluginTcp>(&owner);
        const std::int32_t handle = plugin->pliAccept(&listener);
        plugins.push_back(std::move(plugin));
        if (handle >= 0) ++accepted;
        return handle;
    }

    std::int32_t start(const std::string& extra = "", const char* address = "127.0.0.1")
    {
        port = freePort();
        // An IPv6 text holds the separator: it is quoted.
        const std::string text = "tcp:ipaddress=\"" + std::string(address) + "\":port=" + std::to_string(port) + extra;
        return listener.start(text.c_str());
    }
    SocketHandle client(const char* address = "127.0.0.1")
    {
        const SocketAddress target = addressOf(address, port);
        const SocketHandle s = openSocket(addressFamily(target), SocketKind::stream);
        clients.push_back(s);
        EXPECT_EQ(connectSocket(s, target), 0);
        return s;
    }
    bool acceptedReaches(int count)
    {
        return test::waitUntil([&] { return accepted.load() == count; });
    }
    std::string lastText()
    {
        std::lock_guard guard(lock);
        return text;
    }

    CapturingLogger logger;
    ConnectionRecord record;
    TovraListenerTcp listener{&record};
    std::mutex lock;
    std::vector<std::unique_ptr<TovraPluginTcp>> plugins;
    std::string text; // of the last request handed over
    std::atomic<int> accepted{0};
    std::atomic<bool> decline{false};
    std::vector<SocketHandle> clients;
    int port = 0;
};

TEST_F(TcpListener, StartRefusesBadConnectorsWithTheirCodes)
{
    EXPECT_EQ(listener.kind(), 3);
    EXPECT_EQ(listener.start(nullptr), err::ListenerParameter);
    EXPECT_EQ(listener.start("tcp:ipaddress=127.0.0.1"), tcperr::InvalidPort);
    EXPECT_EQ(listener.start("tcp:ipaddress=127.0.0.1:port=65536"), tcperr::InvalidPort);
    EXPECT_EQ(start("", "localhost"), tcperr::InvalidAddress) << "no name resolution";

    const auto handler = std::move(record.acceptedEntry);
    record.acceptedEntry = nullptr;
    EXPECT_EQ(start(), err::ListenerRunning) << "no accept handler";
    record.acceptedEntry = handler;

    // A port that another socket already listens on.
    const SocketHandle taken = openSocket(AddressFamily::ipv4, SocketKind::stream);
    clients.push_back(taken);
    ASSERT_TRUE(bindSocket(taken, addressOf("127.0.0.1", 0)));
    ASSERT_TRUE(listenSocket(taken, 1));
    port = localPort(taken);
    EXPECT_EQ(listener.start(("TCP:IPAddress=127.0.0.1:Port=" + std::to_string(port)).c_str()), tcperr::BindFailed);
    EXPECT_TRUE(logger.saw("Bind failed: NatError="));

    ASSERT_EQ(start(), 0);
    EXPECT_EQ(start(), err::ListenerRunning) << "already running";
    EXPECT_TRUE(test::waitUntil([&] { return logger.saw("TCP listener thread started"); }));
}

TEST_F(TcpListener, HandsAConnectionOverWithThePeerText)
{
    for (const char* address : {"127.0.0.1", "::1"}) {
        SCOPED_TRACE(address);
        ASSERT_EQ(start("", address), 0);
        const SocketHandle s = client(address);
        ASSERT_TRUE(acceptedReaches(address[0] == ':' ? 2 : 1));
        EXPECT_EQ(lastText(), "TCP:PeerAddress=" + std::string(address) + ":PeerPort=" + std::to_string(localPort(s)));
        EXPECT_TRUE(logger.saw("Connection request accepted"));
        EXPECT_TRUE(logger.saw(" connection request from TCP:PeerAddress="));

        // The plugin owns the socket now: bytes it sends reach the client.
        const std::uint8_t bytes[] = {1, 2, 3};
        EXPECT_EQ(plugins.back()->pliTransmit(0, bytes, sizeof bytes), 0);
        std::uint8_t got[3] = {};
        ASSERT_NE(waitSocket(s, true, false, kPatience) & kWaitReadable, 0);
        EXPECT_EQ(recvBytes(s, got, sizeof got), 3);
        EXPECT_EQ(got[2], 3);

        listener.stop();
        record.connectionGate().release(); // as the owner does when the reader leaves
    }
    // Keep-alive is on by default; a system without TCP_KEEPCNT only logs its failure.
    EXPECT_TRUE(logger.saw("Set keep alive done: socket=") || logger.saw("Set TCP_KEEPCNT failed: "));
}

TEST_F(TcpListener, RefusesWhileAReaderIsConnectedAndAcceptsAfterRelease)
{
    ASSERT_EQ(start(), 0);
    client();
    ASSERT_TRUE(acceptedReaches(1));

    const SocketHandle second = client();
    EXPECT_TRUE(closedByPeer(second)) << "refused: the listener closes its socket";
    EXPECT_TRUE(logger.saw("Connection request refused PH=0x"));
    EXPECT_TRUE(logger.saw("shutdown and close accept socket="));
    EXPECT_EQ(accepted.load(), 1);

    record.connectionGate().release();
    client();
    EXPECT_TRUE(acceptedReaches(2));
}

TEST_F(TcpListener, DecliningHandlerLeavesTheListenerReady)
{
    ASSERT_EQ(start(), 0);
    decline = true;
    EXPECT_TRUE(closedByPeer(client()));
    EXPECT_TRUE(test::waitUntil([&] { return logger.saw("Connection request canceled"); }));
    decline = false;
    client();
    EXPECT_TRUE(acceptedReaches(1)) << "the declined request gave the gate back";
}

TEST_F(TcpListener, BacklogAndKeepAliveKeysAndTheirDefaultsOnRestart)
{
    ASSERT_EQ(start(":backlog=0:keepalive=0"), 0);
    EXPECT_TRUE(logger.saw("Backlog=1"));
    client();
    ASSERT_TRUE(acceptedReaches(1));
    EXPECT_FALSE(logger.saw("keep alive") || logger.saw("KEEP")) << "no keep-alive option touched";

    // Left-out keys fall back to their defaults: keep-alive is on again.
    listener.stop();
    record.connectionGate().release();
    ASSERT_EQ(start(":keepidle=7"), 0);
    EXPECT_TRUE(logger.saw("Backlog=5"));
    client();
    ASSERT_TRUE(acceptedReaches(2));
    EXPECT_TRUE(logger.saw("Set keep alive done: socket=") || logger.saw("Set TCP_KEEPCNT failed: "));
    if (logger.saw("Set keep alive done")) EXPECT_TRUE(logger.saw(" idle=7 cnt=5 intvl=1"));
}

TEST_F(TcpListener, StopIsPromptIdempotentAndClosesTheListenSocket)
{
    listener.stop(); // nothing started
    ASSERT_EQ(start(), 0);
    const auto begin = std::chrono::steady_clock::now();
    listener.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s) << "one wait period, not a hang";
    listener.stop();
    EXPECT_TRUE(logger.saw("Close listen socket="));
    EXPECT_TRUE(logger.saw("TCP listener thread stopped"));

    const SocketHandle late = openSocket(AddressFamily::ipv4, SocketKind::stream);
    clients.push_back(late);
    EXPECT_TRUE(isConnectionRefused(connectSocket(late, addressOf("127.0.0.1", port))));
    EXPECT_EQ(accepted.load(), 0);

    ASSERT_EQ(start(), 0) << "a stopped listener starts again";
    client();
    EXPECT_TRUE(acceptedReaches(1));
}

TEST_F(TcpListener, StormWhileAReaderIsConnectedIsRefusedWithoutLeaks)
{
    const long before = openDescriptors();
    ASSERT_TRUE(record.connectionGate().tryAcquireFor(0ms)); // a reader is connected
    ASSERT_EQ(start(":backlog=256"), 0);

    constexpr int kClients = 200;
    for (int i = 0; i < kClients; ++i) {
        const SocketHandle s = openSocket(AddressFamily::ipv4, SocketKind::stream);
        ASSERT_NE(s, kInvalidSocket);
        clients.push_back(s);
        ASSERT_TRUE(setNonBlocking(s, true));
        const int started = connectSocket(s, addressOf("127.0.0.1", port));
        ASSERT_TRUE(started == 0 || isConnectInProgress(started)) << started;
    }
    // One generous deadline for all of them, so that a fault fails in bounded time.
    using std::chrono::steady_clock;
    const auto deadline = steady_clock::now() + 60s;
    int closed = 0;
    for (SocketHandle s : clients) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - steady_clock::now());
        closed += closedByPeer(s, static_cast<int>(std::max<std::int64_t>(left.count(), 0))) ? 1 : 0;
    }
    EXPECT_EQ(closed, kClients);
    EXPECT_EQ(accepted.load(), 0);

    listener.stop();
    for (SocketHandle s : clients) closeSocket(s);
    clients.clear();
    if (before >= 0) EXPECT_EQ(openDescriptors(), before) << "a socket was left open";
    record.connectionGate().release();
}

} // namespace
} // namespace tovra
