#pragma once

#include "plugins/tovra_plugin.h"
#include "protocol/tovra_transmit.h"
#include "reader/claim_guard.h"
#include "reader/connection_gate.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace tovra {

class TovraLogger;
class TovraReader;

// The state of one channel of a reader: "SingleCh", "AppCh" or "RdrCh".
class ConnectionRecord {
public:
    ConnectionRecord() = default;
    ConnectionRecord(const ConnectionRecord&) = delete;
    ConnectionRecord& operator=(const ConnectionRecord&) = delete;

    // Binds the record to its reader (null for a record used on its own) and the reader's
    // logger; called once while the reader is built.
    void bind(TovraReader* reader, TovraLogger& logger, std::int32_t readerHandle);
    void setName(std::string name) { name_ = std::move(name); }
    void createHelpers();
    void destroyHelpers();

    // Replaces the plugin with a new one of the connector's type; a non-null text replaces
    // the connector first. 0 or -5020.
    std::int32_t createPlugin(const char* connector);
    // Makes `plugin` the record's plugin, releasing any previous one first.
    void adoptPlugin(std::unique_ptr<TovraPlugin> plugin);
    // Caches the plugin's last error and its text, then destroys the plugin. The thread that
    // receives on the plugin must have ended; senders are kept out by the transmit lock.
    void releasePlugin();
    // Closes the plugin's connection (pliDisconnect) and marks the channel disconnected;
    // 0 or the plugin's result.
    std::int32_t disconnectPlugin();
    // Wakes a receive that waits on the plugin, ahead of a disconnect by the host.
    void abortPluginReceive();
    // 0, -5009 (null text), -5008 (already listening) or -5030.
    std::int32_t createListener(const char* listenerText);
    void destroyListener();

    // The text behind the reader's last-error text; valid until the next call.
    const char* errorText(std::int32_t code);

    std::string connector() const;
    // The stored text itself, for the C interface; valid until the connector is replaced.
    const char* connectorText() const;
    void setConnector(const char* connector);

    TovraPlugin* plugin() const { return plugin_.get(); }
    TovraListener* listener() const { return listener_.get(); }
    TovraTransmit& transmit() { return *transmit_; }
    TovraReceive& receive() { return *receive_; }
    const TovraReceive& receive() const { return *receive_; }
    bool hasHelpers() const { return transmit_ != nullptr; }
    ClaimGuard& claim() { return claim_; }
    TovraReader* reader() const { return reader_; }
    TovraLogger& logger() const { return *logger_; }
    const std::string& name() const { return name_; }
    std::int32_t readerHandle() const { return readerHandle_; }

    std::int32_t portHandle() const { return portHandle_.load(); }
    void setPortHandle(std::int32_t handle) { portHandle_.store(handle); }
    bool connected() const { return portHandle() >= 0; }
    std::uint8_t frameType() const { return frameType_.load(); }
    void setFrameType(std::uint8_t type) { frameType_.store(type); }
    std::uint8_t busAddress() const { return busAddress_.load(); }
    void setBusAddress(std::uint8_t address) { busAddress_.store(address); }

    // Filled in by a transport for an accepted connection; handed to the connected callback.
    std::string connectionText() const;
    void setConnectionText(std::string text);

    // What a listener calls once it has accepted a reader's connection and taken the gate:
    // 0 or more keeps the connection (and the gate, until the connection ends).
    std::function<std::int32_t(ConnectionRecord&)> acceptedEntry;
    // Held while a reader that connected to the host is connected.
    ConnectionGate& connectionGate() { return gate_; }
    // Whether the current connection came through a listener, which holds the gate for it.
    void setAccepted(bool accepted) { accepted_.store(accepted); }
    bool takeAccepted() { return accepted_.exchange(false); }

private:
    std::mutex& transmitLockOf();
    // The caller holds textLock_.
    std::string composeErrorText(std::int32_t code) const;

    std::int32_t readerHandle_ = 0;
    std::atomic<std::int32_t> portHandle_{-1};
    std::atomic<std::uint8_t> frameType_{0};
    std::atomic<std::uint8_t> busAddress_{0xFF};
    std::string name_;
    TovraReader* reader_ = nullptr;
    TovraLogger* logger_ = nullptr;
    std::unique_ptr<TovraTransmit> transmit_;
    std::unique_ptr<TovraReceive> receive_;
    std::unique_ptr<TovraPlugin> plugin_;
    std::unique_ptr<TovraListener> listener_;
    ClaimGuard claim_;
    ConnectionGate gate_;
    std::atomic<bool> accepted_{false};
    std::mutex spareLock_;

    // Texts that application threads read while others replace them.
    mutable std::mutex textLock_;
    std::string connector_;
    std::string connectionText_;
    std::int32_t cachedPluginError_ = 0;
    std::string cachedPluginErrorText_;
    std::string errorText_;
};

} // namespace tovra
