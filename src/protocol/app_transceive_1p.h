#pragma once

#include "protocol/protocol_frame.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

namespace tovra {

class ConnectionRecord;
class TovraReceiver1P;

// The application side of a one-port connection: sends a request frame and waits for the
// response that the receiver thread hands over. One exchange at a time per reader.
class TovraAppTransceive1P {
public:
    explicit TovraAppTransceive1P(ConnectionRecord& record);
    void attachReceiver(TovraReceiver1P& receiver) { receiver_ = &receiver; }

    // 0, -5011 (receiver ended), -5010 (null pointer), -5017 (payload or response too large),
    // -5015 (no response in time) or the transmit error.
    std::int32_t transceive(const std::uint8_t* payload, std::uint64_t payloadLength, std::uint8_t* response,
                            std::uint64_t* responseLength);

    // Called by the receiver thread.
    bool deliverResponse(ProtocolFrame& frame);
    void receiverEnded();
    // Before a new connection's receiver starts. Exchanges begun on the last connection,
    // whose receiver has ended, are over first: none takes a buffer of the new receiver's
    // or waits on into the new connection.
    void beginConnection();

    std::uint32_t responseTimeout() const { return responseTimeout_.load(); }
    void setResponseTimeout(std::uint32_t milliseconds) { responseTimeout_.store(milliseconds); }

private:
    std::int32_t awaitResponse(std::unique_lock<std::mutex>& lock, std::int64_t remaining, std::uint8_t* response,
                               std::uint64_t* responseLength);
    // The exchange with this thread reading the response itself (the receiver's turn given
    // to the caller); the lock is not held.
    std::int32_t exchangeOnOwnTurn(std::uint8_t* response, std::uint64_t* responseLength);
    // Copies the pending response out and releases its buffer; with none, false.
    bool takeResponse(std::uint8_t* response, std::uint64_t* responseLength, std::int32_t& result);

    ConnectionRecord& record_;
    TovraReceiver1P* receiver_ = nullptr;
    LazyFrame request_;
    ProtocolFrame* pendingResponse_ = nullptr; // one of the receiver's buffers
    std::atomic<bool> receiverEnded_{false};
    std::atomic<std::uint32_t> responseTimeout_{5000};
    // Held for a whole exchange, wait included, so that concurrent callers neither share
    // the request frame nor take each other's responses.
    std::mutex exchangeLock_;
    std::mutex lock_;
    std::condition_variable responseArrived_;
    bool awaiting_ = false; // a caller waits on responseArrived_; under lock_
};

} // namespace tovra
