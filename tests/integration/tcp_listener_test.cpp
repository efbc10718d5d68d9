// Readers that connect to the host: the library listens, the simulator connects as a client.
#include "platform/net.h"
#include "platform/thread.h"
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
using tovra::readersim::Fault;
using tovra::readersim::FaultKind;
using tovra::readersim::ReaderSim;
using tovra::test::freePort;
using tovra::test::waitUntil;
using Bytes = std::vector<std::uint8_t>;

// What the application sees of one reader module.
struct Events {
    std::mutex lock;
    std::vector<std::string> connected;
    int disconnected = 0;
    std::vector<Bytes> requests;
    // When set, each request callback waits until it becomes true.
    std::atomic<bool>* holdUntil = nullptr;
    std::atomic<int> entered{0};
    Bytes answer;

    std::size_t connections()
    {
        std::lock_guard guard(lock);
        return connected.size();
    }
    int disconnections()
    {
        std::lock_guard guard(lock);
        return disconnected;
    }
};

void TOVRA_CALL onConnected(std::int32_t, void* context, const char* text)
{
    auto& events = *static_cast<Events*>(context);
    std::lock_guard guard(events.lock);
    events.connected.emplace_back(text);
}

void TOVRA_CALL onDisconnected(std::int32_t, void* context)
{
    auto& events = *static_cast<Events*>(context);
    std::lock_guard guard(events.lock);
    ++events.disconnected;
}

// Answers [command, 0x00, 0xAC]; the command 0x01 goes unanswered.
std::int32_t TOVRA_CALL onRequest(std::int32_t, void* context, const std::uint8_t* request, std::uint64_t length,
                                  std::uint8_t** response, std::uint64_t* responseLength)
{
    auto& events = *static_cast<Events*>(context);
    ++events.entered;
    if (events.holdUntil != nullptr) waitUntil([&] { return events.holdUntil->load(); }, 30000ms);
    std::lock_guard guard(events.lock);
    events.requests.emplace_back(request, request + length);
    if (length == 0 || request[0] == 0x01) return -1;
    events.answer = {request[0], 0x00, 0xAC};
    *response = events.answer.data();
    *responseLength = events.answer.size();
    return 0;
}

class Listening : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override
    {
        reader = TOVRA_Create(GetParam(), nullptr);
        ASSERT_GT(reader, 0);
        ASSERT_EQ(TOVRA_SetReaderConnectedCallbacks(reader, &events, onConnected, onDisconnected), 0);
        ASSERT_EQ(TOVRA_SetReaderRequestCallback(reader, &events, onRequest), 0);
        port = freePort();
        ASSERT_EQ(TOVRA_StartListener(reader, listenerText().c_str()), 0) << TOVRA_GetLastErrorText(reader);
    }
    void TearDown() override { EXPECT_EQ(TOVRA_Delete(reader), 0); }

    bool onePort() const { return GetParam() == 2; }
    std::string listenerText() const { return "tcp:IPAddress=127.0.0.1:Port=" + std::to_string(port); }
    void connectReader(ReaderSim& sim)
    {
        ASSERT_TRUE(sim.connect("127.0.0.1", port));
        ASSERT_TRUE(waitUntil([&] { return events.connections() >= 1; }));
    }

    Events events;
    std::int32_t reader = 0;
    std::uint16_t port = 0;
};

TEST_P(Listening, StartErrors)
{
    EXPECT_EQ(TOVRA_StartListener(reader, listenerText().c_str()), -5008);
    const std::int32_t other = TOVRA_Create(GetParam(), nullptr);
    EXPECT_EQ(TOVRA_StartListener(other, nullptr), -5009);
    EXPECT_EQ(TOVRA_StartListener(other, "usb:Port=1"), -5030);
    EXPECT_EQ(TOVRA_StartListener(other, "tcp:IPAddress=127.0.0.1"), -1503);
    EXPECT_EQ(TOVRA_StartListener(other, "tcp:IPAddress=localhost:Port=1"), -1502);
    EXPECT_EQ(TOVRA_StartListener(other, listenerText().c_str()), -1511) << "the port is taken";
    EXPECT_STREQ(TOVRA_GetLastErrorText(other), "Plugin error -1511") << "a listener leaves no plugin behind";
    EXPECT_EQ(TOVRA_StopListener(other), 0);
    EXPECT_EQ(TOVRA_Delete(other), 0);
}

TEST_P(Listening, AReaderConnectsAsksAndLeaves)
{
    ReaderSim sim;
    connectReader(sim);
    {
        std::lock_guard guard(events.lock);
        EXPECT_EQ(events.connected[0].rfind("TCP:PeerAddress=127.0.0.1:PeerPort=", 0), 0u) << events.connected[0];
    }
    EXPECT_EQ(sim.sendRequest({0x70, 0x05}), (Bytes{0x70, 0x00, 0xAC}));
    EXPECT_EQ(sim.sendRequest({0x01}, 0x01, 300ms), std::nullopt) << "declined: no response";
    // 0x77 requests reach a two-port application with the bus address appended.
    EXPECT_EQ(sim.sendRequest({0x77, 0x01}), (Bytes{0x77, 0x00, 0xAC}));
    {
        std::lock_guard guard(events.lock);
        EXPECT_EQ(events.requests.back(), onePort() ? (Bytes{0x77, 0x01}) : (Bytes{0x77, 0x01, 0xFF}));
    }
    if (onePort()) {
        // The application may transceive over the reader's connection.
        std::uint8_t response[16];
        std::uint64_t length = sizeof response;
        const std::uint8_t request[] = {0x65, 0x42};
        EXPECT_EQ(TOVRA_Transceive(reader, request, sizeof request, response, &length), 0);
        EXPECT_EQ(Bytes(response, response + length), (Bytes{0x65, 0x00, 0x42}));
    }

    sim.closeConnection();
    EXPECT_TRUE(waitUntil([&] { return events.disconnections() == 1; }));
    // The next reader may come once the first has left.
    ReaderSim next;
    ASSERT_TRUE(next.connect("127.0.0.1", port));
    EXPECT_TRUE(waitUntil([&] { return events.connections() == 2; }));
    EXPECT_EQ(next.sendRequest({0x71}), (Bytes{0x71, 0x00, 0xAC}));
}

TEST_P(Listening, ASecondReaderIsRefusedWhileOneIsConnected)
{
    ReaderSim first;
    connectReader(first);
    ReaderSim second;
    if (second.connect("127.0.0.1", port, 2000ms))
        EXPECT_TRUE(second.waitForDisconnect(5000ms)) << "refused and closed by the host";
    EXPECT_EQ(first.sendRequest({0x72}), (Bytes{0x72, 0x00, 0xAC})) << "the first is unaffected";
    EXPECT_EQ(events.connections(), 1u);
}

TEST_P(Listening, StoppingEndsTheConnectionAndTellsTheApplication)
{
    ReaderSim sim;
    connectReader(sim);
    // The reader is in the middle of a frame when the host stops.
    const std::uint8_t half[] = {0x03, 0x00, 0x20, 0x00, 0x01};
    ASSERT_TRUE(sim.sendRaw(half));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(TOVRA_StopListener(reader), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    // A two-port reader channel reports every end; a one-port module only a reader's leaving.
    EXPECT_EQ(events.disconnections(), onePort() ? 0 : 1);
    EXPECT_TRUE(sim.waitForDisconnect(5000ms));
    EXPECT_EQ(TOVRA_StopListener(reader), 0) << "nothing left to stop";
    ReaderSim late;
    EXPECT_FALSE(late.connect("127.0.0.1", port, 1000ms)) << "nobody listens any more";
}

TEST_P(Listening, DeletingTheReaderWithASilentReaderConnected)
{
    ReaderSim sim;
    connectReader(sim);
    const std::int32_t doomed = reader;
    reader = TOVRA_Create(GetParam(), nullptr); // TearDown deletes this one
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(TOVRA_Delete(doomed), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    EXPECT_TRUE(sim.waitForDisconnect(5000ms));
}

INSTANTIATE_TEST_SUITE_P(Modules, Listening, ::testing::Values(2, 3),
                         [](const auto& info) { return info.param == 2 ? "OnePort" : "TwoPort"; });

TEST(TwoPort, HostAndReaderChannelsWorkAtOnce)
{
    ReaderSim hostSide;
    ASSERT_TRUE(hostSide.listen());
    const std::string connector = "tcp:IPAddress=127.0.0.1:Port=" + std::to_string(hostSide.port());
    const std::int32_t reader = TOVRA_Create(3, connector.c_str());
    Events events;
    ASSERT_EQ(TOVRA_SetReaderConnectedCallbacks(reader, &events, onConnected, onDisconnected), 0);
    ASSERT_EQ(TOVRA_SetReaderRequestCallback(reader, &events, onRequest), 0);
    const std::uint16_t port = freePort();
    ASSERT_EQ(TOVRA_StartListener(reader, ("tcp:IPAddress=127.0.0.1:Port=" + std::to_string(port)).c_str()), 0);
    ASSERT_EQ(TOVRA_ConnectByHost(reader, nullptr), 0) << TOVRA_GetLastErrorText(reader);

    ReaderSim readerSide;
    ASSERT_TRUE(readerSide.connect("127.0.0.1", port));
    ASSERT_TRUE(waitUntil([&] { return events.connections() == 1; }));
    EXPECT_STREQ(TOVRA_GetConnectionState(reader), "AppCh=Con:RdrCh=Con");

    std::atomic<int> failures{0};
    std::thread readerTraffic([&] {
        for (int i = 0; i < 50; ++i)
            if (readerSide.sendRequest({0x73, static_cast<std::uint8_t>(i)}) != Bytes{0x73, 0x00, 0xAC}) ++failures;
    });
    for (int i = 0; i < 50; ++i) {
        std::uint8_t response[16];
        std::uint64_t length = sizeof response;
        const std::uint8_t request[] = {0x65, static_cast<std::uint8_t>(i)};
        if (TOVRA_Transceive(reader, request, sizeof request, response, &length) != 0 ||
            Bytes(response, response + length) != Bytes{0x65, 0x00, static_cast<std::uint8_t>(i)})
            ++failures;
    }
    readerTraffic.join();
    EXPECT_EQ(failures.load(), 0);

    // Advanced frames on the application channel; a null payload only receives.
    std::uint8_t response[16];
    std::uint64_t length = sizeof response;
    ASSERT_EQ(TOVRA_SetReceiveTimeout(reader, 300), 0);
    EXPECT_EQ(TOVRA_Transceive(reader, nullptr, 0, response, &length), -5015);
    EXPECT_EQ(TOVRA_DisconnectByHost(reader), 0);
    EXPECT_STREQ(TOVRA_GetConnectionState(reader), "AppCh=Discon:RdrCh=Con");
    EXPECT_EQ(TOVRA_Delete(reader), 0);
    EXPECT_EQ(events.disconnections(), 1);
}

TEST(TwoReaders, ASlowCallbackDoesNotHoldUpAnotherReader)
{
    std::atomic<bool> released{false};
    Events slowEvents, fastEvents;
    slowEvents.holdUntil = &released;
    const std::uint16_t slowPort = freePort();
    const std::uint16_t fastPort = freePort();
    const std::int32_t slow = TOVRA_Create(2, nullptr);
    const std::int32_t fast = TOVRA_Create(3, nullptr);
    for (auto [reader, events, port] : {std::tuple{slow, &slowEvents, slowPort}, std::tuple{fast, &fastEvents, fastPort}}) {
        ASSERT_EQ(TOVRA_SetReaderRequestCallback(reader, events, onRequest), 0);
        ASSERT_EQ(TOVRA_StartListener(reader, ("tcp:IPAddress=127.0.0.1:Port=" + std::to_string(port)).c_str()), 0);
    }
    ReaderSim slowSim, fastSim;
    ASSERT_TRUE(slowSim.connect("127.0.0.1", slowPort));
    ASSERT_TRUE(fastSim.connect("127.0.0.1", fastPort));

    std::thread slowTraffic([&] { EXPECT_EQ(slowSim.sendRequest({0x74}, 0x01, 30000ms), (Bytes{0x74, 0x00, 0xAC})); });
    ASSERT_TRUE(waitUntil([&] { return slowEvents.entered.load() == 1; }));
    // Answered while the other reader's callback is still held.
    EXPECT_EQ(fastSim.sendRequest({0x75}), (Bytes{0x75, 0x00, 0xAC}));
    released = true;
    slowTraffic.join();
    EXPECT_EQ(TOVRA_Delete(slow), 0);
    EXPECT_EQ(TOVRA_Delete(fast), 0);
}

// A listener makes its connection threads when it starts listening: each reader that comes
// is served by the same threads, until the listener stops, also from inside one of its own
// callbacks.
struct ThreadsSeen {
    std::mutex lock;
    // System thread ids: unlike std::thread::id, not taken again by the next thread at once.
    std::vector<std::uint64_t> connected;
    std::vector<std::uint64_t> requests;
    std::atomic<int> disconnected{0};
    std::atomic<bool> stopFromCallback{false};
    std::atomic<std::int32_t> stopResult{1};
};

void TOVRA_CALL recordConnected(std::int32_t reader, void* context, const char*)
{
    auto& seen = *static_cast<ThreadsSeen*>(context);
    {
        std::lock_guard guard(seen.lock);
        seen.connected.push_back(tovra::platform::currentThreadId());
    }
    if (seen.stopFromCallback) seen.stopResult = TOVRA_StopListener(reader);
}

void TOVRA_CALL recordDisconnected(std::int32_t, void* context) { ++static_cast<ThreadsSeen*>(context)->disconnected; }

std::int32_t TOVRA_CALL recordRequest(std::int32_t, void* context, const std::uint8_t* request, std::uint64_t,
                                      std::uint8_t** response, std::uint64_t* responseLength)
{
    auto& seen = *static_cast<ThreadsSeen*>(context);
    std::lock_guard guard(seen.lock);
    seen.requests.push_back(tovra::platform::currentThreadId());
    static thread_local std::uint8_t answer[3];
    answer[0] = request[0];
    answer[1] = 0x00;
    answer[2] = 0xAC;
    *response = answer;
    *responseLength = sizeof answer;
    return 0;
}

class ListenerThreads : public ::testing::TestWithParam<int> {};

TEST_P(ListenerThreads, ServeEachReaderFromTheTimeListeningBegan)
{
    const bool onePort = GetParam() == 2;
    ThreadsSeen seen;
    const std::int32_t reader = TOVRA_Create(GetParam(), nullptr);
    ASSERT_EQ(TOVRA_SetReaderConnectedCallbacks(reader, &seen, recordConnected, recordDisconnected), 0);
    ASSERT_EQ(TOVRA_SetReaderRequestCallback(reader, &seen, recordRequest), 0);
    const std::uint16_t port = freePort();
    const std::string text = "tcp:IPAddress=127.0.0.1:Port=" + std::to_string(port);

    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(TOVRA_StartListener(reader, text.c_str()), 0) << TOVRA_GetLastErrorText(reader);
        for (int visit = 0; visit < 3; ++visit) {
            ReaderSim sim;
            ASSERT_TRUE(sim.connect("127.0.0.1", port));
            ASSERT_EQ(sim.sendRequest({0x70}), (Bytes{0x70, 0x00, 0xAC})) << "round " << round;
            sim.closeConnection();
            const int left = round * 4 + visit + 1;
            ASSERT_TRUE(waitUntil([&] { return seen.disconnected.load() == left; }));
        }
        // The last reader of the round stops the listener from its connected callback: its
        // connection ends once the callback has returned, and nobody is accepted after it.
        seen.stopFromCallback = true;
        ReaderSim last;
        ASSERT_TRUE(last.connect("127.0.0.1", port));
        EXPECT_TRUE(last.waitForDisconnect(5000ms));
        EXPECT_TRUE(waitUntil([&] { return seen.stopResult.load() == 0; }));
        EXPECT_TRUE(waitUntil([&] { return std::string(TOVRA_GetConnectionState(reader)).ends_with("Ch=Discon"); }));
        seen.stopFromCallback = false;
        seen.stopResult = 1;
        // The host sent the last reader away: a two-port reader channel reports that too.
        if (onePort) ++seen.disconnected;
        else EXPECT_TRUE(waitUntil([&] { return seen.disconnected.load() == round * 4 + 4; }));

        std::lock_guard guard(seen.lock);
        const auto first = seen.connected.end() - 4;
        for (auto it = first; it != seen.connected.end(); ++it) EXPECT_EQ(*it, *first) << "round " << round;
        for (auto it = seen.requests.end() - 3; it != seen.requests.end(); ++it) EXPECT_EQ(*it, *first);
    }
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(TOVRA_Delete(reader), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
}

INSTANTIATE_TEST_SUITE_P(Modules, ListenerThreads, ::testing::Values(2, 3),
                         [](const auto& info) { return info.param == 2 ? "OnePort" : "TwoPort"; });

} // namespace
