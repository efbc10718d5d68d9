#pragma once

#include "platform/thread.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>

namespace tovra {

// The thread of a channel worker or listener: started again only after the previous run
// has finished, always joined, never detached, and never joined by itself. Each thread
// carries a tag of whom it serves (its reader), so that code running on it, application
// callbacks included, can tell that it must not wait for that reader's threads.
//
// A worker may be prepared: its thread is made ahead of time and waits for each run, so
// that a start only hands it the body (a listening reader's connection then begins without
// the cost of making threads). It waits until retired.
class WorkerThread {
public:
    WorkerThread() = default;
    // The owner destroys its workers only from another thread, once they have finished
    // or after asking them to stop.
    ~WorkerThread()
    {
        retire();
        join();
    }
    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;

    // Makes the waiting thread; nothing when there is one already, a run is under way or
    // another thread starts or joins this worker (it never waits for them: it may be called
    // from inside a run of a worker that somebody joins). A refusal of the system is not
    // an error either: start() makes the thread then.
    void prepare();

    // The prepared thread ends: at once when it waits (joined here, unless this is that
    // thread), otherwise after its current run, to be joined by the next start or join.
    void retire();

    // False while a previous run has not finished; a finished one is joined first.
    // Throws std::system_error when the system refuses a new thread.
    bool start(const void* owner, std::function<void()> body);

    void requestStop() { stopRequested_.store(true); }
    bool stopRequested() const { return stopRequested_.load(); }
    bool exists() const { return exists_.load(); }
    bool finished() const { return finished_.load(); }
    // True on the worker's own thread while it runs a body.
    bool isCurrent() const { return id_.load() == platform::currentThreadId(); }

    // Waits for the run to end (a prepared thread stays, waiting for the next). On the
    // worker's own thread it returns false at once and leaves the thread to a later join
    // from elsewhere.
    bool join();

    // The owner tag of the calling thread: null on threads the library did not start.
    static const void* currentOwner() { return currentOwnerTag(); }

private:
    static const void*& currentOwnerTag()
    {
        thread_local const void* owner = nullptr;
        return owner;
    }

    // With lock_ held: gives the body to the prepared thread, if there is one.
    bool handOver(const void* owner, std::function<void()>& body);

    void runBody(const void* owner, const std::function<void()>& body);

    // The prepared thread: one run per hand-over until retired.
    void serve();

    // Guards the thread object against a start and a join, or two joins, at once.
    std::mutex lock_;
    platform::NativeThread thread_;
    std::atomic<std::uint64_t> id_{0};
    std::atomic<bool> exists_{false};
    std::atomic<bool> stopRequested_{false};
    std::atomic<bool> finished_{true};

    // The prepared thread's hand-over; finished_ changes under it too, for join's wait.
    std::mutex parkLock_;
    std::condition_variable parkChanged_;
    bool waiting_ = false; // a prepared thread exists and takes runs
    std::function<void()> next_;
    const void* nextOwner_ = nullptr;
};

} // namespace tovra
