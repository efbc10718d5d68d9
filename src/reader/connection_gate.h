#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace tovra {

// Held while a reader that connected to the host stays connected. A listener takes it for
// each connection it hands over, waiting at most a short time, and the thread that ends
// the connection gives it back: unlike a mutex, any thread may release it.
class ConnectionGate {
public:
    bool tryAcquireFor(std::chrono::milliseconds limit)
    {
        std::unique_lock lock(lock_);
        if (!released_.wait_for(lock, limit, [this] { return !held_; })) return false;
        held_ = true;
        return true;
    }

    void release()
    {
        {
            std::lock_guard guard(lock_);
            held_ = false;
        }
        released_.notify_all();
    }

private:
    std::mutex lock_;
    std::condition_variable released_;
    bool held_ = false;
};

} // namespace tovra
