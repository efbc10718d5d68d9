// Each suite runs in a process of its own (see CMakeLists.txt): the first logger of a
// process reads the configuration, and nothing reads it again.
#include "logging/log.h"
#include "platform/env.h"
#include "platform/net.h"
#include "platform/system.h"
#include "protocol/frame_dump.h"
#include "support/temp_dir.h"
#include "tovra/tovra.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <regex>
#include <vector>

namespace tovra {

// Stands in for a library class, so that records carry a real qualified method name.
struct TovraProbe {
    static void traceHello(TovraLogger& logger, int value) { TOVRA_LOG_TRACE(logger, logcat::Reader, "hello ", value); }
    static void failure(TovraLogger& logger) { TOVRA_LOG_ERROR(logger, logcat::Error | logcat::Reader, "broken=", -5015); }
    static void tcp(TovraLogger& logger) { TOVRA_LOG_TRACE(logger, logcat::Tcp, "tcp record"); }
};

namespace {

using test::readText;
using test::TempDir;
using test::writeText;

static_assert(logging::qualifiedMethodName("int tovra::TovraReader::transceive(const uint8_t*, uint64_t)") ==
              "TovraReader::transceive");
static_assert(logging::qualifiedMethodName("void ZkcomManager::detect()") == "ZkcomManager::detect");
static_assert(logging::qualifiedMethodName("std::map<int, std::string> tovra::A<int, long>::f()") ==
              "A<int, long>::f");

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::string line;
    for (char c : text) {
        if (c == '\n') lines.push_back(std::exchange(line, {}));
        else line += c;
    }
    if (!line.empty()) lines.push_back(line);
    return lines;
}

const std::string kHeader = std::string("Log file of VARN SDK\n\nOperating System: ") +
                            (platform::pathSeparator() == '/' ? "Linux" : "Windows") + "\n\n\n";

const std::string kRelativeStamp = R"(\d{4,}\.\d{6})";
const std::string kAbsoluteStamp = R"(\d{4}\.\d\d\.\d\d-\d\d\.\d\d\.\d\d\.\d{6})";
const std::string kTrace = R"( :: TOVRA RH=1 TID=\d+ TovraProbe::traceHello:\d+ :: hello 42)";

// A UDP socket on 127.0.0.1 that collects datagrams.
class UdpReceiver {
public:
    UdpReceiver()
    {
        platform::SocketAddress address{};
        platform::parseNumericAddress("127.0.0.1", 0, address);
        socket_ = platform::openSocket(platform::AddressFamily::ipv4, platform::SocketKind::datagram);
        EXPECT_TRUE(platform::bindSocket(socket_, address));
        EXPECT_TRUE(platform::localAddress(socket_, address));
        port_ = platform::addressPort(address);
    }
    ~UdpReceiver() { platform::closeSocket(socket_); }

    int port() const { return port_; }

    std::optional<std::string> receive(int timeoutMs = 10000)
    {
        if ((platform::waitSocket(socket_, true, false, timeoutMs) & platform::kWaitReadable) == 0)
            return std::nullopt;
        std::string buffer(65536, '\0');
        const auto got = platform::recvBytes(socket_, buffer.data(), buffer.size());
        if (got < 0) return std::nullopt;
        buffer.resize(static_cast<std::size_t>(got));
        return buffer;
    }

private:
    platform::SocketHandle socket_ = platform::kInvalidSocket;
    int port_ = 0;
};

TEST(StampFormat, RelativeAndAbsoluteTimeStamps)
{
    EXPECT_EQ(relativeStampText(62'500'000), "0062.500000");
    EXPECT_EQ(relativeStampText(12345'000'001), "12345.000001");
    EXPECT_EQ(relativeStampText(-5), "0000.000000");
    const std::string stamp = absoluteStampText(1'700'000'000'000'042);
    EXPECT_TRUE(std::regex_match(stamp, std::regex(kAbsoluteStamp))) << stamp;
    EXPECT_EQ(stamp.substr(stamp.size() - 7), ".000042");
}

TEST(PerReaderFiles, EachReaderWritesItsOwnFileInAQuotedPathWithBlanks)
{
    TempDir dir("tovra-log");
    const auto logDir = dir.path() / "log dir";
    std::filesystem::create_directories(logDir);
    TOVRA_SetLoggingParameter(("[OUTPUTTER]\nlogpath=\"" + logDir.string() +
                               "\"\nlogfile=run\nlogfileshared=on\nlogfileperreader=on\nunknown=1\n"
                               "logabstime=on\nlogreltime=1\n[TOVRA]\nlogreader=1\nlogtcp=1\nlogtcp=off\n")
                                  .c_str());
    TovraLogger first(1);
    TovraLogger second(2);
    EXPECT_FALSE(first.isEnabled(logcat::Tcp)) << "the later entry wins";

    TovraProbe::traceHello(first, 42);
    TovraProbe::tcp(first);
    TovraProbe::failure(first);
    TovraProbe::traceHello(second, 42);
    TovraProbe::traceHello(first, 42);

    const std::string sep(1, platform::pathSeparator());
    EXPECT_EQ(first.filePath(), logDir.string() + sep + "run-TOVRA-RH1.log");
    EXPECT_FALSE(std::filesystem::exists(logDir / "run-TOVRA.log"));

    const std::string text = readText(logDir / "run-TOVRA-RH1.log");
    ASSERT_EQ(text.rfind(kHeader, 0), 0u) << text;
    EXPECT_EQ(text.find("Log file of", 1), std::string::npos) << "header once per file";
    const auto lines = linesOf(text.substr(kHeader.size()));
    ASSERT_EQ(lines.size(), 3u) << text;
    EXPECT_TRUE(std::regex_match(lines[0], std::regex(kRelativeStamp + kTrace))) << lines[0];
    EXPECT_TRUE(std::regex_match(
        lines[1], std::regex(kRelativeStamp + R"( :: TOVRA RH=1 TID=\d+ TovraProbe::failure:\d+ ERROR :: broken=-5015)")))
        << lines[1];

    const std::string other = readText(logDir / "run-TOVRA-RH2.log");
    EXPECT_EQ(other.rfind(kHeader, 0), 0u);
    EXPECT_EQ(linesOf(other.substr(kHeader.size())).size(), 1u);
}

std::vector<std::string> gGlobalLines;
void TOVRA_CALL collectGlobal(void* context, const char* line)
{
    EXPECT_EQ(context, &gGlobalLines);
    gGlobalLines.emplace_back(line);
}
void TOVRA_CALL ignoreGlobal(void*, const char*) { ADD_FAILURE() << "a late callback must not be used"; }

TEST(SharedFile, OneFileForAllReadersWithAbsoluteStampsAndTheGlobalCallback)
{
    TempDir dir("tovra-log");
    TOVRA_SetLoggingCallback(&gGlobalLines, collectGlobal);
    TOVRA_SetLoggingParameter(("[OUTPUTTER]\nlogpath=" + dir.path().string() +
                               "\nlogfileperreader=1\nlogfileshared=1\n[TOVRA]\nlogreader=on\n")
                                  .c_str());
    TovraLogger first(1);
    TovraLogger second(2);
    TovraProbe::traceHello(first, 42);
    TovraProbe::traceHello(second, 42);

    // Settings given after the first logger exists are kept but never read.
    TOVRA_SetLoggingParameter("[OUTPUTTER]\nlogconsole=1\n");
    TOVRA_SetLoggingCallback(nullptr, ignoreGlobal);
    testing::internal::CaptureStdout();
    TovraLogger third(3);
    TovraProbe::traceHello(third, 42);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) files.push_back(entry.path());
    ASSERT_EQ(files.size(), 1u);
    const std::string name = files[0].filename().string();
    EXPECT_TRUE(std::regex_match(name, std::regex(R"(log-\d{4}\.\d\d\.\d\d-\d\d\.\d\d\.\d\d-TOVRA\.log)"))) << name;

    const std::string text = readText(files[0]);
    ASSERT_EQ(text.rfind(kHeader, 0), 0u);
    EXPECT_EQ(text.find("Log file of", 1), std::string::npos);
    const auto lines = linesOf(text.substr(kHeader.size()));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(std::regex_match(lines[0], std::regex(kAbsoluteStamp + kTrace))) << lines[0];
    EXPECT_NE(lines[1].find(" RH=2 "), std::string::npos);
    EXPECT_NE(lines[2].find(" RH=3 "), std::string::npos);
    EXPECT_EQ(gGlobalLines, lines);
}

TEST(EnvFileUdpAndConsole, EveryLineGoesToConsoleAndAsOneDatagram)
{
    TempDir dir("tovra-log");
    UdpReceiver receiver;
    const std::string config = dir.file("named.conf");
    writeText(config, "[OUTPUTTER]\nlogconsole=1\nlogudpaddr=127.0.0.1\nlogudpport=" +
                          std::to_string(receiver.port()) + "\n[TOVRA]\nlogerror=1\n");
    ASSERT_TRUE(platform::setEnv("OLMA_LOGGER_CONGIG_FILE", config.c_str()));

    testing::internal::CaptureStdout();
    auto manager = TovraLogger::forManager("COMman");
    TovraLogger reader(4);
    TovraProbe::failure(*manager);
    TovraProbe::traceHello(reader, 1); // category off: nothing anywhere
    TovraProbe::failure(reader);
    const auto console = linesOf(testing::internal::GetCapturedStdout());

    ASSERT_EQ(console.size(), 2u);
    EXPECT_TRUE(std::regex_match(console[0], std::regex(kAbsoluteStamp + R"( :: TOVRA COMman TID=\d+ TovraProbe::failure:\d+ ERROR :: broken=-5015)")))
        << console[0];
    EXPECT_NE(console[1].find(" :: TOVRA RH=4 TID="), std::string::npos);
    for (const auto& line : console) EXPECT_EQ(receiver.receive(), line + "\n");
    EXPECT_EQ(receiver.receive(200), std::nullopt);
}

TEST(EnvNamesMissingFile, NoOutputEvenWithAConfigInTheWorkingDirectory)
{
    TempDir dir("tovra-log");
    std::filesystem::current_path(dir.path());
    writeText("olma.conf", "[OUTPUTTER]\nlogconsole=1\nlogfileperreader=1\n[TOVRA]\nlogreader=1\n");
    ASSERT_TRUE(platform::setEnv("OLMA_LOGGER_CONGIG_FILE", dir.file("missing.conf").c_str()));

    testing::internal::CaptureStdout();
    TovraLogger reader(1);
    EXPECT_EQ(reader.flags(), 0u);
    reader.trace("TovraProbe::direct", 1, "written past the category test");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1) << "only olma.conf";
}

TEST(WorkingDirConfig, UsedWhenNoVariableIsSetAndBadValuesOnlySwitchOutputsOff)
{
    TempDir dir("tovra-log");
    std::filesystem::current_path(dir.path());
    ASSERT_TRUE(platform::unsetEnv("OLMA_LOGGER_CONGIG_FILE"));
    writeText("olma.conf", "[OUTPUTTER]\nlogconsole=1\nlogfileperreader=1\nlogpath=" + dir.file("absent") +
                               "\nlogudpaddr=not.an.address\nlogudpport=99999\nbogus=1\n"
                               "[TOVRA]\nlogreader=1\nlogpayload=1\nlogprotocol=1\n");

    testing::internal::CaptureStdout();
    TovraLogger reader(1);
    TovraProbe::traceHello(reader, 42);
    const auto console = linesOf(testing::internal::GetCapturedStdout());
    ASSERT_EQ(console.size(), 1u);
    EXPECT_TRUE(std::regex_match(console[0], std::regex(kAbsoluteStamp + kTrace))) << console[0];
    EXPECT_TRUE(reader.isProtocolOn());
    EXPECT_FALSE(reader.isPayloadOn()) << "protocol switched on last clears payload";
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "absent"));
}

struct AppLine {
    std::int32_t handle;
    void* context;
    std::string line;
};
std::vector<AppLine> gAppLines;
void TOVRA_CALL collectApp(std::int32_t handle, void* context, const char* line)
{
    gAppLines.push_back({handle, context, line});
}

TEST(ApplicationOutputs, DumpAndApplicationRecordsReachTheApplicationOnly)
{
    TempDir dir("tovra-log");
    TOVRA_SetLoggingParameter("[TOVRA]\nlogpayload=1\nlogreader=1\n");
    TovraLogger reader(7);
    EXPECT_TRUE(reader.isPayloadOn());

    const std::string appFile = dir.file("app.log");
    reader.setAppFilename(appFile);
    EXPECT_TRUE(reader.isProtocolOn()) << "an application file switches full dumps on";
    EXPECT_FALSE(reader.isPayloadOn());
    int context = 0;
    reader.setAppCallback(&context, collectApp);

    UdpReceiver receiver;
    reader.setAppUdpDestination("127.0.0.1", 0);
    reader.setAppUdpDestination("127.0.0.1", 65536);
    reader.appendAppMessage("not sent over UDP");
    EXPECT_EQ(receiver.receive(200), std::nullopt);
    reader.setAppUdpDestination("127.0.0.1", static_cast<std::uint32_t>(receiver.port()));

    auto frame = std::make_unique<ProtocolFrame>();
    const std::uint8_t payload[] = {0x65, 0x00};
    ASSERT_TRUE(buildFrame(*frame, payload, sizeof payload, 3, kDirectionRequest, 0xFF));
    TovraProbe::traceHello(reader, 42); // trace records stay out of the application outputs
    logFrameDump(reader, 7, "SingleCh", *frame, DumpDirection::Send);
    reader.appendAppMessage("hello app");

    const auto fileLines = linesOf(readText(appFile));
    ASSERT_EQ(fileLines.size(), 3u);
    EXPECT_TRUE(std::regex_match(fileLines[0], std::regex(kAbsoluteStamp + R"( :: TOVRA APP7 TID=\d+ :: not sent over UDP)")))
        << fileLines[0];
    EXPECT_TRUE(std::regex_match(fileLines[1], std::regex(kAbsoluteStamp + R"( :: TOVRA RH=7 SingleCh:Enh:Req ::   >>   03 00 0A 00 01 FF\|65 00\|F7 1E)")))
        << fileLines[1];
    EXPECT_NE(fileLines[2].find(" :: TOVRA APP7 TID="), std::string::npos);

    ASSERT_EQ(gAppLines.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(gAppLines[i].handle, 7);
        EXPECT_EQ(gAppLines[i].context, &context);
        EXPECT_EQ(gAppLines[i].line, fileLines[i]);
    }
    EXPECT_EQ(receiver.receive(), fileLines[1] + "\n");
    EXPECT_EQ(receiver.receive(), fileLines[2] + "\n");

    reader.setAppCallback(nullptr, nullptr);
    reader.setAppFilename("");
    reader.appendAppMessage("after switching off");
    EXPECT_EQ(gAppLines.size(), 3u);
    EXPECT_EQ(linesOf(readText(appFile)).size(), 3u);
}

} // namespace
} // namespace tovra
