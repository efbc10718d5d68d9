// USB readers through stand-in ZKUSB and ZKUSB2 libraries. Which library a process loads
// first is the one it keeps: each suite runs in a process of its own.
#include "api/error_codes.h"
#include "devlibs/device_libraries.h"
#include "plugins/tovra_plugin_usb.h"
#include "support/bound_record.h"
#include "support/standin.h"
#include "tovra/tovra.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tovra {
namespace {

using test::hexOf;
using test::StandIn;
using Bytes = std::vector<std::uint8_t>;

// A frame of the two-byte length layouts, `length` bytes in all.
Bytes frameOf(std::size_t length, std::uint8_t fill)
{
    Bytes frame(length, fill);
    frame[0] = 0x02;
    frame[1] = static_cast<std::uint8_t>(length >> 8);
    frame[2] = static_cast<std::uint8_t>(length & 0xFF);
    return frame;
}

std::string chunk(const Bytes& bytes) { return "frame " + hexOf(bytes.data(), bytes.size()); }

Bytes operator+(Bytes a, const Bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Loaded by the first test that needs it, not at start-up: other suites of this program
// must not find it.
StandIn& standIn(const char* folder, const char* base)
{
    static StandIn loaded(folder, base);
    return loaded;
}

// A plugin used directly, to see each receive's own result.
template <typename Plugin>
class DirectPlugin : public ::testing::Test {
protected:
    explicit DirectPlugin(const char* base) : stub(standIn(base, base)) {}
    void SetUp() override
    {
        ASSERT_TRUE(stub.loaded());
        stub.control("reset");
        plugin = std::make_unique<Plugin>(&record);
        handle = plugin->pliConnect("usb:deviceid=1");
        ASSERT_GE(handle, 0);
    }
    Bytes receive(std::size_t size = ProtocolFrame::maxLength)
    {
        Bytes buffer(size);
        result = plugin->pliReceive(handle, buffer.data(), buffer.size());
        buffer.resize(result > 0 ? static_cast<std::size_t>(result) : 0);
        return buffer;
    }

    StandIn& stub;
    test::BoundRecord bound;
    ConnectionRecord& record = bound.record;
    std::unique_ptr<Plugin> plugin;
    std::int32_t handle = -1;
    std::int32_t result = 0;
};

class UsbFrames : public DirectPlugin<TovraPluginUsb> {
protected:
    UsbFrames() : DirectPlugin("zkusb") {}
};

TEST_F(UsbFrames, EachReceiveReadsBeforeItLooksAtWhatIsQueued)
{
    const Bytes first = frameOf(10, 0x11), second = frameOf(12, 0x22), third = frameOf(5, 0x33);
    stub.control(chunk(first + second));
    EXPECT_EQ(receive(), first);
    // The second frame is whole in the queue, but this read times out first.
    EXPECT_EQ(receive(), Bytes{});
    EXPECT_EQ(result, err::ReceivePending);
    // Once a read brings something, the queued frame comes out; the new bytes wait.
    stub.control(chunk(Bytes(third.begin(), third.begin() + 2)));
    EXPECT_EQ(receive(), second);
    stub.control(chunk(Bytes(third.begin() + 2, third.end())));
    EXPECT_EQ(receive(), third);
    EXPECT_EQ(plugin->pliGetLastError(handle), 0);
    EXPECT_EQ(stub.callsWith("Receive").front(), "Receive " + std::to_string(handle) + " QEMA-RCI2 32768");
}

TEST_F(UsbFrames, AFrameLongerThanTheCallersBufferIsNeverHandedOut)
{
    const Bytes large = frameOf(20, 0x44), small = frameOf(5, 0x55);
    stub.control(chunk(large));
    // The device cuts its delivery to the buffer; the rest comes with the next read.
    EXPECT_EQ(receive(16), Bytes{});
    EXPECT_EQ(result, err::ReceivePending);
    EXPECT_EQ(stub.callsWith("Receive").size(), 2u);
    // A larger buffer takes it, after the next read.
    stub.control(chunk(small));
    EXPECT_EQ(receive(64), large);
    stub.control(chunk(frameOf(3, 0x56)));
    EXPECT_EQ(receive(), small);
}

TEST_F(UsbFrames, LengthsNoFrameCanHaveHoldNothingUp)
{
    // One that no buffer takes waits for ever; one below any frame's size is dropped.
    for (const Bytes& bad : {Bytes{0x02, 0x00, 0x01, 0x00}, Bytes{0x02, 0xFF, 0xFF, 0x00}}) {
        stub.control(chunk(bad));
        EXPECT_EQ(receive(), Bytes{});
        EXPECT_EQ(result, err::ReceivePending);
    }
    // Behind a stuck length, the queue starts over before it grows past what frames need.
    const Bytes filler(32768, 0x00), frame = frameOf(7, 0x57);
    for (int i = 0; i < 4; ++i) {
        stub.control(chunk(filler));
        EXPECT_EQ(receive(), Bytes{});
    }
    stub.control(chunk(frame));
    EXPECT_EQ(receive(), frame);

    // A disconnect empties it too.
    stub.control(chunk(Bytes{0x02, 0xFF, 0xFF}));
    EXPECT_EQ(receive(), Bytes{});
    EXPECT_EQ(plugin->pliDisconnect(handle), 0);
    handle = plugin->pliConnect("usb");
    stub.control(chunk(frame));
    EXPECT_EQ(receive(), frame);
}

TEST_F(UsbFrames, CountsTheDeviceGetsWrongStayInsideTheBuffers)
{
    const Bytes frame = frameOf(10, 0x66);
    // More than was asked: no more than the buffer held is counted.
    for (const char* count : {"count 100", "count 2147483647"}) {
        stub.control(chunk(frame));
        stub.control(count);
        EXPECT_EQ(receive(64), frame) << count;
        // What it claimed beyond the frame starts no frame: dropped, with what came behind it.
        stub.control(chunk(frame));
        EXPECT_EQ(receive(64), Bytes{}) << count;
    }
    stub.control(chunk(frame));
    stub.control("count -7");
    EXPECT_EQ(receive(), Bytes{});
    EXPECT_EQ(result, -7);
    EXPECT_EQ(plugin->pliGetLastError(handle), -7);
    EXPECT_STREQ(plugin->pliGetErrorText(-7), "STANDIN error -7");
}

TEST_F(UsbFrames, TransmitResultsAreKeptAndParametersAreNotPassedOn)
{
    const std::uint8_t data[] = {1, 2, 3};
    stub.control("fail Transmit -1150");
    EXPECT_EQ(plugin->pliTransmit(handle, data, sizeof data), -1150);
    EXPECT_EQ(plugin->pliGetLastError(handle), -1150);
    std::string value;
    EXPECT_EQ(plugin->pliPutParam(handle, "TIMEOUT", "500"), err::NotImplemented);
    EXPECT_EQ(plugin->pliGetParam(handle, "TIMEOUT", value), err::NotImplemented);
    EXPECT_EQ(plugin->pliGetLastError(handle), -1150) << "-5024 is not kept";
    EXPECT_EQ(plugin->pliTransmit(handle, data, sizeof data), 0);
    EXPECT_EQ(plugin->pliGetLastError(handle), 0) << "a success is kept too";
    EXPECT_EQ(stub.callsWith("DevicePara"), std::vector<std::string>{"SetDevicePara " + std::to_string(handle) +
                                                                     " TIMEOUT 300"});
    EXPECT_STREQ(plugin->pliGetVersion(), "7.1.0");

    stub.control("fail CloseDevice -1160");
    EXPECT_EQ(plugin->pliDisconnect(handle), -1160);
    EXPECT_EQ(plugin->pliDisconnect(handle), 0);
}

class UsbPlugin : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(stub.loaded());
        stub.control("reset");
        reader = TOVRA_Create(2, nullptr);
    }
    void TearDown() override { TOVRA_Delete(reader); }

    StandIn& stub = standIn("zkusb", "zkusb");
    std::int32_t reader = 0;
};

TEST_F(UsbPlugin, DeviceIdsAreHexadecimal)
{
    const struct {
        const char* connector;
        const char* opened;
    } cases[] = {
        {"usb:deviceid=1A2B3C4D", "OpenDevice 1A2B3C4D"},
        {"usb:DeviceId=00a1b2c3", "OpenDevice 00A1B2C3"},
        {"usb", "OpenDevice 00000000"},
        {"usb:deviceid=zz", "OpenDevice 00000000"},
        {"usb:deviceid=1A2B3C4D5", "OpenDevice A2B3C4D5"},
    };
    for (const auto& c : cases) {
        stub.control("reset");
        ASSERT_EQ(TOVRA_ConnectByHost(reader, c.connector), 0) << c.connector;
        EXPECT_EQ(stub.callsWith("OpenDevice"), std::vector<std::string>{c.opened}) << c.connector;
        EXPECT_EQ(TOVRA_DisconnectByHost(reader), 0);
        EXPECT_EQ(stub.callsWith("CloseDevice").size(), 1u);
    }
    stub.control("fail OpenDevice -1101");
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "usb:deviceid=5"), -1101);
    EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "STANDIN error -1101");
}

TEST_F(UsbPlugin, RoundTripThroughTheInterfaceByName)
{
    ASSERT_EQ(TOVRA_ConnectByHost(reader, "usb:deviceid=7"), 0) << TOVRA_GetLastErrorText(reader);
    Bytes response;
    ASSERT_EQ(test::scriptedExchange(reader, stub, {0x65, 0x42}, {0x65, 0x00, 0x42}, response), 0);
    EXPECT_EQ(response, (Bytes{0x65, 0x00, 0x42}));
    const std::string handle = std::to_string(TOVRA_GetLowLevelPortHandle(reader));
    ASSERT_EQ(stub.callsWith("Transmit").size(), 1u);
    EXPECT_EQ(stub.callsWith("Transmit")[0].rfind("Transmit " + handle + " QEMA-RCI2 ", 0), 0u);

    // The library's time-out only means "not yet": the application's timeout decides.
    ASSERT_EQ(TOVRA_SetReceiveTimeout(reader, 300), 0);
    stub.control("reset");
    EXPECT_EQ(test::scriptedExchange(reader, stub, {0x65}, {}, response), -5015);
}

TEST_F(UsbPlugin, AnOldLibraryIsRefusedWithTheVersionsInvolved)
{
    stub.control("version 7.0.3");
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "usb:deviceid=1"), -5022);
    EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "ZKUSB version mismatch: required 07.01.00 - available 07.00.03");
    EXPECT_EQ(stub.calls(), "");
}

class Usb2Frames : public DirectPlugin<TovraPluginUsb2> {
protected:
    Usb2Frames() : DirectPlugin("zkusb2") {}
};

TEST_F(Usb2Frames, WholeFramesAsTheLibraryDeliversThem)
{
    const Bytes frame = frameOf(12, 0x77);
    stub.control(chunk(frame));
    EXPECT_EQ(receive(), frame);
    EXPECT_EQ(receive(), Bytes{});
    EXPECT_EQ(result, err::ReceivePending) << "0 is the library's time-out";
    // A frame the buffer cannot take is the library's error; a count beyond the buffer is cut.
    stub.control(chunk(frameOf(40, 0x78)));
    EXPECT_EQ(receive(16), Bytes{});
    EXPECT_LT(result, 0);
    EXPECT_NE(result, err::ReceivePending);
    stub.control(chunk(frame));
    stub.control("count 5000");
    EXPECT_EQ(receive(16).size(), 16u);
    EXPECT_EQ(stub.callsWith("PutParameter"), std::vector<std::string>{"PutParameter " + std::to_string(handle) +
                                                                       " receive-timeout 300"});
    EXPECT_EQ(stub.callsWith("OpenDevice"), std::vector<std::string>{"OpenDevice 00000001"});
    EXPECT_EQ(plugin->pliPutParam(handle, "a", "b"), err::NotImplemented);
    EXPECT_EQ(plugin->pliDisconnect(handle), 0);
}

TEST(NoUsbLibrary, EverySlotAnswersCannotLoad)
{
    ZkusbLibrary library;
    if (library.load()) GTEST_SKIP() << "a ZKUSB library is installed here";
    test::BoundRecord bound;
    ConnectionRecord& record = bound.record;
    std::unique_ptr<TovraPlugin> plugins[] = {std::make_unique<TovraPluginUsb>(&record),
                                              std::make_unique<TovraPluginUsb2>(&record)};
    for (const auto& plugin : plugins) {
        std::uint8_t buffer[8] = {};
        std::string value;
        EXPECT_EQ(plugin->pliConnect("usb"), err::CannotLoadPlugin);
        EXPECT_EQ(plugin->pliTransmit(0, buffer, sizeof buffer), err::CannotLoadPlugin);
        EXPECT_EQ(plugin->pliReceive(0, buffer, sizeof buffer), err::CannotLoadPlugin);
        EXPECT_EQ(plugin->pliPutParam(0, "a", "b"), err::CannotLoadPlugin);
        EXPECT_EQ(plugin->pliGetParam(0, "a", value), err::CannotLoadPlugin);
        EXPECT_EQ(plugin->pliDisconnect(0), err::CannotLoadPlugin);
        EXPECT_STREQ(plugin->pliGetErrorText(err::CannotLoadPlugin), "");
        EXPECT_STREQ(plugin->pliGetVersion(), "");
    }
    const std::int32_t reader = TOVRA_Create(3, nullptr);
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "usb:deviceid=1"), -5021);
    EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "TOVRA error: code=-5021: Cannot load plugin");
    EXPECT_EQ(TOVRA_Delete(reader), 0);
}

TEST(PartialUsbLibrary, ALibraryWithoutEveryEntryPointIsNotUsed)
{
    StandIn& stub = standIn("zkusb-partial", "zkusb");
    ASSERT_TRUE(stub.loaded());
    ZkusbLibrary library;
    EXPECT_FALSE(library.load());
    EXPECT_EQ(library.statusText(), "ZKUSB_DelEventHandler");
    const std::int32_t reader = TOVRA_Create(2, nullptr);
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "usb:deviceid=1"), -5021);
    EXPECT_EQ(stub.calls(), "");
    EXPECT_EQ(TOVRA_Delete(reader), 0);
}

} // namespace
} // namespace tovra
