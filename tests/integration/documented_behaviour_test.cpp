// What the API reference promises about ends of connections, receive timeouts, terminate
// and the application's log, through the C interface against the reader simulator.
#include "readersim/reader_sim.h"
#include "support/loopback.h"
#include "support/wait.h"
#include "tovra/tovra.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using tovra::readersim::FaultKind;
using tovra::readersim::ReaderSim;
using tovra::test::freePort;
using tovra::test::waitUntil;
using Bytes = std::vector<std::uint8_t>;

constexpr std::int32_t kOnePort = 2;
constexpr std::int32_t kTwoPort = 3;

std::string tcpText(std::uint16_t port) { return "tcp:IPAddress=127.0.0.1:Port=" + std::to_string(port); }

std::string stateOf(std::int32_t reader) { return TOVRA_GetConnectionState(reader); }

std::int32_t transceive(std::int32_t reader, const Bytes& request)
{
    std::uint8_t response[256];
    std::uint64_t length = sizeof response;
    return TOVRA_Transceive(reader, request.data(), request.size(), response, &length);
}

// What the connection callbacks saw; the disconnected one also tries to connect again.
struct Heard {
    std::int32_t reader = 0;
    std::atomic<int> connected{0};
    std::atomic<int> disconnected{0};
    std::atomic<std::int32_t> connectInside{1};
    std::atomic<bool> onCallersThread{false};
    std::thread::id caller = std::this_thread::get_id();
};

void TOVRA_CALL onConnected(std::int32_t, void* context, const char*)
{
    ++static_cast<Heard*>(context)->connected;
}

void TOVRA_CALL onDisconnected(std::int32_t, void* context)
{
    auto& heard = *static_cast<Heard*>(context);
    heard.onCallersThread = std::this_thread::get_id() == heard.caller;
    heard.connectInside = TOVRA_ConnectByHost(heard.reader, nullptr);
    ++heard.disconnected;
}

struct Reader {
    explicit Reader(std::int32_t kind, const std::string& connector = {})
        : handle(TOVRA_Create(kind, connector.empty() ? nullptr : connector.c_str()))
    {
    }
    ~Reader() { TOVRA_Delete(handle); }
    std::int32_t handle;
};

TEST(OnePortEnds, OnlyTheReaderLeavingIsReportedAndItsChannelIsFreeAfterTheCallback)
{
    ReaderSim sim;
    ASSERT_TRUE(sim.listen());
    Reader reader(kOnePort, tcpText(sim.port()));
    Heard heard;
    heard.reader = reader.handle;
    ASSERT_EQ(TOVRA_SetReaderConnectedCallbacks(reader.handle, &heard, onConnected, onDisconnected), 0);

    // The host ending its own connection is not reported. The simulator takes the
    // connection first: one reset before it is accepted may never count on Windows.
    ASSERT_EQ(TOVRA_ConnectByHost(reader.handle, nullptr), 0);
    ASSERT_TRUE(sim.waitForConnections(1, 10000ms));
    EXPECT_EQ(TOVRA_DisconnectByHost(reader.handle), 0);
    EXPECT_EQ(stateOf(reader.handle), "SingleCh=Discon");

    // The reader leaving a connection the host made is, on a library thread, while the
    // channel is still held.
    ASSERT_EQ(TOVRA_ConnectByHost(reader.handle, nullptr), 0);
    ASSERT_TRUE(sim.waitForConnections(2, 10000ms));
    sim.closeConnection();
    ASSERT_TRUE(waitUntil([&] { return heard.disconnected == 1; }));
    EXPECT_FALSE(heard.onCallersThread.load());
    EXPECT_EQ(heard.connectInside.load(), -5004);
    ASSERT_TRUE(waitUntil([&] { return stateOf(reader.handle) == "SingleCh=Discon"; }));
    EXPECT_EQ(TOVRA_ConnectByHost(reader.handle, nullptr), 0) << TOVRA_GetLastErrorText(reader.handle);

    // A listener stop ends the single channel's connection, whoever made it.
    EXPECT_EQ(TOVRA_StopListener(reader.handle), 0);
    EXPECT_TRUE(sim.waitForDisconnect(10000ms));
    EXPECT_EQ(stateOf(reader.handle), "SingleCh=Discon");
    EXPECT_EQ(heard.connected.load(), 0) << "host connections are never reported as connected";
    EXPECT_EQ(heard.disconnected.load(), 1);
}

TEST(ReceiveTimeout, ZeroGivesUpOnAOnePortModuleAndWaitsWithoutLimitOnATwoPortModule)
{
    ReaderSim sim;
    ASSERT_TRUE(sim.listen());
    sim.setFault(FaultKind::silence);

    Reader onePort(kOnePort, tcpText(sim.port()));
    ASSERT_EQ(TOVRA_ConnectByHost(onePort.handle, nullptr), 0);
    ASSERT_EQ(TOVRA_SetReceiveTimeout(onePort.handle, 0), 0);
    EXPECT_EQ(transceive(onePort.handle, {0x65, 0x01}), -5015);
    EXPECT_EQ(TOVRA_DisconnectByHost(onePort.handle), 0);

    Reader twoPort(kTwoPort, tcpText(sim.port()));
    ASSERT_EQ(TOVRA_ConnectByHost(twoPort.handle, nullptr), 0);
    ASSERT_EQ(TOVRA_SetReceiveTimeout(twoPort.handle, 0), 0);
    const std::size_t seen = sim.requestsSeen();
    std::atomic<std::int32_t> result{1};
    std::thread waiting([&] { result = transceive(twoPort.handle, {0x65, 0x02}); });
    ASSERT_TRUE(waitUntil([&] { return sim.requestsSeen() > seen; }));
    // Longer than a one-port module would have waited; only the end of the connection ends it.
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(result.load(), 1);
    EXPECT_EQ(TOVRA_DisconnectByHost(twoPort.handle), 0);
    waiting.join();
    EXPECT_EQ(result.load(), -5011);
}

TEST(Terminated, TheHostStillConnectsButReadersAreTurnedAway)
{
    Reader reader(kOnePort);
    Heard heard;
    ASSERT_EQ(TOVRA_SetReaderConnectedCallbacks(reader.handle, &heard, onConnected, nullptr), 0);
    const std::uint16_t listenPort = freePort();
    ASSERT_EQ(TOVRA_StartListener(reader.handle, tcpText(listenPort).c_str()), 0);
    EXPECT_EQ(TOVRA_GetConnector(reader.handle), tcpText(listenPort)) << "a one-port listener's text is the connector";
    EXPECT_EQ(TOVRA_Terminate(reader.handle), 0);

    ReaderSim visitor;
    ASSERT_TRUE(visitor.connect("127.0.0.1", listenPort));
    EXPECT_TRUE(visitor.waitForDisconnect(10000ms));
    EXPECT_EQ(heard.connected.load(), 0);
    EXPECT_EQ(TOVRA_StopListener(reader.handle), 0);

    ReaderSim sim;
    ASSERT_TRUE(sim.listen());
    ASSERT_EQ(TOVRA_ConnectByHost(reader.handle, tcpText(sim.port()).c_str()), 0);
    EXPECT_EQ(transceive(reader.handle, {0x65, 0x03}), 0) << TOVRA_GetLastErrorText(reader.handle);
}

struct AppLog {
    std::mutex lock;
    std::vector<std::string> lines;
    bool any(const std::string& text)
    {
        std::lock_guard guard(lock);
        for (const auto& line : lines)
            if (line.find(text) != std::string::npos) return true;
        return false;
    }
};

void TOVRA_CALL onAppLine(std::int32_t, void* context, const char* line)
{
    auto& log = *static_cast<AppLog*>(context);
    std::lock_guard guard(log.lock);
    log.lines.emplace_back(line);
}

TEST(AppLog, ACallbackGetsTheFrameDumpsAndTheApplicationsMessages)
{
    ReaderSim sim;
    ASSERT_TRUE(sim.listen());
    Reader reader(kOnePort, tcpText(sim.port()));
    AppLog log;
    ASSERT_EQ(TOVRA_SetAppLoggingCallback(reader.handle, &log, onAppLine), 0);
    ASSERT_EQ(TOVRA_ConnectByHost(reader.handle, nullptr), 0);

    ASSERT_EQ(transceive(reader.handle, {0x65, 0x04}), 0);
    // Nothing in the process's configuration asks for dumps: the callback alone does.
    EXPECT_TRUE(waitUntil([&] {
        std::lock_guard guard(log.lock);
        return log.lines.size() >= 2;
    })) << "the request sent and the response received";

    EXPECT_EQ(TOVRA_AppendLogMessage(reader.handle, "note from the application"), 0);
    EXPECT_TRUE(log.any(" APP" + std::to_string(reader.handle) + " TID="));
    EXPECT_TRUE(log.any("note from the application"));
    EXPECT_EQ(TOVRA_AppendLogMessage(reader.handle, nullptr), -5010);
}

} // namespace
