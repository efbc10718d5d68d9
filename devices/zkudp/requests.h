// The application's texts: where discovery goes, and what a set-up changes.
#pragma once

#include "messages.h"

#include <cstdint>

namespace zkudp {

inline constexpr std::uint32_t kBroadcast = 0xFFFFFFFFu;

struct Target {
    std::uint32_t address = kBroadcast;
    std::uint16_t port = 10002;
    std::uint32_t lost = 3;  // rounds without an answer before a reader is gone
    std::uint32_t bind = 0;  // local address; 0: any
};

// "address=...:port=...:lost=...:bind=..." (keys without case, all optional); null or ""
// for the defaults. kOk, or kInvalidTarget for an unknown key or a value out of range.
std::int32_t parseTarget(const char* text, Target& target);

// "MacAddress=...[:IpAddress=...][:Netmask=...][:Gateway=...][:Dhcp=0|1][:Port=...]".
// kOk, kInvalidSetupText (syntax, unknown key), kMissingMacAddress or kInvalidSetupValue.
std::int32_t parseSetup(const char* text, SetupFields& fields);

} // namespace zkudp
