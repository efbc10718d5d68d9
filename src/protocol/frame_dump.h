#pragma once

#include "protocol/protocol_frame.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace tovra {

// Whole frame in hex: each byte preceded by a blank, or by "|" where the payload starts
// and where the CRC starts; sensitive payload bytes print as "##".
std::string frameToHex(const ProtocolFrame& frame);

// Payload bytes in hex, each preceded by a blank, with the same masking.
std::string payloadToHex(const ProtocolFrame& frame);

// Reads hex digit pairs, skipping white space and "|"; false on an odd or non-hex pair.
bool hexToFrame(ProtocolFrame& frame, std::string_view text);

enum class DumpDirection { Send, Receive };

// Header and body of one frame dump record; `full` selects the whole-frame dump,
// otherwise the payload dump.
std::string frameDumpHeader(std::int32_t readerHandle, std::string_view readerLabel,
                            const ProtocolFrame& frame, bool full);
std::string frameDumpBody(DumpDirection direction, const ProtocolFrame& frame, bool full);

class TovraLogger;

// Writes the frame's dump record when protocol or payload logging is on (protocol wins).
void logFrameDump(TovraLogger& logger, std::int32_t readerHandle, std::string_view readerLabel,
                  const ProtocolFrame& frame, DumpDirection direction);

} // namespace tovra
