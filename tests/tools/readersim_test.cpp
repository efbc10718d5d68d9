#include "readersim/reader_sim.h"

#include "platform/net.h"
#include "platform/pty.h"

#include <gtest/gtest.h>

#include <chrono>
#include <algorithm>
#include <functional>
#include <optional>
#include <string_view>
#include <thread>
#include <utility>

namespace tovra::readersim {
namespace {

namespace net = tovra::platform;
using Bytes = std::vector<std::uint8_t>;

constexpr milliseconds kPatience{10000};  // only reached when something is broken
#ifdef _WIN32
constexpr bool kHasPty = false;  // the simulator serves pseudo-terminals on Linux only
#else
constexpr bool kHasPty = true;
#endif

Bytes pattern(std::size_t length, std::uint8_t first) {
    Bytes bytes(length);
    for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<std::uint8_t>(i * 7 + 3);
    bytes[0] = first;
    return bytes;
}

// The other side of the simulator: frames out of whatever it sends.
class Peer {
public:
    Peer() = default;
    Peer(Peer&&) noexcept = default;
    virtual ~Peer() = default;

    void send(const Bytes& bytes) {
        for (std::size_t done = 0; done < bytes.size();) {
            const auto sent = writeSome(bytes.data() + done, bytes.size() - done);
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

protected:
    // Bytes read; 0 when the stream has ended, -1 on time-out.
    virtual std::ptrdiff_t readSome(std::uint8_t* buffer, std::size_t length, milliseconds timeout) = 0;
    virtual std::ptrdiff_t writeSome(const std::uint8_t* data, std::size_t length) = 0;

private:
    bool fill(milliseconds timeout) {
        std::uint8_t buffer[65536];
        const auto got = readSome(buffer, sizeof buffer, timeout);
        if (got == 0) ended_ = true;
        if (got <= 0) return false;
        inbox_.insert(inbox_.end(), buffer, buffer + got);
        return true;
    }

    Bytes inbox_;
    bool ended_ = false;
};

// A loopback peer built from the socket seam and the simulator's codec.
class RawPeer : public Peer {
public:
    explicit RawPeer(net::SocketHandle socket) : socket_(socket) {}
    static RawPeer connectTo(std::uint16_t port) {
        net::SocketAddress address{};
        EXPECT_TRUE(net::parseNumericAddress("127.0.0.1", port, address));
        const net::SocketHandle s = net::openSocket(net::AddressFamily::ipv4, net::SocketKind::stream);
        EXPECT_EQ(net::connectSocket(s, address), 0);
        return RawPeer(s);
    }
    RawPeer(RawPeer&& other) noexcept
        : Peer(std::move(other)), socket_(std::exchange(other.socket_, net::kInvalidSocket)) {}
    ~RawPeer() override {
        if (socket_ != net::kInvalidSocket) net::closeSocket(socket_);
    }

protected:
    std::ptrdiff_t readSome(std::uint8_t* buffer, std::size_t length, milliseconds timeout) override {
        if ((net::waitSocket(socket_, true, false, static_cast<int>(timeout.count())) & net::kWaitReadable) == 0) {
            return -1;
        }
        return std::max<std::ptrdiff_t>(net::recvBytes(socket_, buffer, length), 0);
    }
    std::ptrdiff_t writeSome(const std::uint8_t* data, std::size_t length) override {
        return net::sendBytes(socket_, data, length);
    }

private:
    net::SocketHandle socket_;
};

// The host's end of a serial line: the pseudo-terminal's slave, as a port's user opens it.
class PtyPeer : public Peer {
public:
    explicit PtyPeer(const std::string& path) : slave_(net::openPtySlave(path)) {
        EXPECT_NE(slave_, net::kInvalidPty) << path;
    }
    PtyPeer(const PtyPeer&) = delete;
    ~PtyPeer() override { net::closePtySlave(slave_); }

    bool setLine(const LineSettings& line) {
        return net::setPtySlaveSettings(slave_, {.baud = line.baud, .parity = line.parity, .stopBits = line.stopBits});
    }
    bool hasInput() { return (net::waitPty(slave_, true, false, 0) & net::kWaitReadable) != 0; }

protected:
    std::ptrdiff_t readSome(std::uint8_t* buffer, std::size_t length, milliseconds timeout) override {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || net::waitPty(slave_, true, false, static_cast<int>(left.count())) <= 0) return -1;
            const auto got = net::ptyRead(slave_, buffer, length);
            if (got >= 0 || !net::isWouldBlock(net::lastSocketError())) return std::max<std::ptrdiff_t>(got, 0);
        }
    }
    std::ptrdiff_t writeSome(const std::uint8_t* data, std::size_t length) override {
        // The slave holds only a few KiB: wait until the simulator has read some.
        for (;;) {
            if ((net::waitPty(slave_, false, true, static_cast<int>(kPatience.count())) & net::kWaitWritable) == 0) {
                return -1;
            }
            const auto wrote = net::ptyWrite(slave_, data, length);
            if (wrote >= 0 || !net::isWouldBlock(net::lastSocketError())) return wrote;
        }
    }

private:
    net::PtyHandle slave_;
};

bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(milliseconds(1));
    }
    return true;
}

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

TEST(ReaderSimLine, ParsesSettingsText) {
    EXPECT_EQ(LineSettings::parse("9600:8E1"), (LineSettings{9600, 8, 'E', 1}));
    EXPECT_EQ(LineSettings::parse("115200 7o2"), (LineSettings{115200, 7, 'O', 2}));
    EXPECT_EQ(LineSettings::parse("57600"), (LineSettings{57600, 8, 'N', 1}));
    EXPECT_EQ(LineSettings::parse("19200:8N1")->text(), "19200 8N1");
    for (const char* bad : {"", "9600:", "9600:8E", "9600:9N1", "9600:8M1", "9600:8N3", "0:8N1", "-9600", "96k:8N1"}) {
        EXPECT_FALSE(LineSettings::parse(bad)) << bad;
    }
    ReaderSim sim;
    EXPECT_EQ(sim.servePty(LineSettings{}), kHasPty);
}

class ReaderSimPty : public ::testing::Test {
protected:
    void SetUp() override {
        if (!kHasPty) GTEST_SKIP() << "no pseudo-terminals here";
        ASSERT_TRUE(sim.servePty(kLine));
        host = std::make_unique<PtyPeer>(sim.ptyPath());
        ASSERT_TRUE(host->setLine(kLine));
    }
    static Frame request(std::uint8_t tag) { return {Generation::enhanced, 0x01, kDirectionRequest, {0x40, tag}}; }

    static constexpr LineSettings kLine{9600, 8, 'E', 1};
    ReaderSim sim;
    std::unique_ptr<PtyPeer> host;
};

TEST_F(ReaderSimPty, HearsOnlyAtItsLineSettings) {
    host->send(request(0x01));
    EXPECT_EQ(host->receive().frame.payload, (Bytes{0x40, 0x00, 0x01}));

    std::size_t discarded = sim.discardedBytes();
    std::uint8_t tag = 0x10;
    for (const LineSettings wrong : {LineSettings{19200, 8, 'E', 1}, LineSettings{9600, 8, 'N', 1},
                                     LineSettings{9600, 8, 'O', 1}, LineSettings{9600, 8, 'E', 2}}) {
        ASSERT_TRUE(host->setLine(wrong));
        const Bytes bytes = encode(request(++tag));
        host->send(bytes);
        discarded += bytes.size();
        EXPECT_TRUE(eventually([&] { return sim.discardedBytes() >= discarded; })) << wrong.text();
    }
    // Known to be deaf now: what it sends is lost on the line (sendFrame returns once settled).
    EXPECT_TRUE(sim.sendFrame({Generation::enhanced, 0xFF, kDirectionRequest, {0x77}}));
    EXPECT_FALSE(host->hasInput());

    // Half a frame heard at the right settings must not be completed after a change.
    // One write, so the answer shows that the half has been read too.
    ASSERT_TRUE(host->setLine(kLine));
    Bytes halves = encode(request(0x02));
    halves.insert(halves.end(), halves.begin(), halves.begin() + 5);
    host->send(halves);
    EXPECT_EQ(host->receive().frame.payload, (Bytes{0x40, 0x00, 0x02}));
    ASSERT_TRUE(host->setLine({19200, 8, 'E', 1}));
    host->send(Bytes{0x00});
    discarded += 6;
    EXPECT_TRUE(eventually([&] { return sim.discardedBytes() >= discarded; }));

    // A probe right after the change is answered; nothing heard before is.
    ASSERT_TRUE(host->setLine(kLine));
    host->send(request(0x03));
    EXPECT_EQ(host->receive().frame.payload, (Bytes{0x40, 0x00, 0x03}));
    EXPECT_EQ(sim.requestsSeen(), 3U);
    EXPECT_EQ(sim.discardedBytes(), discarded);

    // The wanted settings may move too.
    sim.setLineSettings({19200, 8, 'E', 1});
    ASSERT_TRUE(host->setLine({19200, 8, 'E', 1}));
    host->send(request(0x04));
    EXPECT_EQ(host->receive().frame.payload, (Bytes{0x40, 0x00, 0x04}));
}

TEST_F(ReaderSimPty, LargestFramesPassWhole) {
    const Bytes big = pattern(maxPayload(Generation::enhanced), 0x51);
    sim.setReply(0x51, Reply::payload(big));
    host->send(Frame{Generation::enhanced, 0x01, kDirectionRequest, {0x51}});
    const Decoded response = host->receive();
    ASSERT_EQ(response.status, Decoded::Status::frame);
    EXPECT_TRUE(response.crcOk);
    EXPECT_EQ(response.frame.payload, big);

    const Bytes most = pattern(big.size(), 0x52);
    host->send(Frame{Generation::enhanced, 0x01, kDirectionRequest, most});
    Bytes echo{0x52, 0x00};
    echo.insert(echo.end(), most.begin() + 1, most.end() - 1);
    EXPECT_EQ(host->receive().frame.payload, echo);
    EXPECT_EQ(sim.received().back().frame.payload, most);
}

TEST_F(ReaderSimPty, FaultsAndOwnRequests) {
    sim.setFault({.kind = FaultKind::badCrc, .count = 1});
    host->send(request(0x01));
    EXPECT_FALSE(host->receive().crcOk);

    sim.setFault({.kind = FaultKind::silence, .count = 1});
    host->send(request(0x02));
    host->send(request(0x03));
    EXPECT_EQ(host->receive().frame.payload, (Bytes{0x40, 0x00, 0x03}));

    sim.setFault({.kind = FaultKind::trickle, .count = 1, .byteDelay = milliseconds(1)});
    host->send(request(0x04));
    EXPECT_EQ(host->receive().frame.payload, (Bytes{0x40, 0x00, 0x04}));

    std::optional<Bytes> answer;
    {
        std::jthread asking([&] { answer = sim.sendRequest({0x70, 0x01}); });
        const Decoded asked = host->receive();
        EXPECT_EQ(asked.frame.flags, kDirectionRequest);
        EXPECT_EQ(asked.frame.payload, (Bytes{0x70, 0x01}));
        host->send(Frame{Generation::enhanced, 0xFF, kDirectionResponse, {0x70, 0x00}});
    }
    EXPECT_EQ(answer, (Bytes{0x70, 0x00}));
}

TEST_F(ReaderSimPty, ClosingHangsUpThePort) {
    // The port's users may come and go; the reader stays.
    host = std::make_unique<PtyPeer>(sim.ptyPath());
    host->send(request(0x01));
    EXPECT_EQ(host->receive().frame.payload, (Bytes{0x40, 0x00, 0x01}));

    sim.setFault(FaultKind::closeMidFrame);
    host->send(request(0x02));
    EXPECT_EQ(host->receive().status, Decoded::Status::incomplete);
    EXPECT_TRUE(host->closedByPeer());
    EXPECT_EQ(host->inbox().size(), encode(Frame{Generation::enhanced, 0x01, kDirectionResponse, {0x40, 0x00, 0x02}}).size() / 2);
    EXPECT_TRUE(sim.waitForDisconnect(kPatience));
    EXPECT_EQ(sim.ptyPath(), "");

    sim.clearFault();
    ASSERT_TRUE(sim.servePty(kLine));
    EXPECT_TRUE(sim.isConnected());
    host = std::make_unique<PtyPeer>(sim.ptyPath());
    sim.closeConnection();
    EXPECT_FALSE(sim.isConnected());
    EXPECT_TRUE(host->closedByPeer());
}

}  // namespace
}  // namespace tovra::readersim
