#include "protocol/protocol_frame.h"

#include "protocol/crc16.h"

#include <cstring>

namespace tovra {
namespace {

std::uint32_t bigEndian16(const std::uint8_t* p)
{
    return (std::uint32_t{p[0]} << 8) | p[1];
}

} // namespace

FrameGeneration ProtocolFrame::generation() const
{
    return bytes[0] < 5 ? static_cast<FrameGeneration>(bytes[0]) : FrameGeneration::Standard;
}

std::size_t ProtocolFrame::headerSize() const
{
    switch (generation()) {
    case FrameGeneration::Standard: return 2;
    case FrameGeneration::Advanced: return 4;
    case FrameGeneration::Enhanced: return 6;
    default: return 0;
    }
}

std::uint32_t ProtocolFrame::declaredLength() const
{
    return generation() == FrameGeneration::Standard ? bytes[0] : bigEndian16(&bytes[1]);
}

std::uint8_t ProtocolFrame::busAddress() const
{
    switch (generation()) {
    case FrameGeneration::Advanced: return bytes[3];
    case FrameGeneration::Enhanced: return bytes[5];
    default: return bytes[1];
    }
}

std::uint8_t ProtocolFrame::commandCode() const { return bytes[headerSize()]; }

std::uint8_t ProtocolFrame::status() const { return bytes[headerSize() + 1]; }

std::uint8_t ProtocolFrame::directionFlags() const
{
    return generation() == FrameGeneration::Enhanced ? bytes[4] : 0;
}

std::span<const std::uint8_t> ProtocolFrame::payload() const
{
    const std::size_t used = usedLength();
    const std::size_t header = headerSize();
    if (used < header + 2) return {};
    return {bytes.data() + header, used - header - 2};
}

std::uint16_t ProtocolFrame::storedCrc() const
{
    const std::uint32_t n = declaredLength();
    if (n > maxLength || n < 2) return 0;
    return static_cast<std::uint16_t>(bigEndian16(&bytes[n - 2]));
}

std::string_view generationLabel(std::uint8_t firstByte)
{
    if (firstByte >= 5) return "Std";
    switch (static_cast<FrameGeneration>(firstByte)) {
    case FrameGeneration::Standard: return "Std";
    case FrameGeneration::Advanced: return "Adv";
    case FrameGeneration::Enhanced: return "Enh";
    default: return "";
    }
}

std::string_view ProtocolFrame::generationLabel() const { return tovra::generationLabel(bytes[0]); }

std::string_view ProtocolFrame::directionLabel() const
{
    const std::uint8_t flags = directionFlags();
    if ((flags & kDirectionRequest) != 0) return "Req";
    if ((flags & kDirectionResponse) != 0) return "Rsp";
    return "";
}

bool buildFrame(ProtocolFrame& frame, const std::uint8_t* payload, std::uint64_t payloadLength,
                std::uint8_t generation, std::uint8_t directionFlags, std::uint8_t busAddress)
{
    frame.clear();
    // Checked before any sum so that a huge length cannot wrap around.
    if (payloadLength == 0 || payload == nullptr || payloadLength > ProtocolFrame::maxLength) return false;

    auto& b = frame.bytes;
    std::uint64_t n = 0;
    std::size_t at = 0;
    switch (static_cast<FrameGeneration>(generation)) {
    case FrameGeneration::Standard:
        n = payloadLength + 4;
        if (n > 255) return false;
        b[at++] = static_cast<std::uint8_t>(n);
        break;
    case FrameGeneration::Advanced:
        n = payloadLength + 6;
        if (n > ProtocolFrame::maxLength) return false;
        b[at++] = 0x02;
        b[at++] = static_cast<std::uint8_t>(n >> 8);
        b[at++] = static_cast<std::uint8_t>(n);
        break;
    case FrameGeneration::Enhanced:
        n = payloadLength + 8;
        if (n > ProtocolFrame::maxLength) return false;
        b[at++] = 0x03;
        b[at++] = static_cast<std::uint8_t>(n >> 8);
        b[at++] = static_cast<std::uint8_t>(n);
        b[at++] = 0x00;
        b[at++] = directionFlags;
        break;
    default:
        return false;
    }
    b[at++] = busAddress;
    std::memcpy(&b[at], payload, static_cast<std::size_t>(payloadLength));
    at += static_cast<std::size_t>(payloadLength);
    const std::uint16_t crc = crc16(b.data(), at);
    b[at++] = static_cast<std::uint8_t>(crc);
    b[at++] = static_cast<std::uint8_t>(crc >> 8);
    frame.length = n;
    return true;
}

bool isValidFrame(const ProtocolFrame& frame)
{
    if (frame.length == 0 || frame.bytes[0] == 0) return false;
    const std::uint32_t declared = frame.declaredLength();
    if (declared > ProtocolFrame::maxLength || declared != frame.length) return false;
    if (declared < 2) return false; // no room for a CRC
    const std::uint16_t crc = crc16(frame.bytes.data(), declared - 2);
    const auto swapped = static_cast<std::uint16_t>((crc << 8) | (crc >> 8));
    return swapped == frame.storedCrc();
}

} // namespace tovra
