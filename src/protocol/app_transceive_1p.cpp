#include "protocol/app_transceive_1p.h"

#include "api/error_codes.h"
#include "logging/log.h"
#include "platform/clock.h"
#include "protocol/receiver_1p.h"
#include "reader/connection_record.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <utility>

namespace tovra {
namespace {
constexpr std::int64_t kStopCheckMs = 300;
} // namespace

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
    if (receiver_->beginCallersTurn()) {
        lock.unlock();
        return exchangeOnOwnTurn(response, responseLength);
    }
    const std::int32_t sent = record_.transmit().transmitProtocol(*request_);
    if (sent < 0) return sent;
    return awaitResponse(lock, std::int64_t{responseTimeout_.load()} * 1000, response, responseLength);
}

std::int32_t TovraAppTransceive1P::exchangeOnOwnTurn(std::uint8_t* response, std::uint64_t* responseLength)
{
    const std::int32_t sent = record_.transmit().transmitProtocol(*request_, receiver_->turnPlugin());
    if (sent < 0) {
        receiver_->endCallersTurn();
        return sent;
    }
    const std::int64_t remaining = std::int64_t{responseTimeout_.load()} * 1000;
    TOVRA_LOG_TRACE(record_.logger(), logcat::Reader, "Tout=", remaining);
    const std::int64_t deadline = platform::monotonicMicros() + remaining;
    std::int32_t result = err::ReceiveTimeout;
    // Nothing is delivered before the first read: only this thread reads now.
    for (;;) {
        const std::int64_t left = deadline - platform::monotonicMicros();
        if (left < 1) break;
        // A stop is seen within one receive period, as the receiver would see it.
        const auto waitMs = static_cast<int>(std::min<std::int64_t>((left + 999) / 1000, kStopCheckMs));
        if (receiver_->readOnCallersTurn(waitMs) == TovraReceiver1P::CallersRead::GiveBack) {
            receiver_->endCallersTurn();
            std::unique_lock lock(lock_);
            return awaitResponse(lock, deadline - platform::monotonicMicros(), response, responseLength);
        }
        std::lock_guard guard(lock_);
        if (takeResponse(response, responseLength, result)) break;
    }
    receiver_->endCallersTurn();
    return result;
}

bool TovraAppTransceive1P::takeResponse(std::uint8_t* response, std::uint64_t* responseLength, std::int32_t& result)
{
    if (pendingResponse_ == nullptr) return false;
    ProtocolFrame& frame = *std::exchange(pendingResponse_, nullptr);
    const auto payload = frame.payload();
    result = err::PayloadTooLarge;
    if (payload.size() <= *responseLength) {
        std::memcpy(response, payload.data(), payload.size());
        *responseLength = payload.size();
        result = err::Ok;
    }
    receiver_->release(frame);
    return true;
}

std::int32_t TovraAppTransceive1P::awaitResponse(std::unique_lock<std::mutex>& lock, std::int64_t remaining,
                                                 std::uint8_t* response, std::uint64_t* responseLength)
{
    TovraLogger& logger = record_.logger();
    for (;;) {
        TOVRA_LOG_TRACE(logger, logcat::Reader, "Tout=", remaining);
        if (remaining < 1) return err::ReceiveTimeout;
        const std::int64_t start = platform::monotonicMicros();
        awaiting_ = true;
        const bool woken = responseArrived_.wait_for(lock, std::chrono::microseconds(remaining),
                                                     [this] { return pendingResponse_ != nullptr || receiverEnded_.load(); });
        awaiting_ = false;
        if (!woken) return err::ReceiveTimeout;
        if (receiverEnded_.load()) return err::Terminated;
        remaining -= platform::monotonicMicros() - start;
        std::int32_t result = err::Ok;
        if (takeResponse(response, responseLength, result)) return result;
    }
}

bool TovraAppTransceive1P::deliverResponse(ProtocolFrame& frame)
{
    bool awaited = false;
    {
        std::lock_guard guard(lock_);
        pendingResponse_ = &frame;
        awaited = awaiting_;
    }
    if (awaited) responseArrived_.notify_all();
    return true;
}

void TovraAppTransceive1P::beginConnection()
{
    std::lock_guard exchange(exchangeLock_);
    std::lock_guard guard(lock_);
    pendingResponse_ = nullptr;
    receiverEnded_.store(false);
}

void TovraAppTransceive1P::receiverEnded()
{
    receiverEnded_.store(true);
    // Taking the lock once makes sure a waiter either sees the flag or is already waiting.
    { std::lock_guard guard(lock_); }
    responseArrived_.notify_all();
}

} // namespace tovra
