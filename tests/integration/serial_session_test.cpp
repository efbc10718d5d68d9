// An application talking to a simulated reader on a serial line, through the C interface,
// our open serial library and a pseudo-terminal. Linux only: elsewhere there is no pty.
#include "platform/dynlib.h"
#include "platform/env.h"
#include "readersim/reader_sim.h"
#include "support/wait.h"
#include "tovra/tovra.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using tovra::readersim::Fault;
using tovra::readersim::FaultKind;
using tovra::readersim::LineSettings;
using tovra::readersim::ReaderSim;
using tovra::test::waitUntil;
using Bytes = std::vector<std::uint8_t>;

#if defined(_WIN32)
constexpr bool kHasPty = false;
#else
constexpr bool kHasPty = true;
#endif

// The port number the simulator's pty is mapped to.
constexpr int kPort = 42;

Bytes patterned(std::size_t length)
{
    Bytes bytes(length);
    for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<std::uint8_t>(i * 7 + 3);
    bytes[0] = 0x65;
    return bytes;
}

// What the simulator answers: [command, status 0] + the rest, cut to the largest payload.
Bytes echoOf(const Bytes& request)
{
    Bytes response(request.size() + 1);
    response[0] = request[0];
    std::copy(request.begin() + 1, request.end(), response.begin() + 2);
    response.resize(std::min<std::size_t>(response.size(), 32760));
    return response;
}

class SerialSession : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        // Our open library, loaded by path: the library's load by name finds this one.
        library = tovra::platform::loadLibrary(TOVRA_ZKCOM_PATH);
    }

    void SetUp() override
    {
        if (!kHasPty) GTEST_SKIP() << "no pseudo-terminals on this system";
        ASSERT_NE(library, nullptr) << tovra::platform::lastLoadError();
        serve(LineSettings{.baud = 38400, .parity = 'E'});
        reader = TOVRA_Create(2, nullptr);
    }
    void TearDown() override
    {
        if (reader > 0) EXPECT_EQ(TOVRA_Delete(reader), 0);
    }

    void serve(const LineSettings& settings)
    {
        ASSERT_TRUE(sim.servePty(settings));
        ASSERT_TRUE(tovra::platform::setEnv(("ZKCOM_COM" + std::to_string(kPort)).c_str(), sim.ptyPath().c_str()));
    }

    std::int32_t transceive(const Bytes& request, Bytes& response)
    {
        response.assign(32768, 0);
        std::uint64_t length = response.size();
        const std::int32_t result = TOVRA_Transceive(reader, request.data(), request.size(), response.data(), &length);
        response.resize(result == 0 ? length : 0);
        return result;
    }

    static inline tovra::platform::LibraryHandle library = nullptr;
    const std::string port = "COM" + std::to_string(kPort);
    ReaderSim sim;
    std::int32_t reader = 0;
};

TEST_F(SerialSession, RoundTripsFromOneByteToTheLargestPayload)
{
    ASSERT_EQ(TOVRA_ConnectByHost(reader, ("com:Device=" + port).c_str()), 0) << TOVRA_GetLastErrorText(reader);
    Bytes response;
    for (std::size_t length : {std::size_t{1}, std::size_t{2}, std::size_t{250}, std::size_t{4096},
                               std::size_t{32760}}) {
        const Bytes request = patterned(length);
        ASSERT_EQ(transceive(request, response), 0) << length << ": " << TOVRA_GetLastErrorText(reader);
        EXPECT_EQ(response, echoOf(request)) << length;
    }
    // Idle bytes and headers that declare an impossible length are skipped.
    const std::uint8_t noise[] = {0x00, 0x00, 0x03, 0x00, 0x01, 0x00};
    ASSERT_TRUE(sim.sendRaw(noise));
    EXPECT_EQ(transceive(patterned(10), response), 0);
    EXPECT_EQ(response, echoOf(patterned(10)));
    // A second connect on the same port finds it taken.
    const std::int32_t other = TOVRA_Create(2, nullptr);
    EXPECT_LT(TOVRA_ConnectByHost(other, ("com:Device=" + port).c_str()), 0);
    EXPECT_EQ(TOVRA_Delete(other), 0);
}

TEST_F(SerialSession, BadFramesAndAVanishingReaderEndInCodes)
{
    ASSERT_EQ(TOVRA_ConnectByHost(reader, ("com:Device=" + port).c_str()), 0);
    ASSERT_EQ(TOVRA_SetReceiveTimeout(reader, 1000), 0);
    Bytes response;
    for (const Fault& fault : {Fault{.kind = FaultKind::badCrc, .count = 1},
                               Fault{.kind = FaultKind::declaredLength, .count = 1, .declaredLength = 32769},
                               Fault{.kind = FaultKind::declaredLength, .count = 1, .declaredLength = 65535},
                               Fault{.kind = FaultKind::silence, .count = 1}}) {
        sim.setFault(fault);
        EXPECT_EQ(transceive(patterned(8), response), -5015) << static_cast<int>(fault.kind);
    }
    EXPECT_EQ(transceive(patterned(8), response), 0) << "the line is back in step";

    // The reader goes away in the middle of an exchange: an error, no hang.
    sim.setFault(FaultKind::silence);
    std::atomic<std::int32_t> result{1};
    std::thread waiting([&] { result = transceive(patterned(8), response); });
    ASSERT_TRUE(waitUntil([&] { return sim.requestsSeen() >= 6; }));
    sim.stop();
    waiting.join();
    EXPECT_LT(result.load(), 0);
    Bytes again;
    EXPECT_LT(transceive(patterned(8), again), 0);
    EXPECT_EQ(TOVRA_DisconnectByHost(reader), 0);
}

std::int32_t TOVRA_CALL answer(std::int32_t, void*, const std::uint8_t* request, std::uint64_t length,
                               std::uint8_t** response, std::uint64_t* responseLength)
{
    thread_local Bytes reply;
    reply.assign(request, request + length);
    reply.push_back(0xC0);
    *response = reply.data();
    *responseLength = reply.size();
    return 0;
}

TEST_F(SerialSession, TheSerialListenerServesTheReadersRequests)
{
    ASSERT_EQ(TOVRA_SetReaderRequestCallback(reader, nullptr, answer), 0);
    ASSERT_EQ(TOVRA_StartListener(reader, ("com:Device=" + port).c_str()), 0) << TOVRA_GetLastErrorText(reader);
    EXPECT_STREQ(TOVRA_GetConnectionState(reader), "SingleCh=Con");
    EXPECT_EQ(sim.sendRequest({0x71, 0x01}), (Bytes{0x71, 0x01, 0xC0}));
    // The host may use the same line meanwhile.
    Bytes response;
    EXPECT_EQ(transceive(patterned(20), response), 0);
    EXPECT_EQ(TOVRA_StopListener(reader), 0);
    EXPECT_STREQ(TOVRA_GetConnectionState(reader), "SingleCh=Discon");
    EXPECT_EQ(sim.sendRequest({0x71, 0x02}, 0x01, 500ms), std::nullopt);
}

class SerialDetection : public SerialSession {
protected:
    static void TOVRA_CALL onCandidate(std::int32_t, void* context, const char* candidate)
    {
        static_cast<std::vector<std::string>*>(context)->emplace_back(candidate);
    }
    std::vector<std::string> tried;
};

TEST_F(SerialDetection, FindsTheReaderAtItsLineSettings)
{
    ASSERT_EQ(TOVRA_SetDetectSerialCallback(reader, &tried, onCandidate), 0);
    const struct {
        LineSettings at;
        std::size_t probe;
    } cases[] = {{{.baud = 9600, .parity = 'E'}, 16}, {{.baud = 9600, .parity = 'N'}, 17}};
    for (const auto& c : cases) {
        tried.clear();
        sim.setLineSettings(c.at);
        ASSERT_EQ(TOVRA_DetectSerial(reader, ("COM:Device=" + port + ":DetectDelay=0").c_str()), 0)
            << TOVRA_GetLastErrorText(reader);
        ASSERT_EQ(tried.size(), c.probe);
        EXPECT_EQ(tried.back(), "COM:Device=" + port + ":BusAddress=255:Baud=9600:Frame=8" + c.at.parity + "1");
        EXPECT_EQ(TOVRA_GetConnector(reader), tried.back());
        Bytes response;
        EXPECT_EQ(transceive(patterned(12), response), 0) << "connected at the settings found";
        EXPECT_EQ(TOVRA_DisconnectByHost(reader), 0);
    }
}

TEST_F(SerialDetection, TheShortListGivesUpAndClosesThePort)
{
    ASSERT_EQ(TOVRA_SetDetectSerialCallback(reader, &tried, onCandidate), 0);
    sim.setLineSettings({.baud = 9600, .parity = 'E'});
    EXPECT_EQ(TOVRA_DetectSerial(reader, ("com:device=" + port + ":detectmode=1:detectdelay=0").c_str()), -5006);
    EXPECT_EQ(tried.size(), 9u);
    EXPECT_STREQ(TOVRA_GetConnectionState(reader), "SingleCh=Discon");
    // Closed again: it can be opened at once.
    ASSERT_EQ(TOVRA_ConnectByHost(reader, ("com:Device=" + port + ":Baud=9600").c_str()), 0);
    Bytes response;
    EXPECT_EQ(transceive(patterned(3), response), 0);
}

TEST_F(SerialSession, ThePortManagerSeesMappedPortsOnly)
{
    EXPECT_EQ(TOVRA_ComManagerDetect("COM", kPort), 1);
    EXPECT_EQ(TOVRA_ComManagerDetect("com", kPort + 1), 0) << "nothing is mapped to it";
    EXPECT_EQ(TOVRA_GetLastError(-3), 0);
    EXPECT_EQ(TOVRA_ComManagerDetect("com", 0), 0);
}

} // namespace
