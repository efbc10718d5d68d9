// Plain-socket models of what an accepted connection must go through before a callback can
// run on a thread of its own, to set the library's accept-burst figures against: how long a
// burst takes when the threads already exist and need only be woken, with one accept loop
// for every listener or a thread per listener, and when each accept starts its threads.
#pragma once

#include "scale/sockets.h"

#include <poll.h>

#include <atomic>
#include <memory>
#include <semaphore>
#include <thread>
#include <vector>

namespace tovra::bench {

enum class AcceptModel {
    LoopWakesWaiting,      // one epoll loop accepts all; wakes a thread waiting per connection
    ListenerWakesWaiting,  // a thread per listener accepts; wakes a thread waiting for it
    ListenerStartsThreads, // a thread per listener accepts; starts two threads, the first reports
};

// Sets up every thread first; wait() gives the monotonic time at which each listener's
// connection reached its reporting thread, 0 for those that did not within 20 s.
class AcceptModelRun {
public:
    AcceptModelRun(AcceptModel model, const std::vector<int>& listeners)
        : model_(model), listeners_(listeners), reached_(listeners.size()), taken_(listeners.size()),
          woken_(listeners.size())
    {
        for (auto& wake : woken_) wake = std::make_unique<std::binary_semaphore>(0);
        if (model_ != AcceptModel::ListenerStartsThreads)
            for (std::size_t i = 0; i < listeners_.size(); ++i)
                waiting_.emplace_back([this, i] {
                    woken_[i]->acquire();
                    if (taken_[i].load()) reached_[i].store(monotonicNanos());
                });
        if (model_ == AcceptModel::LoopWakesWaiting) acceptors_.emplace_back([this] { acceptLoop(); });
        else
            for (std::size_t i = 0; i < listeners_.size(); ++i)
                acceptors_.emplace_back([this, i] { acceptOne(i); });
    }

    std::vector<std::int64_t> wait()
    {
        for (std::thread& acceptor : acceptors_) acceptor.join();
        for (auto& wake : woken_) wake->release(); // the ones left waiting end too
        for (std::thread& thread : waiting_) thread.join();
        std::vector<std::int64_t> times;
        for (const auto& at : reached_) times.push_back(at.load());
        return times;
    }

private:
    static constexpr int kGiveUpMs = 20000;

    void accepted(std::size_t i)
    {
        if (model_ != AcceptModel::ListenerStartsThreads) {
            taken_[i].store(true);
            woken_[i]->release();
            return;
        }
        std::thread reporter([this, i] { reached_[i].store(monotonicNanos()); });
        std::thread second([] {});
        reporter.join();
        second.join();
    }

    void acceptOne(std::size_t i)
    {
        pollfd ready{listeners_[i], POLLIN, 0};
        if (poll(&ready, 1, kGiveUpMs) != 1) return;
        const int socket = accept4(listeners_[i], nullptr, nullptr, SOCK_CLOEXEC);
        if (socket < 0) return;
        accepted(i);
        close(socket);
    }

    void acceptLoop()
    {
        acceptEach(listeners_, kGiveUpMs, [this](std::size_t i) { accepted(i); });
    }

    AcceptModel model_;
    const std::vector<int>& listeners_;
    std::vector<std::atomic<std::int64_t>> reached_;
    std::vector<std::atomic<bool>> taken_;
    std::vector<std::unique_ptr<std::binary_semaphore>> woken_;
    std::vector<std::thread> waiting_;
    std::vector<std::thread> acceptors_;
};

} // namespace tovra::bench
