// Through the exported C functions. Handles are numbered per process, so each suite
// runs in a process of its own (see CMakeLists.txt).
#include "tovra/tovra.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr std::int32_t kInvalidHandle = -5002;

TEST(ReaderIdentity, HandlesCountFromOneAndAreNeverReused)
{
    EXPECT_EQ(TOVRA_NextReaderHandle(0), 0) << "no reader yet";
    EXPECT_EQ(TOVRA_Create(2, "tcp:IPAddress=127.0.0.1"), 1);
    EXPECT_EQ(TOVRA_Delete(1), 0);
    EXPECT_EQ(TOVRA_Create(2, nullptr), 2);
    EXPECT_EQ(TOVRA_Create(0, nullptr), 3);
    EXPECT_EQ(TOVRA_Create(INT32_MIN, nullptr), 4);
    EXPECT_EQ(TOVRA_Create(INT32_MAX, nullptr), 5);

    // A deleted handle answers nothing.
    EXPECT_EQ(TOVRA_Delete(1), kInvalidHandle);
    EXPECT_STREQ(TOVRA_GetConnector(1), "");
    EXPECT_STREQ(TOVRA_GetConnectionState(1), "");
    EXPECT_STREQ(TOVRA_GetLastErrorText(1), "");
    EXPECT_EQ(TOVRA_GetLastError(1), kInvalidHandle);
    EXPECT_EQ(TOVRA_Terminate(1), kInvalidHandle);
    EXPECT_EQ(TOVRA_ConnectByHost(1, "tcp:"), kInvalidHandle);
    EXPECT_EQ(TOVRA_DisconnectByHost(1), kInvalidHandle);
    EXPECT_EQ(TOVRA_Transceive(1, nullptr, 0, nullptr, nullptr), kInvalidHandle);
    EXPECT_EQ(TOVRA_StartListener(1, "tcp:"), kInvalidHandle);
    EXPECT_EQ(TOVRA_StopListener(1), kInvalidHandle);
    EXPECT_EQ(TOVRA_DetectSerial(1, nullptr), kInvalidHandle);
    EXPECT_EQ(TOVRA_SetReceiveTimeout(1, 10), kInvalidHandle);
    EXPECT_EQ(TOVRA_GetReceiveTimeout(1), kInvalidHandle);
    EXPECT_EQ(TOVRA_GetLowLevelPortHandle(1), kInvalidHandle);
    EXPECT_EQ(TOVRA_SetReaderConnectedCallbacks(1, nullptr, nullptr, nullptr), kInvalidHandle);
    EXPECT_EQ(TOVRA_SetReaderRequestCallback(1, nullptr, nullptr), kInvalidHandle);
    EXPECT_EQ(TOVRA_SetDetectSerialCallback(1, nullptr, nullptr), kInvalidHandle);
    EXPECT_EQ(TOVRA_SetAppLoggingCallback(1, nullptr, nullptr), kInvalidHandle);
    EXPECT_EQ(TOVRA_SetAppLoggingFilename(1, "x"), kInvalidHandle);
    EXPECT_EQ(TOVRA_SetAppLoggingUdpDestination(1, "127.0.0.1", 1), kInvalidHandle);
    EXPECT_EQ(TOVRA_AppendLogMessage(1, "x"), kInvalidHandle);

    // The managers' pseudo-handles answer like fresh managers.
    for (std::int32_t manager = -4; manager <= -1; ++manager) {
        EXPECT_EQ(TOVRA_GetLastError(manager), 0);
        EXPECT_STREQ(TOVRA_GetLastErrorText(manager), "");
    }
    EXPECT_EQ(TOVRA_GetLastError(-5), kInvalidHandle);

    // Enumeration in ascending order; a deleted reader under the cursor does not stop it.
    EXPECT_EQ(TOVRA_NextReaderHandle(0), 2);
    EXPECT_EQ(TOVRA_NextReaderHandle(1), 3);
    EXPECT_EQ(TOVRA_Delete(3), 0);
    EXPECT_EQ(TOVRA_NextReaderHandle(1), 4);
    EXPECT_EQ(TOVRA_NextReaderHandle(1), 5);
    EXPECT_EQ(TOVRA_NextReaderHandle(1), 0);
    EXPECT_EQ(TOVRA_NextReaderHandle(1), 0);
    for (std::int32_t handle : {2, 4, 5}) EXPECT_EQ(TOVRA_Delete(handle), 0);
    EXPECT_EQ(TOVRA_NextReaderHandle(0), 0);
}

TEST(ReaderModule, StateTextsConnectorsAndTimeouts)
{
    const std::int32_t one = TOVRA_Create(2, "tcp:IPAddress=127.0.0.1:Port=10001");
    const std::int32_t two = TOVRA_Create(7, nullptr);
    ASSERT_GT(one, 0);
    ASSERT_GT(two, 0);
    EXPECT_STREQ(TOVRA_GetConnectionState(one), "SingleCh=Discon");
    EXPECT_STREQ(TOVRA_GetConnectionState(two), "AppCh=Discon:RdrCh=Discon");
    EXPECT_STREQ(TOVRA_GetConnector(one), "tcp:IPAddress=127.0.0.1:Port=10001");
    EXPECT_STREQ(TOVRA_GetConnector(two), "");
    EXPECT_EQ(TOVRA_GetLowLevelPortHandle(one), -1);
    EXPECT_EQ(TOVRA_GetLastError(one), 0);
    EXPECT_STREQ(TOVRA_GetLastErrorText(one), "Ok, no error");

    EXPECT_EQ(TOVRA_GetReceiveTimeout(one), 5000);
    EXPECT_EQ(TOVRA_SetReceiveTimeout(one, 1234), 0);
    EXPECT_EQ(TOVRA_GetReceiveTimeout(one), 1234);
    EXPECT_EQ(TOVRA_SetReceiveTimeout(two, 77), 0);
    EXPECT_EQ(TOVRA_GetReceiveTimeout(two), 77);

    EXPECT_EQ(TOVRA_Delete(one), 0);
    EXPECT_EQ(TOVRA_Delete(two), 0);
}

TEST(ReaderModule, ConnectListenAndDetectErrorsCarryTheirTexts)
{
    const std::int32_t reader = TOVRA_Create(2, nullptr);
    ASSERT_GT(reader, 0);

    EXPECT_EQ(TOVRA_ConnectByHost(reader, nullptr), -5020) << "no connector at all";
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "serial:port=1"), -5020);
    EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "TOVRA error: code=-5020: Invalid plugin type");
    EXPECT_STREQ(TOVRA_GetConnector(reader), "serial:port=1");

    // A transport whose device library is not installed.
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "USB:Device=1"), -5021);
    EXPECT_EQ(TOVRA_GetLastError(reader), -5021);
    EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "TOVRA error: code=-5021: Cannot load plugin");

    // A plugin's own failure is explained by the plugin after it is gone.
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "TCP:IPAddress=127.0.0.1:Port=65536"), -1503);
    EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "TOVRA.TCP error -1503: Invalid port number");
    EXPECT_EQ(TOVRA_ConnectByHost(reader, "tcp:Port=1"), -5003);
    EXPECT_STREQ(TOVRA_GetConnectionState(reader), "SingleCh=Discon");

    std::uint8_t response[8];
    std::uint64_t responseLength = sizeof response;
    const std::uint8_t request[] = {0x65};
    EXPECT_EQ(TOVRA_Transceive(reader, request, sizeof request, response, &responseLength), -5018);
    EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "TOVRA error: code=-5018: Not connected");
    EXPECT_EQ(TOVRA_Transceive(reader, nullptr, 0, nullptr, nullptr), -5018);
    EXPECT_EQ(TOVRA_DisconnectByHost(reader), 0);

    EXPECT_EQ(TOVRA_StartListener(reader, nullptr), -5009);
    EXPECT_EQ(TOVRA_StartListener(reader, "usb:"), -5030);
    EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "TOVRA error: code=-5030: Invalid listener type");
    EXPECT_EQ(TOVRA_StartListener(reader, "gadget:"), -5021) << "no gadget library here";
    EXPECT_EQ(TOVRA_StartListener(reader, "gadget:"), -5021) << "a failed listener is not kept";
    EXPECT_EQ(TOVRA_StopListener(reader), 0);

    for (const char* bad : {static_cast<const char*>(nullptr), "usb:device=x", "com:baud=1", "", "\"com"})
        EXPECT_EQ(TOVRA_DetectSerial(reader, bad), -5005) << (bad ? bad : "null");
    EXPECT_STREQ(TOVRA_GetLastErrorText(reader), "TOVRA error: code=-5005: Detection parameter error");

    EXPECT_EQ(TOVRA_AppendLogMessage(reader, nullptr), -5010);
    EXPECT_EQ(TOVRA_AppendLogMessage(reader, "from the application"), 0);
    EXPECT_EQ(TOVRA_SetAppLoggingFilename(reader, nullptr), 0);
    EXPECT_EQ(TOVRA_SetAppLoggingUdpDestination(reader, nullptr, 0), 0);
    EXPECT_EQ(TOVRA_SetAppLoggingCallback(reader, nullptr, nullptr), 0);
    EXPECT_EQ(TOVRA_Delete(reader), 0);
}

TEST(ReaderModule, TerminateFromOtherThreadsWhileReadersComeAndGo)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 100; ++i) {
                const std::int32_t reader = TOVRA_Create(t % 2 == 0 ? 2 : 3, "usb:");
                ASSERT_GT(reader, 0);
                EXPECT_EQ(TOVRA_Terminate(reader), 0);
                EXPECT_EQ(TOVRA_ConnectByHost(reader, nullptr), -5021);
                EXPECT_EQ(TOVRA_Delete(reader), 0);
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(TOVRA_NextReaderHandle(0), 0);
}

} // namespace
