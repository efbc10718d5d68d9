// Readers on the network found through our UDP discovery library, answered by the
// simulator's responder on 127.0.0.1. A manager keeps the library it loaded first for the
// life of the process: each suite runs in a process of its own.
#include "platform/dynlib.h"
#include "readersim/reader_sim.h"
#include "readersim/udp_responder.h"
#include "support/discovery_events.h"
#include "support/repeat.h"
#include "support/wait.h"
#include "support/watchdog.h"
#include "tovra/tovra.h"

#include <gtest/gtest.h>

#include <string>

namespace tovra {
namespace {

using readersim::ReaderSim;
using readersim::SimulatedReader;
using readersim::UdpResponder;
using test::Crossing;
using test::Heard;
using test::onCrossing;
using test::onDiscovery;
using test::waitUntil;

constexpr char kFirst[] = "02:00:00:00:00:01";
constexpr char kSecond[] = "02:00:00:00:00:02";

SimulatedReader simulated(const char* mac, std::uint16_t port)
{
    SimulatedReader reader;
    reader.macAddress = mac;
    reader.deviceId = "00A1B2C3";
    reader.port = port;
    return reader;
}

std::string setupText(const char* mac, const std::string& rest)
{
    return std::string("MacAddress=\"") + mac + "\"" + rest;
}

class UdpDiscovery : public ::testing::Test {
protected:
    void SetUp() override
    {
        // The library the manager loads by name is this one.
        ASSERT_NE(library, nullptr) << platform::lastLoadError();
        ASSERT_TRUE(responder.start());
        target = "address=127.0.0.1:port=" + std::to_string(responder.port()) + ":lost=2";
        ASSERT_EQ(TOVRA_UdpManagerSetEventCallback(&heard, onDiscovery), 0);
    }
    void TearDown() override
    {
        TOVRA_UdpManagerStopDiscover();
        TOVRA_UdpManagerSetEventCallback(nullptr, nullptr);
    }

    static platform::LibraryHandle loaded()
    {
        static const platform::LibraryHandle handle = platform::loadLibrary(TOVRA_ZKUDP_PATH);
        return handle;
    }
    platform::LibraryHandle library = loaded();
    UdpResponder responder;
    std::string target;
    Heard heard;
};

TEST_F(UdpDiscovery, ReadersAreFoundSetUpAndLost)
{
    responder.setReader(simulated(kFirst, 10001));
    responder.setReader(simulated(kSecond, 10002));
    ASSERT_EQ(TOVRA_UdpManagerStartDiscover(50, target.c_str()), 0) << TOVRA_GetLastErrorText(-4);
    ASSERT_TRUE(waitUntil([&] { return heard.count >= 2; }));
    EXPECT_EQ(heard.lineWith(1, kFirst),
              "UDP:ReaderType=\"tovra-readersim\":DeviceId=00A1B2C3:MacAddress=\"02:00:00:00:00:01\":"
              "IpAddress=\"127.0.0.1\":Netmask=\"255.0.0.0\":Gateway=\"0.0.0.0\":Dhcp=0:Port=10001");
    EXPECT_NE(heard.lineWith(1, kSecond), "");
    EXPECT_NE(heard.threads[0], std::this_thread::get_id());

    EXPECT_EQ(TOVRA_UdpManagerStartDiscover(50, target.c_str()), -5032);
    EXPECT_STREQ(TOVRA_GetLastErrorText(-4), "TOVRA error: code=-5032: The operation is already started");

    // A set-up is reported back as a changed reader.
    EXPECT_EQ(TOVRA_UdpManagerSetup(setupText(kFirst, ":Port=10005").c_str(), 1), 0) << TOVRA_GetLastErrorText(-4);
    ASSERT_TRUE(waitUntil([&] { return heard.lineWith(1, "Port=10005") != ""; }));
    EXPECT_NE(heard.lineWith(1, "Port=10005").find(kFirst), std::string::npos);
    ASSERT_FALSE(responder.setupsSeen().empty());
    EXPECT_EQ(responder.setupsSeen().back().flags, 1);
    // Nobody answers for a MAC address nobody has: the library says so after its wait.
    EXPECT_LT(TOVRA_UdpManagerSetup(setupText("02:00:00:00:00:99", ":Port=1").c_str(), 0), 0);
    EXPECT_EQ(TOVRA_GetLastError(-4) / 100, -16) << TOVRA_GetLastErrorText(-4);
    EXPECT_STRNE(TOVRA_GetLastErrorText(-4), "");

    responder.stop();
    ASSERT_TRUE(waitUntil([&] { return heard.lineWith(2, kFirst) != "" && heard.lineWith(2, kSecond) != ""; }));

    EXPECT_EQ(TOVRA_UdpManagerStopDiscover(), 0);
    EXPECT_EQ(TOVRA_UdpManagerStopDiscover(), -5033);
    EXPECT_STREQ(TOVRA_GetLastErrorText(-4), "TOVRA error: code=-5033: The operation is not yet started");
    EXPECT_EQ(TOVRA_UdpManagerSetup(setupText(kFirst, ":Port=10006").c_str(), 0), -5033);
}

TEST_F(UdpDiscovery, TheLineWithTcpForUdpConnectsBeforeAndAfterASetUp)
{
    ReaderSim before, after;
    ASSERT_TRUE(before.listen());
    ASSERT_TRUE(after.listen());
    responder.setReader(simulated(kFirst, before.port()));
    ASSERT_EQ(TOVRA_UdpManagerStartDiscover(50, target.c_str()), 0);
    const auto connectsThrough = [&](const std::string& portKey) {
        std::string line;
        EXPECT_TRUE(waitUntil([&] { return !(line = heard.lineWith(1, portKey)).empty(); })) << portKey;
        EXPECT_EQ(line.rfind("UDP:", 0), 0u) << line;
        const std::int32_t reader = TOVRA_Create(2, nullptr);
        EXPECT_EQ(TOVRA_ConnectByHost(reader, ("tcp" + line.substr(3)).c_str()), 0) << TOVRA_GetLastErrorText(reader);
        const std::uint8_t request[] = {0x10, 0xAB};
        std::uint8_t response[16];
        std::uint64_t length = sizeof response;
        EXPECT_EQ(TOVRA_Transceive(reader, request, sizeof request, response, &length), 0);
        EXPECT_EQ(length, 3u);
        EXPECT_EQ(TOVRA_Delete(reader), 0);
    };
    connectsThrough(":Port=" + std::to_string(before.port()));
    // The reader moves to another port; the changed answer comes as event 1 again.
    const std::string moved = ":Port=" + std::to_string(after.port());
    ASSERT_EQ(TOVRA_UdpManagerSetup(setupText(kFirst, moved).c_str(), 0), 0) << TOVRA_GetLastErrorText(-4);
    connectsThrough(moved);
}

TEST_F(UdpDiscovery, NothingArrivesAfterAStopReturns)
{
    for (int i = 0; i < 20; ++i) {
        char mac[32];
        std::snprintf(mac, sizeof mac, "02:00:00:00:01:%02X", i);
        responder.setReader(simulated(mac, static_cast<std::uint16_t>(20000 + i)));
    }
    for (int round = 0; round < test::repeat(40); ++round) {
        Heard pouring;
        ASSERT_EQ(TOVRA_UdpManagerSetEventCallback(&pouring, onDiscovery), 0);
        ASSERT_EQ(TOVRA_UdpManagerStartDiscover(5, target.c_str()), 0);
        ASSERT_TRUE(waitUntil([&] { return pouring.count > round % 20; }));
        ASSERT_EQ(TOVRA_UdpManagerStopDiscover(), 0);
        pouring.stopped = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        EXPECT_EQ(pouring.afterStop, 0) << "round " << round;
    }

    // A stop from inside the callback is refused, not waited for.
    Heard inside;
    inside.stopInside = [] { return TOVRA_UdpManagerStopDiscover(); };
    ASSERT_EQ(TOVRA_UdpManagerSetEventCallback(&inside, onDiscovery), 0);
    ASSERT_EQ(TOVRA_UdpManagerStartDiscover(50, target.c_str()), 0);
    ASSERT_TRUE(waitUntil([&] { return inside.stopResult != 1; }));
    EXPECT_EQ(inside.stopResult, -5032);
    EXPECT_EQ(TOVRA_UdpManagerStopDiscover(), 0);
}

// A start, set-up or stop from inside the callback at the moment another thread stops,
// which waits for the discovery thread, or sets a reader up, which waits for the discovery
// thread to take the reader's answer. The callback's calls are answered at once, as they
// are without the other thread; a round that deadlocks ends the process through the watchdog.
TEST_F(UdpDiscovery, CallsFromInsideTheCallbackCrossAnotherThreadsStopOrSetUp)
{
    using Call = std::int32_t (*)(Crossing&);
    struct Inside {
        Call call;
        std::int32_t result;
    };
    const Inside insides[] = {
        {[](Crossing&) { return TOVRA_UdpManagerStartDiscover(5, nullptr); }, -5032},
        {[](Crossing&) { return TOVRA_UdpManagerSetup(setupText(kFirst, ":Port=10001").c_str(), 0); }, -1605},
        {[](Crossing&) { return TOVRA_UdpManagerStopDiscover(); }, -5032},
    };
    responder.setReader(simulated(kFirst, 10001));
    const int rounds = test::repeat(240);
    std::vector<Crossing> crossings(static_cast<std::size_t>(rounds));
    test::Watchdog watchdog("a call from inside the UDP discovery callback crossing another thread's");
    for (int round = 0; round < rounds; ++round) {
        Crossing& crossing = crossings[static_cast<std::size_t>(round)];
        const Inside& inside = insides[round % 3];
        const bool stopOther = round % 6 < 3;
        crossing.inside = inside.call;
        crossing.lag = round % 5 * 25;
        ASSERT_EQ(TOVRA_UdpManagerSetEventCallback(&crossing, onCrossing), 0);
        ASSERT_EQ(TOVRA_UdpManagerStartDiscover(5, target.c_str()), 0) << TOVRA_GetLastErrorText(-4);
        ASSERT_TRUE(crossing.meet()) << "round " << round;
        if (stopOther) {
            ASSERT_EQ(TOVRA_UdpManagerStopDiscover(), 0) << "round " << round;
        } else {
            // The reader's answer comes in on the thread that runs the callback.
            EXPECT_EQ(TOVRA_UdpManagerSetup(setupText(kFirst, ":Port=10001").c_str(), 0), 0) << "round " << round;
            ASSERT_TRUE(waitUntil([&] { return crossing.insideDone == 1; })) << "round " << round;
            ASSERT_EQ(TOVRA_UdpManagerStopDiscover(), 0) << "round " << round;
        }
        crossing.stopped = true;
        EXPECT_EQ(crossing.running, 0) << "a callback outlived the stop, round " << round;
        EXPECT_EQ(crossing.results(), std::vector<std::int32_t>{inside.result}) << "round " << round;
        watchdog.moved();
    }
    ASSERT_EQ(TOVRA_UdpManagerSetEventCallback(nullptr, nullptr), 0);
    for (Crossing& crossing : crossings) EXPECT_EQ(crossing.afterStop, 0);
}

TEST(MissingUdpLibrary, StopAndSetUpBeforeAStartAndAStartWithoutTheLibrary)
{
    if (platform::LibraryHandle found = platform::loadLibrary(platform::libraryFileName("zkudp").c_str())) {
        platform::unloadLibrary(found);
        GTEST_SKIP() << "the UDP library is on this system's search path";
    }
    EXPECT_EQ(TOVRA_UdpManagerStopDiscover(), -5033);
    EXPECT_EQ(TOVRA_UdpManagerSetup("MacAddress=\"02:00:00:00:00:01\"", 0), -5033);
    EXPECT_EQ(TOVRA_UdpManagerStartDiscover(0, nullptr), -5021);
    EXPECT_EQ(TOVRA_GetLastError(-4), -5021);
    EXPECT_STREQ(TOVRA_GetLastErrorText(-4), "TOVRA error: code=-5021: Cannot load plugin");
}

} // namespace
} // namespace tovra
