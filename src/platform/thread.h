// Threads of the library, and thread identity.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace tovra::platform {

// The operating system's id of the calling thread (as shown by system tools).
std::uint64_t currentThreadId();

// A joinable thread with a modest stack, so that thousands of them do not reserve gigabytes
// of address space. Application callbacks run on these threads too: they get this stack.
class NativeThread {
public:
    static constexpr std::size_t kStackSize = 256 * 1024;

    NativeThread() = default;
    // The owner joins before it destroys a started thread.
    ~NativeThread() = default;
    NativeThread(const NativeThread&) = delete;
    NativeThread& operator=(const NativeThread&) = delete;

    // False when the system refuses a new thread (or the body cannot be stored).
    bool start(std::function<void()> body);
    // Waits for the thread to end; the object may then be started again.
    void join();
    bool joinable() const { return handle_ != 0; }

private:
    std::uintptr_t handle_ = 0;
};

}  // namespace tovra::platform
