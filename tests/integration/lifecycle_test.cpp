// Connections that end, start again at once, or are ended from inside the application's
// own callbacks, through the C interface against the reader simulator. Each race is
// repeated many times; every wait is bounded.
#include "platform/net.h"
#include "readersim/reader_sim.h"
#include "support/error_log.h"
#include "support/loopback.h"
#include "support/repeat.h"
#include "support/wait.h"
#include "tovra/tovra.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using tovra::readersim::Fault;
using tovra::readersim::FaultKind;
using tovra::readersim::Frame;
using tovra::readersim::ReaderSim;
using tovra::test::ErrorLog;
using tovra::test::freePort;
using tovra::test::repeat;
using tovra::test::waitUntil;
using Bytes = std::vector<std::uint8_t>;

[[maybe_unused]] auto* const errorLogFirst = ::testing::AddGlobalTestEnvironment(new tovra::test::ErrorLogFirst);

constexpr std::int32_t kOnePort = 2;
constexpr std::int32_t kTwoPort = 3;

std::string tcpText(std::uint16_t port) { return "tcp:IPAddress=127.0.0.1:Port=" + std::to_string(port); }

std::string stateOf(std::int32_t reader) { return TOVRA_GetConnectionState(reader); }

// Without sleeping between looks: the window that matters may be a few microseconds wide.
template <typename Condition>
bool spinUntil(Condition condition, std::chrono::milliseconds limit = 10000ms)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::yield();
    }
    return true;
}

std::int32_t transceive(std::int32_t reader, const Bytes& request, Bytes& response)
{
    response.assign(256, 0);
    std::uint64_t length = response.size();
    const std::int32_t result = TOVRA_Transceive(reader, request.data(), request.size(), response.data(), &length);
    response.resize(result == 0 ? length : 0);
    return result;
}

// --- Host connections ---------------------------------------------------------------

TEST(HostConnection, TwoPortDisconnectWhileATransceiveWaits)
{
    ReaderSim sim;
    ASSERT_TRUE(sim.listen());
    sim.setFault(FaultKind::silence);
    const std::int32_t reader = TOVRA_Create(kTwoPort, tcpText(sim.port()).c_str());
    for (int round = 0; round < repeat(40); ++round) {
        for (bool terminateFirst : {false, true}) {
            ASSERT_EQ(TOVRA_ConnectByHost(reader, nullptr), 0) << TOVRA_GetLastErrorText(reader);
            ASSERT_EQ(TOVRA_SetReceiveTimeout(reader, 2000), 0);
            const std::size_t seen = sim.requestsSeen();
            std::atomic<std::int32_t> result{1};
            std::thread waiting([&] {
                Bytes response;
                result = transceive(reader, {0x65, 0x01}, response);
            });
            ASSERT_TRUE(waitUntil([&] { return sim.requestsSeen() > seen; }));
            if (terminateFirst) EXPECT_EQ(TOVRA_Terminate(reader), 0);
            EXPECT_EQ(TOVRA_DisconnectByHost(reader), 0);
            waiting.join();
            EXPECT_TRUE(result == -5011 || result == -5018) << result << " in round " << round;
            EXPECT_EQ(stateOf(reader), "AppCh=Discon:RdrCh=Discon");
        }
    }
    EXPECT_EQ(TOVRA_Delete(reader), 0);
}

TEST(HostConnection, ConnectsAgainAsSoonAsTheReaderHasLeft)
{
    ReaderSim sim;
    ASSERT_TRUE(sim.listen());
    const std::int32_t reader = TOVRA_Create(kOnePort, tcpText(sim.port()).c_str());
    Bytes response;
    for (int cycle = 0; cycle < repeat(3000); ++cycle) {
        ASSERT_EQ(TOVRA_ConnectByHost(reader, nullptr), 0) << cycle << ": " << TOVRA_GetLastErrorText(reader);
        ASSERT_EQ(transceive(reader, {0x65, static_cast<std::uint8_t>(cycle)}, response), 0)
            << cycle << ": " << TOVRA_GetLastErrorText(reader);
        sim.closeConnection();
        // "Discon" means the channel is free: connecting right then must work.
        ASSERT_TRUE(spinUntil([&] { return stateOf(reader) == "SingleCh=Discon"; })) << cycle;
    }
    EXPECT_EQ(TOVRA_Delete(reader), 0);
}

TEST(HostConnection, TheReaderLeavingIsNoticedWhileTheBuffersAreUsedUp)
{
    ReaderSim sim;
    ASSERT_TRUE(sim.listen());
    const std::int32_t reader = TOVRA_Create(kOnePort, tcpText(sim.port()).c_str());
    ASSERT_EQ(TOVRA_ConnectByHost(reader, nullptr), 0);
    ASSERT_TRUE(sim.waitForConnection(10000ms));
    Frame stray{.flags = 0x02, .payload = {0x65, 0x00}};
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(sim.sendFrame(stray));
    ASSERT_TRUE(waitUntil([&] { return ErrorLog::instance().contains(reader, "No unused receive buffer available"); }));
    sim.closeConnection();
    EXPECT_TRUE(waitUntil([&] { return stateOf(reader) == "SingleCh=Discon"; }));
    // And the next connection has all its buffers again.
    ASSERT_EQ(TOVRA_ConnectByHost(reader, nullptr), 0);
    Bytes response;
    EXPECT_EQ(transceive(reader, {0x65, 0x07}, response), 0);
    EXPECT_EQ(TOVRA_Delete(reader), 0);
}

// A peer that takes nothing off the connection until told to, then everything.
class SlowPeer {
public:
    SlowPeer()
    {
        namespace net = tovra::platform;
        net::SocketAddress address{};
        net::parseNumericAddress("127.0.0.1", 0, address);
        listen_ = net::openSocket(net::AddressFamily::ipv4, net::SocketKind::stream);
        net::bindSocket(listen_, address);
        net::listenSocket(listen_, 1);
        net::localAddress(listen_, address);
        port_ = static_cast<std::uint16_t>(net::addressPort(address));
    }
    ~SlowPeer()
    {
        start();
        if (reader_.joinable()) reader_.join();
        tovra::platform::closeSocket(listen_);
    }
    std::uint16_t port() const { return port_; }
    // Accepts the connection; reading starts once `ready` holds (or start() is called) and
    // lasts until the end of stream.
    void accept(std::function<bool()> ready)
    {
        reader_ = std::thread([this, ready] {
            const auto s = tovra::platform::acceptSocket(listen_, nullptr);
            waitUntil([&] { return started_.load() || ready(); }, 60000ms);
            std::uint8_t chunk[65536];
            for (;;) {
                const std::ptrdiff_t got = tovra::platform::recvBytes(s, chunk, sizeof chunk);
                if (got <= 0) break;
                bytes_.insert(bytes_.end(), chunk, chunk + got);
            }
            tovra::platform::closeSocket(s);
        });
    }
    void start() { started_ = true; }
    // Everything received, once the connection has ended.
    const Bytes& bytes()
    {
        reader_.join();
        return bytes_;
    }

private:
    tovra::platform::SocketHandle listen_;
    std::uint16_t port_ = 0;
    std::thread reader_;
    std::atomic<bool> started_{false};
    Bytes bytes_;
};

TEST(HostConnection, AFrameIsNeverCutShortOnAConnectionThatStaysOpen)
{
    SlowPeer peer;
    std::atomic<std::int32_t> reader{0};
    // The peer starts reading once a send went out only in part.
    peer.accept([&] { return ErrorLog::instance().contains(reader, "Not all bytes send"); });
    reader = TOVRA_Create(kOnePort, tcpText(peer.port()).c_str());
    ASSERT_EQ(TOVRA_ConnectByHost(reader, nullptr), 0);
    ASSERT_EQ(TOVRA_SetReceiveTimeout(reader, 1), 0);

    // Large requests until the peer's buffers are full, then some more while it reads.
    Bytes request(32760, 0x5A);
    Bytes response;
    int afterStart = 0;
    for (int sent = 0; sent < 2000 && afterStart < 40; ++sent) {
        request[1] = static_cast<std::uint8_t>(sent);
        const std::int32_t result = transceive(reader, request, response);
        if (result != -5015) peer.start(); // a send found no room at all
        if (result == -5018) break;        // the library ended the connection
        if (ErrorLog::instance().contains(reader, "Not all bytes send")) ++afterStart;
    }
    ASSERT_TRUE(ErrorLog::instance().contains(reader, "Not all bytes send")) << "the buffers never filled up";
    EXPECT_EQ(TOVRA_Delete(reader), 0);

    // Whole frames only; the stream may end inside a frame only where the connection ended.
    const Bytes& stream = peer.bytes();
    std::size_t offset = 0, frames = 0;
    while (offset < stream.size()) {
        const auto decoded = tovra::readersim::decode({stream.data() + offset, stream.size() - offset});
        if (decoded.status == tovra::readersim::Decoded::Status::incomplete) break;
        ASSERT_EQ(decoded.status, tovra::readersim::Decoded::Status::frame) << "garbage at " << offset;
        ASSERT_TRUE(decoded.crcOk) << "frame " << frames << " at " << offset << " is not whole";
        offset += decoded.size;
        ++frames;
    }
    EXPECT_GT(frames, 0u);
}

TEST(HostConnection, DeleteWhileAnotherThreadIsInsideACall)
{
    ReaderSim sim;
    ASSERT_TRUE(sim.listen());
    sim.setFault(FaultKind::silence);
    for (std::int32_t kind : {kOnePort, kTwoPort}) {
        for (int round = 0; round < repeat(30); ++round) {
            const std::int32_t reader = TOVRA_Create(kind, tcpText(sim.port()).c_str());
            ASSERT_EQ(TOVRA_ConnectByHost(reader, nullptr), 0);
            const std::size_t seen = sim.requestsSeen();
            std::atomic<std::int32_t> result{1};
            std::thread waiting([&] {
                Bytes response;
                result = transceive(reader, {0x65, 0x02}, response);
            });
            ASSERT_TRUE(waitUntil([&] { return sim.requestsSeen() > seen; }));
            EXPECT_EQ(TOVRA_Delete(reader), 0);
            waiting.join();
            EXPECT_TRUE(result == -5011 || result == -5018) << result;
            EXPECT_EQ(TOVRA_Transceive(reader, nullptr, 0, nullptr, nullptr), -5002);
        }
    }
}

TEST(HostConnection, ConnectAndDisconnectFromTwoThreadsAtOnce)
{
    ReaderSim sim;
    ASSERT_TRUE(sim.listen());
    for (std::int32_t kind : {kOnePort, kTwoPort}) {
        const std::int32_t reader = TOVRA_Create(kind, tcpText(sim.port()).c_str());
        std::atomic<bool> done{false};
        std::thread disconnecting([&] {
            while (!done) EXPECT_EQ(TOVRA_DisconnectByHost(reader), 0);
        });
        for (int i = 0; i < repeat(1000); ++i) {
            const std::int32_t connected = TOVRA_ConnectByHost(reader, nullptr);
            EXPECT_TRUE(connected == 0 || connected == -5004) << connected;
        }
        done = true;
        disconnecting.join();
        EXPECT_EQ(TOVRA_DisconnectByHost(reader), 0);
        EXPECT_EQ(stateOf(reader), kind == kOnePort ? "SingleCh=Discon" : "AppCh=Discon:RdrCh=Discon");
        // Nothing of the race is left over: the next connection works.
        ASSERT_EQ(TOVRA_ConnectByHost(reader, nullptr), 0);
        Bytes response;
        EXPECT_EQ(transceive(reader, {0x65, 0x03}, response), 0);
        EXPECT_EQ(TOVRA_Delete(reader), 0);
    }
}

TEST(HostConnection, AskingWhetherItIsConnectedNeverRefusesAConnect)
{
    ReaderSim sim;
    ASSERT_TRUE(sim.listen());
    for (std::int32_t kind : {kOnePort, kTwoPort}) {
        const std::int32_t reader = TOVRA_Create(kind, tcpText(sim.port()).c_str());
        std::atomic<bool> done{false};
        // Mostly on a reader that is not connected: the look finds nobody holding it.
        std::thread asking([&] {
            Bytes response;
            while (!done) transceive(reader, {0x65, 0x04}, response);
        });
        int refused = 0;
        for (int i = 0; i < repeat(1000); ++i) {
            if (TOVRA_ConnectByHost(reader, nullptr) != 0) ++refused;
            EXPECT_EQ(TOVRA_DisconnectByHost(reader), 0);
        }
        done = true;
        asking.join();
        EXPECT_EQ(refused, 0) << "of " << repeat(1000) << " connects";
        EXPECT_EQ(TOVRA_Delete(reader), 0);
    }
}

// --- Application callbacks that end what they run in ---------------------------------

enum class Site { connected, request, disconnected };
enum class Action { disconnectByHost, stopListener, deleteReader };

const char* nameOf(Site site)
{
    switch (site) {
    case Site::connected: return "connected";
    case Site::request: return "request";
    default: return "disconnected";
    }
}
const char* nameOf(Action action)
{
    switch (action) {
    case Action::disconnectByHost: return "DisconnectByHost";
    case Action::stopListener: return "StopListener";
    default: return "Delete";
    }
}

// The application: answers every request with [command, 0x00, 0xAC], and once, at `site`,
// calls `action` on its own reader from inside the callback.
struct Actor {
    Site site = Site::request;
    Action action = Action::disconnectByHost;
    std::int32_t reader = 0;
    std::atomic<int> connected{0};
    std::atomic<int> disconnected{0};
    std::atomic<int> requests{0};
    std::atomic<bool> acted{false};
    std::atomic<std::int32_t> result{1};
    Bytes answer;

    void actAt(Site here)
    {
        if (here != site || acted.exchange(true)) return;
        switch (action) {
        case Action::disconnectByHost: result = TOVRA_DisconnectByHost(reader); break;
        case Action::stopListener: result = TOVRA_StopListener(reader); break;
        case Action::deleteReader: result = TOVRA_Delete(reader); break;
        }
    }
};

void TOVRA_CALL actorConnected(std::int32_t, void* context, const char*)
{
    auto& actor = *static_cast<Actor*>(context);
    ++actor.connected;
    actor.actAt(Site::connected);
}

void TOVRA_CALL actorDisconnected(std::int32_t, void* context)
{
    auto& actor = *static_cast<Actor*>(context);
    ++actor.disconnected;
    actor.actAt(Site::disconnected);
}

std::int32_t TOVRA_CALL actorRequest(std::int32_t, void* context, const std::uint8_t* request, std::uint64_t length,
                                     std::uint8_t** response, std::uint64_t* responseLength)
{
    auto& actor = *static_cast<Actor*>(context);
    ++actor.requests;
    actor.answer = {length > 0 ? request[0] : std::uint8_t{0}, 0x00, 0xAC};
    *response = actor.answer.data();
    *responseLength = actor.answer.size();
    actor.actAt(Site::request);
    return 0;
}

struct Case {
    std::int32_t kind;
    Site site;
    Action action;
};

std::string describe(const Case& c)
{
    return std::string(c.kind == kOnePort ? "one-port " : "two-port ") + nameOf(c.action) + " in the " +
           nameOf(c.site) + " callback";
}

class CallbackActs : public ::testing::TestWithParam<Case> {
protected:
    void SetUp() override
    {
        actor.site = GetParam().site;
        actor.action = GetParam().action;
        port = freePort();
    }
    void TearDown() override
    {
        if (reader > 0) TOVRA_Delete(reader);
    }
    bool onePort() const { return GetParam().kind == kOnePort; }

    void createListening()
    {
        reader = TOVRA_Create(GetParam().kind, nullptr);
        actor.reader = reader;
        ASSERT_EQ(TOVRA_SetReaderConnectedCallbacks(reader, &actor, actorConnected, actorDisconnected), 0);
        ASSERT_EQ(TOVRA_SetReaderRequestCallback(reader, &actor, actorRequest), 0);
        ASSERT_EQ(TOVRA_StartListener(reader, tcpText(port).c_str()), 0) << TOVRA_GetLastErrorText(reader);
    }

    // A reader connects and, depending on the site, asks or leaves, so that the action runs.
    void provoke(ReaderSim& sim)
    {
        ASSERT_TRUE(sim.connect("127.0.0.1", port));
        ASSERT_TRUE(waitUntil([&] { return actor.connected >= 1; }));
        if (actor.site == Site::request) {
            // The answer the callback gave goes out before the action takes effect.
            EXPECT_EQ(sim.sendRequest({0x70, 0x01}), (Bytes{0x70, 0x00, 0xAC}));
        } else if (actor.site == Site::disconnected) {
            sim.closeConnection();
        }
        ASSERT_TRUE(waitUntil([&] { return actor.result != 1; }));
        EXPECT_EQ(actor.result.load(), 0) << describe(GetParam());
    }

    Actor actor;
    std::int32_t reader = 0;
    std::uint16_t port = 0;
};

TEST_P(CallbackActs, AndTheActionTakesEffectOnceTheCallbackReturns)
{
    const Case c = GetParam();
    // A two-port module also has its host channel connected: DisconnectByHost ends that one.
    ReaderSim hostSide;
    ASSERT_TRUE(hostSide.listen());
    createListening();
    for (int round = 0; round < repeat(c.action == Action::disconnectByHost ? 20 : 5); ++round) {
        actor.acted = false;
        actor.result = 1;
        actor.connected = 0;
        actor.disconnected = 0;
        if (!onePort()) ASSERT_EQ(TOVRA_ConnectByHost(reader, tcpText(hostSide.port()).c_str()), 0);
        ReaderSim sim;
        provoke(sim);
        if (HasFatalFailure()) return;

        switch (c.action) {
        case Action::disconnectByHost:
            if (onePort()) {
                EXPECT_TRUE(sim.waitForDisconnect(10000ms)) << describe(c);
                EXPECT_TRUE(waitUntil([&] { return stateOf(reader) == "SingleCh=Discon"; }));
            } else {
                // Only the host channel goes; a reader that is still there stays.
                EXPECT_TRUE(waitUntil([&] { return stateOf(reader).starts_with("AppCh=Discon"); }));
                if (c.site != Site::disconnected) {
                    EXPECT_EQ(stateOf(reader), "AppCh=Discon:RdrCh=Con");
                    EXPECT_EQ(sim.sendRequest({0x70, 0x02}), (Bytes{0x70, 0x00, 0xAC}));
                    sim.closeConnection();
                }
                EXPECT_TRUE(waitUntil([&] { return actor.disconnected == 1; }));
            }
            break;
        case Action::stopListener:
            EXPECT_TRUE(sim.waitForDisconnect(10000ms)) << describe(c);
            EXPECT_TRUE(waitUntil([&] { return stateOf(reader).find("=Con") == std::string::npos ||
                                               (!onePort() && stateOf(reader) == "AppCh=Con:RdrCh=Discon"); }));
            EXPECT_EQ(TOVRA_StartListener(reader, tcpText(port).c_str()), 0) << "the listener had gone";
            TOVRA_DisconnectByHost(reader);
            break;
        case Action::deleteReader:
            EXPECT_TRUE(sim.waitForDisconnect(10000ms)) << describe(c);
            EXPECT_EQ(TOVRA_GetConnectionState(reader), std::string());
            EXPECT_EQ(TOVRA_Delete(reader), -5002);
            if (!onePort()) EXPECT_TRUE(hostSide.waitForDisconnect(10000ms)) << "the host channel ends too";
            createListening();
            break;
        }
    }
}

std::vector<Case> allCases()
{
    std::vector<Case> cases;
    for (std::int32_t kind : {kOnePort, kTwoPort})
        for (Site site : {Site::connected, Site::request, Site::disconnected})
            for (Action action : {Action::disconnectByHost, Action::stopListener, Action::deleteReader})
                cases.push_back({kind, site, action});
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Everywhere, CallbackActs, ::testing::ValuesIn(allCases()), [](const auto& info) {
    const Case& c = info.param;
    return std::string(c.kind == kOnePort ? "OnePort" : "TwoPort") + nameOf(c.action) + "In" +
           (c.site == Site::connected ? "Connected" : c.site == Site::request ? "Request" : "Disconnected");
});

TEST(CallbackActs, DisconnectWhileMoreRequestsAreQueued)
{
    Actor actor;
    actor.site = Site::request;
    actor.action = Action::disconnectByHost;
    const std::uint16_t port = freePort();
    actor.reader = TOVRA_Create(kOnePort, nullptr);
    ASSERT_EQ(TOVRA_SetReaderRequestCallback(actor.reader, &actor, actorRequest), 0);
    ASSERT_EQ(TOVRA_SetReaderConnectedCallbacks(actor.reader, &actor, actorConnected, actorDisconnected), 0);
    ASSERT_EQ(TOVRA_StartListener(actor.reader, tcpText(port).c_str()), 0);
    ReaderSim sim;
    ASSERT_TRUE(sim.connect("127.0.0.1", port));
    ASSERT_TRUE(waitUntil([&] { return actor.connected == 1; }));
    // In one write: the first request ends the connection, so later writes could fail.
    const std::vector<std::uint8_t> request = tovra::readersim::encode(Frame{.flags = 0x01, .payload = {0x71}});
    std::vector<std::uint8_t> requests;
    for (int i = 0; i < 4; ++i) requests.insert(requests.end(), request.begin(), request.end());
    ASSERT_TRUE(sim.sendRaw(requests));
    ASSERT_TRUE(waitUntil([&] { return actor.result != 1; }));
    EXPECT_EQ(actor.result.load(), 0);
    EXPECT_TRUE(sim.waitForDisconnect(10000ms));
    EXPECT_TRUE(waitUntil([&] { return stateOf(actor.reader) == "SingleCh=Discon"; }));
    EXPECT_EQ(TOVRA_Delete(actor.reader), 0);
}

// --- Readers that leave and come back at once ---------------------------------------

class ReaderReconnects : public ::testing::TestWithParam<std::int32_t> {};

TEST_P(ReaderReconnects, TheNewConnectionIsNotCutByTheOldOnesEnd)
{
    Actor actor;
    actor.site = Site::connected;
    actor.action = Action::disconnectByHost;
    actor.acted = true; // only answers
    const std::uint16_t port = freePort();
    actor.reader = TOVRA_Create(GetParam(), nullptr);
    ASSERT_EQ(TOVRA_SetReaderConnectedCallbacks(actor.reader, &actor, actorConnected, actorDisconnected), 0);
    ASSERT_EQ(TOVRA_SetReaderRequestCallback(actor.reader, &actor, actorRequest), 0);
    ASSERT_EQ(TOVRA_StartListener(actor.reader, tcpText(port).c_str()), 0);

    ReaderSim sim;
    int refused = 0;
    const int cycles = repeat(600);
    for (int cycle = 0; cycle < cycles; ++cycle) {
        const int before = actor.connected;
        ASSERT_TRUE(sim.connect("127.0.0.1", port)) << cycle;
        // The old connection may still hold the channel for a moment: then this one is refused.
        ASSERT_TRUE(waitUntil([&] { return actor.connected > before || !sim.isConnected(); })) << cycle;
        if (actor.connected == before) {
            ++refused;
            continue;
        }
        const std::uint8_t tag = static_cast<std::uint8_t>(cycle);
        ASSERT_EQ(sim.sendRequest({0x72, tag}, 0x01, 5000ms), (Bytes{0x72, 0x00, 0xAC})) << "cut off in cycle " << cycle;
        sim.closeConnection();
    }
    EXPECT_LT(refused, cycles / 2);
    EXPECT_EQ(TOVRA_Delete(actor.reader), 0);
}

INSTANTIATE_TEST_SUITE_P(Modules, ReaderReconnects, ::testing::Values(kOnePort, kTwoPort),
                         [](const auto& info) { return info.param == kOnePort ? "OnePort" : "TwoPort"; });

TEST(ReaderConnection, LeavingIsNoticedWhileTheBuffersAreUsedUp)
{
    Actor actor;
    actor.acted = true;
    const std::uint16_t port = freePort();
    actor.reader = TOVRA_Create(kOnePort, nullptr);
    ASSERT_EQ(TOVRA_SetReaderConnectedCallbacks(actor.reader, &actor, actorConnected, actorDisconnected), 0);
    ASSERT_EQ(TOVRA_StartListener(actor.reader, tcpText(port).c_str()), 0);
    {
        ReaderSim sim;
        ASSERT_TRUE(sim.connect("127.0.0.1", port));
        ASSERT_TRUE(waitUntil([&] { return actor.connected == 1; }));
        Frame stray{.flags = 0x02, .payload = {0x65, 0x00}};
        for (int i = 0; i < 5; ++i) ASSERT_TRUE(sim.sendFrame(stray));
        ASSERT_TRUE(waitUntil(
            [&] { return ErrorLog::instance().contains(actor.reader, "No unused receive buffer available"); }));
        sim.closeConnection();
        EXPECT_TRUE(waitUntil([&] { return actor.disconnected == 1; }));
    }
    // Otherwise three stray frames would lock every later reader out.
    ReaderSim next;
    ASSERT_TRUE(next.connect("127.0.0.1", port));
    EXPECT_TRUE(waitUntil([&] { return actor.connected == 2; }));
    EXPECT_EQ(TOVRA_Delete(actor.reader), 0);
}

} // namespace
