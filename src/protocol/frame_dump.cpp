#include "protocol/frame_dump.h"

#include "api/error_texts.h"
#include "logging/tovra_logger.h"

#include <cctype>
#include <optional>

namespace tovra {
namespace {

constexpr char kHexDigits[] = "0123456789ABCDEF";

// Writes a separator and two characters (hex digits or "##"); the dumps size their text up front.
char* putByte(char* out, char separator, std::uint8_t byte, bool masked)
{
    out[0] = separator;
    out[1] = masked ? '#' : kHexDigits[byte >> 4];
    out[2] = masked ? '#' : kHexDigits[byte & 0x0F];
    return out + 3;
}

// Payload positions [from, payload length) hidden in dumps: keys, passwords and the like.
// The command's option bytes are read from the frame buffer even past a short payload.
std::optional<std::size_t> maskStart(const ProtocolFrame& frame)
{
    if (frame.payload().empty()) return std::nullopt;
    const std::uint8_t* p = frame.bytes.data() + frame.headerSize();
    switch (p[0]) {
    case 0xA0: return 1;
    case 0xA1: return 2;
    case 0xA2: return 3;
    case 0xA3: return 5;
    case 0xA4: return 3;
    case 0xAD: return 4;
    case 0xB2:
        if (p[1] == 0xB0 || (p[2] & 0x08) != 0) return 5;
        return std::nullopt;
    default: return std::nullopt;
    }
}

int hexValue(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

} // namespace

std::string frameToHex(const ProtocolFrame& frame)
{
    const std::size_t length = frame.usedLength();
    const std::size_t header = frame.headerSize();
    const auto payload = frame.payload();
    const auto mask = maskStart(frame);
    const std::size_t maskedFrom = mask ? header + *mask : length;
    const std::size_t maskedTo = header + payload.size();

    std::string text(length * 3, ' ');
    char* out = text.data();
    for (std::size_t i = 0; i < length; ++i) {
        const char separator = (i == header || i + 2 == length) ? '|' : ' ';
        out = putByte(out, separator, frame.bytes[i], i >= maskedFrom && i < maskedTo);
    }
    return text;
}

std::string payloadToHex(const ProtocolFrame& frame)
{
    const auto payload = frame.payload();
    const auto mask = maskStart(frame);

    std::string text(payload.size() * 3, ' ');
    char* out = text.data();
    for (std::size_t i = 0; i < payload.size(); ++i) {
        if (!mask) out = putByte(out, ' ', payload[i], false);
        // Masked dumps take the leading bytes from the frame start, not from the payload.
        else out = putByte(out, ' ', frame.bytes[i], i >= *mask);
    }
    return text;
}

bool hexToFrame(ProtocolFrame& frame, std::string_view text)
{
    frame.clear();
    std::size_t count = 0;
    for (std::size_t i = 0; i < text.size() && count < ProtocolFrame::maxLength; ++i) {
        const char c = text[i];
        if (c == '|' || std::isspace(static_cast<unsigned char>(c)) != 0) continue;
        const int high = hexValue(c);
        const int low = i + 1 < text.size() ? hexValue(text[++i]) : -1;
        if (high < 0 || low < 0) {
            frame.clear();
            return false;
        }
        frame.bytes[count++] = static_cast<std::uint8_t>((high << 4) | low);
    }
    frame.length = count;
    return true;
}

std::string frameDumpHeader(std::int32_t readerHandle, std::string_view readerLabel,
                            const ProtocolFrame& frame, bool full)
{
    std::string header = " RH=" + std::to_string(readerHandle) + " ";
    header += readerLabel;
    if (!full) return header;
    header += ':';
    header += frame.generationLabel();
    if (frame.generation() == FrameGeneration::Enhanced) {
        header += ':';
        header += frame.directionLabel();
    }
    return header;
}

std::string frameDumpBody(DumpDirection direction, const ProtocolFrame& frame, bool full)
{
    const bool receive = direction == DumpDirection::Receive;
    std::string body = receive ? "  <<  " : "  >>  ";
    if (receive && !isValidFrame(frame)) body += "INVALID PROTOCOL ";
    body += full ? frameToHex(frame) : payloadToHex(frame);
    if (receive) {
        body += "  ";
        body += readerStatusText(frame.status());
    }
    return body;
}

void logFrameDump(TovraLogger& logger, std::int32_t readerHandle, std::string_view readerLabel,
                  const ProtocolFrame& frame, DumpDirection direction)
{
    const bool full = logger.isProtocolOn();
    if (!full && !logger.isPayloadOn()) return;
    logger.dump(frameDumpHeader(readerHandle, readerLabel, frame, full), frameDumpBody(direction, frame, full));
}

} // namespace tovra
