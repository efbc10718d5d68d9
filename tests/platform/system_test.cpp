#include "platform/clock.h"
#include "platform/env.h"
#include "platform/file.h"
#include "platform/system.h"
#include "platform/thread.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

namespace tovra::platform {
namespace {

TEST(Clock, BothClocksMoveForward) {
    const auto mono0 = monotonicMicros();
    const auto wall0 = wallClockMicros();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_GE(monotonicMicros() - mono0, 10000);
    EXPECT_GE(wallClockMicros() - wall0, 10000);
}

TEST(Clock, WallClockCountsFromTheUnixEpoch) {
    const auto reference = std::chrono::duration_cast<std::chrono::microseconds>(
                               std::chrono::system_clock::now().time_since_epoch())
                               .count();
    EXPECT_LT(std::llabs(wallClockMicros() - reference), 60LL * 1000000);
}

TEST(Clock, LocalTimeAgreesWithTheRuntime) {
    const std::int64_t wall = wallClockMicros();
    std::tm parts{};
    ASSERT_TRUE(localTime(wall, parts));
    // mktime takes a local time back to the epoch second it came from.
    EXPECT_EQ(static_cast<std::int64_t>(std::mktime(&parts)), wall / 1000000);

    const std::string stamp = formatLocalTime(wall, "%Y.%m.%d-%H.%M.%S");
    ASSERT_EQ(stamp.size(), 19u) << stamp;
    char expected[80];
    std::snprintf(expected, sizeof expected, "%04d.%02d.%02d-%02d.%02d.%02d", parts.tm_year + 1900,
                  parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
    EXPECT_EQ(stamp, expected);
    EXPECT_EQ(formatLocalTime(wall, ""), "");
    EXPECT_EQ(formatLocalTime(wall, std::string(3000, 'x').c_str()), std::string(3000, 'x'));
}

TEST(Thread, IdsAreStablePerThreadAndDifferBetweenThreads) {
    const std::uint64_t mine = currentThreadId();
    EXPECT_NE(mine, 0u);
    EXPECT_EQ(currentThreadId(), mine);
    std::uint64_t other = 0;
    std::thread([&] { other = currentThreadId(); }).join();
    EXPECT_NE(other, 0u);
    EXPECT_NE(other, mine);
}

TEST(Environment, AbsentEmptyAndSetAreDistinct) {
    const char* name = "TOVRA_PLATFORM_TEST_VARIABLE";
    ASSERT_TRUE(unsetEnv(name));
    EXPECT_FALSE(getEnv(name).has_value());

    ASSERT_TRUE(setEnv(name, "some value"));
    EXPECT_EQ(getEnv(name), "some value");
    ASSERT_TRUE(setEnv(name, ""));
    ASSERT_TRUE(getEnv(name).has_value());
    EXPECT_EQ(*getEnv(name), "");
    const std::string longValue(1000, 'v');
    ASSERT_TRUE(setEnv(name, longValue.c_str()));
    EXPECT_EQ(getEnv(name), longValue);

    ASSERT_TRUE(unsetEnv(name));
    EXPECT_FALSE(getEnv(name).has_value());
    EXPECT_TRUE(unsetEnv(name));
    EXPECT_FALSE(getEnv(nullptr).has_value());
}

TEST(File, AppendsCreateAndExtendTheFile) {
    const std::string path = "tovra_platform_append_test.log";
    std::remove(path.c_str());
    ASSERT_TRUE(appendToFile(path.c_str(), "first line\n"));
    ASSERT_TRUE(appendToFile(path.c_str(), "second line\n"));
    {
        std::ifstream in(path, std::ios::binary);
        std::stringstream content;
        content << in.rdbuf();
        EXPECT_EQ(content.str(), "first line\nsecond line\n");
    }
    EXPECT_EQ(std::remove(path.c_str()), 0);

    const std::string nowhere = std::string("tovra_no_such_dir") + pathSeparator() + "x.log";
    EXPECT_FALSE(appendToFile(nowhere.c_str(), "x"));
}

}  // namespace
}  // namespace tovra::platform
