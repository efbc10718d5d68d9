// Bluetooth readers through a stand-in ZKBLE library.
#include "api/error_codes.h"
#include "plugins/tovra_plugin_ble.h"
#include "support/bound_record.h"
#include "support/standin.h"
#include "tovra/tovra.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tovra {
namespace {

using test::StandIn;
using Bytes = std::vector<std::uint8_t>;

class BlePlugin : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(stub.loaded());
        stub.control("reset");
        reader = TOVRA_Create(2, nullptr);
    }
    void TearDown() override { TOVRA_Delete(reader); }

    // The connect calls of one connector, with the port handle written as "H".
    std::vector<std::string> connectCalls(const char* connector)
    {
        stub.control("reset");
        EXPECT_EQ(TOVRA_ConnectByHost(reader, connector), 0) << connector << ": " << TOVRA_GetLastErrorText(reader);
        std::vector<std::string> lines = stub.callsWith("");
        const std::string handle = " " + std::to_string(TOVRA_GetLowLevelPortHandle(reader)) + " ";
        for (std::string& line : lines)
            if (const auto at = line.find(handle); at != std::string::npos) line.replace(at, handle.size(), " H ");
        EXPECT_EQ(TOVRA_DisconnectByHost(reader), 0);
        return lines;
    }

    static StandIn& sharedStandIn()
    {
        static StandIn loaded("zkble", "zkble");
        return loaded;
    }
    StandIn& stub = sharedStandIn();
    std::int32_t reader = 0;
};

TEST_F(BlePlugin, TheSerialPortProfileIsSecureUnlessToldOtherwise)
{
    const struct {
        const char* connector;
        const char* connect;
    } cases[] = {
        {"bthspp:macaddress=\"00:11:22:33:44:55\"", "ConnectSpp 00:11:22:33:44:55 1"},
        {"bthspp:MacAddress=AA:secure=false", "ConnectSpp AA 0"},
        {"bthspp:macaddress=AA:secure=TRUE", "ConnectSpp AA 0"},
        {"bthspp:macaddress=AA:secure=false:secure=true", "ConnectSpp AA 1"},
        {"bthle:macaddress=AA:secure=false", "Connect AA"},
        // Section by section: a later one overrides an earlier one.
        {"bthle:bthspp:macaddress=A:macaddress=B", "ConnectSpp B 1"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(connectCalls(c.connector),
                  (std::vector<std::string>{c.connect, "PutParameter H timeout 300"}))
            << c.connector;
}

TEST_F(BlePlugin, WhatIsMissingIsRefusedBeforeAnyLibraryCall)
{
    for (const char* connector : {"bthle", "bthspp:secure=true", "bthle:macaddress="}) {
        EXPECT_EQ(TOVRA_ConnectByHost(reader, connector), -5003) << connector;
        EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "TOVRA error: code=-5003: Connection parameter error");
    }
    // Not reachable through a connector type, yet refused when given directly.
    test::BoundRecord bound;
    ConnectionRecord& record = bound.record;
    TovraPluginBle plugin(&record);
    EXPECT_EQ(plugin.pliConnect("tcp:macaddress=AA"), err::ConnectionParameter);
    EXPECT_EQ(stub.calls(), "");

    stub.control("fail Connect -1201");
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "bthle:macaddress=AA"), -1201);
    EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "STANDIN error -1201");
}

TEST_F(BlePlugin, RoundTripAndTheLibraryTimeOut)
{
    ASSERT_EQ(TOVRA_ConnectByHost(reader, "bthle:macaddress=AA"), 0) << TOVRA_GetLastErrorText(reader);
    Bytes response;
    ASSERT_EQ(test::scriptedExchange(reader, stub, {0x65, 0x42}, {0x65, 0x00, 0x42}, response), 0);
    EXPECT_EQ(response, (Bytes{0x65, 0x00, 0x42}));
    // A receive error ends nothing; it is the reader module's to judge.
    stub.control("fail Receive -1205");
    ASSERT_EQ(test::scriptedExchange(reader, stub, {0x66}, {0x66, 0x00}, response), 0);
    // The library's time-out only means "not yet": the application's timeout decides.
    ASSERT_EQ(TOVRA_SetReceiveTimeout(reader, 300), 0);
    stub.control("reset");
    EXPECT_EQ(test::scriptedExchange(reader, stub, {0x65}, {}, response), -5015);
}

TEST_F(BlePlugin, AnOldLibraryIsRefusedWithTheVersionsInvolved)
{
    stub.control("version 0.9.0");
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "bthle:macaddress=AA"), -5022);
    EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "ZKBLE version mismatch: required 01.00.00 - available 00.09.00");
    EXPECT_EQ(stub.calls(), "");
}

} // namespace
} // namespace tovra
