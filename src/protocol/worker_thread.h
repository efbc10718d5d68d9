#pragma once

#include "platform/thread.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <system_error>

namespace tovra {

// The thread of a channel worker or listener: started again only after the previous run
// has finished, always joined, never detached, and never joined by itself. Each thread
// carries a tag of whom it serves (its reader), so that code running on it, application
// callbacks included, can tell that it must not wait for that reader's threads.
class WorkerThread {
public:
    WorkerThread() = default;
    // The owner destroys its workers only from another thread, once they have finished
    // or after asking them to stop.
    ~WorkerThread() { join(); }
    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;

    // False while a previous run has not finished; a finished one is joined first.
    // Throws std::system_error when the system refuses a new thread.
    bool start(const void* owner, std::function<void()> body)
    {
        std::lock_guard guard(lock_);
        if (thread_.joinable()) {
            if (!finished_.load()) return false;
            thread_.join();
        }
        stopRequested_.store(false);
        finished_.store(false);
        id_.store(0);
        const bool made = thread_.start([this, owner, run = std::move(body)] {
            id_.store(platform::currentThreadId());
            currentOwnerTag() = owner;
            run();
            // The system may give this id to another thread once this one has ended.
            id_.store(0);
            finished_.store(true);
        });
        if (!made) {
            finished_.store(true);
            throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
        }
        exists_.store(true);
        return true;
    }

    void requestStop() { stopRequested_.store(true); }
    bool stopRequested() const { return stopRequested_.load(); }
    bool exists() const { return exists_.load(); }
    bool finished() const { return finished_.load(); }
    // True on the worker's own thread.
    bool isCurrent() const { return id_.load() == platform::currentThreadId(); }

    // Waits for the thread to end. On the worker's own thread it returns false at once and
    // leaves the thread to a later join from elsewhere.
    bool join()
    {
        if (isCurrent()) return false;
        std::lock_guard guard(lock_);
        if (thread_.joinable()) thread_.join();
        exists_.store(false);
        id_.store(0);
        finished_.store(true);
        return true;
    }

    // The owner tag of the calling thread: null on threads the library did not start.
    static const void* currentOwner() { return currentOwnerTag(); }

private:
    static const void*& currentOwnerTag()
    {
        thread_local const void* owner = nullptr;
        return owner;
    }

    // Guards the thread object against a start and a join, or two joins, at once.
    std::mutex lock_;
    platform::NativeThread thread_;
    std::atomic<std::uint64_t> id_{0};
    std::atomic<bool> exists_{false};
    std::atomic<bool> stopRequested_{false};
    std::atomic<bool> finished_{true};
};

} // namespace tovra
