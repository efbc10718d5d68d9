#pragma once

#include "api/error_codes.h"
#include "api/error_texts.h"
#include "api/version.h"
#include "devlibs/discovery_delivery.h"
#include "logging/log.h"
#include "logging/tovra_logger.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace tovra {

// What the process-wide managers over a device library share: the library, loaded on first
// use and kept for the life of the process (a library that failed once is not loaded
// again), and the last error that the application reads through a pseudo-handle.
template <typename Library>
class DeviceLibraryManager {
public:
    std::int32_t lastError() const
    {
        std::lock_guard guard(lock_);
        return lastError_;
    }
    // Valid on the calling thread until its next call.
    const char* lastErrorText() const
    {
        thread_local std::string text;
        std::lock_guard guard(lock_);
        text = lastErrorText_;
        return text.c_str();
    }

protected:
    DeviceLibraryManager(const char* loggerTag, std::uint32_t category)
        : logger_(TovraLogger::forManager(loggerTag)), category_(category)
    {
    }
    virtual ~DeviceLibraryManager() = default;

    // The last-error text of a code; runs without the manager's lock held.
    virtual std::string textOf(std::int32_t code) = 0;

    // 0, -5021 or -5022; loads the library the first time.
    std::int32_t loadLibrary()
    {
        std::lock_guard guard(lock_);
        if (!library_) {
            library_ = std::make_unique<Library>();
            TOVRA_LOG_TRACE(*logger_, category_, " TOVRA Version: ", versionText(), " Load ", library_->name());
            loaded_ = library_->load();
            if (!loaded_) {
                TOVRA_LOG_ERROR(*logger_, category_ | logcat::Error, "Load ", library_->name(), " failed: ",
                                library_->statusText());
            } else {
                versionOk_ = library_->isCompatible();
                if (versionOk_) TOVRA_LOG_TRACE(*logger_, category_, library_->versionText());
                else TOVRA_LOG_ERROR(*logger_, category_ | logcat::Error, library_->versionText());
            }
        }
        return stateLocked();
    }
    // The same without loading: -5021 while no load was ever tried.
    std::int32_t libraryState() const
    {
        std::lock_guard guard(lock_);
        return library_ ? stateLocked() : err::CannotLoadPlugin;
    }
    // Once loadLibrary() has run on this thread, or libraryState() answered 0.
    bool loaded() const { return loaded_; }
    Library& library() const { return *library_; }

    void clearError()
    {
        std::lock_guard guard(lock_);
        lastError_ = 0;
        lastErrorText_.clear();
    }
    // Stores and logs the code with its text; returns the code.
    std::int32_t setError(std::int32_t code)
    {
        std::string text = textOf(code);
        TOVRA_LOG_ERROR(*logger_, category_ | logcat::Error, text);
        std::lock_guard guard(lock_);
        lastError_ = code;
        lastErrorText_ = std::move(text);
        return code;
    }

    // The discovery managers' rule: their own codes have their texts; the device library
    // explains the rest, -5022 included, or `prefix` and the code stand in for it.
    std::string discoveryText(std::int32_t code, const char* prefix) const
    {
        if (code >= -5999 && code <= -5000 && code != err::PluginVersionMismatch) return libraryErrorText(code);
        if (loaded()) return library().errorText(code);
        return prefix + std::to_string(code);
    }

    TovraLogger& logger() const { return *logger_; }
    std::uint32_t category() const { return category_; }

private:
    std::int32_t stateLocked() const
    {
        if (!loaded_) return err::CannotLoadPlugin;
        return versionOk_ ? err::Ok : err::PluginVersionMismatch;
    }

    const std::unique_ptr<TovraLogger> logger_;
    const std::uint32_t category_;
    mutable std::mutex lock_;
    std::unique_ptr<Library> library_;
    bool loaded_ = false;
    bool versionOk_ = false;
    std::int32_t lastError_ = 0;
    std::string lastErrorText_;
};

// A manager that reports readers to an application callback from the library's threads.
// Starts, and the library's part of stops, take turns under operationLock_.
template <typename Library>
class DiscoveryManager : public DeviceLibraryManager<Library> {
protected:
    using DeviceLibraryManager<Library>::DeviceLibraryManager;

    void keepCallback(void* context, TOVRA_DiscoveryCallback callback)
    {
        delivery_.set(context, callback);
        TOVRA_LOG_TRACE(this->logger(), this->category(), "Set event callback: parent=0x", logging::pointer(context),
                        " cbEvent=0x", logging::pointer(reinterpret_cast<const void*>(callback)));
    }
    // A stop: the callback goes off at once, and `unregister` takes the library's handlers
    // back, unless a start came meanwhile and owns them now. The wait for the deliveries
    // still running comes between, without operationLock_: a callback that stops or starts
    // from inside needs that lock. Once the wait is over no delivery runs or begins, so the
    // library may wait in `unregister` for its handlers on other threads while the lock is
    // held: none of them reaches the application any more.
    template <typename Unregister>
    std::int32_t stopDelivering(Unregister unregister)
    {
        DiscoveryDelivery::SwitchedOff off;
        {
            std::lock_guard operation(operationLock_);
            this->clearError();
            if (const std::int32_t state = this->libraryState(); state < 0) return this->setError(state);
            off = delivery_.switchOff();
        }
        // Inside a callback that was off already, the stop that switched it off (on another
        // thread, or earlier on this one) does the rest: waiting for that stop, which waits
        // for this very callback, would never end.
        if (off.wasOn || !delivery_.deliveringHere()) {
            delivery_.awaitEnd(off);
            std::lock_guard operation(operationLock_);
            if (!delivery_.setSince(off)) unregister();
        }
        TOVRA_LOG_TRACE(this->logger(), this->category(), "Set event callback off");
        return err::Ok;
    }
    // The stop of libraries that scan with one registered callback.
    std::int32_t stopScanning()
    {
        return stopDelivering([this] {
            this->library().stopScan()();
            this->library().registerScanCallback()(nullptr, nullptr);
        });
    }

    std::mutex operationLock_;
    DiscoveryDelivery delivery_;
};

} // namespace tovra
