#pragma once

#include <cstdint>

// Category bits of a logger's flag word; a record is written when (flags & mask) != 0.
namespace tovra::logcat {

inline constexpr std::uint32_t Protocol = 0x00000001;
inline constexpr std::uint32_t Payload = 0x00000002;
inline constexpr std::uint32_t Reader = 0x00000004;
inline constexpr std::uint32_t Tcp = 0x00000010;
inline constexpr std::uint32_t Usb = 0x00000020;
inline constexpr std::uint32_t Com = 0x00000040;
inline constexpr std::uint32_t Ble = 0x00000080;
inline constexpr std::uint32_t Gadget = 0x00000100;
inline constexpr std::uint32_t Cust = 0x00000800;
inline constexpr std::uint32_t UdpManager = 0x00100000;
inline constexpr std::uint32_t UsbManager = 0x00200000;
inline constexpr std::uint32_t ComManager = 0x00400000;
inline constexpr std::uint32_t BleManager = 0x00800000;
inline constexpr std::uint32_t Error = 0x80000000;

} // namespace tovra::logcat
