#pragma once

#include "protocol/protocol_frame.h"

#include <cstdint>
#include <memory>
#include <mutex>

namespace tovra {

class ConnectionRecord;

// The application channel of a two-port module: a request out, its response back, on the
// caller's thread.
class TovraAppChannel2P {
public:
    explicit TovraAppChannel2P(ConnectionRecord& record) : record_(record) {}

    // 0, -5010 (null response buffer or length), -5017 (too large) or the transmit or receive
    // error. A null or empty payload only receives.
    std::int32_t transceive(const std::uint8_t* payload, std::uint64_t payloadLength, std::uint8_t* response,
                            std::uint64_t* responseLength);
    // Held for a whole exchange: whoever closes the channel's plugin takes it first, after
    // waking the exchange's waits, so that no exchange runs on a closed plugin.
    std::mutex& exchangeLock() { return exchangeLock_; }

private:
    ConnectionRecord& record_;
    // Callers on several threads would otherwise share the two frames.
    std::mutex exchangeLock_;
    LazyFrame request_;
    LazyFrame response_;
};

} // namespace tovra
