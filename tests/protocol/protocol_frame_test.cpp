#include "protocol/crc16.h"
#include "protocol/protocol_frame.h"
#include "frame_helpers.h"

#include <gtest/gtest.h>

#include <memory>
#include <string_view>

namespace tovra {
namespace {

using test::build;
using test::payloadOf;

TEST(Crc16, CheckValueAndTable)
{
    constexpr std::string_view check = "123456789";
    constexpr std::uint8_t bytes[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    static_assert(crc16(bytes, sizeof bytes) == 0x6F91); // computed at compile time too
    EXPECT_EQ(crc16(reinterpret_cast<const std::uint8_t*>(check.data()), check.size()), 0x6F91);
    EXPECT_EQ(detail::kCrcTable[1], 0x1189);
    EXPECT_EQ(detail::kCrcTable[128], 0x8408);
}

struct Boundary {
    std::uint8_t generation;
    std::size_t header;
    std::size_t maxPayload;
};

class FrameBoundaries : public ::testing::TestWithParam<Boundary> {};

TEST_P(FrameBoundaries, BuildCheckAndReadBackAtTheLimits)
{
    const Boundary b = GetParam();
    auto frame = std::make_unique<ProtocolFrame>();
    for (std::size_t length : {std::size_t{1}, std::size_t{2}, b.maxPayload - 1, b.maxPayload}) {
        const auto payload = payloadOf(length, 0xB0);
        ASSERT_TRUE(build(*frame, payload, b.generation, kDirectionResponse, 0x42)) << length;
        EXPECT_EQ(frame->length, length + b.header + 2);
        EXPECT_TRUE(isValidFrame(*frame));
        EXPECT_EQ(frame->declaredLength(), frame->length);
        EXPECT_EQ(frame->headerSize(), b.header);
        EXPECT_EQ(frame->busAddress(), 0x42);
        EXPECT_EQ(frame->commandCode(), 0xB0);
        const auto p = frame->payload();
        ASSERT_EQ(p.size(), length);
        EXPECT_TRUE(std::equal(p.begin(), p.end(), payload.begin()));
        const std::uint16_t crc = crc16(frame->bytes.data(), frame->length - 2);
        EXPECT_EQ(frame->bytes[frame->length - 2], crc & 0xFF); // low byte first
    }
    // One byte more does not fit and leaves the frame cleared.
    EXPECT_FALSE(build(*frame, payloadOf(b.maxPayload + 1), b.generation));
    EXPECT_EQ(frame->length, 0u);
    EXPECT_EQ(frame->bytes[0], 0);
}

INSTANTIATE_TEST_SUITE_P(AllGenerations, FrameBoundaries,
                         ::testing::Values(Boundary{0, 2, 251}, Boundary{2, 4, 32762},
                                           Boundary{3, 6, 32760}));

TEST(FrameBuild, RejectsEmptyPayloadsAndUnknownGenerations)
{
    auto frame = std::make_unique<ProtocolFrame>();
    const auto payload = payloadOf(4);
    EXPECT_FALSE(buildFrame(*frame, payload.data(), 0, 2, 1, 0));
    EXPECT_FALSE(buildFrame(*frame, nullptr, 4, 2, 1, 0));
    for (int generation : {1, 4, 5, 0xFF}) EXPECT_FALSE(build(*frame, payload, static_cast<std::uint8_t>(generation)));
    EXPECT_FALSE(buildFrame(*frame, payload.data(), UINT64_MAX - 2, 3, 1, 0));
    EXPECT_TRUE(frame->empty());
}

TEST(FrameBuild, EnhancedLayoutAndDirection)
{
    auto frame = std::make_unique<ProtocolFrame>();
    ASSERT_TRUE(build(*frame, {0x65, 0x00}, 3, kDirectionRequest | kDirectionResponse, 0xFF));
    const std::uint8_t expected[] = {0x03, 0x00, 0x0A, 0x00, 0x03, 0xFF, 0x65, 0x00};
    EXPECT_TRUE(std::equal(std::begin(expected), std::end(expected), frame->bytes.begin()));
    EXPECT_EQ(frame->directionLabel(), "Req"); // request wins when both bits are set
    EXPECT_EQ(frame->generationLabel(), "Enh");
    EXPECT_EQ(frame->status(), 0x00);

    ASSERT_TRUE(build(*frame, {0x65, 0x00}, 3, kDirectionResponse));
    EXPECT_EQ(frame->directionLabel(), "Rsp");
    ASSERT_TRUE(build(*frame, {0x65, 0x00}, 3, 0));
    EXPECT_EQ(frame->directionLabel(), "");
    ASSERT_TRUE(build(*frame, {0x65, 0x00}, 2, kDirectionRequest));
    EXPECT_EQ(frame->directionFlags(), 0);
    EXPECT_EQ(frame->generationLabel(), "Adv");
}

TEST(FrameCheck, RejectsDisagreeingLengthsAndCorruption)
{
    auto frame = std::make_unique<ProtocolFrame>();
    ASSERT_TRUE(build(*frame, payloadOf(10), 2));

    auto copy = std::make_unique<ProtocolFrame>(*frame);
    copy->bytes[7] ^= 0x01;
    EXPECT_FALSE(isValidFrame(*copy)) << "payload bit flip";

    *copy = *frame;
    copy->length -= 1;
    EXPECT_FALSE(isValidFrame(*copy)) << "buffer shorter than declared";

    *copy = *frame;
    copy->length = ProtocolFrame::maxLength * 4;
    EXPECT_FALSE(isValidFrame(*copy)) << "count beyond the buffer";

    *copy = *frame;
    copy->bytes[1] = 0xFF; // declares 65535 bytes
    copy->bytes[2] = 0xFF;
    EXPECT_EQ(copy->storedCrc(), 0);
    EXPECT_FALSE(isValidFrame(*copy));

    *copy = *frame;
    copy->bytes[0] = 0x00;
    EXPECT_FALSE(isValidFrame(*copy)) << "first byte 0 is never valid";
    copy->clear();
    EXPECT_FALSE(isValidFrame(*copy));
}

TEST(FrameCheck, UnknownGenerationsHaveNoHeaderButCanBeValid)
{
    for (std::uint8_t first : {std::uint8_t{0x01}, std::uint8_t{0x04}}) {
        auto frame = std::make_unique<ProtocolFrame>();
        const std::uint8_t head[] = {first, 0x00, 0x06, 0x77};
        std::copy(std::begin(head), std::end(head), frame->bytes.begin());
        const std::uint16_t crc = crc16(frame->bytes.data(), 4);
        frame->bytes[4] = static_cast<std::uint8_t>(crc);
        frame->bytes[5] = static_cast<std::uint8_t>(crc >> 8);
        frame->length = 6;
        EXPECT_EQ(frame->headerSize(), 0u);
        EXPECT_EQ(frame->commandCode(), first);
        EXPECT_EQ(frame->busAddress(), 0x00);
        EXPECT_EQ(frame->declaredLength(), 6u);
        EXPECT_EQ(frame->generationLabel(), "");
        EXPECT_TRUE(isValidFrame(*frame));
    }
}

TEST(FrameCheck, TinyFramesNeverReadOutsideTheBuffer)
{
    auto frame = std::make_unique<ProtocolFrame>();
    frame->bytes = {};
    frame->bytes[0] = 0x02;
    frame->bytes[2] = 0x01; // declares one byte
    frame->length = 1;
    EXPECT_FALSE(isValidFrame(*frame));
    EXPECT_EQ(frame->storedCrc(), 0);
    EXPECT_TRUE(frame->payload().empty());
}

} // namespace
} // namespace tovra
