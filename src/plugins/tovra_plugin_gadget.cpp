#include "plugins/tovra_plugin_gadget.h"

#include <chrono>
#include <memory>
#include <thread>

namespace tovra {
namespace {

constexpr std::uint32_t kTrace = logcat::Gadget;
constexpr std::uint32_t kError = logcat::Error | logcat::Gadget;
constexpr std::int32_t kKind = 20;
// The one gadget of the process.
constexpr std::int32_t kPortHandle = 0;
constexpr auto kPollPeriod = std::chrono::milliseconds(100);
constexpr auto kHostWait = std::chrono::milliseconds(5000);
constexpr auto kGateWait = std::chrono::milliseconds(100);

bool configured(std::int32_t status) { return status == ZKGADGET_STATUS_CONFIGURED; }

} // namespace

SharedGadgetLibrary::SharedGadgetLibrary() : library_(ZkgadgetLibrary::process()), outcome_(loadOnce()) {}

const SharedGadgetLibrary::Outcome& SharedGadgetLibrary::loadOnce()
{
    // Made once even when readers on several threads make their first gadget plugin at the
    // same moment, and never destroyed: a listener may still end at exit.
    static const Outcome* const outcome = [] {
        ZkgadgetLibrary& library = ZkgadgetLibrary::process();
        auto made = std::make_unique<Outcome>();
        made->loaded = library.load();
        made->compatible = made->loaded && library.isCompatible();
        made->status = library.statusText();
        made->versionText = library.versionText();
        return made.release();
    }();
    return *outcome;
}

TovraPluginGadget::TovraPluginGadget(ConnectionRecord* owner) : DeviceLibraryPlugin(owner, kKind, logcat::Gadget) {}

std::int32_t TovraPluginGadget::pliConnect(const char* connector)
try {
    lastError_ = 0;
    acceptedByListener_ = false;
    const char* config = connector != nullptr ? connector : "";
    TOVRA_LOG_TRACE(logger(), kTrace, "Connect ", config);
    TOVRA_REQUIRE_LIBRARY();

    const std::int32_t started = library_.calls().startGadget()(config);
    if (started < 0) {
        TOVRA_LOG_ERROR(logger(), kError, "StartGadget ", library_.errorText(started));
        return fail(started);
    }
    const std::int32_t status = awaitHost();
    if (!configured(status)) {
        // Left bound, the gadget would keep the next connect or listener from starting it.
        library_.calls().stopGadget()();
        return fail(status);
    }
    TOVRA_LOG_TRACE(logger(), kTrace, "GADGET configured by host PH=", kPortHandle);
    return kPortHandle;
} catch (...) {
    return fail(err::ConnectFailed);
}

std::int32_t TovraPluginGadget::awaitHost()
{
    const auto end = std::chrono::steady_clock::now() + kHostWait;
    for (;;) {
        const std::int32_t status = library_.calls().getStatus()();
        if (configured(status)) return status;
        if (status < 0) {
            TOVRA_LOG_ERROR(logger(), kError, "GetStatus ", library_.errorText(status));
            return status;
        }
        if (connectionAborted() || std::chrono::steady_clock::now() >= end) break;
        std::this_thread::sleep_for(kPollPeriod);
    }
    TOVRA_LOG_ERROR(logger(), kError, "No host configured the gadget within ",
                    std::chrono::duration_cast<std::chrono::milliseconds>(kHostWait).count(), " ms");
    return err::ConnectFailed;
}

std::int32_t TovraPluginGadget::pliAccept(TovraListener* listener)
try {
    if (listener == nullptr || listener->kind() != kind_) {
        TOVRA_LOG_ERROR(logger(), kError, "Dynamic_cast error on accept");
        return fail(err::NullPointer);
    }
    lastError_ = 0;
    TOVRA_REQUIRE_LIBRARY();
    // The listener started the gadget and a host configured it: nothing to start here.
    acceptedByListener_ = true;
    TOVRA_LOG_TRACE(logger(), kTrace, "GADGET accepted PH=", kPortHandle);
    return kPortHandle;
} catch (...) {
    return fail(err::NullPointer);
}

bool TovraPluginGadget::listenerGone() const { return acceptedByListener_ && owner_->connectionState() != 1; }

bool TovraPluginGadget::hostGone() const { return !configured(library_.calls().getStatus()()); }

std::int32_t TovraPluginGadget::pliDisconnect(std::int32_t)
try {
    TOVRA_REQUIRE_LIBRARY();
    const std::int32_t result = library_.calls().stopGadget()();
    if (result < 0) {
        TOVRA_LOG_ERROR(logger(), kError, "StopGadget ", library_.errorText(result));
        return fail(result);
    }
    TOVRA_LOG_TRACE(logger(), kTrace, "GADGET disconnected");
    return err::Ok;
} catch (...) {
    return fail(err::DisconnectFailed);
}

std::int32_t TovraPluginGadget::pliTransmit(std::int32_t, const std::uint8_t* data, std::size_t length)
try {
    TOVRA_REQUIRE_LIBRARY();
    if (listenerGone()) return fail(err::DisconnectedByPeer);
    return transmitted(library_.calls().transmit()(data, clampedSize(length)), "Transmit");
} catch (...) {
    return fail(err::DisconnectedByPeer);
}

std::int32_t TovraPluginGadget::pliReceive(std::int32_t, std::uint8_t* buffer, std::size_t bufferSize)
try {
    TOVRA_REQUIRE_LIBRARY();
    if (listenerGone()) return fail(err::DisconnectedByPeer);
    const std::int32_t result = library_.calls().receive()(buffer, clampedSize(bufferSize));
    // Only a receive that brought nothing asks after the host: frames it sent before it
    // left are still handed out.
    if (result <= 0 && hostGone()) {
        TOVRA_LOG_TRACE(logger(), kTrace, "GADGET no longer configured by host");
        return fail(err::DisconnectedByPeer);
    }
    return wholeFrame(result, bufferSize);
} catch (...) {
    return fail(err::DisconnectedByPeer);
}

TovraListenerGadget::TovraListenerGadget(ConnectionRecord* owner) : TovraListener(owner) { kind_ = kKind; }

TovraLogger& TovraListenerGadget::logger() const { return owner_->logger(); }

std::int32_t TovraListenerGadget::start(const char* connector)
try {
    if (worker_.exists() || !owner_->acceptedEntry) {
        TOVRA_LOG_ERROR(logger(), kError, worker_.exists() ? "Listener already running" : "No accept handler");
        return err::ListenerRunning;
    }
    connector_ = connector != nullptr ? connector : "";
    TOVRA_LOG_TRACE(logger(), kTrace, "Start ", connector_);
    if (!library_.load()) {
        TOVRA_LOG_ERROR(logger(), kError, "Load ", library_.name(), " failed: ", library_.statusText());
        return err::CannotLoadPlugin;
    }
    if (!library_.isCompatible()) {
        TOVRA_LOG_ERROR(logger(), kError, library_.versionText());
        return err::PluginVersionMismatch;
    }
    const std::int32_t started = library_.calls().startGadget()(connector_.c_str());
    if (started < 0) {
        TOVRA_LOG_ERROR(logger(), kError, "StartGadget ", library_.errorText(started));
        return started;
    }
    try {
        worker_.start(owner_->reader(), [this] { run(); });
    } catch (...) {
        library_.calls().stopGadget()();
        TOVRA_LOG_ERROR(logger(), kError, "Listener thread not started");
        return err::ListenerRunning;
    }
    return err::Ok;
} catch (...) {
    return err::ListenerRunning;
}

void TovraListenerGadget::stop()
{
    if (worker_.exists()) {
        worker_.requestStop();
        {
            // Taken so that the worker is either before its check or already waiting.
            std::lock_guard guard(wakeLock_);
        }
        wake_.notify_all();
        // The worker cannot join itself: it stops the gadget on its way out, unless it has
        // handed it over, and a later stop joins it.
        worker_.join();
    }
    // A gadget handed over counts as disconnected from now on.
    owner_->setConnectionState(0);
}

bool TovraListenerGadget::pause()
{
    std::unique_lock lock(wakeLock_);
    return !wake_.wait_for(lock, kPollPeriod, [this] { return worker_.stopRequested(); });
}

void TovraListenerGadget::run()
{
    bool handedOver = false;
    try {
        TOVRA_LOG_TRACE(logger(), kTrace, "GADGET listener thread started");
        std::int32_t reported = ZKGADGET_STATUS_BOUND;
        while (!worker_.stopRequested()) {
            const std::int32_t status = library_.calls().getStatus()();
            if (configured(status)) {
                handedOver = handOver();
                break;
            }
            // An error is reported once; the host may still come.
            if (status < 0 && status != reported)
                TOVRA_LOG_ERROR(logger(), kError, "GetStatus ", library_.errorText(status));
            reported = status;
            if (!pause()) break;
        }
    } catch (...) {
        // Only logging can throw (out of memory).
    }
    // A gadget no reader took would stay bound for the host to find.
    if (!handedOver) library_.calls().stopGadget()();
    try {
        TOVRA_LOG_TRACE(logger(), kTrace, "GADGET listener thread stopped");
    } catch (...) {
    }
}

bool TovraListenerGadget::handOver()
{
    // The gate is held while an earlier accepted reader is still connected.
    ConnectionGate& gate = owner_->connectionGate();
    while (!gate.tryAcquireFor(kGateWait))
        if (worker_.stopRequested()) return false;
    std::int32_t result = err::ConnectFailed;
    try {
        if (!worker_.stopRequested()) {
            TOVRA_LOG_TRACE(logger(), kTrace, "GADGET configured by host");
            owner_->setConnectionText("GADGET from host connection");
            owner_->setConnectionState(1);
            if (owner_->acceptedEntry) result = owner_->acceptedEntry(*owner_);
        }
    } catch (...) {
        result = err::ConnectFailed;
    }
    if (result >= 0) return true; // the gate stays held while the reader is connected
    owner_->setConnectionState(0);
    gate.release();
    try {
        TOVRA_LOG_ERROR(logger(), kError, "Accept GADGET canceled");
    } catch (...) {
    }
    return false;
}

} // namespace tovra
