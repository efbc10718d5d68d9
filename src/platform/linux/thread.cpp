#include "platform/thread.h"

#include <pthread.h>
#include <unistd.h>

#include <memory>
#include <new>

namespace tovra::platform {
namespace {

void* runBody(void* body)
{
    const std::unique_ptr<std::function<void()>> run(static_cast<std::function<void()>*>(body));
    (*run)();
    return nullptr;
}

}  // namespace

std::uint64_t currentThreadId() { return static_cast<std::uint64_t>(::gettid()); }

bool NativeThread::start(std::function<void()> body)
{
    auto* run = new (std::nothrow) std::function<void()>(std::move(body));
    if (run == nullptr) return false;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kStackSize);
    pthread_t thread;
    const int failed = pthread_create(&thread, &attributes, runBody, run);
    pthread_attr_destroy(&attributes);
    if (failed != 0) {
        delete run;
        return false;
    }
    handle_ = static_cast<std::uintptr_t>(thread);
    return true;
}

void NativeThread::join()
{
    if (handle_ == 0) return;
    pthread_join(static_cast<pthread_t>(handle_), nullptr);
    handle_ = 0;
}

}  // namespace tovra::platform
