#pragma once

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
        if (claim_ != 0) return false;
        claim_ = -1;
        return true;
    }

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
            claim_ = 0;
        }
        freed_.notify_all();
    }

private:
    std::mutex lock_;
    std::condition_variable freed_;
    int claim_ = 0; // 0 free, -1 claimed
};

} // namespace tovra
