#include "platform/read_watch.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace tovra::platform {

// An epoll set holds the socket and an event counter: pausing stops the socket's data from
// counting, so that a thread asleep in the set is not woken by data that another thread
// reads. The socket stays in the set: changing what it waits for costs the kernel less than
// taking it out and putting it back, and a resume that finds data there wakes the sleeper.
struct ReadWatch::State {
    int socket = -1;
    int poller = -1;
    int wakeup = -1;

    bool watchSocket(int operation, bool on)
    {
        epoll_event event{};
        event.events = on ? std::uint32_t{EPOLLIN} : 0u; // errors and hang-ups always count
        event.data.fd = socket;
        return ::epoll_ctl(poller, operation, socket, &event) == 0;
    }
};

ReadWatch::ReadWatch() = default;
ReadWatch::~ReadWatch() { close(); }

bool ReadWatch::open(SocketHandle socket)
{
    close();
    auto state = std::make_unique<State>();
    state->socket = static_cast<int>(socket);
    state->poller = ::epoll_create1(EPOLL_CLOEXEC);
    state->wakeup = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = state->wakeup;
    const bool made = state->poller >= 0 && state->wakeup >= 0 &&
                      ::epoll_ctl(state->poller, EPOLL_CTL_ADD, state->wakeup, &event) == 0 &&
                      state->watchSocket(EPOLL_CTL_ADD, true);
    state_ = std::move(state);
    if (!made) close();
    return made;
}

void ReadWatch::close()
{
    if (!state_) return;
    if (state_->poller >= 0) ::close(state_->poller);
    if (state_->wakeup >= 0) ::close(state_->wakeup);
    state_.reset();
}

int ReadWatch::wait()
{
    epoll_event events[2];
    int ready;
    do {
        ready = ::epoll_wait(state_->poller, events, 2, -1);
    } while (ready < 0 && errno == EINTR);
    if (ready < 0) return -1;
    int result = 0;
    for (int i = 0; i < ready; ++i) {
        if (events[i].data.fd == state_->wakeup) {
            std::uint64_t count;
            while (::read(state_->wakeup, &count, sizeof count) > 0) {
            }
            result |= kWaitWoken;
        } else {
            result |= kWaitReadable;
        }
    }
    return result;
}

void ReadWatch::pause() { state_->watchSocket(EPOLL_CTL_MOD, false); }
void ReadWatch::resume() { state_->watchSocket(EPOLL_CTL_MOD, true); }

void ReadWatch::wake()
{
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(state_->wakeup, &one, sizeof one);
}

}  // namespace tovra::platform
