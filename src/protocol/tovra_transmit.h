#pragma once

#include "protocol/protocol_frame.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

namespace tovra {

class ConnectionRecord;
class TovraPlugin;

// Sends whole frames through the record's plugin; one transmit lock per record makes
// concurrent senders' frames go out one after the other.
class TovraTransmit {
public:
    explicit TovraTransmit(ConnectionRecord& record) : record_(record) {}

    // The plugin's transmit result, unchanged.
    std::int32_t transmitProtocol(const ProtocolFrame& frame);
    // The same through a plugin of the record that the caller holds already.
    std::int32_t transmitProtocol(const ProtocolFrame& frame, const std::shared_ptr<TovraPlugin>& plugin);
    // Held around every plugin transmit; whoever closes or replaces the plugin holds it too.
    std::mutex& lock() { return transmitLock_; }

private:
    ConnectionRecord& record_;
    std::mutex transmitLock_;
};

// Polls the record's plugin until a whole frame is there, within the receive timeout and
// until aborted, then checks and logs the frame.
class TovraReceive {
public:
    explicit TovraReceive(ConnectionRecord& record) : record_(record) {}

    // 0, -5015 (timeout), -5011 (aborted), -5016 (frame failed the check) or the plugin's error.
    std::int32_t receiveProtocol(ProtocolFrame& frame);
    // One receive of the record's plugin, which the caller holds, waiting at most waitMs for
    // a frame to start; the plugin's pending value INT32_MIN when none did.
    std::int32_t receiveProtocolWithin(TovraPlugin& plugin, ProtocolFrame& frame, int waitMs);
    // Ends a waiting receive; any thread may call it.
    void abort() { abortRequested_.store(true); }

    // Milliseconds; 0 or negative waits without limit.
    std::int32_t receiveTimeout() const { return receiveTimeout_.load(); }
    void setReceiveTimeout(std::int32_t milliseconds) { receiveTimeout_.store(milliseconds); }

private:
    // The frame the plugin reported, checked and logged; or the plugin's error.
    std::int32_t checked(const TovraPlugin& plugin, ProtocolFrame& frame, std::int32_t received);

    ConnectionRecord& record_;
    std::atomic<bool> abortRequested_{false};
    std::atomic<std::int32_t> receiveTimeout_{-1};
};

} // namespace tovra
