#pragma once

#include "devlibs/device_libraries.h"
#include "plugins/device_library_plugin.h"
#include "protocol/worker_thread.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

namespace tovra {

// The process-wide gadget library as the gadget plugins and listeners see it. The first
// of them to be made loads it, once for the process, whatever the outcome; afterwards it
// is only read, so that readers on several threads share it without a lock.
class SharedGadgetLibrary {
public:
    SharedGadgetLibrary();

    // Whether the process's one load found the library with every entry point.
    bool load() const { return outcome_.loaded; }
    bool isCompatible() const { return outcome_.compatible; }
    std::string_view name() const { return library_.name(); }
    const std::string& statusText() const { return outcome_.status; }
    // "ZKGADGET version: 00.02.00", the mismatch line or "ZKGADGET library not loaded".
    const std::string& versionText() const { return outcome_.versionText; }
    const char* rawVersion() const { return library_.rawVersion(); }
    std::string errorText(std::int32_t code) const { return library_.errorText(code); }

    const ZkgadgetLibrary& calls() const { return library_; }

private:
    struct Outcome {
        bool loaded = false;
        bool compatible = false;
        std::string status;
        std::string versionText;
    };
    static const Outcome& loadOnce();

    const ZkgadgetLibrary& library_;
    const Outcome& outcome_;
};

// The reader side of USB: this host is the USB device, and the reader's controller, a USB
// host, configures it. There is one gadget per process; its port handle is 0. The whole
// connector is the gadget's configuration: "gadget:..." reaches the library as it stands.
class TovraPluginGadget : public DeviceLibraryPlugin<SharedGadgetLibrary> {
public:
    explicit TovraPluginGadget(ConnectionRecord* owner);

    // Starts the gadget and waits up to 5 s, asking every 100 ms, for a host to configure
    // it: a controller that enumerates the device takes a second or two. A gadget that no
    // host configured in time is stopped again (-5004).
    std::int32_t pliConnect(const char* connector) override;
    // Takes over the gadget that a TovraListenerGadget started and a host configured.
    std::int32_t pliAccept(TovraListener* listener) override;
    std::int32_t pliDisconnect(std::int32_t portHandle) override;
    std::int32_t pliTransmit(std::int32_t portHandle, const std::uint8_t* data, std::size_t length) override;
    // A receive that finds the host gone ends the connection (-5012).
    std::int32_t pliReceive(std::int32_t portHandle, std::uint8_t* buffer, std::size_t bufferSize) override;

private:
    // The listener that handed the gadget over has stopped: the connection counts as ended.
    bool listenerGone() const;
    bool hostGone() const;
    // The configured status (2), the library's error, or -5004 when the wait runs out.
    std::int32_t awaitHost();

    bool acceptedByListener_ = false;
};

// Starts the gadget and, on a worker thread of its own, waits for a host to configure it;
// then hands the gadget to the reader as the serial listener hands over its port. One
// hand-over per start: the gadget then belongs to the connection, which stops it when it
// ends; a gadget that was never handed over is stopped by the listener.
class TovraListenerGadget : public TovraListener {
public:
    explicit TovraListenerGadget(ConnectionRecord* owner);
    ~TovraListenerGadget() override { stop(); }

    // 0, -5008 (running, or no accept handler), -5021, -5022, or the library's error.
    std::int32_t start(const char* connector) override;
    // Wakes the worker at once and joins it, unless called on the worker itself.
    void stop() override;
    bool onOwnThread() const override { return worker_.isCurrent(); }
    bool idle() const override { return !worker_.exists() || worker_.finished(); }
    const char* acceptedConnector() const override { return connector_.c_str(); }

private:
    TovraLogger& logger() const;
    void run();
    // False once a stop is asked, at once or within one poll period.
    bool pause();
    // With a host there: the owner's accept handler takes the gadget or declines it.
    bool handOver();

    SharedGadgetLibrary library_;
    std::string connector_;
    std::mutex wakeLock_;
    std::condition_variable wake_;
    WorkerThread worker_;
};

} // namespace tovra
