// Cuts whole frames out of the bytes a serial line delivers, in whatever pieces they
// come. Pure: no I/O, no clock; the caller decides how long to wait for more.
//
// The first byte decides a frame's total length: 0x05..0xFF is the length itself;
// 0x01..0x04 is followed by the length as two big-endian bytes, 5..32768. A 0x00 byte is
// skipped (an idle line, or a byte with a parity error, which the driver reads as 0x00),
// and a long-form head with a length out of range loses its first byte, so that the
// search for a frame goes on one byte later.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zkcom {

class FrameAssembler {
public:
    static constexpr std::size_t kMinLength = 5;
    static constexpr std::size_t kMaxLength = 32768;

    enum class State {
        empty,    // nothing that could start a frame
        partial,  // a frame has begun but is not whole yet
        complete, // frame() holds frameLength() bytes of a whole frame
    };

    void append(const std::uint8_t* data, std::size_t size);
    // Drops what cannot start a frame, then says what is buffered.
    State state();
    // Valid after state() said complete.
    const std::uint8_t* frame() const { return bytes_.data() + start_; }
    std::size_t frameLength() const { return frameLength_; }
    // Consumes the complete frame; what follows it stays for the next one.
    void dropFrame();
    void clear();

    std::size_t buffered() const { return bytes_.size() - start_; }
    // Stream offset of the first buffered byte: all bytes ever appended minus those buffered.
    std::uint64_t position() const { return position_; }

private:
    void drop(std::size_t count);

    std::vector<std::uint8_t> bytes_;
    std::size_t start_ = 0;
    std::size_t frameLength_ = 0;
    std::uint64_t position_ = 0;
};

} // namespace zkcom
