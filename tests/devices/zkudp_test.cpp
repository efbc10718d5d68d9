// The UDP discovery library as tovra uses it: loaded at run time and driven through its
// entry points, against the simulator's discovery responder on 127.0.0.1. Forged and
// broken datagrams come from a raw socket of the test, sent to the library's own port,
// which the responder learns from the Discover it receives.
#include "error_codes.h"
#include "messages.h"
#include "platform/dynlib.h"
#include "platform/net.h"
#include "readersim/udp_responder.h"
#include "support/repeat.h"
#include "support/wait.h"
#include "tovra/device/zkudp.h"
#include "tovra/zk_parameter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace tovra::test {
namespace {

using namespace std::chrono_literals;
using readersim::SimulatedReader;
using readersim::UdpResponder;
using Clock = std::chrono::steady_clock;
namespace net = tovra::platform;

constexpr std::chrono::milliseconds kPatience{10000}; // only reached when something is broken

SimulatedReader readerWith(const std::string& mac, std::uint16_t port, const std::string& deviceId = "0A1B2C3D")
{
    SimulatedReader reader;
    reader.macAddress = mac;
    reader.readerType = "Gate: north";
    reader.deviceId = deviceId;
    reader.ipAddress = "127.0.0.1";
    reader.netmask = "255.255.255.0";
    reader.gateway = "127.0.0.254";
    reader.dhcp = true;
    reader.port = port;
    return reader;
}

// The fields of a scan-info line, read with tovra's own parameter parser.
ZkParameter::TagMap fieldsOf(const std::string& line)
{
    ZkParameter::TagMap fields;
    ZkParameter::sectionToMap(line, fields, ':', true);
    return fields;
}

std::string fieldOf(const std::string& line, const char* key)
{
    std::string value;
    ZkParameter::valueOfTag(fieldsOf(line), key, value);
    return value;
}

struct Event {
    std::int32_t event;
    std::string line;
    std::string mac() const { return fieldOf(line, "macaddress"); }
};

// What the handler was told, and hooks to run inside it.
class Events {
public:
    static void ZKUDP_CALL handler(void* context, std::int32_t event, const char* scanInfo)
    {
        static_cast<Events*>(context)->add(event, scanInfo != nullptr ? scanInfo : "");
    }

    void add(std::int32_t event, const std::string& line)
    {
        if (inside_) inside_(event, line);
        {
            std::lock_guard lock(mutex_);
            events_.push_back(Event{event, line});
        }
        changed_.notify_all();
    }
    // Set before discovery starts; runs on the library's thread.
    void setInside(std::function<void(std::int32_t, const std::string&)> inside) { inside_ = std::move(inside); }

    std::vector<Event> all() const
    {
        std::lock_guard lock(mutex_);
        return events_;
    }
    std::size_t count() const
    {
        std::lock_guard lock(mutex_);
        return events_.size();
    }
    std::size_t count(std::int32_t event, const std::string& mac) const { return countIn(all(), event, mac); }
    static std::size_t countIn(const std::vector<Event>& events, std::int32_t event, const std::string& mac)
    {
        std::size_t n = 0;
        for (const Event& e : events) n += e.event == event && e.mac() == mac;
        return n;
    }

    // Until `holds` is true of the events so far.
    bool waitUntil(const std::function<bool(const std::vector<Event>&)>& holds)
    {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kPatience, [&] { return holds(events_); });
    }
    // The first event for which `match` holds, once there is one.
    std::optional<Event> waitFor(const std::function<bool(const Event&)>& match)
    {
        std::optional<Event> found;
        waitUntil([&](const std::vector<Event>& events) {
            for (const Event& e : events)
                if (match(e)) return found = e, true;
            return false;
        });
        return found;
    }
    std::optional<Event> waitFor(std::int32_t event, const std::string& mac)
    {
        return waitFor([&](const Event& e) { return e.event == event && e.mac() == mac; });
    }
    bool waitForCount(std::int32_t event, const std::string& mac, std::size_t total)
    {
        return waitUntil([&](const std::vector<Event>& events) { return countIn(events, event, mac) == total; });
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Event> events_;
    std::function<void(std::int32_t, const std::string&)> inside_;
};

// A socket of the test's own, for datagrams the responder would never send.
class RawSender {
public:
    RawSender() : socket_(net::openSocket(net::AddressFamily::ipv4, net::SocketKind::datagram)) {}
    ~RawSender() { net::closeSocket(socket_); }
    RawSender(const RawSender&) = delete;
    RawSender& operator=(const RawSender&) = delete;

    bool send(const std::string& datagram, std::uint16_t port)
    {
        net::SocketAddress to{};
        net::parseNumericAddress("127.0.0.1", port, to);
        return net::sendDatagram(socket_, datagram.data(), datagram.size(), to) ==
               static_cast<std::ptrdiff_t>(datagram.size());
    }
    // The next datagram that comes back, or nothing within the patience.
    std::optional<std::string> receive()
    {
        if (net::waitSocket(socket_, true, false, static_cast<int>(kPatience.count())) <= 0) return std::nullopt;
        std::string buffer(65536, '\0');
        net::SocketAddress from{};
        const std::ptrdiff_t got = net::recvDatagram(socket_, buffer.data(), buffer.size(), from);
        if (got < 0) return std::nullopt;
        buffer.resize(static_cast<std::size_t>(got));
        return buffer;
    }

private:
    net::SocketHandle socket_;
};

std::string announce(std::uint32_t seq, const std::string& mac, std::uint16_t port = 4000)
{
    return "ZKUDP:Version=1:Cmd=Announce:Seq=" + std::to_string(seq) +
           ":ReaderType=\"forged\":DeviceId=00C0FFEE:MacAddress=\"" + mac +
           "\":IpAddress=\"127.0.0.1\":Netmask=\"255.0.0.0\":Gateway=\"0.0.0.0\":Dhcp=0:Port=" + std::to_string(port);
}

class Zkudp : public ::testing::Test {
protected:
    void SetUp() override
    {
        library_ = platform::loadLibrary(ZKUDP_LIBRARY);
        ASSERT_NE(library_, nullptr) << platform::lastLoadError();
        resolve(version, "ZKUDP_GetDLLVersion");
        resolve(errorText, "ZKUDP_GetErrorText");
        resolve(discover, "ZKUDP_Discover");
        resolve(setup, "ZKUDP_Setup");
        ASSERT_TRUE(responder_.start());
    }
    void TearDown() override
    {
        if (discover != nullptr) {
            EXPECT_EQ(discover(nullptr, nullptr, 0, nullptr), 0);
        }
        responder_.stop();
        if (library_ != nullptr) platform::unloadLibrary(library_);
    }

    std::string target(std::uint32_t lost = 3) const
    {
        return "address=127.0.0.1:port=" + std::to_string(responder_.port()) + ":lost=" + std::to_string(lost);
    }
    std::int32_t start(std::uint32_t intervalMs, const std::string& text)
    {
        return discover(&events_, &Events::handler, intervalMs, text.c_str());
    }
    std::int32_t stop() { return discover(nullptr, nullptr, 0, nullptr); }
    // The text of a code, and that it is one of the library's own.
    void expectKnownText(std::int32_t code)
    {
        const std::string text = errorText(code);
        EXPECT_FALSE(text.empty());
        EXPECT_NE(text, errorText(-1)) << code << " has no text of its own";
    }
    // The Discover the responder saw last, once there is one.
    readersim::DiscoverSeen lastDiscover()
    {
        EXPECT_TRUE(responder_.waitForDiscovers(1, kPatience));
        return responder_.lastDiscover().value_or(readersim::DiscoverSeen{});
    }

    ZKUDP_GetDLLVersion_t version = nullptr;
    ZKUDP_GetErrorText_t errorText = nullptr;
    ZKUDP_Discover_t discover = nullptr;
    ZKUDP_Setup_t setup = nullptr;
    UdpResponder responder_;
    Events events_;
    RawSender raw_;

private:
    template <typename Function>
    void resolve(Function& function, const char* name)
    {
        function = platform::symbolAs<Function>(platform::findSymbol(library_, name));
        ASSERT_NE(function, nullptr) << name;
    }

    platform::LibraryHandle library_ = nullptr;
};

TEST_F(Zkudp, ReportsEachReaderOnceWithWhatItAnnounced)
{
    EXPECT_STREQ(version(), "1.0.0");
    const SimulatedReader first = readerWith("00:11:22:33:44:01", 10001, "0A1B2C3D");
    SimulatedReader second = readerWith("00:11:22:33:44:02", 10002, "deadBEEF");
    second.dhcp = false;
    responder_.setReader(first);
    responder_.setReader(second);
    ASSERT_EQ(start(100, target(1000)), 0);

    for (const SimulatedReader& reader : {first, second}) {
        const auto seen = events_.waitFor(ZKUDP_EVENT_SEEN, reader.macAddress);
        ASSERT_TRUE(seen) << reader.macAddress;
        EXPECT_EQ(seen->line.rfind("UDP:", 0), 0u) << seen->line;
        const auto fields = fieldsOf(seen->line);
        EXPECT_EQ(fields.at("readertype"), reader.readerType);
        EXPECT_EQ(fields.at("deviceid"), reader.deviceId);
        EXPECT_EQ(fields.at("ipaddress"), reader.ipAddress);
        EXPECT_EQ(fields.at("netmask"), reader.netmask);
        EXPECT_EQ(fields.at("gateway"), reader.gateway);
        EXPECT_EQ(fields.at("dhcp"), reader.dhcp ? "1" : "0");
        EXPECT_EQ(fields.at("port"), std::to_string(reader.port));
    }
    // Rounds that bring the same answers bring no news.
    ASSERT_TRUE(responder_.waitForDiscovers(responder_.discoversSeen() + 5, kPatience));
    EXPECT_EQ(events_.count(), 2u);
}

TEST_F(Zkudp, SetupChangesTheReaderWhichIsReportedAgain)
{
    const std::string mac = "02:00:00:00:00:0A";
    responder_.setReader(readerWith(mac, 10001));
    SimulatedReader refusing = readerWith("02:00:00:00:00:0B", 10002);
    refusing.setupResult = -7;
    responder_.setReader(refusing);
    EXPECT_EQ(setup(("MacAddress=\"" + mac + "\":Port=5000").c_str(), 0), zkudp::kNotRunning);
    ASSERT_EQ(start(100, target(1000)), 0);
    ASSERT_TRUE(events_.waitFor(ZKUDP_EVENT_SEEN, mac));

    // Keys without case. The reader's own address is the target's: it gets the set-up once.
    EXPECT_EQ(setup(("macaddress=\"" + mac + "\":PORT=5000:Gateway=127.0.0.9").c_str(), 0x25), 0);
    EXPECT_EQ(responder_.reader(mac)->port, 5000);
    EXPECT_EQ(responder_.reader(mac)->gateway, "127.0.0.9");
    const auto setups = responder_.setupsSeen();
    ASSERT_EQ(setups.size(), 1u);
    EXPECT_EQ(setups[0].flags, 0x25);
    const auto again = events_.waitFor([&](const Event& e) {
        return e.event == ZKUDP_EVENT_SEEN && e.mac() == mac && fieldOf(e.line, "port") == "5000";
    });
    ASSERT_TRUE(again);
    EXPECT_EQ(fieldOf(again->line, "gateway"), "127.0.0.9");

    // The reader's own result comes back, and it changed nothing.
    EXPECT_EQ(setup("MacAddress=\"02:00:00:00:00:0b\":Port=6000", 0), -7);
    EXPECT_EQ(responder_.reader(refusing.macAddress)->port, 10002);

    // Texts refused before anything is sent.
    const std::size_t sent = responder_.setupsSeen().size();
    for (const auto& [text, code] : std::vector<std::pair<const char*, std::int32_t>>{
             {nullptr, zkudp::kInvalidSetupText},
             {"Port=5000", zkudp::kMissingMacAddress},
             {"MacAddress=\"02:00:00:00:00:0A\":Port=65536", zkudp::kInvalidSetupValue},
             {"MacAddress=\"02:00:00:00:00:0A\":IpAddress=10.0.0", zkudp::kInvalidSetupValue},
             {"MacAddress=\"02:00:00:00:00:0A\":Dhcp=yes", zkudp::kInvalidSetupValue},
             {"MacAddress=\"02:00:00:00:00:0A\":Colour=red", zkudp::kInvalidSetupText},
             {"MacAddress=\"02:00:00:00:00:0A", zkudp::kInvalidSetupText},
         }) {
        EXPECT_EQ(setup(text, 0), code) << (text != nullptr ? text : "(null)");
        expectKnownText(code);
    }
    EXPECT_EQ(responder_.setupsSeen().size(), sent);
}

TEST_F(Zkudp, SetupForAnUnknownReaderFailsAfterItsWait)
{
    responder_.setReader(readerWith("02:00:00:00:00:0A", 10001));
    ASSERT_EQ(start(100, target(1000)), 0);
    EXPECT_EQ(setup("MacAddress=\"02:00:00:00:00:FF\":Port=5000", 0), zkudp::kNoAcknowledgement);
    expectKnownText(zkudp::kNoAcknowledgement);
    // It was sent, and sent twice more, before the library gave up.
    EXPECT_EQ(responder_.setupsSeen().size(), 3u);

    // A set-up still waiting when discovery stops ends with it.
    std::int32_t result = 0;
    std::thread waiting([&] { result = setup("MacAddress=\"02:00:00:00:00:FE\"", 0); });
    EXPECT_TRUE(waitUntil([&] {
        for (const auto& seen : responder_.setupsSeen())
            if (seen.macAddress == "02:00:00:00:00:FE") return true;
        return false;
    }));
    EXPECT_EQ(stop(), 0);
    waiting.join();
    EXPECT_EQ(result, zkudp::kStoppedDuringSetup);
}

TEST_F(Zkudp, ReadersThatStopAnsweringAreReportedGone)
{
    const std::string a = "02:00:00:00:01:01", b = "02:00:00:00:01:02";
    responder_.setReader(readerWith(a, 10001));
    responder_.setReader(readerWith(b, 10002));
    // Rounds long enough that a loaded machine never misses one by accident.
    ASSERT_EQ(start(150, target(2)), 0);
    ASSERT_TRUE(events_.waitFor(ZKUDP_EVENT_SEEN, a));
    ASSERT_TRUE(events_.waitFor(ZKUDP_EVENT_SEEN, b));

    responder_.removeReader(a);
    const auto gone = events_.waitFor(ZKUDP_EVENT_GONE, a);
    ASSERT_TRUE(gone);
    EXPECT_EQ(fieldOf(gone->line, "port"), "10001"); // the reader as it was last seen
    // Back again: seen anew.
    responder_.setReader(readerWith(a, 10001));
    ASSERT_TRUE(events_.waitForCount(ZKUDP_EVENT_SEEN, a, 2));
    EXPECT_EQ(events_.count(ZKUDP_EVENT_GONE, b), 0u);

    responder_.stop();
    EXPECT_TRUE(events_.waitForCount(ZKUDP_EVENT_GONE, a, 2));
    EXPECT_TRUE(events_.waitForCount(ZKUDP_EVENT_GONE, b, 1));
}

TEST_F(Zkudp, OneDiscoveryAtATimeAndOnlyWithAValidTarget)
{
    EXPECT_EQ(stop(), 0); // nothing running: nothing to do
    for (const char* text : {"address=127.0.0", "address=127.0.0.1:port=0", "port=65536", "lost=0", "bind=local",
                             "colour=red", "address=\"127.0.0.1"}) {
        EXPECT_EQ(start(20, text), zkudp::kInvalidTarget) << text;
    }
    expectKnownText(zkudp::kInvalidTarget);

    responder_.setReader(readerWith("02:00:00:00:02:01", 10001));
    ASSERT_EQ(start(20, "ADDRESS=127.0.0.1:Port=" + std::to_string(responder_.port()) + ":bind=127.0.0.1"), 0);
    EXPECT_EQ(start(20, target()), zkudp::kAlreadyRunning);
    expectKnownText(zkudp::kAlreadyRunning);
    ASSERT_TRUE(events_.waitFor(ZKUDP_EVENT_SEEN, "02:00:00:00:02:01"));
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(stop(), 0);

    // A new start after a stop discovers afresh.
    ASSERT_EQ(start(20, target()), 0);
    EXPECT_TRUE(events_.waitForCount(ZKUDP_EVENT_SEEN, "02:00:00:00:02:01", 2));
}

TEST_F(Zkudp, StopReturnsAtOnceWhateverTheInterval)
{
    responder_.setReader(readerWith("02:00:00:00:03:01", 10001));
    ASSERT_EQ(start(600000, target()), 0);
    ASSERT_TRUE(events_.waitFor(ZKUDP_EVENT_SEEN, "02:00:00:00:03:01"));
    const auto before = Clock::now();
    EXPECT_EQ(stop(), 0);
    // Far below the ten-minute round: the stop did not wait the round out.
    EXPECT_LT(Clock::now() - before, 60s);
}

TEST_F(Zkudp, AnswersFromAnOlderRoundAreDropped)
{
    const std::string mac = "02:00:00:00:04:01";
    responder_.setReader(readerWith(mac, 10001));
    ASSERT_EQ(start(200, target(1000)), 0);
    ASSERT_TRUE(events_.waitFor(ZKUDP_EVENT_SEEN, mac));
    const readersim::DiscoverSeen old = lastDiscover();
    ASSERT_TRUE(responder_.waitForDiscovers(responder_.discoversSeen() + 2, kPatience));
    ASSERT_NE(responder_.lastDiscover()->seq, old.seq);

    // A late answer for a reader nobody has seen, and one that would change a known reader.
    ASSERT_TRUE(raw_.send(announce(old.seq, "02:00:00:00:04:99"), old.port));
    ASSERT_TRUE(raw_.send(announce(old.seq, mac, 1234), old.port));
    // The forged datagrams are queued at the library's socket before the responder's
    // next answers: once those are reported, the forged ones have been read.
    SimulatedReader moved = readerWith(mac, 4242);
    responder_.setReader(moved);
    ASSERT_TRUE(events_.waitFor([&](const Event& e) { return e.mac() == mac && fieldOf(e.line, "port") == "4242"; }));
    EXPECT_EQ(events_.count(ZKUDP_EVENT_SEEN, "02:00:00:00:04:99"), 0u);
    for (const Event& e : events_.all()) EXPECT_NE(fieldOf(e.line, "port"), "1234") << e.line;
}

TEST_F(Zkudp, BrokenAndOversizedDatagramsAreIgnored)
{
    const std::string mac = "02:00:00:00:05:01";
    responder_.setReader(readerWith(mac, 10001));
    // One round only: every forged datagram below carries the current Seq.
    ASSERT_EQ(start(600000, target()), 0);
    ASSERT_TRUE(events_.waitFor(ZKUDP_EVENT_SEEN, mac));
    const readersim::DiscoverSeen round = lastDiscover();
    const std::uint32_t seq = round.seq;

    const std::string good = announce(seq, "02:00:00:00:05:BD");
    std::string huge = good;
    huge.resize(65507, 'x');
    std::string binary = good;
    binary[20] = '\0';
    binary[40] = '\x01';
    const std::string broken[] = {
        good.substr(0, good.size() / 2),
        good.substr(0, good.find("\":IpAddress")),            // ends inside the MAC's quotes
        good.substr(0, good.size() - 1) + ":Extra=\"open",      // ends inside quotes
        huge,
        binary,
        std::string(),
        std::string(4000, ':'),
        announce(seq, std::string(500, 'M')),
        announce(seq, "02:00:00:00:05:BD") + ":Note=\"" + std::string(65, 'n') + "\"",
        announce(seq, "02:00:00:00:05:BD", 0),
        announce(seq, "02:00:00:00:05:BD", 0) + "70000",
        announce(seq + 1, "02:00:00:00:05:BD"),
        "ZKUDX" + good.substr(5),
        "ZKUDP:Version=0" + good.substr(good.find(":Cmd")),
        "ZKUDP:Version=1:Cmd=Announce:Seq=" + std::to_string(seq) + ":MacAddress=\"02:00:00:00:05:BD\"",
        "\xff\xfe\xfd\xfc",
    };
    for (const std::string& datagram : broken) EXPECT_TRUE(raw_.send(datagram, round.port)) << datagram.size();
    // Keys in another case are still the same keys; a replay changes nothing.
    std::string shouting = announce(seq, "02:00:00:00:05:0K");
    shouting.replace(shouting.find("MacAddress"), 10, "MACADDRESS");
    ASSERT_TRUE(raw_.send(shouting, round.port));
    ASSERT_TRUE(raw_.send(shouting, round.port));
    ASSERT_TRUE(raw_.send(announce(seq, "02:00:00:00:05:EN"), round.port));

    ASSERT_TRUE(events_.waitFor(ZKUDP_EVENT_SEEN, "02:00:00:00:05:EN"));
    EXPECT_EQ(events_.count(ZKUDP_EVENT_SEEN, "02:00:00:00:05:0K"), 1u);
    EXPECT_EQ(events_.count(ZKUDP_EVENT_SEEN, "02:00:00:00:05:BD"), 0u);
    EXPECT_EQ(events_.count(), 3u);
}

TEST_F(Zkudp, NoHandlerCallAfterStopWhileAnswersPourIn)
{
    for (int i = 0; i < 200; ++i) {
        char mac[32];
        std::snprintf(mac, sizeof mac, "02:00:00:00:%02X:%02X", i / 256, i % 256);
        responder_.setReader(readerWith(mac, static_cast<std::uint16_t>(10000 + i)));
    }
    std::atomic<bool> stopped{false};
    std::atomic<int> late{0};
    events_.setInside([&](std::int32_t, const std::string&) {
        if (stopped) ++late;
        std::this_thread::yield();
    });
    for (int round = 0; round < repeat(20); ++round) {
        stopped = false;
        const std::size_t before = events_.count();
        // Each start sees all readers anew: their reports are still coming when it stops.
        ASSERT_EQ(start(50, target(1000)), 0);
        ASSERT_TRUE(events_.waitUntil([&](const std::vector<Event>& events) { return events.size() >= before + 5; }));
        ASSERT_EQ(stop(), 0);
        stopped = true;
        const std::size_t after = events_.count();
        std::this_thread::sleep_for(5ms);
        EXPECT_EQ(events_.count(), after);
    }
    EXPECT_EQ(late, 0);
}

TEST_F(Zkudp, TheHandlerCannotStopOrWaitOnItsOwnThread)
{
    responder_.setReader(readerWith("02:00:00:00:06:01", 10001));
    std::atomic<bool> tried{false};
    std::int32_t stopped = 0, restarted = 0, setUp = 0;
    events_.setInside([&](std::int32_t, const std::string&) {
        if (tried) return;
        stopped = discover(nullptr, nullptr, 0, nullptr);
        restarted = discover(&events_, &Events::handler, 20, target().c_str());
        setUp = setup("MacAddress=\"02:00:00:00:06:01\":Port=5000", 0);
        tried = true;
    });
    ASSERT_EQ(start(50, target()), 0);
    ASSERT_TRUE(waitUntil([&] { return tried.load(); }));
    EXPECT_EQ(stopped, zkudp::kStopFromHandler);
    EXPECT_EQ(restarted, zkudp::kAlreadyRunning);
    EXPECT_EQ(setUp, zkudp::kSetupFromHandler);
    for (const std::int32_t code : {stopped, setUp}) expectKnownText(code);
    // Still running, and stopped from outside as usual.
    const std::size_t discovers = responder_.discoversSeen();
    EXPECT_TRUE(responder_.waitForDiscovers(discovers + 2, kPatience));
    EXPECT_EQ(stop(), 0);
}

TEST_F(Zkudp, TheResponderSurvivesGarbageAndStillAnswers)
{
    responder_.setReader(readerWith("02:00:00:00:07:01", 10001));
    std::string huge(65507, 'Z');
    huge.replace(0, 6, "ZKUDP:");
    const std::string garbage[] = {
        huge,
        std::string("\0\x01\x02ZKUDP", 8),
        "ZKUDP",
        "ZKUDP:Version=1:Cmd=Discover",
        "ZKUDP:Version=1:Cmd=Discover:Seq=99999999999999999999",
        "ZKUDP:Version=1:Cmd=Setup:Seq=5:MacAddress=\"02:00:00:00:07:99\":Port=1", // no such reader
        "ZKUDP:Version=1:Cmd=Announce:Seq=5",
    };
    for (const std::string& datagram : garbage) ASSERT_TRUE(raw_.send(datagram, responder_.port()));
    ASSERT_TRUE(raw_.send("ZKUDP:Version=1:Cmd=Discover:Seq=77", responder_.port()));

    const auto answer = raw_.receive();
    ASSERT_TRUE(answer);
    zkudp::Message message;
    ASSERT_TRUE(zkudp::parseMessage(*answer, message)) << *answer;
    EXPECT_EQ(message.command, zkudp::Command::announce);
    EXPECT_EQ(message.seq, 77u);
    EXPECT_EQ(message.announce.macAddress, "02:00:00:00:07:01");
    EXPECT_EQ(responder_.discoversSeen(), 1u);
    EXPECT_EQ(responder_.ignoredDatagrams(), 6u); // all but the Setup
    ASSERT_EQ(responder_.setupsSeen().size(), 1u);
    EXPECT_FALSE(responder_.setupsSeen()[0].answered);
}

// --- The datagram reader on its own -------------------------------------------------

TEST(ZkudpDatagram, ReadsQuotedColonsAndKeysWithoutCase)
{
    zkudp::Message message;
    ASSERT_TRUE(zkudp::parseMessage(" zkudp : VERSION=2:cmd=announce:Seq=7:readertype=\"a:b\"c:DeviceId=00ff00FF:"
                                    "MacAddress=\"aa:bb\":IpAddress=\"10.0.0.1\":Netmask=\"255.0.0.0\":"
                                    "Gateway=\"10.0.0.254\":Dhcp=1:Port=10001:Future=\"x:y\"",
                                    message));
    EXPECT_EQ(message.command, zkudp::Command::announce);
    EXPECT_EQ(message.seq, 7u);
    EXPECT_EQ(message.announce.readerType, "a:bc");
    EXPECT_EQ(message.announce.macAddress, "aa:bb");
    EXPECT_EQ(zkudp::scanInfo(message.announce),
              "UDP:ReaderType=\"a:bc\":DeviceId=00ff00FF:MacAddress=\"aa:bb\":IpAddress=\"10.0.0.1\":"
              "Netmask=\"255.0.0.0\":Gateway=\"10.0.0.254\":Dhcp=1:Port=10001");

    ASSERT_TRUE(zkudp::parseMessage("ZKUDP:Version=1:Cmd=SetupAck:Seq=4294967295:MacAddress=\"aa\":Result=-2147483648",
                                    message));
    EXPECT_EQ(message.seq, 4294967295u);
    EXPECT_EQ(message.result, INT32_MIN);
    EXPECT_FALSE(zkudp::parseMessage("ZKUDP:Version=1:Cmd=SetupAck:Seq=4294967296:MacAddress=\"aa\":Result=0", message));
    EXPECT_FALSE(zkudp::parseMessage("ZKUDP:Version=1:Cmd=SetupAck:Seq=1:MacAddress=\"aa\":Result=2147483648", message));
    EXPECT_FALSE(zkudp::parseMessage("ZKUDP:Version=1:Cmd=SetupAck:Seq=+1:MacAddress=\"aa\":Result=0", message));
}

TEST(ZkudpDatagram, WhatTheLibrarySendsTheSimulatorsParserReadsBack)
{
    zkudp::SetupFields fields;
    fields.macAddress = "00:11:22:33:44:55";
    fields.ipAddress = "10.1.2.3";
    fields.dhcp = false;
    fields.port = 65535;
    ZkParameter::TagMap map;
    ZkParameter::sectionToMap(zkudp::setupDatagram(99, fields, 255), map, ':', true);
    EXPECT_EQ(map.at("cmd"), "Setup");
    EXPECT_EQ(map.at("seq"), "99");
    EXPECT_EQ(map.at("macaddress"), "00:11:22:33:44:55");
    EXPECT_EQ(map.at("flags"), "255");
    EXPECT_EQ(map.at("ipaddress"), "10.1.2.3");
    EXPECT_EQ(map.at("dhcp"), "0");
    EXPECT_EQ(map.at("port"), "65535");
    EXPECT_EQ(map.count("netmask"), 0u);
}

} // namespace
} // namespace tovra::test
