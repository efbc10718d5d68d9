#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

namespace tovra::test {

// Ends the test process with a message once a guarded stretch of a test has not moved on
// for `limit`. A deadlock leaves threads that can never be joined: failing the process is
// all a test can do then, and better than hanging until the test driver's time runs out.
class Watchdog {
public:
    explicit Watchdog(std::string what, std::chrono::seconds limit = std::chrono::seconds(30))
        : what_(std::move(what)), limit_(limit), thread_([this] { watch(); })
    {
    }
    ~Watchdog()
    {
        {
            std::lock_guard guard(lock_);
            done_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    // One more round done: the limit starts again.
    void moved()
    {
        {
            std::lock_guard guard(lock_);
            ++moves_;
        }
        changed_.notify_all();
    }

private:
    void watch()
    {
        std::unique_lock guard(lock_);
        for (;;) {
            const unsigned long seen = moves_;
            if (changed_.wait_for(guard, limit_, [&] { return done_ || moves_ != seen; })) {
                if (done_) return;
                continue;
            }
            std::fprintf(stderr, "%s: no progress for %lld s after %lu rounds, deadlocked\n", what_.c_str(),
                         static_cast<long long>(limit_.count()), seen);
            std::fflush(stderr);
            std::_Exit(1);
        }
    }

    const std::string what_;
    const std::chrono::seconds limit_;
    std::mutex lock_;
    std::condition_variable changed_;
    unsigned long moves_ = 0;
    bool done_ = false;
    std::thread thread_; // last: it starts once the rest is there
};

} // namespace tovra::test
