// Worker threads made ahead of their runs: the hand-over, the end, and their races.
#include "protocol/worker_thread.h"

#include "platform/thread.h"
#include "support/wait.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

namespace {

using namespace std::chrono_literals;
using tovra::WorkerThread;
using tovra::test::waitUntil;

const int kOwner = 0;

TEST(WorkerThread, APreparedThreadRunsEveryBodyUntilRetired)
{
    WorkerThread worker;
    worker.prepare();
    std::atomic<std::uint64_t> ran{0};
    std::uint64_t first = 0;
    for (int run = 0; run < 3; ++run) {
        ASSERT_TRUE(worker.start(&kOwner, [&] {
            EXPECT_EQ(WorkerThread::currentOwner(), &kOwner);
            EXPECT_TRUE(worker.isCurrent());
            ran = tovra::platform::currentThreadId();
        }));
        EXPECT_TRUE(worker.join());
        EXPECT_TRUE(worker.finished());
        if (run == 0) first = ran;
        EXPECT_EQ(ran.load(), first) << "run " << run << " on the prepared thread";
    }
    worker.retire();
    ASSERT_TRUE(worker.start(&kOwner, [&] { ran = tovra::platform::currentThreadId(); }));
    EXPECT_TRUE(worker.join());
    EXPECT_NE(ran.load(), first) << "after retiring, a start makes a thread of its own";
}

TEST(WorkerThread, ABusyThreadRefusesAStartAndARunMayRetireItsOwnThread)
{
    WorkerThread worker;
    worker.prepare();
    std::atomic<bool> release{false};
    ASSERT_TRUE(worker.start(&kOwner, [&] {
        waitUntil([&] { return release.load(); }, 30s);
        worker.retire();                    // on its own thread: no wait for itself
        EXPECT_FALSE(worker.join());        // nor a join of itself
    }));
    EXPECT_FALSE(worker.start(&kOwner, [] {})) << "the first run is still under way";
    release = true;
    EXPECT_TRUE(worker.join());
    bool ranAgain = false;
    ASSERT_TRUE(worker.start(&kOwner, [&] { ranAgain = true; }));
    EXPECT_TRUE(worker.join());
    EXPECT_TRUE(ranAgain);
}

// Starts and joins on one thread while another prepares and retires the worker: every body
// runs once, no join returns before its body has ended, and nothing hangs.
TEST(WorkerThread, StartsJoinsPreparesAndRetiresAtOnce)
{
    WorkerThread worker;
    std::atomic<bool> done{false};
    std::thread other([&] {
        while (!done) {
            worker.prepare();
            std::this_thread::yield();
            worker.retire();
        }
    });
    int ran = 0;
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    for (int i = 0; i < 3000 && std::chrono::steady_clock::now() < deadline; ++i) {
        bool inside = false;
        ASSERT_TRUE(worker.start(&kOwner, [&] { inside = true; }));
        ASSERT_TRUE(worker.join());
        ASSERT_TRUE(inside) << "join returned before the body ran, round " << i;
        ++ran;
    }
    done = true;
    other.join();
    EXPECT_GT(ran, 0);
}

} // namespace
