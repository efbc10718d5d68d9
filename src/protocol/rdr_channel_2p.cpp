#include "protocol/rdr_channel_2p.h"

#include "api/error_codes.h"
#include "logging/log.h"
#include "reader/connection_record.h"
#include "reader/tovra_reader.h"

namespace tovra {

bool adjustCommand77(ProtocolFrame& frame)
{
    const std::size_t n = frame.usedLength();
    if (n < 2 || n + 1 > ProtocolFrame::maxLength) return false;
    frame.bytes[n - 2] = frame.busAddress();
    frame.bytes[n - 1] = 0x00;
    frame.bytes[n] = 0x00;
    frame.length = n + 1;
    return true;
}

bool TovraRdrChannel2P::start()
{
    if (thread_.exists() && !thread_.finished()) {
        TOVRA_LOG_ERROR(record_.logger(), logcat::Error | logcat::Reader,
                        "2port reader channel: thread already started");
        return false;
    }
    endAfterCallback_.store(false);
    return thread_.start(record_.reader(), [this] { run(); });
}

void TovraRdrChannel2P::stop()
{
    thread_.requestStop();
    record_.receive().abort();
}

void TovraRdrChannel2P::terminate()
{
    if (!thread_.exists()) return;
    stop();
    // The host ends the connection: wake the plugin's wait instead of letting it run out.
    if (!thread_.finished()) record_.abortPluginReceive();
    thread_.join();
}

void TovraRdrChannel2P::run()
{
    TovraLogger& logger = record_.logger();
    TovraReader* reader = record_.reader();
    TOVRA_LOG_TRACE(logger, logcat::Reader, "2port reader channel thread started");
    if (reader != nullptr) reader->connectedByReader(record_);

    while (!thread_.stopRequested() && !endAfterCallback_.load()) {
        const std::int32_t received = record_.receive().receiveProtocol(*request_);
        if (received == err::DisconnectedByPeer) break;
        if (received < 0) continue;
        if (thread_.stopRequested()) break;
        if (request_->commandCode() == 0x77 && adjustCommand77(*request_))
            TOVRA_LOG_TRACE(logger, logcat::Reader, "0x77-handicraft done");
        if (reader == nullptr || reader->readerRequest(record_, *request_, *response_) < 0) continue;
        if (thread_.stopRequested()) break;
        if (record_.transmit().transmitProtocol(*response_) == err::DisconnectedByPeer) break;
    }

    if (reader != nullptr) reader->disconnectedByReader(record_);
    record_.disconnectPlugin();
    record_.retireConnection();
    TOVRA_LOG_TRACE(logger, logcat::Reader, "2port reader channel thread stopped");
}

} // namespace tovra
