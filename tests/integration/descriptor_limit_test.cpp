// A listener whose pending connection cannot be accepted because the process has no
// descriptor left: it says so once and waits, instead of spinning on the ready socket,
// and takes the connection once descriptors are free again. Its own process: the logging
// configuration is read once, and the descriptor limit is the whole process's.
#include "platform/system.h"
#include "readersim/reader_sim.h"
#include "support/wait.h"
#include "tovra/tovra.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>

namespace {

using tovra::readersim::ReaderSim;
using tovra::test::waitUntil;
using namespace std::chrono_literals;

struct Log {
    std::mutex lock;
    std::string text;
    int count(const std::string& part)
    {
        std::lock_guard guard(lock);
        int n = 0;
        for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
        return n;
    }
};

void TOVRA_CALL keep(void* context, const char* line)
{
    auto& log = *static_cast<Log*>(context);
    std::lock_guard guard(log.lock);
    log.text += line;
    log.text += '\n';
}

std::atomic<int> connected{0};
void TOVRA_CALL onConnected(std::int32_t, void*, const char*) { ++connected; }

TEST(DescriptorLimit, AListenerOutOfDescriptorsSaysSoOnceAndTakesTheReaderLater)
{
    if (tovra::platform::lowestFreeDescriptor() == 0) GTEST_SKIP() << "no descriptor limit to reach here";
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the undefined-behaviour checks read /proc, which needs a descriptor of its own";
#endif
    Log log;
    TOVRA_SetLoggingCallback(&log, keep);
    TOVRA_SetLoggingParameter("[TOVRA]\nlogtcp=on\nlogerror=on\n");

    std::uint16_t port = 0;
    {
        ReaderSim probe; // borrows a free loopback port
        ASSERT_TRUE(probe.listen());
        port = probe.port();
    }
    const std::int32_t host = TOVRA_Create(2, nullptr);
    ASSERT_EQ(TOVRA_SetReaderConnectedCallbacks(host, nullptr, onConnected, nullptr), 0);
    ASSERT_EQ(TOVRA_StartListener(host, ("tcp:IPAddress=127.0.0.1:Port=" + std::to_string(port)).c_str()), 0);
    // One descriptor left: the reader's socket takes it, and none is left for the accept.
    ASSERT_TRUE(tovra::platform::setOpenFileLimit(tovra::platform::lowestFreeDescriptor() + 1));
    ReaderSim reader;
    ASSERT_TRUE(reader.connect("127.0.0.1", port));
    ASSERT_TRUE(waitUntil([&] { return log.count("Accept failed") > 0; }));
    // A second of retries, logged once.
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(log.count("Accept failed"), 1);
    EXPECT_EQ(connected.load(), 0);

    ASSERT_TRUE(tovra::platform::setOpenFileLimit(4096));
    ASSERT_TRUE(waitUntil([&] { return connected.load() == 1; }));
    EXPECT_EQ(log.count("Accept works again"), 1);
    EXPECT_EQ(TOVRA_StopListener(host), 0);
    EXPECT_EQ(TOVRA_Delete(host), 0);
    TOVRA_SetLoggingCallback(nullptr, nullptr);
}

} // namespace
