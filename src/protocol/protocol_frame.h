#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

namespace tovra {

// Frame generations; the first byte of a frame decides (0x05..0xFF is a standard frame's length).
enum class FrameGeneration : std::uint8_t {
    Standard = 0,
    Unknown1 = 1,
    Advanced = 2,
    Enhanced = 3,
    Unknown4 = 4,
};

// Direction flags of enhanced frames.
inline constexpr std::uint8_t kDirectionRequest = 0x01;
inline constexpr std::uint8_t kDirectionResponse = 0x02;

// One frame as it travels on the wire. Owners keep theirs for as long as they live; none is
// allocated per message.
struct ProtocolFrame {
    static constexpr std::size_t maxLength = 32768;

    // Only the header is zeroed: the rest of the storage stays untouched, and costs no
    // memory, until a frame that long is written into it.
    ProtocolFrame() noexcept { std::fill_n(bytes.begin(), kZeroedHeader, std::uint8_t{0}); }

    std::uint64_t length = 0; // valid bytes; 0 means empty and free
    std::array<std::uint8_t, maxLength> bytes;

    void clear()
    {
        length = 0;
        bytes[0] = 0;
    }
    bool empty() const { return length == 0; }
    // Copies only the bytes in use.
    void copyFrom(const ProtocolFrame& other)
    {
        length = other.usedLength();
        std::copy_n(other.bytes.begin(), usedLength(), bytes.begin());
    }

    // Derived fields, all read from `bytes`.
    FrameGeneration generation() const;
    std::size_t headerSize() const;
    std::uint32_t declaredLength() const;
    std::uint8_t busAddress() const;
    std::uint8_t commandCode() const;
    std::uint8_t status() const;
    std::uint8_t directionFlags() const;
    // bytes[H] .. bytes[length-3]; empty when the frame is shorter than its header and CRC.
    std::span<const std::uint8_t> payload() const;
    // The two CRC bytes at the declared end read big-endian; 0 when that end is out of range.
    std::uint16_t storedCrc() const;
    std::string_view generationLabel() const;
    std::string_view directionLabel() const;

    // `length`, limited to the buffer, for code that walks the bytes.
    std::size_t usedLength() const { return length < maxLength ? static_cast<std::size_t>(length) : maxLength; }

private:
    // The largest header plus command code and status: what the derived fields read of a
    // frame shorter than its header.
    static constexpr std::size_t kZeroedHeader = 8;
};

// A frame made on its first use, so that an object that never needs it carries none. Used
// by one thread at a time, as the frame itself is.
class LazyFrame {
public:
    ProtocolFrame& operator*()
    {
        if (!frame_) frame_ = std::make_unique<ProtocolFrame>();
        return *frame_;
    }
    ProtocolFrame* operator->() { return &**this; }

private:
    std::unique_ptr<ProtocolFrame> frame_;
};

// "Std", "Adv", "Enh" or "" for a frame whose first byte (or a generation number) is `firstByte`.
std::string_view generationLabel(std::uint8_t firstByte);

// Clears `frame` and writes a frame of the given generation (0, 2 or 3) around the payload.
// False for an empty payload, an unknown generation or a frame that would be too long.
bool buildFrame(ProtocolFrame& frame, const std::uint8_t* payload, std::uint64_t payloadLength,
                std::uint8_t generation, std::uint8_t directionFlags, std::uint8_t busAddress);

// Length agrees with the declared length and the CRC matches.
bool isValidFrame(const ProtocolFrame& frame);

} // namespace tovra
