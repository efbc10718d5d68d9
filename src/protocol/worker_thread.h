#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

namespace tovra {

// The thread of a channel worker: started again only after the previous run has finished,
// always joined, never detached.
class WorkerThread {
public:
    WorkerThread() = default;
    ~WorkerThread() { join(); }
    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;

    // False while a previous run has not finished; a finished one is joined first.
    bool start(std::function<void()> body)
    {
        if (thread_) {
            if (!finished_.load()) return false;
            join();
        }
        stopRequested_.store(false);
        finished_.store(false);
        thread_ = std::make_unique<std::thread>([this, run = std::move(body)] {
            run();
            finished_.store(true);
        });
        return true;
    }

    void requestStop() { stopRequested_.store(true); }
    bool stopRequested() const { return stopRequested_.load(); }
    bool exists() const { return thread_ != nullptr; }
    bool finished() const { return finished_.load(); }

    void join()
    {
        if (!thread_) return;
        if (thread_->joinable()) thread_->join();
        thread_.reset();
        finished_.store(true);
    }

private:
    std::unique_ptr<std::thread> thread_;
    std::atomic<bool> stopRequested_{false};
    std::atomic<bool> finished_{true};
};

} // namespace tovra
