#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace tovra {

// CRC-16 of the reader frames: polynomial 0x1021 processed bit-reflected (0x8408),
// initial value 0xFFFF, no final XOR.
inline constexpr std::uint16_t kCrcInitial = 0xFFFF;

namespace detail {
constexpr std::array<std::uint16_t, 256> makeCrcTable()
{
    std::array<std::uint16_t, 256> table{};
    for (unsigned i = 0; i < 256; ++i) {
        unsigned crc = i;
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 1U) != 0 ? (crc >> 1) ^ 0x8408U : crc >> 1;
        table[i] = static_cast<std::uint16_t>(crc);
    }
    return table;
}
inline constexpr auto kCrcTable = makeCrcTable();
} // namespace detail

constexpr std::uint16_t crc16(const std::uint8_t* data, std::size_t length,
                              std::uint16_t crc = kCrcInitial)
{
    for (std::size_t i = 0; i < length; ++i)
        crc = static_cast<std::uint16_t>((crc >> 8) ^ detail::kCrcTable[(crc ^ data[i]) & 0xFFU]);
    return crc;
}

} // namespace tovra
