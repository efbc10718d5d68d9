// Serial readers through the C interface, with a stand-in serial library that records what
// it is asked. Which library a process loads first is the one it keeps: each suite runs in
// a process of its own (see CMakeLists.txt).
#include "platform/dynlib.h"
#include "protocol/protocol_frame.h"
#include "support/standin.h"
#include "support/wait.h"
#include "tovra/tovra.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

namespace {

using tovra::test::responseHex;
using tovra::test::StandIn;
using tovra::test::waitUntil;
using Bytes = std::vector<std::uint8_t>;

class ComPlugin : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(standIn.loaded());
        standIn.control("reset");
        reader = TOVRA_Create(2, nullptr);
    }
    void TearDown() override { TOVRA_Delete(reader); }

    // The calls a connect made, from OpenPort on, with the handle written as "H".
    std::vector<std::string> connectCalls()
    {
        const std::string handle = std::to_string(TOVRA_GetLowLevelPortHandle(reader));
        std::vector<std::string> lines;
        for (std::string line : standIn.callsWith("")) {
            if (line.starts_with("DetectPort")) continue;
            const auto at = line.find(" " + handle);
            if (at != std::string::npos && line.rfind("OpenPort", 0) != 0) line.replace(at, handle.size() + 1, " H");
            lines.push_back(line);
        }
        return lines;
    }

    // Loaded by the first test of the suite, not at start-up: other suites of this program
    // must not find it.
    static StandIn& sharedStandIn()
    {
        static StandIn loaded("zkcom", "zkcom");
        return loaded;
    }
    StandIn& standIn = sharedStandIn();
    std::int32_t reader = 0;
};

TEST_F(ComPlugin, ConnectSetsThePortUpInItsOrder)
{
    ASSERT_EQ(TOVRA_ConnectByHost(reader, "com:Device=COM4"), 0) << TOVRA_GetLastErrorText(reader);
    EXPECT_STREQ(TOVRA_GetConnectionState(reader), "SingleCh=Con");
    EXPECT_EQ(connectCalls(), (std::vector<std::string>{
                                  "OpenPort 4",
                                  "SetPortPara H UseQEMA 1",
                                  "SetPortPara H Opt4ZKSP 1",
                                  "SetPortPara H TIMEOUT 300",
                                  "SetPortPara H TxTimeControl 0",
                                  "SetPortPara H BUSADDRESS 255",
                                  "SetPortPara H baud 38400",
                                  "SetPortPara H frame 8E1",
                                  "SetPortPara H opmode RS232",
                                  "DoPortCmd H SETRTS ON",
                                  "DoPortCmd H SETDTR ON",
                              }));
    const std::string handle = std::to_string(TOVRA_GetLowLevelPortHandle(reader));
    EXPECT_EQ(TOVRA_DisconnectByHost(reader), 0);
    EXPECT_EQ(standIn.callsWith("ClosePort"), std::vector<std::string>{"ClosePort " + handle});
}

TEST_F(ComPlugin, ConnectorKeysReachTheLibraryAsGiven)
{
    const struct {
        const char* connector;
        const char* expected; // a call the connect must make
        const char* absent;   // a call it must not make
    } cases[] = {
        {"COM:device=com12:busaddress=abc", "BUSADDRESS 255", "BUSADDRESS abc"},
        {"com:device=7:BusAddress=3", "OpenPort 7", "BUSADDRESS 255"},
        {"com:device=7:busaddress=3x", "BUSADDRESS 3x", "BUSADDRESS 255"},
        {"com:device=COM5:opmode=RS485", "opmode RS485", "DoPortCmd"},
        {"com:device=COM5:baud=9600:frame=8N1", "frame 8N1", "baud 38400"},
    };
    for (const auto& c : cases) {
        standIn.control("reset");
        ASSERT_EQ(TOVRA_ConnectByHost(reader, c.connector), 0) << c.connector;
        EXPECT_FALSE(standIn.callsWith(c.expected).empty()) << c.connector << "\n" << standIn.calls();
        EXPECT_TRUE(standIn.callsWith(c.absent).empty()) << c.connector << "\n" << standIn.calls();
        EXPECT_EQ(TOVRA_DisconnectByHost(reader), 0);
    }

    // Devices the library cannot name open nothing.
    standIn.control("reset");
    for (const char* bad : {"com:device=COM3a", "com:device=ttyS0", "com:device=COM", "com:baud=9600"}) {
        EXPECT_EQ(TOVRA_ConnectByHost(reader, bad), -5003) << bad;
        EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "TOVRA error: code=-5003: Connection parameter error");
    }
    EXPECT_EQ(standIn.calls(), "");
}

TEST_F(ComPlugin, AFailedSetUpClosesThePortAgain)
{
    const struct {
        const char* failure;
        std::int32_t code;
    } cases[] = {
        {"fail OpenPort -1002", -1002},
        {"fail SetPortPara -1006 5", -1006}, // the sixth: "baud"
        {"fail SetPortPara -1007 7", -1007}, // "opmode"
        {"fail DoPortCmd -1008 1", -1008},   // SETDTR
    };
    for (const auto& c : cases) {
        standIn.control("reset");
        standIn.control(c.failure);
        EXPECT_EQ(TOVRA_ConnectByHost(reader, "com:device=COM4"), c.code) << c.failure;
        EXPECT_STREQ(TOVRA_GetLastErrorText(reader), ("STANDIN error " + std::to_string(c.code)).c_str());
        EXPECT_STREQ(TOVRA_GetConnectionState(reader), "SingleCh=Discon");
        const bool opened = c.code != -1002;
        EXPECT_EQ(standIn.callsWith("ClosePort").size(), opened ? 1u : 0u) << c.failure;
    }
    // The results of the library's own settings are not looked at.
    standIn.control("reset");
    standIn.control("fail SetPortPara -1006 2");
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "com:device=COM4"), 0);
}

TEST_F(ComPlugin, FramesComeWholeAndTheLibraryTimeOutIsNoError)
{
    ASSERT_EQ(TOVRA_ConnectByHost(reader, "com:device=COM4"), 0);
    Bytes response;
    ASSERT_EQ(tovra::test::scriptedExchange(reader, standIn, {0x65, 0x42}, {0x65, 0x00, 0x42}, response), 0);
    EXPECT_EQ(response, (Bytes{0x65, 0x00, 0x42}));
    EXPECT_EQ(standIn.callsWith("Transmit").size(), 1u);

    // Nothing comes: the library's time-out code only means "not yet".
    ASSERT_EQ(TOVRA_SetReceiveTimeout(reader, 300), 0);
    EXPECT_EQ(tovra::test::scriptedExchange(reader, standIn, {0x65}, {}, response), -5015);
    // A library error on receive does not end the connection.
    standIn.control("fail Receive -1011");
    ASSERT_EQ(tovra::test::scriptedExchange(reader, standIn, {0x66}, {0x66, 0x00}, response), 0);
    EXPECT_EQ(response, (Bytes{0x66, 0x00}));
}

TEST_F(ComPlugin, AnOldLibraryIsRefusedWithTheVersionsInvolved)
{
    standIn.control("version 4.9.12");
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "com:device=COM4"), -5022);
    EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "ZKCOM version mismatch: required 05.00.00 - available 04.09.12");
    EXPECT_EQ(standIn.calls(), "") << "nothing is called on a library that is too old";
    standIn.control("version 5.0.0-rc1");
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "com:device=COM4"), -5022);
    standIn.control("version 5.0.0");
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "com:device=COM4"), 0);
}

struct Connections {
    std::mutex lock;
    std::vector<std::string> texts;
    std::atomic<int> disconnected{0};
};

void TOVRA_CALL onConnected(std::int32_t, void* context, const char* text)
{
    auto& c = *static_cast<Connections*>(context);
    std::lock_guard guard(c.lock);
    c.texts.emplace_back(text);
}

void TOVRA_CALL onDisconnected(std::int32_t, void* context) { ++static_cast<Connections*>(context)->disconnected; }

TEST_F(ComPlugin, TheListenerHandsThePortOverAtOnce)
{
    for (std::int32_t kind : {2, 3}) {
        const std::int32_t module = TOVRA_Create(kind, nullptr);
        Connections connections;
        ASSERT_EQ(TOVRA_SetReaderConnectedCallbacks(module, &connections, onConnected, onDisconnected), 0);
        standIn.control("reset");
        ASSERT_EQ(TOVRA_StartListener(module, "com:Device=COM6:Baud=9600"), 0) << TOVRA_GetLastErrorText(module);
        ASSERT_TRUE(waitUntil([&] {
            std::lock_guard guard(connections.lock);
            return connections.texts.size() == 1;
        }));
        EXPECT_EQ(connections.texts[0], "COM from host connection");
        EXPECT_FALSE(standIn.callsWith("OpenPort 6").empty());
        EXPECT_FALSE(standIn.callsWith("baud 9600").empty());
        EXPECT_EQ(TOVRA_StartListener(module, "com:Device=COM6"), -5008);

        EXPECT_EQ(TOVRA_StopListener(module), 0);
        EXPECT_EQ(standIn.callsWith("ClosePort").size(), 1u);
        EXPECT_STREQ(TOVRA_GetConnectionState(module), kind == 2 ? "SingleCh=Discon" : "AppCh=Discon:RdrCh=Discon");
        // The port can be listened on again.
        EXPECT_EQ(TOVRA_StartListener(module, "com:Device=COM6"), 0);
        EXPECT_EQ(TOVRA_Delete(module), 0);
        EXPECT_EQ(standIn.callsWith("ClosePort").size(), 2u);
    }
    // A port that cannot be opened is no connection: the listener is not kept.
    standIn.control("fail OpenPort -1002");
    EXPECT_EQ(TOVRA_StartListener(reader, "com:Device=COM6"), -5008);
    EXPECT_EQ(TOVRA_StartListener(reader, "com:Device=COM6"), 0);
}

TEST_F(ComPlugin, DetectionTriesTheShortListInOrderAndClosesThePort)
{
    std::vector<std::string> tried;
    ASSERT_EQ(TOVRA_SetDetectSerialCallback(reader, &tried,
                                            [](std::int32_t, void* context, const char* candidate) {
                                                static_cast<std::vector<std::string>*>(context)->emplace_back(candidate);
                                            }),
              0);
    EXPECT_EQ(TOVRA_DetectSerial(reader, "COM:Device=COM4:DetectMode=1:DetectDelay=0"), -5006);
    EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "TOVRA error: code=-5006: Detection failed");
    ASSERT_EQ(tried.size(), 9u);
    EXPECT_EQ(tried.front(), "COM:Device=COM4:BusAddress=255:Baud=38400:Frame=8E1");
    EXPECT_EQ(tried[1], "COM:Device=COM4:BusAddress=255:Baud=38400:Frame=8N1");
    EXPECT_EQ(tried.back(), "COM:Device=COM4:BusAddress=255:Baud=115200:Frame=8O1");
    EXPECT_EQ(standIn.callsWith("Baud 115200").size(), 3u) << "the candidates reach the library as written";
    EXPECT_EQ(standIn.callsWith("ClosePort").size(), 1u);
    EXPECT_STREQ(TOVRA_GetConnectionState(reader), "SingleCh=Discon");
    EXPECT_EQ(TOVRA_GetReceiveTimeout(reader), 5000);

    // A reader that answers the probe is found, and the module stays connected with it.
    tried.clear();
    standIn.control("reply " + responseHex({0x52, 0x00}));
    EXPECT_EQ(TOVRA_DetectSerial(reader, "com:device=COM4:busaddress=3:detectdelay=0"), 0);
    EXPECT_EQ(tried, std::vector<std::string>{"COM:Device=COM4:BusAddress=3:Baud=38400:Frame=8E1"});
    EXPECT_STREQ(TOVRA_GetConnector(reader), "COM:Device=COM4:BusAddress=3:Baud=38400:Frame=8E1");
    EXPECT_STREQ(TOVRA_GetConnectionState(reader), "SingleCh=Con");

    for (const char* bad : {"tcp:device=COM4", "com:baud=9600"})
        EXPECT_EQ(TOVRA_DetectSerial(reader, bad), -5005) << bad;
    EXPECT_EQ(TOVRA_DetectSerial(reader, nullptr), -5005);
}

TEST_F(ComPlugin, PortPresenceAskedOfTheManager)
{
    standIn.control("present 3");
    EXPECT_EQ(TOVRA_ComManagerDetect("COM", 3), 1);
    EXPECT_EQ(TOVRA_ComManagerDetect("", 3), 1);
    EXPECT_EQ(TOVRA_ComManagerDetect(nullptr, 4), 0);
    EXPECT_EQ(TOVRA_GetLastError(-3), 0);
    EXPECT_EQ(standIn.callsWith("DetectPort").size(), 3u);
    EXPECT_EQ(TOVRA_ComManagerDetect("usb", 3), -5005);
    EXPECT_EQ(TOVRA_GetLastError(-3), -5005);
    EXPECT_STREQ(TOVRA_GetLastErrorText(-3), "TOVRA error: code=-5005: Detection parameter error");
    EXPECT_EQ(standIn.callsWith("DetectPort").size(), 3u) << "not asked for a device type it does not serve";
}

// Without a serial library: every use is refused, and the texts say so.
TEST(NoComLibrary, EveryUseIsRefused)
{
    // Where the build puts the real library beside the test program, it is found there.
    if (const auto found = tovra::platform::loadLibrary(tovra::platform::libraryFileName("zkcom").c_str())) {
        tovra::platform::unloadLibrary(found);
        GTEST_SKIP() << "a serial library is on the search path";
    }
    const std::int32_t reader = TOVRA_Create(2, nullptr);
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "com:device=COM4"), -5021);
    EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "TOVRA error: code=-5021: Cannot load plugin");
    EXPECT_EQ(TOVRA_DetectSerial(reader, "com:device=COM4"), -5021);
    EXPECT_EQ(TOVRA_StartListener(reader, "com:device=COM4"), -5008);
    EXPECT_EQ(TOVRA_ComManagerDetect("com", 1), -5021);
    EXPECT_EQ(TOVRA_GetLastError(-3), -5021);
    EXPECT_STREQ(TOVRA_GetLastErrorText(-3), "COM manager plugin error -5021");
    EXPECT_EQ(TOVRA_Delete(reader), 0);
}

// A library without one of its entry points counts as not loaded.
TEST(PartialComLibrary, IsRefusedAsNotLoaded)
{
    StandIn partial("zkcom-partial", "zkcom");
    ASSERT_TRUE(partial.loaded());
    const std::int32_t reader = TOVRA_Create(3, nullptr);
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "com:device=COM4"), -5021);
    EXPECT_EQ(TOVRA_ComManagerDetect("com", 1), -5021);
    EXPECT_EQ(partial.calls(), "");
    EXPECT_EQ(TOVRA_Delete(reader), 0);
}

} // namespace
