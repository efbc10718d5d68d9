// Readers on the USB gadget transport through a stand-in gadget library. The library is
// loaded once per process, so each suite runs in a process of its own (see
// CMakeLists.txt). Windows has no gadget library: there only the refusal is tested.
#include "platform/dynlib.h"
#include "support/standin.h"
#include "support/wait.h"
#include "tovra/tovra.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using tovra::test::StandIn;
using tovra::test::waitUntil;
using Bytes = std::vector<std::uint8_t>;

#if defined(_WIN32)
constexpr bool kGadgetLibraryHere = false;
#else
constexpr bool kGadgetLibraryHere = true;
#endif
constexpr const char* kNoGadgetLibrary = "Windows has no gadget library; NoGadgetLibrary tests its refusal";

struct Connections {
    std::mutex lock;
    std::vector<std::string> texts;
    std::atomic<int> disconnected{0};

    std::size_t count()
    {
        std::lock_guard guard(lock);
        return texts.size();
    }
};

void TOVRA_CALL onConnected(std::int32_t, void* context, const char* text)
{
    auto& c = *static_cast<Connections*>(context);
    std::lock_guard guard(c.lock);
    c.texts.emplace_back(text);
}

void TOVRA_CALL onDisconnected(std::int32_t, void* context) { ++static_cast<Connections*>(context)->disconnected; }

class GadgetTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!kGadgetLibraryHere) GTEST_SKIP() << kNoGadgetLibrary;
        // Loaded by the first test of the suite, before any gadget plugin loads the library.
        static StandIn loaded("zkgadget", "zkgadget");
        stub = &loaded;
        ASSERT_TRUE(stub->loaded());
        stub->control("reset");
        reader = makeReader(2);
    }
    void TearDown() override
    {
        for (const std::int32_t module : modules) EXPECT_EQ(TOVRA_Delete(module), 0);
    }

    std::int32_t makeReader(std::int32_t kind)
    {
        const std::int32_t module = TOVRA_Create(kind, nullptr);
        modules.push_back(module);
        EXPECT_EQ(TOVRA_SetReaderConnectedCallbacks(module, &connections, onConnected, onDisconnected), 0);
        return module;
    }

    std::string state(std::int32_t module) { return TOVRA_GetConnectionState(module); }

    // A round trip through the connected one-port module.
    void roundTrip()
    {
        Bytes response;
        ASSERT_EQ(tovra::test::scriptedExchange(reader, *stub, {0x65, 0x42}, {0x65, 0x00, 0x42}, response), 0)
            << TOVRA_GetLastErrorText(reader);
        EXPECT_EQ(response, (Bytes{0x65, 0x00, 0x42}));
        EXPECT_EQ(stub->callsWith("Transmit").size(), 1u);
        EXPECT_FALSE(stub->callsWith("Receive").empty());
    }

    StandIn* stub = nullptr;
    Connections connections;
    std::vector<std::int32_t> modules;
    std::int32_t reader = 0;
};

using GadgetPlugin = GadgetTest;
using GadgetListener = GadgetTest;

TEST_F(GadgetPlugin, AHostConfiguresTheGadgetAndLeavingEndsTheConnection)
{
    const char* connector = "gadget:vid=0x1234:pid=0x5678";
    std::atomic<std::int32_t> connected{1};
    std::thread connecting([&] { connected = TOVRA_ConnectByHost(reader, connector); });
    const bool started = waitUntil([&] { return !stub->callsWith("StartGadget").empty(); });
    stub->control("host attach");
    connecting.join();
    ASSERT_TRUE(started);
    ASSERT_EQ(connected.load(), 0) << TOVRA_GetLastErrorText(reader);
    EXPECT_EQ(stub->calls(), "StartGadget gadget:vid=0x1234:pid=0x5678\n") << "the connector is the configuration";
    EXPECT_EQ(TOVRA_GetLowLevelPortHandle(reader), 0);
    EXPECT_EQ(state(reader), "SingleCh=Con");
    roundTrip();

    // The host leaves: the reader module ends the connection as a reader's leaving.
    stub->control("host detach");
    ASSERT_TRUE(waitUntil([&] { return connections.disconnected.load() == 1; }));
    ASSERT_TRUE(waitUntil([&] { return state(reader) == "SingleCh=Discon"; }));
    EXPECT_EQ(stub->callsWith("StopGadget").size(), 1u);

    // A host that is there already configures the next start; the application's own
    // disconnect stops the gadget too, and is no leaving.
    stub->control("host attach");
    ASSERT_EQ(TOVRA_ConnectByHost(reader, connector), 0) << TOVRA_GetLastErrorText(reader);
    EXPECT_EQ(TOVRA_DisconnectByHost(reader), 0);
    EXPECT_EQ(stub->callsWith("StopGadget").size(), 2u);
    EXPECT_EQ(state(reader), "SingleCh=Discon");
    EXPECT_EQ(connections.disconnected.load(), 1);
}

TEST_F(GadgetPlugin, AGadgetThatNoHostConfiguresIsStoppedAgain)
{
    // No host within the bounded wait.
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "gadget:"), -5004);
    EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "TOVRA error: code=-5004: Reader module connect failed");
    EXPECT_EQ(state(reader), "SingleCh=Discon");
    EXPECT_EQ(stub->calls(), "StartGadget gadget:\nStopGadget\n");

    // The library's own failures: starting leaves nothing to stop, waiting does.
    stub->control("reset");
    stub->control("fail StartGadget -1305");
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "gadget:"), -1305);
    EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "STANDIN error -1305");
    EXPECT_EQ(stub->calls(), "StartGadget gadget:\n");

    stub->control("reset");
    stub->control("fail GetStatus -1306");
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "gadget:"), -1306);
    EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "STANDIN error -1306");
    EXPECT_EQ(stub->calls(), "StartGadget gadget:\nStopGadget\n");
    EXPECT_EQ(state(reader), "SingleCh=Discon");
}

TEST_F(GadgetListener, AHostAttachingConnectsTheReader)
{
    for (const std::int32_t kind : {2, 3}) {
        SCOPED_TRACE(kind);
        stub->control("reset");
        {
            std::lock_guard guard(connections.lock);
            connections.texts.clear();
        }
        const std::int32_t module = kind == 2 ? reader : makeReader(kind);
        ASSERT_EQ(TOVRA_StartListener(module, "gadget:serial=7"), 0) << TOVRA_GetLastErrorText(module);
        EXPECT_EQ(TOVRA_StartListener(module, "gadget:"), -5008);
        EXPECT_EQ(stub->calls(), "StartGadget gadget:serial=7\n");

        stub->control("host attach");
        ASSERT_TRUE(waitUntil([&] { return connections.count() == 1; }));
        EXPECT_EQ(connections.texts[0], "GADGET from host connection");
        if (kind == 2) {
            EXPECT_EQ(state(module), "SingleCh=Con");
            roundTrip();
        } else {
            EXPECT_EQ(state(module), "AppCh=Discon:RdrCh=Con");
        }
        EXPECT_EQ(stub->callsWith("StartGadget").size(), 1u) << "the accepted gadget is not started again";

        EXPECT_EQ(TOVRA_StopListener(module), 0);
        EXPECT_EQ(state(module), kind == 2 ? "SingleCh=Discon" : "AppCh=Discon:RdrCh=Discon");
        EXPECT_EQ(stub->callsWith("StopGadget").size(), 1u);
    }
}

TEST_F(GadgetListener, StoppingBeforeAHostCameStopsTheGadget)
{
    ASSERT_EQ(TOVRA_StartListener(reader, "gadget:"), 0) << TOVRA_GetLastErrorText(reader);
    EXPECT_EQ(TOVRA_StopListener(reader), 0);
    EXPECT_EQ(stub->calls(), "StartGadget gadget:\nStopGadget\n");
    // The gadget can be started again.
    ASSERT_EQ(TOVRA_StartListener(reader, "gadget:"), 0) << TOVRA_GetLastErrorText(reader);
    EXPECT_EQ(TOVRA_StopListener(reader), 0);
    EXPECT_EQ(stub->callsWith("StopGadget").size(), 2u);
    EXPECT_EQ(connections.count(), 0u);

    // A listener still waiting when its module goes away stops the gadget as well.
    stub->control("reset");
    const std::int32_t module = TOVRA_Create(3, nullptr);
    ASSERT_EQ(TOVRA_StartListener(module, "gadget:"), 0) << TOVRA_GetLastErrorText(module);
    EXPECT_EQ(TOVRA_Delete(module), 0);
    EXPECT_EQ(stub->calls(), "StartGadget gadget:\nStopGadget\n");
}

TEST_F(GadgetListener, TheHostLeavingEndsTheAcceptedConnection)
{
    stub->control("host attach");
    ASSERT_EQ(TOVRA_StartListener(reader, "gadget:"), 0) << TOVRA_GetLastErrorText(reader);
    ASSERT_TRUE(waitUntil([&] { return connections.count() == 1; }));
    stub->control("host detach");
    ASSERT_TRUE(waitUntil([&] { return connections.disconnected.load() == 1; }));
    ASSERT_TRUE(waitUntil([&] { return state(reader) == "SingleCh=Discon"; }));
    EXPECT_EQ(stub->callsWith("StopGadget").size(), 1u);
    // The connection stopped the gadget it was handed; the listener has nothing left to stop.
    EXPECT_EQ(TOVRA_StopListener(reader), 0);
    EXPECT_EQ(stub->callsWith("StopGadget").size(), 1u);
}

TEST(OldGadgetLibrary, IsRefusedWithTheVersionsInvolved)
{
    if (!kGadgetLibraryHere) GTEST_SKIP() << kNoGadgetLibrary;
    StandIn stub("zkgadget", "zkgadget");
    ASSERT_TRUE(stub.loaded());
    stub.control("version 0.1.9");
    const std::int32_t reader = TOVRA_Create(2, nullptr);
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "gadget:"), -5022);
    EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "ZKGADGET version mismatch: required 00.02.00 - available 00.01.09");
    EXPECT_EQ(TOVRA_StartListener(reader, "gadget:"), -5022);
    EXPECT_EQ(stub.calls(), "") << "nothing is called on a library that is too old";
    // The process keeps what its one load found: a library shared by every reader is
    // never loaded again under them.
    stub.control("version 0.2.0");
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "gadget:"), -5022);
    EXPECT_EQ(TOVRA_Delete(reader), 0);
}

TEST(NoGadgetLibrary, ConnectAndListenAreRefused)
{
    if (kGadgetLibraryHere) {
        if (const auto found = tovra::platform::loadLibrary(tovra::platform::libraryFileName("zkgadget").c_str())) {
            tovra::platform::unloadLibrary(found);
            GTEST_SKIP() << "a gadget library is on the search path";
        }
    }
    const std::int32_t reader = TOVRA_Create(2, nullptr);
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "gadget:"), -5021);
    EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "TOVRA error: code=-5021: Cannot load plugin");
    EXPECT_EQ(TOVRA_StartListener(reader, "gadget:"), -5021);
    EXPECT_STREQ(TOVRA_GetConnectionState(reader), "SingleCh=Discon");
    EXPECT_EQ(TOVRA_Delete(reader), 0);
}

} // namespace
