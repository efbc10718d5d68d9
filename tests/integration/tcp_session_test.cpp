// An application talking to a simulated reader over loopback TCP, through the C interface.
#include "platform/net.h"
#include "readersim/reader_sim.h"
#include "support/error_log.h"
#include "support/process_counts.h"
#include "support/repeat.h"
#include "support/wait.h"
#include "tovra/tovra.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using tovra::readersim::Fault;
using tovra::readersim::FaultKind;
using tovra::readersim::Generation;
using tovra::readersim::ReaderSim;
using tovra::test::ErrorLog;
using tovra::test::waitUntil;
using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kMaxEnhancedPayload = 32760;

Bytes patterned(std::size_t length, std::uint8_t command = 0x65)
{
    Bytes bytes(length);
    for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<std::uint8_t>(i * 13 + 7);
    if (length > 0) bytes[0] = command;
    return bytes;
}

// What the simulator answers by default: [command, status 0] + the rest of the request.
Bytes echoOf(const Bytes& request)
{
    Bytes response(request.size() + 1);
    response[0] = request[0];
    std::copy(request.begin() + 1, request.end(), response.begin() + 2);
    if (response.size() > kMaxEnhancedPayload) response.resize(kMaxEnhancedPayload);
    return response;
}

[[maybe_unused]] auto* const errorLogFirst = ::testing::AddGlobalTestEnvironment(new tovra::test::ErrorLogFirst);

class TcpSession : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(sim.listen());
        reader = TOVRA_Create(2, connector().c_str());
        ASSERT_GT(reader, 0);
    }
    void TearDown() override { EXPECT_EQ(TOVRA_Delete(reader), 0); }

    std::string connector() const { return "tcp:IPAddress=127.0.0.1:Port=" + std::to_string(sim.port()); }

    void connect()
    {
        ASSERT_EQ(TOVRA_ConnectByHost(reader, nullptr), 0) << TOVRA_GetLastErrorText(reader);
        ASSERT_TRUE(sim.waitForConnection(10000ms));
    }

    // The result, with `response` cut to what came back.
    std::int32_t transceive(const Bytes& request, Bytes& response, std::size_t capacity = 32768)
    {
        response.assign(capacity, 0);
        std::uint64_t length = capacity;
        const std::int32_t result = TOVRA_Transceive(reader, request.data(), request.size(), response.data(), &length);
        response.resize(result == 0 ? length : 0);
        return result;
    }

    ReaderSim sim;
    std::int32_t reader = 0;
};

TEST_F(TcpSession, RoundTripsFromOneByteToTheLargestPayload)
{
    connect();
    EXPECT_STREQ(TOVRA_GetConnectionState(reader), "SingleCh=Con");
    EXPECT_EQ(TOVRA_GetLowLevelPortHandle(reader) & 0xF0000000, 0x20000000);
    Bytes response;
    for (std::size_t length : {std::size_t{1}, std::size_t{2}, std::size_t{251}, std::size_t{4096},
                               kMaxEnhancedPayload - 1, kMaxEnhancedPayload}) {
        const Bytes request = patterned(length);
        ASSERT_EQ(transceive(request, response), 0) << length << ": " << TOVRA_GetLastErrorText(reader);
        EXPECT_EQ(response, echoOf(request)) << length;
    }

    // Too large for an enhanced frame, or for the caller's buffer; the channel keeps working.
    EXPECT_EQ(transceive(patterned(kMaxEnhancedPayload + 1), response), -5017);
    EXPECT_EQ(transceive(patterned(10), response, 10), -5017);
    EXPECT_EQ(transceive(patterned(10), response, 11), 0);
    const Bytes empty(1);
    std::uint64_t emptyLength = response.size();
    EXPECT_EQ(TOVRA_Transceive(reader, empty.data(), 0, response.data(), &emptyLength), -5017);

    std::uint8_t out[8];
    std::uint64_t outLength = sizeof out;
    const std::uint8_t one[] = {0x65};
    EXPECT_EQ(TOVRA_Transceive(reader, nullptr, 1, out, &outLength), -5010);
    EXPECT_EQ(TOVRA_Transceive(reader, one, 1, nullptr, &outLength), -5010);
    EXPECT_EQ(TOVRA_Transceive(reader, one, 1, out, nullptr), -5010);
    EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "TOVRA error: code=-5010: Invalid null pointer parameter");
}

TEST_F(TcpSession, ConnectErrorsAreExplainedByThePlugin)
{
    ReaderSim gone;
    ASSERT_TRUE(gone.listen());
    const std::uint16_t refusedPort = gone.port();
    gone.stop();

    const struct {
        std::string connection;
        std::int32_t code;
        const char* text;
    } cases[] = {
        {"tcp:Port=1", -5003, "TOVRA error: code=-5003: Connection parameter error"},
        {"tcp:IPAddress=127.0.0.1:Port=0", -1503, "TOVRA.TCP error -1503: Invalid port number"},
        {"tcp:IPAddress=no-such-host.invalid", -1504, "TOVRA.TCP error -1504: Cannot resolve domain name"},
        {"tcp:IPAddress=127.0.0.1:Port=" + std::to_string(refusedPort), -1510, "TOVRA.TCP error -1510: Connect failed"},
        {"tcp:IPAddress=127.0.0.1:ConnectTimeout=2000:Port=" + std::to_string(refusedPort), -1510,
         "TOVRA.TCP error -1510: Connect failed"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(TOVRA_ConnectByHost(reader, c.connection.c_str()), c.code) << c.connection;
        EXPECT_EQ(TOVRA_GetLastError(reader), c.code);
        EXPECT_STREQ(TOVRA_GetLastErrorText(reader), c.text);
        EXPECT_STREQ(TOVRA_GetConnectionState(reader), "SingleCh=Discon");
    }

    // Every connect sets 5000 ms, whatever was set before; a second connect is refused.
    EXPECT_EQ(TOVRA_SetReceiveTimeout(reader, 1000), 0);
    ASSERT_EQ(TOVRA_ConnectByHost(reader, connector().c_str()), 0);
    EXPECT_EQ(TOVRA_GetReceiveTimeout(reader), 5000);
    EXPECT_EQ(TOVRA_ConnectByHost(reader, connector().c_str()), -5004);
    EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "TOVRA error: code=-5004: Reader module connect failed");
    Bytes response;
    EXPECT_EQ(transceive(patterned(3), response), 0) << "the first connection still works";
}

TEST_F(TcpSession, BadFramesNeverReachTheApplication)
{
    const Fault faults[] = {
        {.kind = FaultKind::silence},
        {.kind = FaultKind::badCrc},
        {.kind = FaultKind::wrongGeneration, .generation = Generation::advanced},
        {.kind = FaultKind::wrongGeneration, .generation = Generation::standard},
        {.kind = FaultKind::noDirection},
        {.kind = FaultKind::declaredLength, .declaredLength = 32769},
        {.kind = FaultKind::declaredLength, .declaredLength = 65535},
        {.kind = FaultKind::declaredLength, .declaredLength = 0},
        {.kind = FaultKind::declaredLength, .declaredLength = 1},
        {.kind = FaultKind::declaredLength, .declaredLength = 2},
    };
    Bytes response;
    for (const Fault& fault : faults) {
        connect();
        ASSERT_EQ(TOVRA_SetReceiveTimeout(reader, 400), 0);
        sim.setFault(fault);
        EXPECT_EQ(transceive(patterned(8), response), -5015) << static_cast<int>(fault.kind);
        EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "TOVRA error: code=-5015: Receive timeout");
        sim.clearFault();
        EXPECT_EQ(TOVRA_DisconnectByHost(reader), 0);
    }

    // Bytes slowly trickling in still make a frame (wine's timers are coarse: a generous
    // timeout, not the short one above).
    connect();
    ASSERT_EQ(TOVRA_SetReceiveTimeout(reader, 10000), 0);
    sim.setFault(Fault{.kind = FaultKind::trickle, .count = 1, .byteDelay = 5ms});
    EXPECT_EQ(transceive(patterned(20), response), 0);
    EXPECT_EQ(response, echoOf(patterned(20)));
}

TEST_F(TcpSession, StrayResponsesUseUpTheBuffersUntilTheNextConnect)
{
    connect();
    // Responses that nobody waits for keep their buffers until the receiver starts again.
    tovra::readersim::Frame stray;
    stray.flags = 0x02;
    stray.payload = {0x65, 0x00};
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(sim.sendFrame(stray));
    ASSERT_TRUE(waitUntil([&] { return ErrorLog::instance().contains(reader, "No unused receive buffer available"); }));
    ASSERT_EQ(TOVRA_SetReceiveTimeout(reader, 500), 0);
    Bytes response;
    EXPECT_EQ(transceive(patterned(4), response), -5015);

    EXPECT_EQ(TOVRA_DisconnectByHost(reader), 0);
    connect();
    EXPECT_EQ(transceive(patterned(4), response), 0);
    EXPECT_EQ(response, echoOf(patterned(4)));

    // A stray response answers whichever transceive waits next.
    sim.setFault(Fault{.kind = FaultKind::flood, .count = 1, .floodCount = 2});
    EXPECT_EQ(transceive(patterned(4), response), 0);
    EXPECT_EQ(transceive({0x66}, response), 0);
}

TEST_F(TcpSession, ReaderLeavingEndsAWaitingTransceive)
{
    for (FaultKind kind : {FaultKind::closeMidFrame, FaultKind::reset}) {
        connect();
        sim.setFault(Fault{.kind = kind, .count = 1});
        Bytes response;
        EXPECT_EQ(transceive(patterned(40), response), -5011);
        EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "TOVRA error: code=-5011: Communication is terminated");
        EXPECT_TRUE(waitUntil([&] { return std::string(TOVRA_GetConnectionState(reader)) == "SingleCh=Discon"; }));
        EXPECT_TRUE(waitUntil([&] { return transceive(patterned(4), response) == -5018; }));
        EXPECT_EQ(TOVRA_DisconnectByHost(reader), 0);
    }
}

TEST_F(TcpSession, DisconnectOrTerminateReleasesAWaitingTransceive)
{
    // Terminate last: the reader takes no connection after it.
    for (const bool terminate : {false, true}) {
        connect();
        ASSERT_EQ(TOVRA_SetReceiveTimeout(reader, 60000), 0);
        sim.setFault(FaultKind::silence);
        const std::size_t seen = sim.requestsSeen();
        std::atomic<std::int32_t> result{1};
        std::thread waiting([&] {
            Bytes response;
            result = transceive(patterned(4), response);
        });
        ASSERT_TRUE(waitUntil([&] { return sim.requestsSeen() > seen; }));
        EXPECT_EQ(terminate ? TOVRA_Terminate(reader) : TOVRA_DisconnectByHost(reader), 0);
        waiting.join();
        EXPECT_EQ(result.load(), -5011);
        if (!terminate) EXPECT_STREQ(TOVRA_GetConnectionState(reader), "SingleCh=Discon");
        sim.clearFault();
    }
}

std::int32_t TOVRA_CALL answerRequest(std::int32_t, void* context, const std::uint8_t* request, std::uint64_t length,
                                      std::uint8_t** response, std::uint64_t* responseLength)
{
    auto* answer = static_cast<Bytes*>(context);
    EXPECT_EQ(*responseLength, 32760u);
    if (length >= 1 && request[0] == 0x01) return -1;     // declines
    if (length >= 1 && request[0] == 0x02) {               // says yes but gives nothing
        *response = answer->data();
        *responseLength = 0;
        return 0;
    }
    answer->assign(request, request + length);
    if (length >= 1 && request[0] == 0x03) answer->resize(kMaxEnhancedPayload + 1); // too long
    else answer->push_back(0xAA);
    *response = answer->data();
    *responseLength = answer->size();
    return 0;
}

TEST_F(TcpSession, ReaderRequestsAreAnsweredThroughTheCallback)
{
    connect();
    EXPECT_EQ(sim.sendRequest({0x70, 0x01}, 0x01, 500ms), std::nullopt) << "no callback: no response";

    Bytes answer;
    ASSERT_EQ(TOVRA_SetReaderRequestCallback(reader, &answer, answerRequest), 0);
    EXPECT_EQ(sim.sendRequest({0x70, 0x01}), (Bytes{0x70, 0x01, 0xAA}));
    EXPECT_EQ(sim.sendRequest({0x71}, 0x03), (Bytes{0x71, 0xAA})) << "both direction bits: a request";
    EXPECT_EQ(sim.sendRequest({0x01}, 0x01, 500ms), std::nullopt);
    EXPECT_EQ(sim.sendRequest({0x02}, 0x01, 500ms), std::nullopt);
    EXPECT_EQ(sim.sendRequest({0x03}, 0x01, 500ms), std::nullopt);

    // The application's own exchanges go on meanwhile.
    Bytes response;
    EXPECT_EQ(transceive(patterned(5), response), 0);
    EXPECT_EQ(response, echoOf(patterned(5)));
    EXPECT_EQ(TOVRA_DisconnectByHost(reader), 0); // joins the callback thread before `answer` goes
}

// The first request holds the callback thread until the gate opens; every request is kept.
struct GatedRequests {
    std::mutex lock;
    std::condition_variable changed;
    bool open = false;
    std::vector<Bytes> seen;
    Bytes answer;

    static std::int32_t TOVRA_CALL take(std::int32_t, void* context, const std::uint8_t* request,
                                        std::uint64_t length, std::uint8_t** response, std::uint64_t* responseLength)
    {
        auto& self = *static_cast<GatedRequests*>(context);
        std::unique_lock guard(self.lock);
        self.seen.emplace_back(request, request + length);
        self.changed.notify_all();
        self.changed.wait(guard, [&] { return self.open; });
        self.answer.assign(request, request + length);
        *response = self.answer.data();
        *responseLength = self.answer.size();
        return 0;
    }
    std::size_t count()
    {
        std::lock_guard guard(lock);
        return seen.size();
    }
    void release()
    {
        std::lock_guard guard(lock);
        open = true;
        changed.notify_all();
    }
};

TEST_F(TcpSession, RequestsComingDuringATransceiveReachTheCallbackInOrder)
{
    connect();
    GatedRequests requests;
    ASSERT_EQ(TOVRA_SetReaderRequestCallback(reader, &requests, GatedRequests::take), 0);
    auto late = tovra::readersim::Reply::with({0x01, 0x02});
    late.delay = 400ms;
    sim.setReply(0x65, late);

    std::atomic<std::int32_t> result{1};
    Bytes response;
    std::thread waiting([&] { result = transceive({0x65, 0x00}, response); });
    ASSERT_TRUE(waitUntil([&] { return sim.requestsSeen() >= 1; }));
    // The second waits for the callback thread, the third for the second.
    for (std::uint8_t i = 1; i <= 3; ++i)
        ASSERT_TRUE(sim.sendFrame(tovra::readersim::Frame{.flags = 0x01, .payload = {0x70, i}}));
    ASSERT_TRUE(waitUntil([&] { return requests.count() == 1; }));
    requests.release();
    waiting.join();
    EXPECT_EQ(result.load(), 0);
    EXPECT_EQ(response, (Bytes{0x65, 0x00, 0x01, 0x02}));
    ASSERT_TRUE(waitUntil([&] { return requests.count() == 3; }));
    EXPECT_EQ(requests.seen, (std::vector<Bytes>{{0x70, 1}, {0x70, 2}, {0x70, 3}}));
    EXPECT_TRUE(sim.waitForFrames(4, 5000ms)) << "the request and three responses";
    EXPECT_EQ(TOVRA_DisconnectByHost(reader), 0);
}

// The response and the reader's next request in one segment: nothing more comes to wake
// anyone, yet the request is answered, whoever read the segment.
TEST_F(TcpSession, ARequestPackedBehindAResponseIsAnsweredWithNothingMoreComing)
{
    using tovra::readersim::Frame;
    connect();
    Bytes answer;
    ASSERT_EQ(TOVRA_SetReaderRequestCallback(reader, &answer, answerRequest), 0);
    sim.setReply(0x65, tovra::readersim::Reply::none());
    for (std::uint8_t i = 0; i < 200; ++i) {
        const std::size_t frames = sim.framesReceived();
        std::atomic<std::int32_t> result{1};
        Bytes response;
        std::thread host([&] { result = transceive({0x65, i}, response); });
        ASSERT_TRUE(waitUntil([&] { return sim.framesReceived() > frames; }));
        Bytes packed = tovra::readersim::encode(Frame{.flags = 0x02, .payload = {0x65, 0x00, i}});
        const Bytes request = tovra::readersim::encode(Frame{.flags = 0x01, .payload = {0x70, i}});
        packed.insert(packed.end(), request.begin(), request.end());
        ASSERT_TRUE(sim.sendRaw(packed));
        host.join();
        ASSERT_EQ(result.load(), 0) << "round " << int{i};
        EXPECT_EQ(response, (Bytes{0x65, 0x00, i}));
        ASSERT_TRUE(sim.waitForFrames(frames + 2, 10000ms)) << "the callback's answer, round " << int{i};
    }
    EXPECT_EQ(TOVRA_DisconnectByHost(reader), 0);
}

TEST_F(TcpSession, ExchangesAndReaderRequestsCrossThousandsOfTimes)
{
    connect();
    Bytes answer;
    ASSERT_EQ(TOVRA_SetReaderRequestCallback(reader, &answer, answerRequest), 0);
    const int rounds = tovra::test::repeat(2000);
    std::atomic<int> wrongAnswers{0};
    std::thread readerSide([&] {
        for (int i = 0; i < rounds / 4; ++i)
            if (sim.sendRequest({0x70, static_cast<std::uint8_t>(i)}) != Bytes{0x70, static_cast<std::uint8_t>(i), 0xAA})
                ++wrongAnswers;
    });
    int wrongResponses = 0;
    for (int i = 0; i < rounds; ++i) {
        Bytes response;
        const Bytes request = patterned(3 + i % 7);
        if (transceive(request, response) != 0 || response != echoOf(request)) ++wrongResponses;
    }
    readerSide.join();
    EXPECT_EQ(wrongResponses, 0);
    EXPECT_EQ(wrongAnswers.load(), 0);
    EXPECT_EQ(TOVRA_DisconnectByHost(reader), 0);
}

TEST_F(TcpSession, FourApplicationThreadsShareOneReader)
{
    connect();
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            Bytes response(64);
            for (int i = 0; i < 100; ++i) {
                const Bytes request{static_cast<std::uint8_t>(0x40 + t), static_cast<std::uint8_t>(i)};
                std::uint64_t length = response.size();
                if (TOVRA_Transceive(reader, request.data(), request.size(), response.data(), &length) != 0 ||
                    Bytes(response.begin(), response.begin() + static_cast<long>(length)) != echoOf(request))
                    ++failures;
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);
}

TEST_F(TcpSession, AThousandCyclesLeaveNoDescriptorOrThreadBehind)
{
    // Counted where the system lists them; elsewhere the cycles still run.
    const long descriptors = tovra::test::openDescriptors();
    const long threads = tovra::test::runningThreads();
    Bytes response;
    for (int cycle = 0; cycle < 1000; ++cycle) {
        ASSERT_EQ(TOVRA_ConnectByHost(reader, nullptr), 0) << cycle << ": " << TOVRA_GetLastErrorText(reader);
        ASSERT_EQ(transceive(patterned(16), response), 0) << cycle;
        ASSERT_EQ(TOVRA_DisconnectByHost(reader), 0);
    }
    ASSERT_TRUE(sim.waitForDisconnect(10000ms));
    EXPECT_EQ(tovra::test::openDescriptors(), descriptors);
    EXPECT_EQ(tovra::test::runningThreads(), threads);
}

TEST_F(TcpSession, ConnectsWithMoreThan1024DescriptorsOpen)
{
    std::vector<tovra::platform::SocketHandle> filler;
    for (int i = 0; i < 1100; ++i) {
        const auto s = tovra::platform::openSocket(tovra::platform::AddressFamily::ipv4,
                                                   tovra::platform::SocketKind::datagram);
        if (s == tovra::platform::kInvalidSocket) break;
        filler.push_back(s);
    }
    if (filler.size() < 1100) {
        for (auto s : filler) tovra::platform::closeSocket(s);
        GTEST_SKIP() << "the process may not open 1100 descriptors";
    }
    connect();
    Bytes response;
    EXPECT_EQ(transceive(patterned(100), response), 0);
    EXPECT_EQ(response, echoOf(patterned(100)));
    EXPECT_EQ(TOVRA_DisconnectByHost(reader), 0);
    for (auto s : filler) tovra::platform::closeSocket(s);
}

} // namespace
