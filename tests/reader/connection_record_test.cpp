#include "api/error_codes.h"
#include "logging/tovra_logger.h"
#include "reader/claim_guard.h"
#include "reader/connection_record.h"
#include "reader/connector.h"
#include "support/scripted_plugin.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace tovra {
namespace {

using test::ScriptedPlugin;

TEST(Connector, SectionNameSelectsTheTypeInAnyCase)
{
    EXPECT_EQ(connectorType("tcp:"), kConnectorTcp);
    EXPECT_EQ(connectorType("TCP:IPAddress=127.0.0.1:Port=10001"), kConnectorTcp);
    EXPECT_EQ(connectorType("COM:Device=COM3:BusAddress=3"), kConnectorCom);
    EXPECT_EQ(connectorType(" usb : x=1"), kConnectorUsb);
    EXPECT_EQ(connectorType("bthspp:x=1"), connectorType("BthLE"));
    EXPECT_EQ(connectorType("cust"), kConnectorCust);
    EXPECT_EQ(connectorType("gadget"), kConnectorGadget);
    for (const char* odd : {"", ":tcp", "tcpx", "[tcp]", "\"tcp\"", "t\"c\"p", "=tcp"})
        EXPECT_EQ(connectorType(odd), kConnectorNone) << odd;
    EXPECT_EQ(connectorType(nullptr), kConnectorNone);
}

class Record : public ::testing::Test {
protected:
    void SetUp() override
    {
        record.bind(nullptr, logger, 3);
        record.setName("SingleCh");
        record.createHelpers();
    }

    ScriptedPlugin* adoptScripted(const std::string& text = "SCRIPTED error")
    {
        auto plugin = std::make_unique<ScriptedPlugin>(&record, text);
        ScriptedPlugin* raw = plugin.get();
        record.adoptPlugin(std::move(plugin));
        return raw;
    }

    TovraLogger logger{3};
    ConnectionRecord record;
};

TEST_F(Record, ErrorTextRuleWithAndWithoutAPlugin)
{
    EXPECT_STREQ(record.errorText(0), "Ok, no error");
    EXPECT_STREQ(record.errorText(err::NotConnected), "TOVRA error: code=-5018: Not connected");
    EXPECT_STREQ(record.errorText(-5014), "TOVRA error: code=-5014: ---");
    EXPECT_STREQ(record.errorText(-4999), "Plugin error -4999");
    EXPECT_STREQ(record.errorText(-6000), "Plugin error -6000");
    EXPECT_STREQ(record.errorText(err::PluginVersionMismatch), "Plugin error -5022");

    adoptScripted();
    EXPECT_STREQ(record.errorText(err::PluginVersionMismatch), "SCRIPTED error -5022") << "left to the plugin";
    EXPECT_STREQ(record.errorText(-1510), "SCRIPTED error -1510");
    EXPECT_STREQ(record.errorText(err::ReceiveTimeout), "TOVRA error: code=-5015: Receive timeout");
}

TEST_F(Record, AReleasedPluginStillExplainsItsLastError)
{
    ScriptedPlugin* plugin = adoptScripted("TOVRA.TCP error");
    plugin->failNextConnect(-1510);
    EXPECT_EQ(plugin->pliConnect("tcp:"), -1510);
    record.releasePlugin();
    EXPECT_EQ(record.plugin(), nullptr);
    EXPECT_STREQ(record.errorText(-1510), "TOVRA.TCP error -1510");
    EXPECT_STREQ(record.errorText(-1504), "Plugin error -1504");

    // Making the next plugin forgets the cached error.
    record.setConnector("nothing:");
    EXPECT_EQ(record.createPlugin(nullptr), err::InvalidPluginType);
    EXPECT_STREQ(record.errorText(-1510), "Plugin error -1510");
}

TEST_F(Record, FactoryAndConnectorReplacement)
{
    record.setConnector("tcp:IPAddress=127.0.0.1");
    EXPECT_EQ(record.createPlugin(nullptr), 0);
    ASSERT_NE(record.plugin(), nullptr);
    EXPECT_EQ(record.plugin()->kind(), kConnectorTcp);

    EXPECT_EQ(record.createPlugin("BTHSPP:x=1"), 0);
    EXPECT_EQ(record.plugin()->kind(), kConnectorBle);
    EXPECT_EQ(record.connector(), "BTHSPP:x=1");
    EXPECT_EQ(record.createPlugin("gadget:"), 0);
    EXPECT_EQ(record.plugin()->kind(), kConnectorGadget);

    EXPECT_EQ(record.createListener(nullptr), err::ListenerParameter);
    EXPECT_EQ(record.createListener("usb:"), err::InvalidListenerType);
    EXPECT_EQ(record.createListener("Tcp:Port=1"), 0);
    EXPECT_EQ(record.createListener("tcp:Port=1"), err::ListenerRunning);
    record.destroyListener();
    EXPECT_EQ(record.listener(), nullptr);
}

TEST(ClaimGuardRace, OneOfManyClaimersWins)
{
    for (int round = 0; round < 50; ++round) {
        ClaimGuard guard;
        std::atomic<int> winners{0};
        std::atomic<bool> go{false};
        std::vector<std::thread> claimers;
        for (int i = 0; i < 4; ++i)
            claimers.emplace_back([&] {
                while (!go.load()) std::this_thread::yield();
                if (guard.tryClaim()) ++winners;
            });
        go.store(true);
        for (auto& claimer : claimers) claimer.join();
        EXPECT_EQ(winners.load(), 1);
        guard.free();
        EXPECT_TRUE(guard.tryClaim());
    }
}

} // namespace
} // namespace tovra
