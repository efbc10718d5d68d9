#include "protocol/tovra_transmit.h"

#include "api/error_codes.h"
#include "logging/log.h"
#include "platform/clock.h"
#include "protocol/frame_dump.h"
#include "reader/connection_record.h"

namespace tovra {

std::int32_t TovraTransmit::transmitProtocol(const ProtocolFrame& frame)
{
    // Held until the send is over, even if the connection is released meanwhile.
    return transmitProtocol(frame, record_.plugin());
}

std::int32_t TovraTransmit::transmitProtocol(const ProtocolFrame& frame, const std::shared_ptr<TovraPlugin>& plugin)
{
    TovraLogger& logger = record_.logger();
    logFrameDump(logger, record_.readerHandle(), record_.name(), frame, DumpDirection::Send);
    TOVRA_LOG_TRACE(logger, logcat::Reader, "Lock mutex");
    std::int32_t result = err::NotConnected;
    if (plugin) {
        std::lock_guard guard(transmitLock_);
        result = plugin->pliTransmit(record_.portHandle(), frame.bytes.data(), frame.usedLength());
    }
    TOVRA_LOG_TRACE(logger, logcat::Reader, "Mutex unlocked");
    // A send that failed because the host is ending the connection is not the reader's fault.
    if (result < 0 && plugin && plugin->connectionAborted()) return err::Terminated;
    return result;
}

std::int32_t TovraReceive::receiveProtocol(ProtocolFrame& frame)
{
    const std::int32_t timeout = receiveTimeout_.load();
    const std::int64_t deadline = timeout > 0 ? platform::monotonicMicros() + std::int64_t{timeout} * 1000 : 0;
    abortRequested_.store(false);
    // The receive works on the connection it started on, held until it returns.
    const std::shared_ptr<TovraPlugin> plugin = record_.plugin();
    if (!plugin) return err::NotConnected;

    for (;;) {
        frame.clear();
        const std::int32_t received =
            plugin->pliReceive(record_.portHandle(), frame.bytes.data(), ProtocolFrame::maxLength);
        if (received != err::ReceivePending) return checked(*plugin, frame, received);
        if (deadline != 0 && platform::monotonicMicros() > deadline) return err::ReceiveTimeout;
        if (abortRequested_.load()) return err::Terminated;
    }
}

std::int32_t TovraReceive::receiveProtocolWithin(TovraPlugin& plugin, ProtocolFrame& frame, int waitMs)
{
    frame.clear();
    const std::int32_t received =
        plugin.receiveWithin(record_.portHandle(), frame.bytes.data(), ProtocolFrame::maxLength, waitMs);
    return received == err::ReceivePending ? received : checked(plugin, frame, received);
}

std::int32_t TovraReceive::checked(const TovraPlugin& plugin, ProtocolFrame& frame, std::int32_t received)
{
    if (received < 0) {
        // The host ending the connection wakes the plugin with an end of stream.
        return plugin.connectionAborted() || abortRequested_.load() ? err::Terminated : received;
    }
    // A plugin never reports more than the buffer holds; the length stays inside it regardless.
    frame.length = std::min<std::uint64_t>(static_cast<std::uint64_t>(received), ProtocolFrame::maxLength);
    const bool valid = isValidFrame(frame);
    logFrameDump(record_.logger(), record_.readerHandle(), record_.name(), frame, DumpDirection::Receive);
    return valid ? err::Ok : err::InvalidFrame;
}

} // namespace tovra
