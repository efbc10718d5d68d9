#include "platform/read_watch.h"

#include "platform/waker.h"

namespace tovra::platform {

// The socket and a loopback waker, waited on together. A waiting thread cannot be left
// asleep while another reads the socket, so a pause wakes it.
struct ReadWatch::State {
    SocketHandle socket = kInvalidSocket;
    SocketWaker waker;
};

ReadWatch::ReadWatch() = default;
ReadWatch::~ReadWatch() { close(); }

bool ReadWatch::open(SocketHandle socket)
{
    close();
    auto state = std::make_unique<State>();
    state->socket = socket;
    if (!state->waker.open()) return false;
    state_ = std::move(state);
    return true;
}

void ReadWatch::close() { state_.reset(); }

int ReadWatch::wait()
{
    const int ready = waitReadableOrWoken(state_->socket, state_->waker.socket(), -1);
    if (ready < 0) return -1;
    if ((ready & kWaitWoken) != 0) state_->waker.drain();
    return ready & (kWaitReadable | kWaitWoken);
}

void ReadWatch::pause() { state_->waker.wake(); }
void ReadWatch::resume() {}
void ReadWatch::wake() { state_->waker.wake(); }

}  // namespace tovra::platform
