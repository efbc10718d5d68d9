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
//
// A connection on a channel lives from a connect (or an accepted reader) to its
// retirement, and only one party retires it: the thread that serves it. The plugin is
// shared by whoever uses it (transmit, receive, abort), so releasing it from the record
// never frees it under a running call. See TovraReader for the whole rule.
class ConnectionRecord {
public:
    ConnectionRecord() = default;
    ~ConnectionRecord();
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
    void adoptPlugin(std::shared_ptr<TovraPlugin> plugin);
    // Caches the plugin's last error and its text, then lets go of the plugin; it is
    // destroyed as soon as no transmit or receive holds it any more.
    void releasePlugin();
    // Closes the plugin's connection (pliDisconnect) with senders kept out; 0 or the
    // plugin's result. Every receiver on the plugin must have returned.
    std::int32_t disconnectPlugin();
    // Makes the plugin's connection (`open` calls pliConnect or pliAccept) with senders kept
    // out: a transceive that saw the previous connection up may reach this plugin as soon
    // as the record holds it, and must wait until the connection is made. The port handle,
    // an error, or -5021 without a plugin.
    std::int32_t openPlugin(const std::function<std::int32_t(TovraPlugin&)>& open);
    // Wakes every wait on the plugin for good, ahead of the host ending the connection.
    void abortPluginReceive();
    // The end of a connection: the plugin is released, then the channel is free again
    // (port handle -1, claim free, listener gate released) in one step, so that a
    // "Discon" state always means that a new connection may start.
    void retireConnection();
    // 0, -5009 (null text), -5008 (already listening) or -5030.
    std::int32_t createListener(const char* listenerText);
    void destroyListener();
    // No listener thread runs (a listener stopped from its own thread is still ending).
    bool listenerIdle() const;

    // The text behind the reader's last-error text; valid until the next call.
    const char* errorText(std::int32_t code);

    std::string connector() const;
    // The stored text itself, for the C interface; valid until the connector is replaced.
    const char* connectorText() const;
    void setConnector(const char* connector);

    // The plugin, held for as long as the caller keeps the pointer.
    std::shared_ptr<TovraPlugin> plugin() const;
    TovraListener* listener() const { return listener_.get(); }
    TovraTransmit& transmit() { return *transmit_; }
    TovraReceive& receive() { return *receive_; }
    const TovraReceive& receive() const { return *receive_; }
    bool hasHelpers() const { return transmit_ != nullptr; }
    ClaimGuard& claim() { return claim_; }
    const ClaimGuard& claim() const { return claim_; }
    // Serialises starting and ending connections on this channel (connect, accept,
    // disconnect, stop). Taken before any other lock of the record, and never by a thread
    // that serves the channel.
    std::mutex& lifecycle() { return lifecycle_; }
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

    // 1 while a listener that has no thread of its own (serial) holds a connection for the
    // channel, 0 once it stops.
    std::int32_t connectionState() const { return connectionState_.load(); }
    void setConnectionState(std::int32_t state) { connectionState_.store(state); }

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

private:
    std::string composeErrorText(std::int32_t code, const std::shared_ptr<TovraPlugin>& plugin) const;
    void reapStoppedListener();

    std::int32_t readerHandle_ = 0;
    std::atomic<std::int32_t> portHandle_{-1};
    std::atomic<std::uint8_t> frameType_{0};
    std::atomic<std::uint8_t> busAddress_{0xFF};
    std::string name_;
    TovraReader* reader_ = nullptr;
    TovraLogger* logger_ = nullptr;
    std::unique_ptr<TovraTransmit> transmit_;
    std::unique_ptr<TovraReceive> receive_;
    std::mutex lifecycle_;
    // Guards only the plugin pointer: a copy is taken under it and used outside it.
    mutable std::mutex pluginLock_;
    std::shared_ptr<TovraPlugin> plugin_;
    std::unique_ptr<TovraListener> listener_;
    // A listener stopped from its own thread, destroyed by the next start or stop.
    std::unique_ptr<TovraListener> stoppedListener_;
    ClaimGuard claim_;
    ConnectionGate gate_;
    std::atomic<bool> accepted_{false};
    std::atomic<std::int32_t> connectionState_{0};
    // Stands in for the transmit lock on a record without helpers.
    std::mutex spareLock_;
    std::mutex& sendingLock() { return transmit_ ? transmit_->lock() : spareLock_; }

    // Texts that application threads read while others replace them.
    mutable std::mutex textLock_;
    std::string connector_;
    std::string connectionText_;
    std::int32_t cachedPluginError_ = 0;
    std::string cachedPluginErrorText_;
    std::string errorText_;
};

} // namespace tovra
