#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zkcom::test {

using Bytes = std::vector<std::uint8_t>;

// A frame of `length` bytes as the serial line carries it: the short form (5..255, the
// first byte is the length) or the long form (0x02, then the length). Its checksum is
// not the line's business.
inline Bytes frameOf(std::size_t length, std::uint8_t fill)
{
    Bytes frame(length, fill);
    if (length <= 0xFF) {
        frame[0] = static_cast<std::uint8_t>(length);
    } else {
        frame[0] = 0x02;
        frame[1] = static_cast<std::uint8_t>(length >> 8);
        frame[2] = static_cast<std::uint8_t>(length);
    }
    return frame;
}

} // namespace zkcom::test
