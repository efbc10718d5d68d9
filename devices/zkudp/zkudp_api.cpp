// The exported entry points. Each one catches everything: no exception leaves the library.
#include "discovery.h"
#include "error_codes.h"
#include "requests.h"

#include "tovra/device/zkudp.h"

#include <memory>
#include <mutex>
#include <new>
#include <type_traits>

#if defined(_WIN32)
#  define ZKUDP_EXPORT extern "C" __declspec(dllexport)
#else
#  define ZKUDP_EXPORT extern "C" __attribute__((visibility("default")))
#endif

ZKUDP_EXPORT const char* ZKUDP_CALL ZKUDP_GetDLLVersion(void);
ZKUDP_EXPORT const char* ZKUDP_CALL ZKUDP_GetErrorText(int32_t code);
ZKUDP_EXPORT int32_t ZKUDP_CALL ZKUDP_Discover(void* context, ZKUDP_Handler handler, uint32_t intervalMs,
                                               const char* target);
ZKUDP_EXPORT int32_t ZKUDP_CALL ZKUDP_Setup(const char* setupText, uint8_t flags);

// The loader casts each symbol to these types: a signature that drifts must not build.
static_assert(std::is_same_v<decltype(&ZKUDP_GetDLLVersion), ZKUDP_GetDLLVersion_t>);
static_assert(std::is_same_v<decltype(&ZKUDP_GetErrorText), ZKUDP_GetErrorText_t>);
static_assert(std::is_same_v<decltype(&ZKUDP_Discover), ZKUDP_Discover_t>);
static_assert(std::is_same_v<decltype(&ZKUDP_Setup), ZKUDP_Setup_t>);

namespace {

using namespace zkudp;

constexpr std::uint32_t kDefaultIntervalMs = 1000;

template <typename Call>
int32_t guarded(Call call)
{
    try {
        return call();
    } catch (const std::bad_alloc&) {
        return kOutOfMemory;
    } catch (...) {
        return kInternalError;
    }
}

// The one discovery of the process. Starts and stops take turns; a set-up only borrows
// the running discovery, so that it can wait for its answer while another thread stops.
class Control {
public:
    static Control& instance()
    {
        static Control control;
        return control;
    }

    // An application that unloads the library without stopping must not leave its
    // thread running in code that is gone.
    ~Control() { stop(); }

    int32_t start(void* context, ZKUDP_Handler handler, std::uint32_t intervalMs, const char* targetText)
    {
        // The handler's thread is the running discovery's: it is running, by definition.
        if (Discovery::onDiscoveryThread()) return kAlreadyRunning;
        std::lock_guard turn(turn_);
        if (current()) return kAlreadyRunning;
        Target target;
        if (const int32_t parsed = parseTarget(targetText, target); parsed != kOk) return parsed;
        const std::chrono::milliseconds interval(intervalMs != 0 ? intervalMs : kDefaultIntervalMs);
        std::shared_ptr<Discovery> discovery;
        if (const int32_t started = Discovery::start(target, interval, context, handler, discovery); started != kOk)
            return started;
        std::lock_guard lock(lock_);
        running_ = std::move(discovery);
        return kOk;
    }

    int32_t stop()
    {
        // Stopping joins the thread, which cannot wait for itself.
        if (Discovery::onDiscoveryThread()) return kStopFromHandler;
        std::lock_guard turn(turn_);
        std::shared_ptr<Discovery> discovery;
        {
            std::lock_guard lock(lock_);
            discovery = std::move(running_);
        }
        if (discovery) discovery->stop();
        return kOk;
    }

    int32_t setup(const char* text, std::uint8_t flags)
    {
        // The answer would come in on this very thread, busy waiting for it.
        if (Discovery::onDiscoveryThread()) return kSetupFromHandler;
        SetupFields fields;
        if (const int32_t parsed = parseSetup(text, fields); parsed != kOk) return parsed;
        const std::shared_ptr<Discovery> discovery = current();
        if (!discovery) return kNotRunning;
        return discovery->setup(fields, flags);
    }

private:
    std::shared_ptr<Discovery> current()
    {
        std::lock_guard lock(lock_);
        return running_;
    }

    std::mutex turn_; // one start or stop at a time
    std::mutex lock_; // running_
    std::shared_ptr<Discovery> running_;
};

} // namespace

const char* ZKUDP_CALL ZKUDP_GetDLLVersion(void)
{
    return "1.0.0";
}

const char* ZKUDP_CALL ZKUDP_GetErrorText(int32_t code)
{
    const char* known = resultText(code);
    return known != nullptr ? known : "Unknown error code";
}

int32_t ZKUDP_CALL ZKUDP_Discover(void* context, ZKUDP_Handler handler, uint32_t intervalMs, const char* target)
{
    return guarded([&]() -> int32_t {
        Control& control = Control::instance();
        return handler != nullptr ? control.start(context, handler, intervalMs, target) : control.stop();
    });
}

int32_t ZKUDP_CALL ZKUDP_Setup(const char* setupText, uint8_t flags)
{
    return guarded([&]() -> int32_t { return Control::instance().setup(setupText, flags); });
}
