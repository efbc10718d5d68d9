#include "protocol/frame_dump.h"
#include "frame_helpers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

namespace tovra {
namespace {

using test::build;
using test::payloadOf;

std::unique_ptr<ProtocolFrame> frameOf(const std::vector<std::uint8_t>& payload,
                                       std::uint8_t generation, std::uint8_t direction = 1)
{
    auto frame = std::make_unique<ProtocolFrame>();
    EXPECT_TRUE(build(*frame, payload, generation, direction, 0xFF));
    return frame;
}

TEST(FrameHex, BarsFrameThePayload)
{
    const auto frame = frameOf({0x65, 0x00}, 3, 0x01);
    EXPECT_EQ(frameToHex(*frame), " 03 00 0A 00 01 FF|65 00|F7 1E");
    EXPECT_EQ(payloadToHex(*frame), " 65 00");

    // Length 8 with header 6: the payload start and the CRC start coincide.
    const auto tiny = std::make_unique<ProtocolFrame>();
    ASSERT_TRUE(hexToFrame(*tiny, "03 00 08 00 02 01 AA BB"));
    const std::string dump = frameToHex(*tiny);
    EXPECT_EQ(dump, " 03 00 08 00 02 01|AA BB");
}

TEST(FrameHex, DumpsReadBackForAllGenerationsAtTheirLimits)
{
    for (const auto& [generation, maxPayload] :
         {std::pair<std::uint8_t, std::size_t>{0, 251}, {2, 32762}, {3, 32760}}) {
        for (std::size_t length : {std::size_t{1}, maxPayload}) {
            const auto frame = frameOf(payloadOf(length), generation);
            auto back = std::make_unique<ProtocolFrame>();
            ASSERT_TRUE(hexToFrame(*back, frameToHex(*frame)));
            ASSERT_EQ(back->length, frame->length);
            EXPECT_TRUE(std::equal(frame->bytes.begin(), frame->bytes.begin() + frame->usedLength(),
                                   back->bytes.begin()));
            EXPECT_TRUE(isValidFrame(*back));
            EXPECT_EQ(payloadToHex(*frame).size(), length * 3);
        }
    }
}

TEST(FrameHex, ParsingSkipsSeparatorsAndRejectsBadPairs)
{
    auto frame = std::make_unique<ProtocolFrame>();
    EXPECT_TRUE(hexToFrame(*frame, " 0a|Bc\n\t12 "));
    ASSERT_EQ(frame->length, 3u);
    EXPECT_EQ(frame->bytes[0], 0x0A);
    EXPECT_EQ(frame->bytes[1], 0xBC);

    for (const char* bad : {"0A 1", "0A G1", "0 A", "##", "0x0A"}) {
        EXPECT_FALSE(hexToFrame(*frame, bad)) << bad;
        EXPECT_TRUE(frame->empty()) << bad;
    }
    EXPECT_TRUE(hexToFrame(*frame, ""));
    EXPECT_TRUE(frame->empty());

    // Stops silently once the buffer is full.
    std::string huge;
    for (std::size_t i = 0; i < ProtocolFrame::maxLength + 10; ++i) huge += "7E";
    huge += "ZZ";
    EXPECT_TRUE(hexToFrame(*frame, huge));
    EXPECT_EQ(frame->length, ProtocolFrame::maxLength);
}

struct MaskCase {
    std::vector<std::uint8_t> payload;
    std::size_t maskedFrom; // payload position; payload size means "nothing masked"
};

class FrameMasking : public ::testing::TestWithParam<MaskCase> {};

TEST_P(FrameMasking, FullDumpHidesTheSensitiveBytes)
{
    const MaskCase c = GetParam();
    const auto frame = frameOf(c.payload, 3);
    const std::string dump = frameToHex(*frame);
    const std::size_t header = 6;
    for (std::size_t i = 0; i < c.payload.size(); ++i) {
        const std::string printed = dump.substr((header + i) * 3 + 1, 2);
        if (i >= c.maskedFrom) EXPECT_EQ(printed, "##") << i;
        else EXPECT_NE(printed, "##") << i;
    }
    EXPECT_EQ(dump.find("##", (header + c.payload.size()) * 3), std::string::npos) << "CRC never masked";
}

INSTANTIATE_TEST_SUITE_P(
    Commands, FrameMasking,
    ::testing::Values(MaskCase{{0xA0, 1, 2, 3}, 1}, MaskCase{{0xA1, 1, 2, 3}, 2},
                      MaskCase{{0xA2, 1, 2, 3, 4}, 3}, MaskCase{{0xA3, 1, 2, 3, 4, 5, 6}, 5},
                      MaskCase{{0xA4, 1, 2, 3}, 3}, MaskCase{{0xAD, 1, 2, 3, 4, 5}, 4},
                      MaskCase{{0xB2, 0xB0, 0x00, 3, 4, 5, 6}, 5},
                      MaskCase{{0xB2, 0x01, 0x08, 3, 4, 5, 6}, 5},
                      MaskCase{{0xB2, 0x01, 0x00, 3, 4, 5, 6}, 7},
                      MaskCase{{0x65, 1, 2, 3}, 4}));

TEST(FrameMasking, MaskedPayloadDumpTakesLeadingBytesFromTheFrameStart)
{
    const auto frame = frameOf({0xA1, 0x11, 0x22, 0x33}, 3);
    // Positions 0 and 1 print frame bytes 0 and 1 (the header), not the payload.
    EXPECT_EQ(payloadToHex(*frame), " 03 00 ## ##");

    const auto plain = frameOf({0x65, 0x11, 0x22}, 3);
    EXPECT_EQ(payloadToHex(*plain), " 65 11 22");
}

TEST(FrameDumpRecords, HeadersAndBodies)
{
    const auto request = frameOf({0x65, 0x13}, 3, kDirectionRequest);
    EXPECT_EQ(frameDumpHeader(7, "SingleCh", *request, true), " RH=7 SingleCh:Enh:Req");
    EXPECT_EQ(frameDumpHeader(7, "SingleCh", *request, false), " RH=7 SingleCh");
    EXPECT_EQ(frameDumpBody(DumpDirection::Send, *request, false), "  >>   65 13");
    EXPECT_EQ(frameDumpBody(DumpDirection::Receive, *request, false), "  <<   65 13  Login request");

    const auto standard = frameOf({0x65, 0x12}, 0);
    EXPECT_EQ(frameDumpHeader(1, "AppCh", *standard, true), " RH=1 AppCh:Std");
    const std::string body = frameDumpBody(DumpDirection::Receive, *standard, true);
    EXPECT_EQ(body.rfind("  <<   06 FF|65 12|", 0), 0u);
    EXPECT_EQ(body.substr(body.size() - 20), "  Reader status 0x12");

    auto broken = std::make_unique<ProtocolFrame>(*standard);
    broken->bytes[5] ^= 0xFF;
    EXPECT_EQ(frameDumpBody(DumpDirection::Receive, *broken, false),
              "  <<  INVALID PROTOCOL  65 12  Reader status 0x12");
}

} // namespace
} // namespace tovra
