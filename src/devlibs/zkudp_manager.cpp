#include "devlibs/zkudp_manager.h"

namespace tovra {
namespace {
constexpr std::uint32_t kTrace = logcat::UdpManager;
} // namespace

ZkudpManager& ZkudpManager::instance()
{
    // Never destroyed: the library's thread may still call in while the process exits.
    static ZkudpManager* const manager = new ZkudpManager;
    return *manager;
}

ZkudpManager::ZkudpManager() : DiscoveryManager("UDPman", logcat::UdpManager) {}

std::string ZkudpManager::textOf(std::int32_t code) { return discoveryText(code, "UDP manager plugin error "); }

std::int32_t ZkudpManager::setEventCallback(void* context, TOVRA_DiscoveryCallback callback)
{
    keepCallback(context, callback);
    return err::Ok;
}

std::int32_t ZkudpManager::startDiscover(std::uint32_t intervalMs, const char* target)
{
    // Inside the callback discovery runs by definition. The lock is not for this thread:
    // a stop may hold it while it joins this very thread.
    if (delivery_.deliveringHere()) return setError(err::AlreadyStarted);
    std::lock_guard operation(operationLock_);
    clearError();
    if (const std::int32_t state = loadLibrary(); state < 0) return setError(state);
    if (running_) return setError(err::AlreadyStarted);
    TOVRA_LOG_TRACE(logger(), kTrace, "Discover every ", intervalMs, " ms, target ", target != nullptr ? target : "");
    const std::int32_t started = library().discover()(this, &ZkudpManager::cbEvent, intervalMs, target);
    if (started < 0) return setError(started);
    running_ = true;
    return err::Ok;
}

std::int32_t ZkudpManager::stopDiscover()
{
    if (delivery_.deliveringHere()) return setError(err::AlreadyStarted);
    std::lock_guard operation(operationLock_);
    clearError();
    if (!running_) return setError(err::NotStarted);
    // Joins the library's thread: no callback comes after this. The lock may be held
    // meanwhile, since calls from inside the callback never take it.
    const std::int32_t stopped = library().discover()(nullptr, nullptr, 0, nullptr);
    if (stopped < 0) return setError(stopped);
    running_ = false;
    TOVRA_LOG_TRACE(logger(), kTrace, "Discovery stopped");
    return err::Ok;
}

std::int32_t ZkudpManager::setup(const char* setupText, std::uint8_t flags)
{
    // Inside the callback discovery runs, and the library refuses the set-up at once. The
    // lock is not for this thread: a stop may hold it while it joins this thread, or a
    // set-up while it waits for this thread to take the reader's answer.
    const bool inside = delivery_.deliveringHere();
    std::unique_lock operation(operationLock_, std::defer_lock);
    if (!inside) operation.lock();
    clearError();
    if (!inside && !running_) return setError(err::NotStarted);
    TOVRA_LOG_TRACE(logger(), kTrace, "Setup ", setupText != nullptr ? setupText : "", " flags=", int{flags});
    const std::int32_t result = library().setup()(setupText, flags);
    return result < 0 ? setError(result) : result;
}

void ZkudpManager::onEvent(std::int32_t event, const char* line)
try {
    if (!delivery_.isSet()) {
        TOVRA_LOG_TRACE(logger(), kTrace, "No event-callback set");
        return;
    }
    TOVRA_LOG_TRACE(logger(), kTrace, "Event-callback: state=", event, " scanInfo=", line != nullptr ? line : "");
    delivery_.deliver(event, line != nullptr ? line : "");
} catch (...) {
    // Nothing may leave into the library's thread.
}

void ZKUDP_CALL ZkudpManager::cbEvent(void*, std::int32_t event, const char* scanInfo)
{
    instance().onEvent(event, scanInfo);
}

} // namespace tovra
