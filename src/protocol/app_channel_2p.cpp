#include "protocol/app_channel_2p.h"

#include "api/error_codes.h"
#include "logging/log.h"
#include "reader/connection_record.h"

#include <cstring>

namespace tovra {

std::int32_t TovraAppChannel2P::transceive(const std::uint8_t* payload, std::uint64_t payloadLength,
                                           std::uint8_t* response, std::uint64_t* responseLength)
{
    if (response == nullptr || responseLength == nullptr) return err::NullPointer;
    std::lock_guard exchange(exchangeLock_);
    if (payload != nullptr && payloadLength > 0) {
        if (!buildFrame(*request_, payload, payloadLength, record_.frameType(), kDirectionRequest,
                        record_.busAddress()))
            return err::PayloadTooLarge;
        const std::int32_t sent = record_.transmit().transmitProtocol(*request_);
        if (sent < 0) return sent;
    } else {
        // Collects a further response to an earlier request.
        TOVRA_LOG_TRACE(record_.logger(), logcat::Reader, "Transmit skipped");
    }
    const std::int32_t received = record_.receive().receiveProtocol(*response_);
    if (received < 0) return received;

    const auto answer = response_->payload();
    if (answer.size() > *responseLength) return err::PayloadTooLarge;
    std::memcpy(response, answer.data(), answer.size());
    *responseLength = answer.size();
    return err::Ok;
}

} // namespace tovra
