#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>

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
        try {
            thread_ = std::thread([this, owner, run = std::move(body)] {
                id_.store(std::this_thread::get_id());
                currentOwnerTag() = owner;
                run();
                finished_.store(true);
            });
        } catch (...) {
            finished_.store(true);
            throw;
        }
        id_.store(thread_.get_id());
        exists_.store(true);
        return true;
    }

    void requestStop() { stopRequested_.store(true); }
    bool stopRequested() const { return stopRequested_.load(); }
    bool exists() const { return exists_.load(); }
    bool finished() const { return finished_.load(); }
    // True on the worker's own thread.
    bool isCurrent() const { return id_.load() == std::this_thread::get_id(); }

    // Waits for the thread to end. On the worker's own thread it returns false at once and
    // leaves the thread to a later join from elsewhere.
    bool join()
    {
        if (isCurrent()) return false;
        std::lock_guard guard(lock_);
        if (thread_.joinable()) thread_.join();
        exists_.store(false);
        id_.store(std::thread::id{});
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
    std::thread thread_;
    std::atomic<std::thread::id> id_{};
    std::atomic<bool> exists_{false};
    std::atomic<bool> stopRequested_{false};
    std::atomic<bool> finished_{true};
};

} // namespace tovra
