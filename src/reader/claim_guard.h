#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

namespace tovra {

// Ownership of one channel: claimed from a successful connect, accept or listen until the
// disconnect. Two threads that claim at once see one success.
class ClaimGuard {
public:
    bool tryClaim()
    {
        std::lock_guard guard(lock_);
        if (claim_.load(std::memory_order_relaxed) != 0) return false;
        claim_.store(-1, std::memory_order_relaxed);
        return true;
    }

    // A look that takes nothing: a claim tried only to see whether there is one would make
    // a connect on another thread fail meanwhile.
    bool isClaimed() const { return claim_.load(std::memory_order_acquire) != 0; }

    void free()
    {
        freeAfter([] {});
    }

    // Runs `last` and frees the channel as one step: a thread that sees the effect of
    // `last` and then claims is sure to succeed.
    template <typename Last>
    void freeAfter(Last&& last)
    {
        {
            std::lock_guard guard(lock_);
            last();
            claim_.store(0, std::memory_order_release);
        }
        freed_.notify_all();
    }

private:
    std::mutex lock_;
    std::condition_variable freed_;
    std::atomic<int> claim_{0}; // 0 free, -1 claimed; changed under lock_
};

} // namespace tovra
