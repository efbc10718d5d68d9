// The serial device library as tovra uses it: loaded at run time, driven through its entry
// points, with a pseudo-terminal standing in for the port. Pseudo-terminals are Linux only;
// on Windows the tests that need one skip.
#include "error_codes.h"
#include "raw_frames.h"
#include "platform/dynlib.h"
#include "platform/env.h"
#include "platform/pty.h"
#include "support/repeat.h"
#include "support/temp_dir.h"
#include "support/wait.h"
#include "tovra/device/zkcom.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace tovra::test {
namespace {

using namespace std::chrono_literals;
using zkcom::test::Bytes;
using zkcom::test::frameOf;
using Clock = std::chrono::steady_clock;

#if defined(_WIN32)
constexpr bool kHavePty = false;
#else
constexpr bool kHavePty = true;
#endif

#define REQUIRE_PTY() \
    if (!kHavePty) GTEST_SKIP() << "needs a pseudo-terminal"


// The master side of a pseudo-terminal: the far end of the serial line.
class Pty {
public:
    Pty() : master_(platform::openPty(slave_)) {}
    ~Pty() { hangUp(); }
    Pty(const Pty&) = delete;
    Pty& operator=(const Pty&) = delete;

    bool ok() const { return master_ != platform::kInvalidPty; }
    const std::string& slave() const { return slave_; }
    void hangUp()
    {
        platform::closePty(master_);
        master_ = platform::kInvalidPty;
    }
    platform::PtyLineSettings settings() const
    {
        platform::PtyLineSettings settings;
        EXPECT_TRUE(platform::ptyLineSettings(master_, settings));
        return settings;
    }
    void send(const Bytes& bytes, std::size_t from = 0, std::size_t count = SIZE_MAX)
    {
        const std::size_t end = std::min(bytes.size(), count == SIZE_MAX ? bytes.size() : from + count);
        while (from < end) {
            const std::ptrdiff_t sent = platform::ptyWrite(master_, bytes.data() + from, end - from);
            if (sent > 0)
                from += static_cast<std::size_t>(sent);
            else
                ASSERT_GE(platform::waitPty(master_, false, true, 5000), 0);
        }
    }
    // What the library sent, once `count` bytes are there or `limit` has passed.
    Bytes take(std::size_t count, std::chrono::milliseconds limit = 10s)
    {
        Bytes taken;
        std::uint8_t chunk[4096];
        const auto end = Clock::now() + limit;
        while (taken.size() < count && Clock::now() < end) {
            const std::ptrdiff_t got = platform::ptyRead(master_, chunk, std::min(sizeof chunk, count - taken.size()));
            if (got > 0)
                taken.insert(taken.end(), chunk, chunk + got);
            else
                platform::waitPty(master_, true, false, 50);
        }
        return taken;
    }

private:
    std::string slave_;
    platform::PtyHandle master_;
};

class Zkcom : public ::testing::Test {
protected:
    void SetUp() override
    {
        library_ = platform::loadLibrary(ZKCOM_LIBRARY);
        ASSERT_NE(library_, nullptr) << platform::lastLoadError();
        resolve(version, "ZKCOM_GetDLLVersion");
        resolve(errorText, "ZKCOM_GetErrorText");
        resolve(openPort, "ZKCOM_OpenPort");
        resolve(closePort, "ZKCOM_ClosePort");
        resolve(transmit, "ZKCOM_Transmit");
        resolve(receive, "ZKCOM_Receive");
        resolve(getPara, "ZKCOM_GetPortPara");
        resolve(setPara, "ZKCOM_SetPortPara");
        resolve(command, "ZKCOM_DoPortCmd");
        resolve(detect, "ZKCOM_DetectPort");
        // No test reaches a real port: a number without a link of its own names nothing.
        platform::setEnv("ZKCOM_PORTDIR", links_.path().string().c_str());
    }
    void TearDown() override
    {
        for (int number : mapped_) platform::unsetEnv(variable(number).c_str());
        platform::unsetEnv("ZKCOM_PORTDIR");
        if (library_ != nullptr) platform::unloadLibrary(library_);
    }

    static std::string variable(int number) { return "ZKCOM_COM" + std::to_string(number); }
    void map(int number, const std::string& path)
    {
        platform::setEnv(variable(number).c_str(), path.c_str());
        mapped_.push_back(number);
    }
    void link(int number, const std::string& path)
    {
        std::filesystem::create_symlink(path, links_.path() / ("com" + std::to_string(number)));
    }
    std::int32_t open(int number) { return openPort(std::to_string(number).c_str()); }
    // Opens the port through ZKCOM_COM<number> with a receive time-out of `timeoutMs`.
    std::int32_t openOn(const Pty& pty, int number, int timeoutMs)
    {
        map(number, pty.slave());
        const std::int32_t handle = open(number);
        EXPECT_GE(handle, 0);
        EXPECT_EQ(setPara(handle, "TIMEOUT", std::to_string(timeoutMs).c_str()), 0);
        return handle;
    }
    std::string para(std::int32_t handle, const char* name)
    {
        char value[64] = "unset";
        EXPECT_EQ(getPara(handle, name, value, sizeof value), 0) << name;
        return value;
    }
    Bytes receiveFrame(std::int32_t handle)
    {
        Bytes buffer(40000);
        const std::int32_t got = receive(handle, buffer.data(), static_cast<std::int32_t>(buffer.size()));
        EXPECT_GT(got, 0);
        buffer.resize(static_cast<std::size_t>(std::max(got, 0)));
        return buffer;
    }

    ZKCOM_GetDLLVersion_t version = nullptr;
    ZKCOM_GetErrorText_t errorText = nullptr;
    ZKCOM_OpenPort_t openPort = nullptr;
    ZKCOM_ClosePort_t closePort = nullptr;
    ZKCOM_Transmit_t transmit = nullptr;
    ZKCOM_Receive_t receive = nullptr;
    ZKCOM_GetPortPara_t getPara = nullptr;
    ZKCOM_SetPortPara_t setPara = nullptr;
    ZKCOM_DoPortCmd_t command = nullptr;
    ZKCOM_DetectPort_t detect = nullptr;
    TempDir links_{"zkcom-ports"};

private:
    template <typename Function>
    void resolve(Function& function, const char* name)
    {
        function = platform::symbolAs<Function>(platform::findSymbol(library_, name));
        ASSERT_NE(function, nullptr) << name;
    }

    platform::LibraryHandle library_ = nullptr;
    std::vector<int> mapped_;
};

TEST_F(Zkcom, VersionAndErrorTexts)
{
    EXPECT_STREQ(version(), "5.0.0");

    char text[128];
    ASSERT_EQ(errorText(ZKCOM_TIMEOUT, text, sizeof text), 0);
    const std::string full = text;
    EXPECT_EQ(full.rfind("ZKCOM error -1030: ", 0), 0u) << full;
    EXPECT_GT(full.size(), std::strlen("ZKCOM error -1030: "));
    ASSERT_EQ(errorText(-77, text, sizeof text), 0);
    EXPECT_NE(std::string(text).find("-77"), std::string::npos) << text;

    // Cut to the buffer, always terminated; no buffer at all is an error.
    std::memset(text, 'x', sizeof text);
    ASSERT_EQ(errorText(ZKCOM_TIMEOUT, text, 12), 0);
    EXPECT_EQ(std::string(text), full.substr(0, 11));
    EXPECT_EQ(text[12], 'x');
    ASSERT_EQ(errorText(ZKCOM_TIMEOUT, text, 1), 0);
    EXPECT_EQ(text[0], '\0');
    EXPECT_LT(errorText(ZKCOM_TIMEOUT, text, 0), 0);
    EXPECT_LT(errorText(ZKCOM_TIMEOUT, nullptr, 10), 0);
}

TEST_F(Zkcom, NamesNoPortOutsideOneTo255AndOpensNoAbsentOne)
{
    for (const char* port : {"0", "256", "-1", "4x", " 4", "", "COM4"})
        EXPECT_EQ(openPort(port), zkcom::kInvalidPortNumber) << '"' << port << '"';
    EXPECT_EQ(openPort(nullptr), zkcom::kInvalidPortNumber);
    for (int port : {0, 256, -3}) EXPECT_LT(detect(port), 0) << port;

    map(200, links_.file("no-such-port"));
    EXPECT_LT(detect(200), 0);
    EXPECT_EQ(open(200), zkcom::kCannotOpen);
    EXPECT_LT(detect(201), 0); // a folder of links without com201

    // A handle that was never opened.
    std::uint8_t byte = 0;
    char value[8];
    EXPECT_EQ(receive(4711, &byte, 1), zkcom::kInvalidHandle);
    EXPECT_EQ(transmit(4711, &byte, 1), zkcom::kInvalidHandle);
    EXPECT_EQ(getPara(4711, "baud", value, sizeof value), zkcom::kInvalidHandle);
    EXPECT_EQ(closePort(4711), zkcom::kInvalidHandle);
}

TEST_F(Zkcom, PortMapTriesTheVariableThenTheFolderOfLinks)
{
    REQUIRE_PTY();
    Pty byVariable, byLink;
    ASSERT_TRUE(byVariable.ok() && byLink.ok());
    link(7, byLink.slave());
    map(7, byVariable.slave());
    EXPECT_EQ(detect(7), 0);

    const Bytes frame = frameOf(5, 0x5A);
    std::int32_t handle = open(7);
    ASSERT_GE(handle, 0);
    ASSERT_EQ(transmit(handle, frame.data(), 5), 0);
    EXPECT_EQ(byVariable.take(5), frame);
    ASSERT_EQ(closePort(handle), 0);

    platform::unsetEnv(variable(7).c_str());
    EXPECT_EQ(detect(7), 0);
    handle = open(7);
    ASSERT_GE(handle, 0);
    ASSERT_EQ(transmit(handle, frame.data(), 5), 0);
    EXPECT_EQ(byLink.take(5), frame);
    EXPECT_EQ(closePort(handle), 0);
}

TEST_F(Zkcom, SettingsReachTheLineAndReadBack)
{
    REQUIRE_PTY();
    Pty pty;
    map(3, pty.slave());
    const std::int32_t handle = open(3);
    ASSERT_GE(handle, 0);
    EXPECT_EQ(pty.settings().baud, 38400);
    EXPECT_EQ(pty.settings().parity, 'E');
    EXPECT_EQ(para(handle, "baud"), "38400");
    EXPECT_EQ(para(handle, "Frame"), "8E1");
    EXPECT_EQ(para(handle, "OPMODE"), "RS232");
    EXPECT_EQ(para(handle, "timeout"), "300");

    EXPECT_EQ(setPara(handle, "Baud", "9600"), 0);
    EXPECT_EQ(setPara(handle, "FRAME", "8e1"), 0);
    EXPECT_EQ(setPara(handle, "frame", "8E1"), 0); // nothing changes: still fine
    EXPECT_EQ(pty.settings().baud, 9600);
    EXPECT_EQ(pty.settings().parity, 'E');
    EXPECT_EQ(setPara(handle, "frame", "7O2"), 0);
    EXPECT_EQ(pty.settings().parity, 'O');
    EXPECT_EQ(pty.settings().stopBits, 2);
    EXPECT_EQ(setPara(handle, "frame", "8N1"), 0);
    EXPECT_EQ(pty.settings().parity, 'N');
    EXPECT_EQ(pty.settings().stopBits, 1);

    // Refused values leave everything as it was.
    for (const char* baud : {"12345", "96OO", "", "4294967296"})
        EXPECT_EQ(setPara(handle, "baud", baud), zkcom::kUnsupportedBaud) << baud;
    for (const char* frame : {"9E1", "4E1", "8X1", "8E3", "8E", "8E11"})
        EXPECT_EQ(setPara(handle, "frame", frame), zkcom::kInvalidFrameFormat) << frame;
    EXPECT_EQ(setPara(handle, "opmode", "RS422"), zkcom::kInvalidOpMode);
    EXPECT_EQ(setPara(handle, "timeout", "-5"), zkcom::kInvalidTimeout);
    EXPECT_EQ(para(handle, "baud"), "9600");
    EXPECT_EQ(para(handle, "frame"), "8N1");
    EXPECT_EQ(pty.settings().baud, 9600);

    // A pty has no RS-485 mode to switch; the mode is taken all the same.
    EXPECT_EQ(setPara(handle, "OpMode", "rs485"), 0);
    EXPECT_EQ(para(handle, "opmode"), "RS485");

    // Other names are kept as given and found in any case.
    EXPECT_EQ(setPara(handle, "UseQEMA", "1"), 0);
    EXPECT_EQ(setPara(handle, "BUSADDRESS", "255"), 0);
    EXPECT_EQ(para(handle, "useqema"), "1");
    EXPECT_EQ(para(handle, "BusAddress"), "255");
    char value[3];
    EXPECT_EQ(getPara(handle, "no such name", value, sizeof value), zkcom::kUnknownParameter);
    EXPECT_EQ(getPara(handle, "baud", value, sizeof value), zkcom::kValueTruncated);
    EXPECT_STREQ(value, "96");
    EXPECT_EQ(closePort(handle), 0);
}

TEST_F(Zkcom, ReceivesWholeFramesAcrossNoiseSplitsAndJoins)
{
    REQUIRE_PTY();
    Pty pty;
    const std::int32_t handle = openOn(pty, 5, 2000);
    const Bytes first = frameOf(7, 0x11), second = frameOf(300, 0x22), third = frameOf(6, 0x33);
    // Idle zeros and a long head too short come to nothing; one declaring 32769 loses its
    // first byte, and the high byte of its length heads a frame of 128.
    Bytes stream = {0x00, 0x00, 0x01, 0x00, 0x04, 0x00, 0x00};
    Bytes tooLong = {0x02, 0x80, 0x01};
    tooLong.resize(129, 0xAB);
    stream.insert(stream.end(), tooLong.begin(), tooLong.end());
    for (const Bytes* frame : {&first, &second, &third}) stream.insert(stream.end(), frame->begin(), frame->end());
    // In pieces that cut through heads, lengths and bodies.
    pty.send(stream, 0, 3);
    pty.send(stream, 3, 7);
    pty.send(stream, 10, 1);
    pty.send(stream, 11, 150);
    pty.send(stream, 161);

    EXPECT_EQ(receiveFrame(handle), Bytes(tooLong.begin() + 1, tooLong.end()));
    EXPECT_EQ(receiveFrame(handle), first);
    EXPECT_EQ(receiveFrame(handle), second);
    EXPECT_EQ(receiveFrame(handle), third);
    EXPECT_EQ(setPara(handle, "timeout", "50"), 0);
    std::uint8_t buffer[16];
    EXPECT_EQ(receive(handle, buffer, sizeof buffer), ZKCOM_TIMEOUT);
    EXPECT_EQ(closePort(handle), 0);
}

TEST_F(Zkcom, FramesTooLargeOrCutShortAreErrorsAndLeaveTheNextFrame)
{
    REQUIRE_PTY();
    Pty pty;
    const std::int32_t handle = openOn(pty, 6, 2000);
    const Bytes large = frameOf(40, 0x44), small = frameOf(6, 0x55);
    Bytes stream = large;
    stream.insert(stream.end(), small.begin(), small.end());
    pty.send(stream);

    // Read off the line but never written past the caller's 16 bytes.
    std::uint8_t buffer[32];
    std::memset(buffer, 0xEE, sizeof buffer);
    EXPECT_EQ(receive(handle, buffer, 16), zkcom::kFrameTooLarge);
    for (std::size_t at = 16; at < sizeof buffer; ++at) ASSERT_EQ(buffer[at], 0xEE) << at;
    EXPECT_EQ(receiveFrame(handle), small);

    // A head declaring 32 bytes with four following, then nothing within the gap.
    pty.send({0x20, 1, 2, 3, 4});
    EXPECT_EQ(receive(handle, buffer, sizeof buffer), zkcom::kFrameIncomplete);
    pty.send(small);
    EXPECT_EQ(receiveFrame(handle), small);
    EXPECT_EQ(closePort(handle), 0);
}

TEST_F(Zkcom, TimesOutAfterThePortTimeoutAndDropsInputOnNewSettings)
{
    REQUIRE_PTY();
    Pty pty;
    const std::int32_t handle = openOn(pty, 8, 150);
    std::uint8_t buffer[64];
    const auto start = Clock::now();
    EXPECT_EQ(receive(handle, buffer, sizeof buffer), ZKCOM_TIMEOUT);
    EXPECT_GE(Clock::now() - start, 150ms);

    // A time-out of 0 waits for nothing but still takes a frame that is there.
    ASSERT_EQ(setPara(handle, "TIMEOUT", "0"), 0);
    const Bytes waiting = frameOf(5, 0x5F);
    pty.send(waiting);
    EXPECT_TRUE(waitUntil([&] { return receive(handle, buffer, sizeof buffer) == 5; }));
    EXPECT_EQ(Bytes(buffer, buffer + 5), waiting);
    ASSERT_EQ(setPara(handle, "TIMEOUT", "150"), 0);

    // The second frame came at the old speed: it must not count at the new one.
    for (const char* name : {"baud", "frame", "opmode"}) {
        const Bytes first = frameOf(5, 0x66), late = frameOf(9, 0x77);
        Bytes both = first;
        both.insert(both.end(), late.begin(), late.end());
        pty.send(both);
        EXPECT_EQ(receiveFrame(handle), first);
        const char* value = std::string(name) == "baud" ? "9600" : std::string(name) == "frame" ? "8O1" : "RS232";
        EXPECT_EQ(setPara(handle, name, value), 0);
        EXPECT_EQ(receive(handle, buffer, sizeof buffer), ZKCOM_TIMEOUT) << name;
    }
    EXPECT_EQ(closePort(handle), 0);
}

TEST_F(Zkcom, HungUpLineAnswersOnlyAfterTheTimeoutEveryTime)
{
    REQUIRE_PTY();
    Pty pty;
    const std::int32_t handle = openOn(pty, 9, 100);
    pty.hangUp();

    std::uint8_t buffer[64];
    int calls = 0;
    const auto start = Clock::now();
    while (Clock::now() - start < 1s) {
        ASSERT_EQ(receive(handle, buffer, sizeof buffer), zkcom::kHungUp);
        ++calls;
    }
    // Each call waits out its 100 ms: a spinning caller would have made thousands.
    EXPECT_LE(calls, 11);
    EXPECT_LT(transmit(handle, buffer, 5), 0);
    EXPECT_EQ(closePort(handle), 0);
}

TEST_F(Zkcom, OpensExclusivelyAndNeverReusesAHandleSoon)
{
    REQUIRE_PTY();
    Pty pty;
    map(10, pty.slave());
    map(11, pty.slave()); // the same device under another number
    const std::int32_t handle = open(10);
    ASSERT_GE(handle, 0);
    EXPECT_EQ(open(10), zkcom::kPortInUse);
    EXPECT_EQ(open(11), zkcom::kPortInUse);
    EXPECT_EQ(closePort(handle), 0);
    EXPECT_EQ(closePort(handle), zkcom::kInvalidHandle);

    const std::int32_t again = open(11);
    ASSERT_GE(again, 0);
    EXPECT_NE(again, handle);
    std::uint8_t byte = 0;
    EXPECT_EQ(receive(handle, &byte, 1), zkcom::kInvalidHandle);
    EXPECT_EQ(closePort(again), 0);
}

TEST_F(Zkcom, CloseWakesAReceiveOrTransmitWaitingOnAnotherThread)
{
    REQUIRE_PTY();
    Pty pty;
    map(12, pty.slave());
    for (int round = 0; round < repeat(20); ++round) {
        const std::int32_t handle = open(12);
        ASSERT_GE(handle, 0);
        ASSERT_EQ(setPara(handle, "timeout", "60000"), 0);
        std::atomic<std::int32_t> received{1}, transmitted{1};
        // Nobody reads the master: the transmit fills the pty and waits for room.
        const Bytes big(256 * 1024, 0x01);
        std::thread receiver([&] {
            std::uint8_t buffer[64];
            received = receive(handle, buffer, sizeof buffer);
        });
        std::thread transmitter(
                [&] { transmitted = transmit(handle, big.data(), static_cast<std::int32_t>(big.size())); });
        std::this_thread::sleep_for(std::chrono::milliseconds(round % 3 * 5));
        EXPECT_EQ(closePort(handle), 0);
        // Either call may have started after the close, and find no handle then.
        const bool woken = waitUntil([&] { return received != 1 && transmitted != 1; }, 20s);
        receiver.join();
        transmitter.join();
        ASSERT_TRUE(woken) << "round " << round;
        EXPECT_TRUE(received == zkcom::kPortClosed || received == zkcom::kInvalidHandle) << received;
        EXPECT_TRUE(transmitted == zkcom::kPortClosed || transmitted == zkcom::kInvalidHandle) << transmitted;
    }
}

TEST_F(Zkcom, TransmitsALargeFrameWhileAnotherThreadReceives)
{
    REQUIRE_PTY();
    Pty pty;
    const std::int32_t handle = openOn(pty, 13, 5000);
    Bytes large = frameOf(32768, 0);
    for (std::size_t at = 3; at < large.size(); ++at) large[at] = static_cast<std::uint8_t>(at * 7);

    constexpr int kFrames = 50;
    std::atomic<int> good{0};
    std::thread receiver([&] {
        for (int i = 0; i < kFrames; ++i)
            if (receiveFrame(handle) == frameOf(5 + i % 100, static_cast<std::uint8_t>(i))) ++good;
    });
    std::atomic<std::int32_t> sent{1};
    std::thread transmitter([&] { sent = transmit(handle, large.data(), static_cast<std::int32_t>(large.size())); });
    for (int i = 0; i < kFrames; ++i) pty.send(frameOf(5 + i % 100, static_cast<std::uint8_t>(i)));
    EXPECT_EQ(pty.take(large.size()), large); // more than a pty holds at once
    transmitter.join();
    receiver.join();
    EXPECT_EQ(sent, 0);
    EXPECT_EQ(good, kFrames);
    EXPECT_EQ(closePort(handle), 0);
}

TEST_F(Zkcom, ModemLinesAPtyLacksAreIgnoredNotFailed)
{
    REQUIRE_PTY();
    Pty pty;
    const std::int32_t handle = openOn(pty, 14, 300);
    EXPECT_EQ(command(handle, "SETRTS", "ON"), 1);
    EXPECT_EQ(command(handle, "setdtr", "off"), 1);
    EXPECT_EQ(command(handle, "SETRTS", "MAYBE"), zkcom::kInvalidCommandValue);
    EXPECT_EQ(command(handle, "SETBREAK", "ON"), zkcom::kUnknownCommand);
    EXPECT_EQ(closePort(handle), 0);
}

} // namespace
} // namespace tovra::test
