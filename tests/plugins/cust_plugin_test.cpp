// Readers behind a transport library the application brings: the example virtual reader,
// and a stand-in that records what it is asked.
#include "api/error_codes.h"
#include "plugins/tovra_plugin_cust.h"
#include "support/bound_record.h"
#include "support/standin.h"
#include "tovra/tovra.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tovra {
namespace {

using test::responseHex;
using test::StandIn;
using Bytes = std::vector<std::uint8_t>;

const std::string kVirtualReader = TOVRA_VIRTUAL_READER;

std::string standInPath(const char* folder)
{
    return std::string(TOVRA_STANDIN_DIR) + "/" + folder + "/" + platform::libraryFileName("custstandin");
}

class CustPlugin : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(stub.loaded());
        stub.control("reset");
    }
    std::int32_t transceive(std::int32_t reader, const Bytes& request, Bytes& response)
    {
        response.assign(32768, 0);
        std::uint64_t length = response.size();
        const std::int32_t result = TOVRA_Transceive(reader, request.data(), request.size(), response.data(), &length);
        response.resize(result == 0 ? static_cast<std::size_t>(length) : 0);
        return result;
    }

    StandIn stub{"cust", "custstandin"};
    const std::string connector = "cust:libname=" + standInPath("cust") + ":extra=1";
};

TEST_F(CustPlugin, TheVirtualReaderAnswersLikeAReader)
{
    for (std::int32_t kind : {2, 3}) {
        const std::int32_t reader = TOVRA_Create(kind, nullptr);
        ASSERT_EQ(TOVRA_ConnectByHost(reader, ("cust:libname=" + kVirtualReader).c_str()), 0)
            << TOVRA_GetLastErrorText(reader);
        Bytes response;
        for (std::size_t size : {std::size_t{1}, std::size_t{300}, std::size_t{32000}}) {
            Bytes request(size, 0x5A);
            request[0] = 0x65;
            ASSERT_EQ(transceive(reader, request, response), 0) << size << ": " << TOVRA_GetLastErrorText(reader);
            ASSERT_EQ(response.size(), size + 1);
            EXPECT_EQ(response[1], 0x00);
            EXPECT_EQ(Bytes(response.begin() + 2, response.end()), Bytes(request.begin() + 1, request.end()));
        }
        EXPECT_EQ(TOVRA_DisconnectByHost(reader), 0);
        EXPECT_EQ(TOVRA_Delete(reader), 0);
    }
    // Its own wait running out is a time-out, not an error: the application's timeout decides.
    const std::int32_t reader = TOVRA_Create(2, nullptr);
    ASSERT_EQ(TOVRA_ConnectByHost(reader, ("cust:libname=" + kVirtualReader + ":delay=2000").c_str()), 0);
    ASSERT_EQ(TOVRA_SetReceiveTimeout(reader, 400), 0);
    Bytes response;
    EXPECT_EQ(transceive(reader, {0x65}, response), -5015);
    EXPECT_EQ(TOVRA_Delete(reader), 0);
}

TEST_F(CustPlugin, WhatCannotBeLoadedIsRefused)
{
    const std::int32_t reader = TOVRA_Create(2, nullptr);
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "cust:library=x"), -5003);
    EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "TOVRA error: code=-5003: Connection parameter error");
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "cust:libname=/no/such/transport"), -5021);
    EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "TOVRA error: code=-5021: Cannot load plugin");
    // All eight entry points or none: the seven of this one are not enough.
    EXPECT_EQ(TOVRA_ConnectByHost(reader, ("cust:libname=" + standInPath("cust-partial")).c_str()), -5021);
    EXPECT_EQ(TOVRA_Delete(reader), 0);

    test::BoundRecord bound;
    ConnectionRecord& record = bound.record;
    TovraPluginCust plugin(&record);
    std::uint8_t buffer[8] = {};
    std::string value;
    EXPECT_EQ(plugin.pliTransmit(0, buffer, sizeof buffer), err::CannotLoadPlugin);
    EXPECT_EQ(plugin.pliReceive(0, buffer, sizeof buffer), err::CannotLoadPlugin);
    EXPECT_EQ(plugin.pliDisconnect(0), err::CannotLoadPlugin);
    EXPECT_EQ(plugin.pliPutParam(0, "a", "b"), err::CannotLoadPlugin);
    EXPECT_EQ(plugin.pliGetParam(0, "a", value), err::CannotLoadPlugin);
    EXPECT_STREQ(plugin.pliGetErrorText(-9001), "");
    EXPECT_STREQ(plugin.pliGetVersion(), "");
}

TEST_F(CustPlugin, EachSlotGoesToItsEntryPoint)
{
    test::BoundRecord bound;
    ConnectionRecord& record = bound.record;
    TovraPluginCust plugin(&record);
    const std::int32_t handle = plugin.pliConnect(connector.c_str());
    ASSERT_GE(handle, 0);
    EXPECT_EQ(stub.calls(), "Connect " + connector + "\n") << "the whole connector, as given";
    EXPECT_STREQ(plugin.pliGetVersion(), "1.0.0");

    // A transmit's result is kept whatever its sign.
    const std::uint8_t data[] = {1, 2, 3};
    EXPECT_EQ(plugin.pliTransmit(handle, data, sizeof data), 0);
    stub.control("fail Transmit -9100");
    EXPECT_EQ(plugin.pliTransmit(handle, data, sizeof data), -9100);
    EXPECT_EQ(plugin.pliGetLastError(handle), -9100);
    EXPECT_STREQ(plugin.pliGetErrorText(-9100), "STANDIN error -9100");

    // The library's time-out is no error; parameters are not passed on.
    std::uint8_t buffer[64];
    EXPECT_EQ(plugin.pliReceive(handle, buffer, sizeof buffer), err::ReceivePending);
    std::string value;
    EXPECT_EQ(plugin.pliPutParam(handle, "a", "b"), err::NotImplemented);
    EXPECT_EQ(plugin.pliGetParam(handle, "a", value), err::NotImplemented);
    EXPECT_EQ(plugin.pliGetLastError(handle), -9100);
    EXPECT_TRUE(stub.callsWith("PortParameter").empty());

    stub.control("frame " + responseHex({0x65, 0x00}));
    EXPECT_EQ(plugin.pliReceive(handle, buffer, sizeof buffer), 10);
    stub.control("fail Receive -9101");
    stub.control("frame " + responseHex({0x65, 0x00}));
    EXPECT_EQ(plugin.pliReceive(handle, buffer, sizeof buffer), -9101);

    EXPECT_EQ(plugin.pliDisconnect(handle), 0);
    stub.control("fail Disconnect -9102");
    EXPECT_EQ(plugin.pliDisconnect(handle), -9102);

    // A second connect loads the library again.
    EXPECT_GE(plugin.pliConnect(connector.c_str()), 0);
    stub.control("fail Connect -9103");
    EXPECT_EQ(plugin.pliConnect(connector.c_str()), -9103);
    EXPECT_EQ(plugin.pliGetLastError(0), -9103);
}

} // namespace
} // namespace tovra
