#pragma once

// The six device libraries: one description each, and a typed face for those in use.

#include "devlibs/device_library.h"
#include "tovra/device/zkcom.h"

namespace tovra {

extern const DeviceLibraryDescription kZkcomLibrary;
extern const DeviceLibraryDescription kZkusbLibrary;
extern const DeviceLibraryDescription kZkusb2Library;
extern const DeviceLibraryDescription kZkbleLibrary;
extern const DeviceLibraryDescription kZkudpLibrary;
extern const DeviceLibraryDescription kZkgadgetLibrary;

// The serial device library.
class ZkcomLibrary : public DeviceLibrary {
public:
    ZkcomLibrary() : DeviceLibrary(kZkcomLibrary) {}

    ZKCOM_GetErrorText_t getErrorText() const { return entry<ZKCOM_GetErrorText_t>(1); }
    ZKCOM_OpenPort_t openPort() const { return entry<ZKCOM_OpenPort_t>(2); }
    ZKCOM_ClosePort_t closePort() const { return entry<ZKCOM_ClosePort_t>(3); }
    ZKCOM_Transmit_t transmit() const { return entry<ZKCOM_Transmit_t>(4); }
    ZKCOM_Receive_t receive() const { return entry<ZKCOM_Receive_t>(5); }
    ZKCOM_GetPortPara_t getPortPara() const { return entry<ZKCOM_GetPortPara_t>(6); }
    ZKCOM_SetPortPara_t setPortPara() const { return entry<ZKCOM_SetPortPara_t>(7); }
    ZKCOM_DoPortCmd_t doPortCmd() const { return entry<ZKCOM_DoPortCmd_t>(8); }
    ZKCOM_DetectPort_t detectPort() const { return entry<ZKCOM_DetectPort_t>(9); }

    // The library's text for one of its codes.
    std::string errorText(std::int32_t code) const;
};

// The gadget library: one for the process, made on first use; it never loads where the
// system has no gadget library.
class ZkgadgetLibrary : public DeviceLibrary {
public:
    ZkgadgetLibrary() : DeviceLibrary(kZkgadgetLibrary) {}
    static ZkgadgetLibrary& process();
};

} // namespace tovra
