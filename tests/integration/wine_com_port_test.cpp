// A Windows program under wine talking to a simulated reader through a COM port that wine
// maps to the simulator's pseudo-terminal (see wine_com_port.sh).
#include "platform/env.h"
#include "tovra/tovra.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

void TOVRA_CALL onCandidate(std::int32_t, void* context, const char* candidate)
{
    static_cast<std::vector<std::string>*>(context)->emplace_back(candidate);
}

TEST(WineComPort, DetectionFindsTheReaderAndTheLineCarriesLargeFrames)
{
    const auto port = tovra::platform::getEnv("TOVRA_TEST_COM_PORT");
    ASSERT_TRUE(port.has_value()) << "TOVRA_TEST_COM_PORT names the mapped port";
    const std::int32_t reader = TOVRA_Create(2, nullptr);
    // At the reader's own settings first.
    ASSERT_EQ(TOVRA_ConnectByHost(reader, ("com:Device=" + *port + ":Baud=9600:Frame=8E1").c_str()), 0)
        << TOVRA_GetLastErrorText(reader);
    const std::uint8_t probe[] = {0x52, 0x00};
    std::uint8_t answer[32];
    for (int i = 0; i < 3; ++i) {
        std::uint64_t length = sizeof answer;
        EXPECT_EQ(TOVRA_Transceive(reader, probe, sizeof probe, answer, &length), 0) << TOVRA_GetLastErrorText(reader);
    }
    EXPECT_EQ(TOVRA_DisconnectByHost(reader), 0);

    std::vector<std::string> tried;
    ASSERT_EQ(TOVRA_SetDetectSerialCallback(reader, &tried, onCandidate), 0);
    ASSERT_EQ(TOVRA_DetectSerial(reader, ("COM:Device=" + *port + ":DetectDelay=0").c_str()), 0)
        << TOVRA_GetLastErrorText(reader);
    EXPECT_EQ(tried.size(), 16u) << "9600 8E1 is the sixteenth candidate";
    EXPECT_EQ(TOVRA_GetConnector(reader), "COM:Device=" + *port + ":BusAddress=255:Baud=9600:Frame=8E1");

    for (std::size_t length : {std::size_t{1}, std::size_t{300}, std::size_t{8000}, std::size_t{32759}}) {
        std::vector<std::uint8_t> request(length, 0x5A);
        request[0] = 0x65;
        std::vector<std::uint8_t> response(32768);
        std::uint64_t got = response.size();
        ASSERT_EQ(TOVRA_Transceive(reader, request.data(), request.size(), response.data(), &got), 0)
            << length << ": " << TOVRA_GetLastErrorText(reader);
        EXPECT_EQ(got, length + 1) << length;
    }
    EXPECT_EQ(TOVRA_Delete(reader), 0);
}

} // namespace
