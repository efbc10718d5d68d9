#include "api/error_codes.h"
#include "logging/tovra_logger.h"
#include "protocol/tovra_transmit.h"
#include "reader/connection_record.h"
#include "support/scripted_plugin.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

namespace tovra {
namespace {

using test::ScriptedPlugin;

class TransmitPath : public ::testing::Test {
protected:
    void SetUp() override
    {
        record.bind(nullptr, logger, 9);
        record.setName("SingleCh");
        record.createHelpers();
        auto owned = std::make_unique<ScriptedPlugin>(&record);
        plugin = owned.get();
        record.adoptPlugin(std::move(owned));
        record.setPortHandle(1);
    }

    std::unique_ptr<ProtocolFrame> frameWith(std::uint8_t command)
    {
        auto frame = std::make_unique<ProtocolFrame>();
        const std::uint8_t payload[] = {command, 0x00, 0x42};
        EXPECT_TRUE(buildFrame(*frame, payload, sizeof payload, 3, kDirectionResponse, 0xFF));
        return frame;
    }

    TovraLogger logger{9};
    ConnectionRecord record;
    ScriptedPlugin* plugin = nullptr;
    std::unique_ptr<ProtocolFrame> received = std::make_unique<ProtocolFrame>();
};

TEST_F(TransmitPath, ConcurrentSendersEachGetWholeFramesThrough)
{
    constexpr int kThreads = 6;
    constexpr int kFrames = 150;
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&, t] {
            auto frame = std::make_unique<ProtocolFrame>();
            std::vector<std::uint8_t> payload(100 + static_cast<std::size_t>(t) * 300, static_cast<std::uint8_t>(t));
            ASSERT_TRUE(buildFrame(*frame, payload.data(), payload.size(), 3, kDirectionRequest, 0xFF));
            for (int i = 0; i < kFrames; ++i) EXPECT_EQ(record.transmit().transmitProtocol(*frame), 0);
        });
    }
    for (auto& sender : senders) sender.join();

    EXPECT_FALSE(plugin->overlapped());
    const auto sent = plugin->sent();
    ASSERT_EQ(sent.size(), static_cast<std::size_t>(kThreads * kFrames));
    auto check = std::make_unique<ProtocolFrame>();
    for (const auto& bytes : sent) {
        std::copy(bytes.begin(), bytes.end(), check->bytes.begin());
        check->length = bytes.size();
        EXPECT_TRUE(isValidFrame(*check));
    }
}

TEST_F(TransmitPath, ReceivePollsUntilAWholeFrameArrives)
{
    const auto frame = frameWith(0x65);
    plugin->queueCode(err::ReceivePending);
    plugin->queueCode(err::ReceivePending);
    plugin->queueFrame(*frame);
    record.receive().setReceiveTimeout(0);
    EXPECT_EQ(record.receive().receiveProtocol(*received), 0);
    EXPECT_EQ(received->length, frame->length);
    EXPECT_EQ(received->commandCode(), 0x65);
    EXPECT_EQ(plugin->receiveCalls(), 3);
}

TEST_F(TransmitPath, ErrorsAndBadFramesComeBackAsCodes)
{
    plugin->queueCode(err::DisconnectedByPeer);
    EXPECT_EQ(record.receive().receiveProtocol(*received), err::DisconnectedByPeer);

    plugin->queueCode(-1521);
    EXPECT_EQ(record.receive().receiveProtocol(*received), -1521);

    plugin->queueCode(0); // zero bytes: an empty frame fails the check
    EXPECT_EQ(record.receive().receiveProtocol(*received), err::InvalidFrame);
    EXPECT_TRUE(received->empty());

    auto corrupt = frameWith(0x65);
    corrupt->bytes[corrupt->length - 1] ^= 0xFF;
    plugin->queueFrame(*corrupt);
    EXPECT_EQ(record.receive().receiveProtocol(*received), err::InvalidFrame);
    EXPECT_EQ(received->length, corrupt->length) << "the frame stays in the buffer";
}

TEST_F(TransmitPath, DeadlineEndsTheWaitAfterAtLeastOnePoll)
{
    record.receive().setReceiveTimeout(1);
    EXPECT_EQ(record.receive().receiveProtocol(*received), err::ReceiveTimeout);
    EXPECT_GE(plugin->receiveCalls(), 1);
}

TEST_F(TransmitPath, AbortFromAnotherThreadEndsAnUnlimitedWait)
{
    record.receive().setReceiveTimeout(0);
    std::thread aborter([&] {
        while (plugin->receiveCalls() < 50) std::this_thread::yield();
        record.receive().abort();
    });
    EXPECT_EQ(record.receive().receiveProtocol(*received), err::Terminated);
    aborter.join();

    // An abort that comes before a receive starts is forgotten.
    record.receive().abort();
    plugin->queueFrame(*frameWith(0x66));
    EXPECT_EQ(record.receive().receiveProtocol(*received), 0);
}

TEST_F(TransmitPath, WithoutAPluginNothingIsSentOrReceived)
{
    record.adoptPlugin(nullptr);
    EXPECT_EQ(record.transmit().transmitProtocol(*frameWith(0x65)), err::NotConnected);
    EXPECT_EQ(record.receive().receiveProtocol(*received), err::NotConnected);
}

} // namespace
} // namespace tovra
