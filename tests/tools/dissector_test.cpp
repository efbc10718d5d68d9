// The Wireshark dissector against a capture of a real session with the reader simulator:
// what tshark shows must be what the simulator's own codec and the library's status texts
// say went over the wire.
#include "api/error_texts.h"
#include "platform/net.h"
#include "readersim/reader_sim.h"
#include "tools/tcp_capture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <future>
#include <iterator>
#include <optional>
#include <ostream>
#include <random>
#include <sstream>
#include <string>

namespace tovra::testing {
namespace {

namespace net = tovra::platform;
using namespace tovra::readersim;
using Bytes = std::vector<std::uint8_t>;

constexpr milliseconds kPatience{10000};  // only reached when something is broken

// Which way a frame goes, numbered as the dissector's direction field.
enum class Role { request = 1, response = 2 };

// A frame as it must show in the capture, or as tshark showed it.
struct Shown {
    std::size_t packet = 0;  // the packet that completes it
    int generation = 0;
    int direction = 0;
    int address = 0;
    int command = 0;
    std::optional<int> status;  // responses only
    std::string statusText;
    Bytes payload;
    bool crcGood = false;
    bool operator==(const Shown&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Shown& frame) {
    out << "{packet " << frame.packet << " gen " << frame.generation << " dir " << frame.direction << " addr "
        << frame.address << " cmd " << frame.command << " status ";
    if (frame.status) out << *frame.status << " '" << frame.statusText << "'";
    out << " payload " << frame.payload.size() << " bytes crc " << (frame.crcGood ? "good" : "bad") << "}";
    return out;
}

// The frames each direction's bytes hold, read with the simulator's codec as they arrive.
class Expectation {
public:
    void saw(Side from, std::span<const std::uint8_t> bytes, std::size_t packet, Role role) {
        Bytes& stream = streams_[from == Side::client ? 0 : 1];
        stream.insert(stream.end(), bytes.begin(), bytes.end());
        for (Decoded decoded = decode(stream); decoded.status == Decoded::Status::frame; decoded = decode(stream)) {
            frames_.push_back(shown(decoded, packet, role));
            stream.erase(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(decoded.size));
        }
    }
    const std::vector<Shown>& frames() const { return frames_; }

private:
    static Shown shown(const Decoded& decoded, std::size_t packet, Role role) {
        const Frame& frame = decoded.frame;
        Shown result{packet, static_cast<int>(frame.generation), static_cast<int>(role), frame.address,
                     frame.payload.at(0), std::nullopt, "", frame.payload, decoded.crcOk};
        if (role == Role::response && frame.payload.size() >= 2) {
            result.status = frame.payload[1];
            result.statusText = readerStatusText(frame.payload[1]);
        }
        return result;
    }

    Bytes streams_[2];
    std::vector<Shown> frames_;
};

// The host's end of a connection to the simulator: each chunk it sends or receives
// becomes one packet of the capture and is read into the expectation.
class Host {
public:
    Host(TcpCapture& capture, std::uint16_t readerPort) : capture_(capture) {
        net::SocketAddress address{};
        EXPECT_TRUE(net::parseNumericAddress("127.0.0.1", readerPort, address));
        socket_ = net::openSocket(net::AddressFamily::ipv4, net::SocketKind::stream);
        EXPECT_EQ(net::connectSocket(socket_, address), 0);
        net::SocketAddress local{};
        EXPECT_TRUE(net::localAddress(socket_, local));
        connection_ = capture_.open(static_cast<std::uint16_t>(net::addressPort(local)), readerPort);
    }
    Host(const Host&) = delete;
    ~Host() {
        net::closeSocket(socket_);
        capture_.close(connection_);
    }

    void send(std::span<const std::uint8_t> bytes, Role role) {
        for (std::size_t done = 0; done < bytes.size();) {
            const auto sent = net::sendBytes(socket_, bytes.data() + done, bytes.size() - done);
            ASSERT_GT(sent, 0);
            done += static_cast<std::size_t>(sent);
        }
        expectation_.saw(Side::client, bytes, capture_.packets() + 1, role);
        capture_.send(connection_, Side::client, bytes);
    }
    void send(const Frame& frame, Role role) { send(encode(frame), role); }

    // Reads until `count` more whole frames have come from the reader.
    bool receive(std::size_t count, Role role) {
        const std::size_t wanted = expectation_.frames().size() + count;
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        std::uint8_t buffer[16384];
        while (expectation_.frames().size() < wanted) {
            const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || (net::waitSocket(socket_, true, false, static_cast<int>(left.count())) &
                                      net::kWaitReadable) == 0) {
                return false;
            }
            const auto got = net::recvBytes(socket_, buffer, sizeof buffer);
            if (got <= 0) return false;
            const std::span<const std::uint8_t> chunk(buffer, static_cast<std::size_t>(got));
            expectation_.saw(Side::server, chunk, capture_.packets() + 1, role);
            capture_.send(connection_, Side::server, chunk);
        }
        return true;
    }

    const std::vector<Shown>& expected() const { return expectation_.frames(); }
    std::size_t packets() const { return capture_.packets(); }

private:
    TcpCapture& capture_;
    net::SocketHandle socket_ = net::kInvalidSocket;
    std::size_t connection_ = 0;
    Expectation expectation_;
};

Bytes pattern(std::size_t length, std::uint8_t first) {
    Bytes bytes(length);
    for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<std::uint8_t>(i * 13 + 5);
    bytes[0] = first;
    return bytes;
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
    if (!text.empty() && text.back() == separator) parts.emplace_back();
    return parts;
}

Bytes hexBytes(std::string text) {
    std::erase(text, ':');
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

int number(const std::string& text) { return static_cast<int>(std::stol(text, nullptr, 0)); }

const char* const kFields[] = {"frame.number", "tovra.generation", "tovra.direction", "tovra.address",
                               "tovra.command", "tovra.payload", "tovra.crc.status", "tovra.status",
                               "tovra.status.text"};

// One line of tshark's field output: the frames of one packet. Statuses belong to the
// responses long enough to carry one, in order.
std::vector<Shown> framesOfLine(const std::string& line) {
    const auto columns = split(line, '\t');
    if (columns.size() != std::size(kFields)) {
        ADD_FAILURE() << "unexpected line: " << line;
        return {};
    }
    std::vector<std::vector<std::string>> values;
    for (const auto& column : columns) {
        values.push_back(column.empty() ? std::vector<std::string>{} : split(column, ';'));
    }
    std::vector<Shown> frames;
    std::size_t statuses = 0;
    for (std::size_t i = 0; i < values[1].size(); ++i) {
        Shown frame;
        frame.packet = std::stoul(columns[0]);
        frame.generation = number(values[1].at(i));
        frame.direction = number(values[2].at(i));
        frame.address = number(values[3].at(i));
        frame.command = number(values[4].at(i));
        frame.payload = hexBytes(values[5].at(i));
        frame.crcGood = number(values[6].at(i)) == 1;
        if (frame.direction == static_cast<int>(Role::response) && frame.payload.size() >= 2 &&
            statuses < values[7].size()) {
            frame.status = number(values[7][statuses]);
            frame.statusText = values[8].at(statuses);
            ++statuses;
        }
        frames.push_back(std::move(frame));
    }
    EXPECT_EQ(statuses, values[7].size()) << "statuses left over in: " << line;
    return frames;
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class Dissector : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        std::random_device random;
        do {
            folder_ = std::filesystem::temp_directory_path() / ("tovra-dissector-" + std::to_string(random()));
        } while (!std::filesystem::create_directory(folder_));
        capture_ = folder_ / "session.pcap";
        record();
    }
    static void TearDownTestSuite() { std::filesystem::remove_all(folder_); }

    void SetUp() override { ASSERT_FALSE(expected_.empty()) << "the session was not recorded"; }

    // The session: every generation, statuses known and unknown, a bad CRC each way, a
    // request in three sends, two requests in one send, and a request of the reader's own.
    static void record() {
        ReaderSim sim;
        ASSERT_TRUE(sim.listen());
        readerPort_ = sim.port();
        sim.setReply(0x66, Reply::with({0x10, 0x20}, 0x13));
        sim.setReply(0x67, Reply::with({}, 0x0D));
        sim.setReply(0x69, Reply::with(pattern(30, 0x77), 0xAB));
        sim.setReply(0x6B, Reply::with({0x01}, 0x84));
        TcpCapture capture(capture_);
        {
            Host host(capture, readerPort_);
            host.send(Frame{Generation::enhanced, 0xFF, kDirectionRequest, {0x65, 0x01, 0x02, 0x03}}, Role::request);
            ASSERT_TRUE(host.receive(1, Role::response));
            host.send(Frame{Generation::advanced, 0x12, 0, {0x66, 0xAA}}, Role::request);
            ASSERT_TRUE(host.receive(1, Role::response));
            host.send(Frame{Generation::standard, 0x34, 0, {0x67}}, Role::request);
            ASSERT_TRUE(host.receive(1, Role::response));

            Bytes corrupt = encode(Frame{Generation::standard, 0x34, 0, {0x68, 0x00}});
            corrupt.back() ^= 0xFF;
            host.send(corrupt, Role::request);  // never answered

            // Cut first before its length is complete, then inside its payload.
            const Bytes cut = encode(Frame{Generation::advanced, 0x12, 0, pattern(40, 0x69)});
            const std::size_t ends[] = {2, 10, cut.size()};
            for (std::size_t piece = 0, start = 0; piece < std::size(ends); start = ends[piece++]) {
                host.send(std::span(cut).subspan(start, ends[piece] - start), Role::request);
                cutPackets_[piece] = host.packets();
            }
            ASSERT_TRUE(host.receive(1, Role::response));

            Bytes packed = encode(Frame{Generation::enhanced, 0x01, kDirectionRequest, {0x6A}});
            const Bytes second = encode(Frame{Generation::standard, 0x02, 0, {0x6B, 0x00}});
            packed.insert(packed.end(), second.begin(), second.end());
            host.send(packed, Role::request);
            packedPacket_ = host.packets();
            ASSERT_TRUE(host.receive(2, Role::response));

            sim.setFault(Fault{.kind = FaultKind::badCrc, .count = 1});
            host.send(Frame{Generation::advanced, 0x12, 0, {0x6C, 0x05}}, Role::request);
            ASSERT_TRUE(host.receive(1, Role::response));

            auto own = std::async(std::launch::async, [&sim] { return sim.sendRequest({0x6E, 0x01}); });
            ASSERT_TRUE(host.receive(1, Role::request));
            host.send(Frame{Generation::enhanced, 0xFF, kDirectionResponse, {0x6E, 0x00}}, Role::response);
            ASSERT_EQ(own.get(), (Bytes{0x6E, 0x00}));
            expected_ = host.expected();
        }
        recordDecoys(capture);
        ASSERT_TRUE(capture.good());
    }

    // Connections of other protocols that must stay unclaimed: text that starts like a
    // long standard frame, a whole frame with a wrong CRC, and one with a right CRC but a
    // reserved byte no reader sets. Each starts its own connection, where no other
    // heuristic has claimed it first.
    static void recordDecoys(TcpCapture& capture) {
        const std::string text = "hello reader\n";
        Bytes wrongCrc = encode(Frame{Generation::enhanced, 0xFF, kDirectionResponse, {0x65, 0x00}});
        wrongCrc.back() ^= 0x01;
        Bytes reserved = encode(Frame{Generation::enhanced, 0xFF, kDirectionResponse, {0x65, 0x00}});
        reserved[3] = 0x5A;
        resealCrc(reserved);
        std::uint16_t port = 50000;
        for (const Bytes& decoy : {Bytes(text.begin(), text.end()), wrongCrc, reserved}) {
            const std::size_t connection = capture.open(port++, 9);
            capture.send(connection, Side::server, decoy);
            capture.close(connection);
        }
    }

    // Runs tshark with the built dissector over the capture. Run as root (as in CI) it
    // warns on stderr and loads Lua scripts only because Debian's init.lua sets
    // run_user_scripts_when_superuser = true; the missing protocol fails the checks.
    // Its own configuration folder keeps a user's saved preferences out.
    static std::string tshark(const std::string& options, const std::string& fields) {
        const auto out = folder_ / "out.txt";
        const auto err = folder_ / "err.txt";
        const std::string command = "WIRESHARK_CONFIG_DIR='" + (folder_ / "config").string() + "' '" TOVRA_TSHARK
                                    "' -n -r '" + capture_.string() + "' -X 'lua_script:" TOVRA_DISSECTOR "' " +
                                    options + " -T fields -E separator=/t -E 'aggregator=;' -E occurrence=a " +
                                    fields + " >'" + out.string() + "' 2>'" + err.string() + "'";
        const int status = std::system(command.c_str());
        const std::string errors = readFile(err);
        EXPECT_EQ(status, 0) << command << "\n" << errors;
        EXPECT_EQ(errors.find("Lua"), std::string::npos) << errors;
        return readFile(out);
    }

    static std::vector<Shown> framesShown(const std::string& options) {
        std::string fields;
        for (const char* field : kFields) fields += std::string(" -e ") + field;
        std::vector<Shown> frames;
        for (const auto& line : split(tshark(options, fields), '\n')) {
            if (line.empty()) continue;
            for (auto& frame : framesOfLine(line)) frames.push_back(std::move(frame));
        }
        return frames;
    }

    static std::string portOption() { return "-o tovra.tcp_port:" + std::to_string(readerPort_); }

    static inline std::filesystem::path folder_;
    static inline std::filesystem::path capture_;
    static inline std::uint16_t readerPort_ = 0;
    static inline std::vector<Shown> expected_;
    static inline std::size_t cutPackets_[3] = {};
    static inline std::size_t packedPacket_ = 0;
};

constexpr const char* kNoHeuristic = "--disable-heuristic tovra_tcp";

TEST_F(Dissector, DecodesEveryFrameOnThePortOfItsPreference) {
    const auto shown = framesShown(portOption() + " " + kNoHeuristic);
    EXPECT_EQ(shown, expected_);

    // The frame sent in three pieces is one frame, shown where its last piece arrives.
    const auto at = [&](std::size_t packet) {
        return std::count_if(shown.begin(), shown.end(), [&](const Shown& f) { return f.packet == packet; });
    };
    EXPECT_EQ(at(cutPackets_[0]), 0);
    EXPECT_EQ(at(cutPackets_[1]), 0);
    EXPECT_EQ(at(cutPackets_[2]), 1);
    EXPECT_EQ(at(packedPacket_), 2);
}

TEST_F(Dissector, BadCrcsAreFlaggedForTheExpertInfo) {
    std::string wanted;
    for (const auto& frame : expected_) {
        if (!frame.crcGood) wanted += std::to_string(frame.packet) + "\n";
    }
    ASSERT_FALSE(wanted.empty());
    EXPECT_EQ(tshark(portOption() + " " + kNoHeuristic + " -Y tovra.crc.bad", "-e frame.number"), wanted);
}

TEST_F(Dissector, HeuristicFindsTheSessionAndLeavesOtherTrafficAlone) {
    // Heuristics first: a port that some other dissector registered must not hide the session.
    EXPECT_EQ(framesShown("-o tcp.try_heuristic_first:TRUE"), expected_);
}

TEST_F(Dissector, ClaimsNothingWithoutPortOrHeuristic) {
    EXPECT_EQ(framesShown(kNoHeuristic), std::vector<Shown>{});
}

}  // namespace
}  // namespace tovra::testing
