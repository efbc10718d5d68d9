#include "protocol/app_transceive_1p.h"

#include "api/error_codes.h"
#include "logging/log.h"
#include "platform/clock.h"
#include "protocol/receiver_1p.h"
#include "reader/connection_record.h"

#include <chrono>
#include <cstring>
#include <utility>

namespace tovra {

TovraAppTransceive1P::TovraAppTransceive1P(ConnectionRecord& record) : record_(record) {}

std::int32_t TovraAppTransceive1P::transceive(const std::uint8_t* payload, std::uint64_t payloadLength,
                                              std::uint8_t* response, std::uint64_t* responseLength)
{
    if (receiverEnded_.load()) return err::Terminated;
    if (payload == nullptr || response == nullptr || responseLength == nullptr) return err::NullPointer;
    if (payloadLength == 0) return err::PayloadTooLarge;

    std::lock_guard exchange(exchangeLock_);
    std::unique_lock lock(lock_);
    if (!buildFrame(*request_, payload, payloadLength, record_.frameType(), kDirectionRequest, record_.busAddress()))
        return err::PayloadTooLarge;
    // A response that came while nobody waited stays where it is: its buffer stays in use
    // until the next connection.
    pendingResponse_ = nullptr;
    const std::int32_t sent = record_.transmit().transmitProtocol(*request_);
    if (sent < 0) return sent;
    return awaitResponse(lock, response, responseLength);
}

std::int32_t TovraAppTransceive1P::awaitResponse(std::unique_lock<std::mutex>& lock, std::uint8_t* response,
                                                 std::uint64_t* responseLength)
{
    TovraLogger& logger = record_.logger();
    std::int64_t remaining = std::int64_t{responseTimeout_.load()} * 1000;
    for (;;) {
        TOVRA_LOG_TRACE(logger, logcat::Reader, "Tout=", remaining);
        if (remaining < 1) return err::ReceiveTimeout;
        const std::int64_t start = platform::monotonicMicros();
        const bool woken = responseArrived_.wait_for(lock, std::chrono::microseconds(remaining),
                                                     [this] { return pendingResponse_ != nullptr || receiverEnded_.load(); });
        if (!woken) return err::ReceiveTimeout;
        if (receiverEnded_.load()) return err::Terminated;
        remaining -= platform::monotonicMicros() - start;
        if (pendingResponse_ == nullptr) continue;

        ProtocolFrame& frame = *std::exchange(pendingResponse_, nullptr);
        const auto payload = frame.payload();
        std::int32_t result = err::PayloadTooLarge;
        if (payload.size() <= *responseLength) {
            std::memcpy(response, payload.data(), payload.size());
            *responseLength = payload.size();
            result = err::Ok;
        }
        receiver_->release(frame);
        return result;
    }
}

bool TovraAppTransceive1P::deliverResponse(ProtocolFrame& frame)
{
    {
        std::lock_guard guard(lock_);
        pendingResponse_ = &frame;
    }
    responseArrived_.notify_all();
    return true;
}

void TovraAppTransceive1P::receiverEnded()
{
    receiverEnded_.store(true);
    // Taking the lock once makes sure a waiter either sees the flag or is already waiting.
    { std::lock_guard guard(lock_); }
    responseArrived_.notify_all();
}

} // namespace tovra
