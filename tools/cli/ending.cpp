#include "ending.h"

#include <atomic>
#include <csignal>

namespace tovra::cli {

namespace {

// A signal handler may do no more than set a lock-free flag, so waits look at it often.
std::atomic<bool> signalled{false};
constexpr auto kSignalCheck = std::chrono::milliseconds(50);

extern "C" void onSignal(int) { signalled = true; }

}  // namespace

void Ending::catchSignals() {
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
}

bool Ending::interrupted() { return signalled; }

void Ending::wake() {
    { std::lock_guard lock(mutex_); }  // a waiter between its check and its sleep sees the change
    changed_.notify_all();
}

void Ending::wait(const std::function<bool()>& done, unsigned seconds) {
    const std::optional<Clock::time_point> deadline =
        seconds == 0 ? std::nullopt : std::optional(Clock::now() + std::chrono::seconds(seconds));
    std::unique_lock lock(mutex_);
    while (!done() && !interrupted()) {
        if (deadline && Clock::now() >= *deadline) return;
        changed_.wait_for(lock, kSignalCheck);
    }
}

}  // namespace tovra::cli
