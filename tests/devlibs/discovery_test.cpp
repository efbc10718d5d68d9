// USB and Bluetooth discovery through stand-in device libraries that fire their events
// from threads of their own. A manager keeps the library it loaded first for the life of
// the process: each suite runs in a process of its own.
#include "devlibs/zkusb_manager.h"
#include "support/discovery_events.h"
#include "support/repeat.h"
#include "support/standin.h"
#include "support/wait.h"
#include "support/watchdog.h"
#include "tovra/tovra.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tovra {
namespace {

using test::Crossing;
using test::Heard;
using test::onCrossing;
using test::onDiscovery;
using test::StandIn;
using test::waitUntil;
using namespace std::chrono_literals;

// Events poured in as fast as the stand-in can while discovery stops: nothing arrives
// after a stop returns, whichever moment it hits.
template <typename Start, typename Stop>
void stopWhileEventsPour(StandIn& stub, const std::string& storm, Start start, Stop stop)
{
    for (int round = 0; round < test::repeat(200); ++round) {
        Heard heard;
        ASSERT_GE(start(&heard), 0);
        ASSERT_EQ(stub.control(storm), "ok");
        ASSERT_TRUE(waitUntil([&] { return heard.count > round % 20; }));
        ASSERT_EQ(stop(), 0);
        heard.stopped = true;
        // Long enough for a delivery that the stop failed to wait for to show.
        std::this_thread::sleep_for(2ms);
        stub.control("calm");
        EXPECT_EQ(heard.afterStop, 0) << "round " << round;
    }
}

// A stop or start from inside the callback at the moment another thread stops or starts.
// The other thread's stop waits for the callback, which must get through its own call
// meanwhile; once that stop has returned no callback runs and none begins. A round
// that deadlocks ends the process through the watchdog.
template <auto Start, auto Stop>
void crossCallsWithTheCallback(StandIn& stub, const std::string& storm)
{
    using Call = std::int32_t (*)(Crossing&);
    const Call stopping = [](Crossing&) { return Stop(); };
    const Call starting = [](Crossing& crossing) { return Start(&crossing, onCrossing); };
    const int rounds = test::repeat(400);
    // Each round's own: a late callback must still find what it was started with.
    std::vector<Crossing> crossings(static_cast<std::size_t>(rounds));
    test::Watchdog watchdog("a call from inside the discovery callback crossing another thread's");
    for (int round = 0; round < rounds; ++round) {
        Crossing& crossing = crossings[static_cast<std::size_t>(round)];
        const bool stopInside = round % 2 == 0;
        const bool stopOther = round % 4 < 2;
        crossing.inside = stopInside ? stopping : starting;
        crossing.lag = round % 5 * 25;
        ASSERT_EQ(Start(&crossing, onCrossing), 0);
        ASSERT_EQ(stub.control(storm), "ok");
        ASSERT_TRUE(crossing.meet()) << "round " << round;
        EXPECT_EQ(stopOther ? Stop() : Start(&crossing, onCrossing), 0) << "round " << round;
        if (stopInside && stopOther) {
            crossing.stopped = true;
            EXPECT_EQ(crossing.running, 0) << "a callback outlived the stop, round " << round;
        }
        ASSERT_TRUE(waitUntil([&] { return crossing.insideDone == 1; })) << "round " << round;
        EXPECT_EQ(crossing.results(), std::vector<std::int32_t>{0}) << "round " << round;
        if (!crossing.stopped) {
            // The callback's start, or the other thread's, came last.
            ASSERT_EQ(Stop(), 0);
            crossing.stopped = true;
            EXPECT_EQ(crossing.running, 0) << "a callback outlived the stop, round " << round;
        }
        stub.control("calm");
        watchdog.moved();
    }
    for (Crossing& crossing : crossings) EXPECT_EQ(crossing.afterStop, 0);
}

class UsbDiscovery : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(stub.loaded());
        stub.control("reset");
    }
    void TearDown() override
    {
        TOVRA_UsbManagerStopDiscover();
        stub.control("reset");
    }
    static StandIn& sharedStandIn()
    {
        static StandIn loaded("zkusb", "zkusb");
        return loaded;
    }
    StandIn& stub = sharedStandIn();
};

TEST_F(UsbDiscovery, NoReaderIsNoError)
{
    Heard heard;
    EXPECT_EQ(TOVRA_UsbManagerStartDiscover(&heard, onDiscovery), 0);
    EXPECT_EQ(TOVRA_GetLastError(-1), 0);
    EXPECT_EQ(heard.count, 0);
    EXPECT_EQ(TOVRA_UsbManagerScanInfo(0), nullptr);
    EXPECT_EQ(stub.callsWith(""), (std::vector<std::string>{
                                      "Scan 15 0",
                                      "AddEventHandler 0 event=1 reserved=0 type=3",
                                      "AddEventHandler 0 event=2 reserved=0 type=3",
                                  }));
    // The handlers are there: a reader plugged in later is reported.
    stub.control("plug 00000002 Late");
    ASSERT_TRUE(waitUntil([&] { return heard.count == 1; }));
    EXPECT_EQ(heard.taken()[0], std::make_pair(1, std::string("USB:ReaderType=\"Late\":DeviceId=00000002")));
    EXPECT_EQ(TOVRA_UsbManagerStopDiscover(), 0);
    EXPECT_EQ(stub.callsWith("DelEventHandler"),
              (std::vector<std::string>{"DelEventHandler 0 event=1", "DelEventHandler 0 event=2"}));
}

TEST_F(UsbDiscovery, ReadersFoundAreReportedBeforeTheStartReturns)
{
    stub.control("device 0A1B2C3D Reader7");
    stub.control("device 1 Other");
    Heard heard;
    EXPECT_EQ(TOVRA_UsbManagerStartDiscover(&heard, onDiscovery), 2);
    const std::string first = "USB:ReaderType=\"Reader7\":DeviceId=0A1B2C3D";
    const std::string second = "USB:ReaderType=\"Other\":DeviceId=1"; // the library's text as it stands
    EXPECT_EQ(heard.taken(), (std::vector<std::pair<std::int32_t, std::string>>{{1, first}, {1, second}}));
    EXPECT_EQ(heard.threads, std::vector<std::thread::id>(2, std::this_thread::get_id()));
    EXPECT_STREQ(TOVRA_UsbManagerScanInfo(0), first.c_str());
    EXPECT_STREQ(TOVRA_UsbManagerScanInfo(1), second.c_str());
    EXPECT_EQ(TOVRA_UsbManagerScanInfo(2), nullptr);
    EXPECT_EQ(TOVRA_UsbManagerScanInfo(-1), nullptr);

    // Each start begins a new list.
    stub.control("reset");
    stub.control("device 0A1B2C3D Reader7");
    EXPECT_EQ(TOVRA_UsbManagerStartDiscover(&heard, onDiscovery), 1);
    EXPECT_EQ(TOVRA_UsbManagerStartDiscover(&heard, onDiscovery), 1);
    EXPECT_STREQ(TOVRA_UsbManagerScanInfo(0), first.c_str());
    EXPECT_EQ(TOVRA_UsbManagerScanInfo(1), nullptr);
}

TEST_F(UsbDiscovery, PlugAndUnplugComeOnTheLibrarysThread)
{
    Heard heard;
    ASSERT_EQ(TOVRA_UsbManagerStartDiscover(&heard, onDiscovery), 0);
    stub.control("unplug 00A1B2C3 X");
    stub.control("plug FFFFFFFF Y");
    ASSERT_TRUE(waitUntil([&] { return heard.count == 2; }));
    EXPECT_EQ(heard.taken(), (std::vector<std::pair<std::int32_t, std::string>>{
                                 {2, "USB:ReaderType=\"X\":DeviceId=00A1B2C3"},
                                 {1, "USB:ReaderType=\"Y\":DeviceId=FFFFFFFF"},
                             }));
    EXPECT_NE(heard.threads[0], std::this_thread::get_id());
    EXPECT_EQ(stub.callsWith("Scan 15 0").size(), 3u) << "each event rescans";

    // A second start replaces the callback.
    Heard other;
    ASSERT_EQ(TOVRA_UsbManagerStartDiscover(&other, onDiscovery), 0);
    stub.control("plug 3 Z");
    ASSERT_TRUE(waitUntil([&] { return other.count == 1; }));
    EXPECT_EQ(heard.count, 2);
}

TEST_F(UsbDiscovery, FailuresCarryTheLibrarysText)
{
    Heard heard;
    stub.control("fail Scan -1120");
    EXPECT_EQ(TOVRA_UsbManagerStartDiscover(&heard, onDiscovery), -1120);
    EXPECT_EQ(TOVRA_GetLastError(-1), -1120);
    EXPECT_STREQ(TOVRA_GetLastErrorText(-1), "STANDIN error -1120");
    EXPECT_EQ(stub.callsWith("AddEventHandler").size(), 0u);
    // A failed first registration leaves the second out.
    stub.control("fail AddEventHandler -1121");
    EXPECT_EQ(TOVRA_UsbManagerStartDiscover(&heard, onDiscovery), 0);
    EXPECT_EQ(TOVRA_GetLastError(-1), 0);
    EXPECT_EQ(stub.callsWith("AddEventHandler").size(), 1u);
}

TEST_F(UsbDiscovery, NothingArrivesAfterAStopReturns)
{
    stopWhileEventsPour(
        stub, "storm 00000001 R", [](Heard* heard) { return TOVRA_UsbManagerStartDiscover(heard, onDiscovery); },
        [] { return TOVRA_UsbManagerStopDiscover(); });

    // A stop from inside the callback is answered, not waited for.
    Heard heard;
    heard.stopInside = [] { return TOVRA_UsbManagerStopDiscover(); };
    ASSERT_EQ(TOVRA_UsbManagerStartDiscover(&heard, onDiscovery), 0);
    stub.control("plug 1 R");
    ASSERT_TRUE(waitUntil([&] { return heard.stopResult != 1; }));
    EXPECT_EQ(heard.stopResult, 0);
    stub.control("plug 2 R");
    ASSERT_TRUE(waitUntil([&] { return std::stoi(stub.control("fired")) == 2; }));
    EXPECT_EQ(heard.count, 1);
}

TEST_F(UsbDiscovery, CallsFromInsideTheCallbackCrossAnotherThreadsStopOrStart)
{
    crossCallsWithTheCallback<TOVRA_UsbManagerStartDiscover, TOVRA_UsbManagerStopDiscover>(stub, "storm 1 R");
}

// A reader found by the start is reported on the start's thread while the library's thread
// reports a plug: both callbacks stop at once, or start again and then stop. Neither may
// wait for the other for ever; one of them does the stop's work.
TEST_F(UsbDiscovery, TwoCallbacksOnTwoThreadsStopAtOnce)
{
    using Call = std::int32_t (*)(Crossing&);
    const Call stopping = [](Crossing&) { return TOVRA_UsbManagerStopDiscover(); };
    const Call restarting = [](Crossing& crossing) {
        const std::int32_t found = TOVRA_UsbManagerStartDiscover(&crossing, onCrossing);
        return found < 0 ? found : TOVRA_UsbManagerStopDiscover();
    };
    stub.control("device 00000007 Found");
    const int rounds = test::repeat(400);
    std::vector<Crossing> crossings(static_cast<std::size_t>(rounds));
    test::Watchdog watchdog("two stops from inside two callbacks");
    for (int round = 0; round < rounds; ++round) {
        Crossing& crossing = crossings[static_cast<std::size_t>(round)];
        crossing.callbacks = 2;
        crossing.inside = round % 2 == 0 ? stopping : restarting;
        crossing.lag = round % 5 * 25;
        // The storm begins once the start has added its handlers, before it reports.
        ASSERT_EQ(stub.control("storm 2 Plugged"), "ok");
        ASSERT_EQ(TOVRA_UsbManagerStartDiscover(&crossing, onCrossing), 1) << "round " << round;
        ASSERT_TRUE(waitUntil([&] { return crossing.insideDone == 2; })) << "round " << round;
        crossing.stopped = true;
        EXPECT_EQ(crossing.results(), (std::vector<std::int32_t>{0, 0})) << "round " << round;
        stub.control("calm");
        watchdog.moved();
    }
    for (Crossing& crossing : crossings) EXPECT_EQ(crossing.afterStop, 0);
}

TEST(UsbDiscoveryOld, TheMismatchIsExplainedByTheLibrary)
{
    StandIn stub("zkusb", "zkusb");
    ASSERT_TRUE(stub.loaded());
    stub.control("version 7.0.3");
    Heard heard;
    EXPECT_EQ(TOVRA_UsbManagerStartDiscover(&heard, onDiscovery), -5022);
    EXPECT_STREQ(TOVRA_GetLastErrorText(-1), "STANDIN error -5022");
    EXPECT_EQ(TOVRA_UsbManagerStopDiscover(), -5022);
    EXPECT_EQ(stub.calls(), "");
}

TEST(Usb2Discovery, EventsAreTakenFromTheLibraryAsTheyWait)
{
    StandIn stub("zkusb2", "zkusb2");
    ASSERT_TRUE(stub.loaded());
    Zkusb2Manager& manager = Zkusb2Manager::instance();
    EXPECT_EQ(manager.stopDiscover(), -5021) << "before any start";
    EXPECT_EQ(manager.lastErrorText(), std::string("TOVRA error: code=-5021: Cannot load plugin"));

    stub.control("device 0A1B2C3D Reader7");
    Heard heard;
    EXPECT_EQ(manager.startDiscover(&heard, onDiscovery), 1);
    ASSERT_TRUE(waitUntil([&] { return heard.count == 1; }));
    stub.control("event 3 1 Odd");
    stub.control("unplug 00A1B2C3 X");
    ASSERT_TRUE(waitUntil([&] { return heard.count == 2; }));
    EXPECT_EQ(heard.taken(), (std::vector<std::pair<std::int32_t, std::string>>{
                                 {1, "USB:ReaderType=\"Reader7\":DeviceId=0A1B2C3D"},
                                 {2, "USB:ReaderType=\"X\":DeviceId=00A1B2C3"},
                             }));
    stopWhileEventsPour(
        stub, "storm 1 R", [&](Heard* h) { return manager.startDiscover(h, onDiscovery); },
        [&] { return manager.stopDiscover(); });

    stub.control("fail StartScan -1230");
    EXPECT_EQ(manager.startDiscover(&heard, onDiscovery), -1230);
    EXPECT_EQ(manager.lastErrorText(), std::string("STANDIN error -1230"));
    manager.stopDiscover();
}

class BleDiscovery : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(stub.loaded());
        stub.control("reset");
    }
    void TearDown() override
    {
        TOVRA_BleManagerStopDiscover();
        stub.control("reset");
    }
    static StandIn& sharedStandIn()
    {
        static StandIn loaded("zkble", "zkble");
        return loaded;
    }
    StandIn& stub = sharedStandIn();
};

TEST_F(BleDiscovery, ReadersInRangeAndGone)
{
    Heard heard;
    ASSERT_EQ(TOVRA_BleManagerStartDiscover(&heard, onDiscovery), 0);
    EXPECT_EQ(stub.callsWith(""), (std::vector<std::string>{"RegisterScanCallback set", "StartScan"}));
    stub.control("event 1 103 00A1B2C3 00:11:22:33:44:55");
    stub.control("event 3 103 00A1B2C3 00:11:22:33:44:55");
    stub.control("event 2 7 1 -");
    // An address that fills its field leaves no room for the terminating zero.
    stub.control("event 1 5 2 !");
    ASSERT_TRUE(waitUntil([&] { return heard.count == 3; }));
    EXPECT_EQ(heard.taken(), (std::vector<std::pair<std::int32_t, std::string>>{
                                 {1, "BLE:ReaderType=103:DeviceId=00A1B2C3:MacAddress=\"00:11:22:33:44:55\""},
                                 {2, "BLE:ReaderType=7:DeviceId=00000001:MacAddress=\"\""},
                                 {1, "BLE:ReaderType=5:DeviceId=00000002:MacAddress=\"" + std::string(36, 'F') + "\""},
                             }));
    EXPECT_NE(heard.threads[0], std::this_thread::get_id());
    EXPECT_EQ(TOVRA_BleManagerStopDiscover(), 0);
    EXPECT_EQ(stub.callsWith("Stop").size() + stub.callsWith("clear").size(), 2u);
}

TEST_F(BleDiscovery, AStartWhileDiscoveringReplacesTheCallback)
{
    Heard first, second;
    ASSERT_EQ(TOVRA_BleManagerStartDiscover(&first, onDiscovery), 0);
    ASSERT_EQ(TOVRA_BleManagerStartDiscover(&second, onDiscovery), 0);
    EXPECT_EQ(stub.callsWith("RegisterScanCallback set").size(), 2u);
    stub.control("event 1 1 1 A");
    ASSERT_TRUE(waitUntil([&] { return second.count == 1; }));
    EXPECT_EQ(first.count, 0);

    stub.control("fail StartScan -1230");
    EXPECT_EQ(TOVRA_BleManagerStartDiscover(&first, onDiscovery), -1230);
    EXPECT_EQ(TOVRA_GetLastError(-2), -1230);
    EXPECT_STREQ(TOVRA_GetLastErrorText(-2), "STANDIN error -1230");
}

TEST_F(BleDiscovery, NothingArrivesAfterAStopReturns)
{
    stopWhileEventsPour(
        stub, "storm 1 1 AA", [](Heard* heard) { return TOVRA_BleManagerStartDiscover(heard, onDiscovery); },
        [] { return TOVRA_BleManagerStopDiscover(); });

    Heard heard;
    heard.stopInside = [] { return TOVRA_BleManagerStopDiscover(); };
    ASSERT_EQ(TOVRA_BleManagerStartDiscover(&heard, onDiscovery), 0);
    stub.control("event 1 1 1 A");
    ASSERT_TRUE(waitUntil([&] { return heard.stopResult != 1; }));
    EXPECT_EQ(heard.stopResult, 0);
}

TEST_F(BleDiscovery, CallsFromInsideTheCallbackCrossAnotherThreadsStopOrStart)
{
    crossCallsWithTheCallback<TOVRA_BleManagerStartDiscover, TOVRA_BleManagerStopDiscover>(stub, "storm 1 1 AA");
}

TEST(MissingDiscoveryLibraries, StopBeforeStartAndStartWithoutALibrary)
{
    EXPECT_EQ(TOVRA_UsbManagerStopDiscover(), -5021);
    EXPECT_EQ(TOVRA_BleManagerStopDiscover(), -5021);
    EXPECT_STREQ(TOVRA_GetLastErrorText(-1), "TOVRA error: code=-5021: Cannot load plugin");
    Heard heard;
    EXPECT_EQ(TOVRA_UsbManagerStartDiscover(&heard, onDiscovery), -5021);
    EXPECT_EQ(TOVRA_BleManagerStartDiscover(&heard, onDiscovery), -5021);
    EXPECT_EQ(TOVRA_GetLastError(-1), -5021);
    EXPECT_EQ(TOVRA_GetLastError(-2), -5021);
    EXPECT_STREQ(TOVRA_GetLastErrorText(-2), "TOVRA error: code=-5021: Cannot load plugin");
    EXPECT_EQ(TOVRA_UsbManagerScanInfo(0), nullptr);
}

TEST(PartialBleLibrary, ALibraryWithoutEveryEntryPointIsNotUsed)
{
    StandIn stub("zkble-partial", "zkble");
    ASSERT_TRUE(stub.loaded());
    Heard heard;
    EXPECT_EQ(TOVRA_BleManagerStartDiscover(&heard, onDiscovery), -5021);
    EXPECT_EQ(stub.calls(), "");
}

} // namespace
} // namespace tovra
