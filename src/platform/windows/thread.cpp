#include "platform/thread.h"

#include "platform/windows/win.h"

#include <process.h>

#include <memory>
#include <new>

namespace tovra::platform {
namespace {

unsigned __stdcall runBody(void* body)
{
    const std::unique_ptr<std::function<void()>> run(static_cast<std::function<void()>*>(body));
    (*run)();
    return 0;
}

}  // namespace

std::uint64_t currentThreadId() { return ::GetCurrentThreadId(); }

bool NativeThread::start(std::function<void()> body)
{
    auto* run = new (std::nothrow) std::function<void()>(std::move(body));
    if (run == nullptr) return false;
    // _beginthreadex sets up the C runtime for the thread, as std::thread would.
    const std::uintptr_t thread = ::_beginthreadex(nullptr, static_cast<unsigned>(kStackSize), runBody, run,
                                                   STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    if (thread == 0) {
        delete run;
        return false;
    }
    handle_ = thread;
    return true;
}

void NativeThread::join()
{
    if (handle_ == 0) return;
    const auto thread = reinterpret_cast<HANDLE>(handle_);
    ::WaitForSingleObject(thread, INFINITE);
    ::CloseHandle(thread);
    handle_ = 0;
}

}  // namespace tovra::platform
