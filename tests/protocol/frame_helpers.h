#pragma once

#include "protocol/protocol_frame.h"

#include <cstdint>
#include <vector>

namespace tovra::test {

inline std::vector<std::uint8_t> payloadOf(std::size_t length, std::uint8_t first = 0x65)
{
    std::vector<std::uint8_t> payload(length);
    for (std::size_t i = 0; i < length; ++i) payload[i] = static_cast<std::uint8_t>(i * 7 + 3);
    if (length > 0) payload[0] = first;
    return payload;
}

inline bool build(ProtocolFrame& frame, const std::vector<std::uint8_t>& payload,
                  std::uint8_t generation, std::uint8_t direction = kDirectionRequest,
                  std::uint8_t address = 0xFF)
{
    return buildFrame(frame, payload.data(), payload.size(), generation, direction, address);
}

} // namespace tovra::test
