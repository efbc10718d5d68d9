#pragma once

#include <cstdint>

namespace tovra {

// The discovery managers answer TOVRA_GetLastError and TOVRA_GetLastErrorText through
// pseudo-handles: -1 USB, -2 BLE, -3 serial ports, -4 UDP.
inline bool isManagerHandle(std::int32_t handle) { return handle >= -4 && handle <= -1; }
std::int32_t managerLastError(std::int32_t handle);
const char* managerLastErrorText(std::int32_t handle);

} // namespace tovra
