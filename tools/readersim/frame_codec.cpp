#include "readersim/frame_codec.h"

#include <algorithm>

namespace tovra::readersim {

namespace {

// Bitwise on purpose: the library uses a table, so the two are computed differently.
std::uint16_t crcStep(std::uint16_t crc, std::uint8_t byte) {
    crc = static_cast<std::uint16_t>(crc ^ byte);
    for (int bit = 0; bit < 8; ++bit) {
        crc = (crc & 1U) != 0 ? static_cast<std::uint16_t>((crc >> 1) ^ 0x8408U)
                              : static_cast<std::uint16_t>(crc >> 1);
    }
    return crc;
}

std::size_t maxLength(Generation generation) {
    return generation == Generation::standard ? kMaxStandardLength : kMaxLength;
}

}  // namespace

std::uint16_t crc16(std::span<const std::uint8_t> bytes) {
    std::uint16_t crc = 0xFFFF;
    for (std::uint8_t byte : bytes) crc = crcStep(crc, byte);
    return crc;
}

std::size_t headerSize(Generation generation) {
    switch (generation) {
        case Generation::standard: return 2;
        case Generation::advanced: return 4;
        case Generation::enhanced: return 6;
    }
    return 0;
}

std::size_t maxPayload(Generation generation) {
    return maxLength(generation) - headerSize(generation) - 2;
}

std::vector<std::uint8_t> encode(const Frame& frame) {
    if (frame.payload.empty() || frame.payload.size() > maxPayload(frame.generation)) return {};
    const std::size_t length = headerSize(frame.generation) + frame.payload.size() + 2;
    const auto high = static_cast<std::uint8_t>(length >> 8);
    const auto low = static_cast<std::uint8_t>(length & 0xFF);

    std::vector<std::uint8_t> bytes;
    switch (frame.generation) {
        case Generation::standard: bytes = {low, frame.address}; break;
        case Generation::advanced: bytes = {0x02, high, low, frame.address}; break;
        case Generation::enhanced: bytes = {0x03, high, low, 0x00, frame.flags, frame.address}; break;
    }
    bytes.reserve(length);
    bytes.insert(bytes.end(), frame.payload.begin(), frame.payload.end());
    bytes.resize(length);
    resealCrc(bytes);
    return bytes;
}

void resealCrc(std::vector<std::uint8_t>& bytes) {
    if (bytes.size() < 3) return;
    const std::size_t end = bytes.size() - 2;
    const std::uint16_t crc = crc16(std::span(bytes).first(end));
    bytes[end] = static_cast<std::uint8_t>(crc & 0xFF);
    bytes[end + 1] = static_cast<std::uint8_t>(crc >> 8);
}

Decoded decode(std::span<const std::uint8_t> stream) {
    Decoded result;
    if (stream.empty()) return result;

    Generation generation;
    const std::uint8_t first = stream[0];
    if (first >= 5) {
        generation = Generation::standard;
    } else if (first == 0x02 || first == 0x03) {
        generation = static_cast<Generation>(first);
    } else {
        result.status = Decoded::Status::garbage;
        result.size = 1;
        return result;
    }

    const std::size_t header = headerSize(generation);
    std::size_t length = first;
    if (generation != Generation::standard) {
        if (stream.size() < 3) return result;
        length = static_cast<std::size_t>(stream[1]) << 8 | stream[2];
        // At least one payload byte (the command code); never above the maximum.
        if (length < header + 3 || length > kMaxLength) {
            result.status = Decoded::Status::garbage;
            result.size = 1;
            return result;
        }
    }
    if (stream.size() < length) return result;

    const auto bytes = stream.first(length);
    const std::uint16_t crc = crc16(bytes.first(length - 2));
    result.status = Decoded::Status::frame;
    result.size = length;
    result.crcOk = bytes[length - 2] == (crc & 0xFF) && bytes[length - 1] == (crc >> 8);
    result.frame.generation = generation;
    result.frame.address = bytes[header - 1];
    result.frame.flags = generation == Generation::enhanced ? bytes[4] : 0;
    result.frame.payload.assign(bytes.begin() + static_cast<std::ptrdiff_t>(header),
                                bytes.end() - 2);
    return result;
}

}  // namespace tovra::readersim
