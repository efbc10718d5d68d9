// Sleeping until a socket has something to read, or until another thread asks: what lets a
// thread that serves an idle connection cost nothing, and lets another thread read from the
// socket for a while without waking it.
#pragma once

#include "platform/net.h"

#include <memory>

namespace tovra::platform {

class ReadWatch {
public:
    ReadWatch();
    ~ReadWatch();
    ReadWatch(const ReadWatch&) = delete;
    ReadWatch& operator=(const ReadWatch&) = delete;

    // Watches `socket`; false when the system has no handles left for it.
    bool open(SocketHandle socket);
    bool isOpen() const { return state_ != nullptr; }
    // Only once no thread waits or calls any more.
    void close();

    // Blocks until the socket is readable (or failed): kWaitReadable, or until woken:
    // kWaitWoken; -1 on failure. A pause may also end it with kWaitWoken.
    int wait();
    // From any thread while open: data on the socket no longer ends a wait, until resume().
    // Where the system cannot leave a waiting thread asleep, a pause wakes it.
    void pause();
    void resume();
    void wake();

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace tovra::platform
