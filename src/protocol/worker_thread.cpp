#include "protocol/worker_thread.h"

#include <system_error>
#include <utility>

namespace tovra {

void WorkerThread::prepare()
{
    std::unique_lock guard(lock_, std::try_to_lock);
    if (!guard.owns_lock()) return;
    if (thread_.joinable()) {
        if (!finished_.load() || waiting_) return;
        thread_.join();
    }
    {
        std::lock_guard park(parkLock_);
        waiting_ = true;
    }
    if (!thread_.start([this] { serve(); })) {
        std::lock_guard park(parkLock_);
        waiting_ = false;
    }
}

void WorkerThread::retire()
{
    bool idle = false;
    {
        std::lock_guard park(parkLock_);
        if (!waiting_) return;
        waiting_ = false;
        idle = finished_.load();
    }
    parkChanged_.notify_all();
    if (!idle || isCurrent()) return;
    std::lock_guard guard(lock_);
    if (thread_.joinable()) thread_.join();
}

bool WorkerThread::start(const void* owner, std::function<void()> body)
{
    std::lock_guard guard(lock_);
    if (thread_.joinable() && !finished_.load()) return false;
    stopRequested_.store(false);
    id_.store(0);
    if (handOver(owner, body)) return true;
    if (thread_.joinable()) thread_.join();
    finished_.store(false);
    const bool made = thread_.start([this, owner, run = std::move(body)] { runBody(owner, run); });
    if (!made) {
        finished_.store(true);
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    }
    exists_.store(true);
    return true;
}

bool WorkerThread::join()
{
    if (isCurrent()) return false;
    std::lock_guard guard(lock_);
    std::unique_lock park(parkLock_);
    if (waiting_) {
        parkChanged_.wait(park, [this] { return finished_.load(); });
    } else {
        park.unlock();
        if (thread_.joinable()) thread_.join();
    }
    exists_.store(false);
    id_.store(0);
    finished_.store(true);
    return true;
}

bool WorkerThread::handOver(const void* owner, std::function<void()>& body)
{
    {
        std::lock_guard park(parkLock_);
        if (!waiting_) return false;
        nextOwner_ = owner;
        next_ = std::move(body);
        finished_.store(false);
    }
    exists_.store(true);
    parkChanged_.notify_all();
    return true;
}

void WorkerThread::runBody(const void* owner, const std::function<void()>& body)
{
    id_.store(platform::currentThreadId());
    currentOwnerTag() = owner;
    body();
    currentOwnerTag() = nullptr;
    // The system may give this id to another thread once this one has ended.
    id_.store(0);
    std::lock_guard park(parkLock_);
    finished_.store(true);
    parkChanged_.notify_all();
}

void WorkerThread::serve()
{
    std::unique_lock park(parkLock_);
    for (;;) {
        parkChanged_.wait(park, [this] { return next_ != nullptr || !waiting_; });
        if (next_ == nullptr) return;
        const std::function<void()> body = std::move(next_);
        next_ = nullptr;
        const void* owner = nextOwner_;
        park.unlock();
        runBody(owner, body);
        park.lock();
    }
}

} // namespace tovra
