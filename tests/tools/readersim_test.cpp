#include "readersim/reader_sim.h"

#include "platform/net.h"

#include <gtest/gtest.h>

#include <chrono>
#include <algorithm>
#include <optional>
#include <string_view>
#include <thread>
#include <utility>

namespace tovra::readersim {
namespace {

namespace net = tovra::platform;
using Bytes = std::vector<std::uint8_t>;

constexpr milliseconds kPatience{10000};  // only reached when something is broken

Bytes pattern(std::size_t length, std::uint8_t first) {
    Bytes bytes(length);
    for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<std::uint8_t>(i * 7 + 3);
    bytes[0] = first;
    return bytes;
}

// A loopback peer built from the socket seam and the simulator's codec.
class RawPeer {
public:
    explicit RawPeer(net::SocketHandle socket) : socket_(socket) {}
    static RawPeer connectTo(std::uint16_t port) {
        net::SocketAddress address{};
        EXPECT_TRUE(net::parseNumericAddress("127.0.0.1", port, address));
        const net::SocketHandle s = net::openSocket(net::AddressFamily::ipv4, net::SocketKind::stream);
        EXPECT_EQ(net::connectSocket(s, address), 0);
        return RawPeer(s);
    }
    RawPeer(RawPeer&& other) noexcept : socket_(std::exchange(other.socket_, net::kInvalidSocket)) {}
    ~RawPeer() {
        if (socket_ != net::kInvalidSocket) net::closeSocket(socket_);
    }

    void send(const Bytes& bytes) {
        for (std::size_t done = 0; done < bytes.size();) {
            const auto sent = net::sendBytes(socket_, bytes.data() + done, bytes.size() - done);
            ASSERT_GT(sent, 0);
            done += static_cast<std::size_t>(sent);
        }
    }
    void send(const Frame& frame) { send(encode(frame)); }

    // The next whole frame, or a non-frame result when the stream ends first.
    Decoded receive(milliseconds timeout = kPatience) {
        for (;;) {
            Decoded decoded = decode(inbox_);
            if (decoded.status == Decoded::Status::frame) {
                inbox_.erase(inbox_.begin(), inbox_.begin() + static_cast<std::ptrdiff_t>(decoded.size));
                return decoded;
            }
            if (decoded.status == Decoded::Status::garbage || !fill(timeout)) return decoded;
        }
    }
    // Reads until the peer closes; true if it did within the time.
    bool closedByPeer() {
        while (fill(kPatience)) {
        }
        return ended_;
    }
    const Bytes& inbox() const { return inbox_; }

private:
    bool fill(milliseconds timeout) {
        if ((net::waitSocket(socket_, true, false, static_cast<int>(timeout.count())) & net::kWaitReadable) == 0) {
            return false;
        }
        std::uint8_t buffer[65536];
        const auto got = net::recvBytes(socket_, buffer, sizeof buffer);
        if (got <= 0) {
            ended_ = true;
            return false;
        }
        inbox_.insert(inbox_.end(), buffer, buffer + got);
        return true;
    }

    net::SocketHandle socket_;
    Bytes inbox_;
    bool ended_ = false;
};

TEST(ReaderSimCodec, CrcAndLayoutOfEachGeneration) {
    const std::string_view check = "123456789";
    EXPECT_EQ(crc16({reinterpret_cast<const std::uint8_t*>(check.data()), check.size()}), 0x6F91);

    const Bytes enhanced = encode({Generation::enhanced, 0xFF, 0x01, {0x65, 0x00}});
    ASSERT_EQ(enhanced.size(), 10U);
    EXPECT_EQ(Bytes(enhanced.begin(), enhanced.begin() + 8), (Bytes{0x03, 0x00, 0x0A, 0x00, 0x01, 0xFF, 0x65, 0x00}));
    const std::uint16_t crc = crc16({enhanced.data(), 8});
    EXPECT_EQ(enhanced[8], crc & 0xFF);
    EXPECT_EQ(enhanced[9], crc >> 8);

    EXPECT_EQ(Bytes(encode({Generation::advanced, 0x12, 0, {0x65}})).at(3), 0x12);
    EXPECT_EQ(encode({Generation::advanced, 0x12, 0, {0x65}}).size(), 7U);
    EXPECT_EQ(encode({Generation::standard, 0x12, 0, {0x65}})[0], 5);
}

TEST(ReaderSimCodec, RoundTripsUpToTheLimits) {
    for (Generation generation : {Generation::standard, Generation::advanced, Generation::enhanced}) {
        const std::size_t most = maxPayload(generation);
        for (std::size_t length : {std::size_t{1}, std::size_t{200}, most}) {
            const Frame frame{generation, 0x3C, generation == Generation::enhanced ? std::uint8_t{2} : std::uint8_t{0},
                              pattern(length, 0x42)};
            const Bytes bytes = encode(frame);
            ASSERT_FALSE(bytes.empty()) << length;
            const Decoded whole = decode(bytes);
            EXPECT_EQ(whole.status, Decoded::Status::frame);
            EXPECT_TRUE(whole.crcOk);
            EXPECT_EQ(whole.size, bytes.size());
            EXPECT_EQ(whole.frame, frame);
            EXPECT_EQ(decode(std::span(bytes).first(bytes.size() - 1)).status, Decoded::Status::incomplete);
        }
        EXPECT_TRUE(encode({generation, 0, 0, pattern(most + 1, 1)}).empty());
        EXPECT_TRUE(encode({generation, 0, 0, {}}).empty());
    }
    EXPECT_EQ(maxPayload(Generation::standard), 251U);
    EXPECT_EQ(maxPayload(Generation::enhanced), 32760U);

    Bytes corrupt = encode({Generation::advanced, 1, 0, {0x10, 0x20}});
    corrupt[4] ^= 0x01;
    EXPECT_FALSE(decode(corrupt).crcOk);
    for (const Bytes& junk : {Bytes{0x00, 9, 9}, Bytes{0x04, 0, 8}, Bytes{0x03, 0x80, 0x01, 0}, Bytes{0x02, 0, 6}}) {
        EXPECT_EQ(decode(junk).status, Decoded::Status::garbage);
    }
}

class ReaderSimServer : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(sim.listen()); }
    // Connected and being served (a previous connection may still be ending).
    RawPeer peer() {
        const std::size_t before = sim.connectionsAccepted();
        RawPeer p = RawPeer::connectTo(sim.port());
        EXPECT_TRUE(sim.waitForConnections(before + 1, kPatience));
        return p;
    }
    ReaderSim sim;
};

TEST_F(ReaderSimServer, EchoesInTheRequestsGeneration) {
    RawPeer client = peer();
    for (Generation generation : {Generation::standard, Generation::advanced, Generation::enhanced}) {
        for (std::size_t length : {std::size_t{1}, std::size_t{3}, maxPayload(generation)}) {
            const Bytes request = pattern(length, 0x21);
            client.send(Frame{generation, 0x07, kDirectionRequest, request});
            const Decoded reply = client.receive();
            ASSERT_EQ(reply.status, Decoded::Status::frame);
            EXPECT_TRUE(reply.crcOk);
            EXPECT_EQ(reply.frame.generation, generation);
            EXPECT_EQ(reply.frame.address, 0x07);
            EXPECT_EQ(reply.frame.flags, generation == Generation::enhanced ? kDirectionResponse : 0);
            Bytes expected{0x21, 0x00};
            expected.insert(expected.end(), request.begin() + 1, request.end());
            expected.resize(std::min(expected.size(), maxPayload(generation)));
            EXPECT_EQ(reply.frame.payload, expected) << length;
        }
    }
    EXPECT_EQ(sim.requestsSeen(), 9U);
    EXPECT_EQ(sim.received().back().frame.payload.size(), maxPayload(Generation::enhanced));
}

TEST_F(ReaderSimServer, ScriptedRepliesAndBadFrames) {
    sim.setReply(0x30, Reply::with({0xAA}, 0x84));
    sim.setReply(Bytes{0x30, 0x01}, Reply::payload({0x99}));
    sim.setReply(0x31, Reply::none());
    RawPeer client = peer();

    Bytes corrupt = encode({Generation::enhanced, 0, kDirectionRequest, {0x30}});
    corrupt.back() ^= 0x01;
    client.send(corrupt);  // never answered
    client.send(Frame{Generation::enhanced, 0, kDirectionRequest, {0x31}});  // silent
    client.send(Frame{Generation::enhanced, 0, kDirectionRequest, {0x30, 0x05}});
    client.send(Frame{Generation::enhanced, 0, kDirectionRequest, {0x30, 0x01}});
    EXPECT_EQ(client.receive().frame.payload, (Bytes{0x30, 0x84, 0xAA}));
    EXPECT_EQ(client.receive().frame.payload, (Bytes{0x99}));
    EXPECT_EQ(sim.badFrames(), 1U);
    EXPECT_EQ(sim.requestsSeen(), 3U);
}

TEST_F(ReaderSimServer, FaultsShapeTheResponse) {
    RawPeer client = peer();
    const Frame request{Generation::enhanced, 0x01, kDirectionRequest, {0x40, 0x02}};
    const auto exchange = [&](Fault fault) {
        sim.setFault(fault);
        client.send(request);
        return client.receive();
    };
    EXPECT_FALSE(exchange({.kind = FaultKind::badCrc}).crcOk);
    EXPECT_EQ(exchange({.kind = FaultKind::wrongGeneration}).frame.generation, Generation::advanced);
    EXPECT_EQ(exchange({.kind = FaultKind::noDirection}).frame.flags, 0x00);
    const Decoded trickled = exchange({.kind = FaultKind::trickle, .byteDelay = milliseconds(1)});
    EXPECT_EQ(trickled.frame.payload, (Bytes{0x40, 0x00, 0x02}));

    // A fault for one response only, then the echo again.
    sim.setFault({.kind = FaultKind::flood, .count = 1, .floodCount = 3});
    for (int i = 0; i < 5; ++i) client.send(request);
    for (int i = 0; i < 7; ++i) EXPECT_EQ(client.receive().frame.payload, (Bytes{0x40, 0x00, 0x02})) << i;

    sim.setFault({.kind = FaultKind::declaredLength, .declaredLength = 32769});
    client.send(request);
    EXPECT_EQ(client.receive().status, Decoded::Status::garbage);
    ASSERT_GE(client.inbox().size(), 3U);
    EXPECT_EQ(client.inbox()[1], 0x80);
    EXPECT_EQ(client.inbox()[2], 0x01);
}

}  // namespace
}  // namespace tovra::readersim
