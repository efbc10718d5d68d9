// Frames as the simulated reader writes and reads them: the three generations,
// their CRC, an encoder and a stream decoder. Written apart from the library's
// own frame code so that the two check each other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace tovra::readersim {

// The value of the first byte for advanced and enhanced frames; a standard
// frame starts with its length instead.
enum class Generation : std::uint8_t { standard = 0, advanced = 2, enhanced = 3 };

inline constexpr std::uint8_t kDirectionRequest = 0x01;
inline constexpr std::uint8_t kDirectionResponse = 0x02;

inline constexpr std::size_t kMaxStandardLength = 255;
inline constexpr std::size_t kMaxLength = 32768;  // advanced and enhanced

struct Frame {
    Generation generation = Generation::enhanced;
    std::uint8_t address = 0xFF;  // bus address
    std::uint8_t flags = 0;       // direction flags, enhanced frames only
    std::vector<std::uint8_t> payload;

    bool operator==(const Frame&) const = default;
};

// CRC-16, polynomial 0x1021 bit-reflected, start 0xFFFF, no final xor.
std::uint16_t crc16(std::span<const std::uint8_t> bytes);

// Bytes before the payload, and the largest payload that fits.
std::size_t headerSize(Generation generation);
std::size_t maxPayload(Generation generation);

// The frame's bytes with its CRC (low byte first); empty when the payload is
// empty or does not fit the generation.
std::vector<std::uint8_t> encode(const Frame& frame);

// Writes a new CRC over all bytes but the last two (used to forge frames whose
// only fault is somewhere else). Does nothing to frames shorter than 3 bytes.
void resealCrc(std::vector<std::uint8_t>& bytes);

// Looks at the start of a received byte stream.
struct Decoded {
    enum class Status {
        incomplete,  // a frame has started; more bytes are needed
        frame,       // a whole frame of `size` bytes (see crcOk)
        garbage,     // the first byte cannot start a frame: skip `size` (1) byte
    };
    Status status = Status::incomplete;
    std::size_t size = 0;
    bool crcOk = false;
    Frame frame;
};
Decoded decode(std::span<const std::uint8_t> stream);

}  // namespace tovra::readersim
