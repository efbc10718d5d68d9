#pragma once

// The six device libraries: one description each, and a typed face for those in use.

#include "devlibs/device_library.h"
#include "tovra/device/zkble.h"
#include "tovra/device/zkcom.h"
#include "tovra/device/zkgadget.h"
#include "tovra/device/zkudp.h"
#include "tovra/device/zkusb.h"
#include "tovra/device/zkusb2.h"

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

// The USB device library.
class ZkusbLibrary : public DeviceLibrary {
public:
    ZkusbLibrary() : DeviceLibrary(kZkusbLibrary) {}

    ZKUSB_OpenDevice_t openDevice() const { return entry<ZKUSB_OpenDevice_t>(2); }
    ZKUSB_CloseDevice_t closeDevice() const { return entry<ZKUSB_CloseDevice_t>(3); }
    ZKUSB_Transmit_t transmit() const { return entry<ZKUSB_Transmit_t>(4); }
    ZKUSB_Receive_t receive() const { return entry<ZKUSB_Receive_t>(5); }
    ZKUSB_SetDevicePara_t setDevicePara() const { return entry<ZKUSB_SetDevicePara_t>(7); }
    ZKUSB_Scan_t scan() const { return entry<ZKUSB_Scan_t>(8); }
    ZKUSB_GetScanListSize_t getScanListSize() const { return entry<ZKUSB_GetScanListSize_t>(9); }
    ZKUSB_GetScanListPara_t getScanListPara() const { return entry<ZKUSB_GetScanListPara_t>(10); }
    ZKUSB_AddEventHandler_t addEventHandler() const { return entry<ZKUSB_AddEventHandler_t>(11); }
    ZKUSB_DelEventHandler_t delEventHandler() const { return entry<ZKUSB_DelEventHandler_t>(12); }

    std::string errorText(std::int32_t code) const;
};

// The second-generation USB device library.
class Zkusb2Library : public DeviceLibrary {
public:
    Zkusb2Library() : DeviceLibrary(kZkusb2Library) {}

    ZKUSB2_RegisterScanCallback_t registerScanCallback() const { return entry<ZKUSB2_RegisterScanCallback_t>(2); }
    ZKUSB2_StartScan_t startScan() const { return entry<ZKUSB2_StartScan_t>(3); }
    ZKUSB2_StopScan_t stopScan() const { return entry<ZKUSB2_StopScan_t>(4); }
    ZKUSB2_GetNextEvent_t getNextEvent() const { return entry<ZKUSB2_GetNextEvent_t>(5); }
    ZKUSB2_OpenDevice_t openDevice() const { return entry<ZKUSB2_OpenDevice_t>(6); }
    ZKUSB2_CloseDevice_t close() const { return entry<ZKUSB2_CloseDevice_t>(7); }
    ZKUSB2_Transmit_t transmit() const { return entry<ZKUSB2_Transmit_t>(8); }
    ZKUSB2_Receive_t receive() const { return entry<ZKUSB2_Receive_t>(9); }
    ZKUSB2_PutParameter_t putParameter() const { return entry<ZKUSB2_PutParameter_t>(11); }

    std::string errorText(std::int32_t code) const { return textOf(entry<ZKUSB2_GetErrorText_t>(1)(code)); }
};

// The Bluetooth device library.
class ZkbleLibrary : public DeviceLibrary {
public:
    ZkbleLibrary() : DeviceLibrary(kZkbleLibrary) {}

    ZKBLE_Connect_t connect() const { return entry<ZKBLE_Connect_t>(2); }
    ZKBLE_ConnectSpp_t connectSpp() const { return entry<ZKBLE_ConnectSpp_t>(3); }
    ZKBLE_Disconnect_t close() const { return entry<ZKBLE_Disconnect_t>(4); }
    ZKBLE_Transmit_t transmit() const { return entry<ZKBLE_Transmit_t>(5); }
    ZKBLE_Receive_t receive() const { return entry<ZKBLE_Receive_t>(6); }
    ZKBLE_PutParameter_t putParameter() const { return entry<ZKBLE_PutParameter_t>(7); }
    ZKBLE_StartScan_t startScan() const { return entry<ZKBLE_StartScan_t>(9); }
    ZKBLE_StopScan_t stopScan() const { return entry<ZKBLE_StopScan_t>(10); }
    ZKBLE_RegisterScanCallback_t registerScanCallback() const { return entry<ZKBLE_RegisterScanCallback_t>(11); }

    std::string errorText(std::int32_t code) const { return textOf(entry<ZKBLE_GetErrorText_t>(1)(code)); }
};

// The UDP discovery library.
class ZkudpLibrary : public DeviceLibrary {
public:
    ZkudpLibrary() : DeviceLibrary(kZkudpLibrary) {}

    ZKUDP_Discover_t discover() const { return entry<ZKUDP_Discover_t>(2); }
    ZKUDP_Setup_t setup() const { return entry<ZKUDP_Setup_t>(3); }

    std::string errorText(std::int32_t code) const { return textOf(entry<ZKUDP_GetErrorText_t>(1)(code)); }
};

// The gadget library: one for the process, made on first use; it never loads where the
// system has no gadget library.
class ZkgadgetLibrary : public DeviceLibrary {
public:
    ZkgadgetLibrary() : DeviceLibrary(kZkgadgetLibrary) {}
    static ZkgadgetLibrary& process();

    ZKGADGET_StartGadget_t startGadget() const { return entry<ZKGADGET_StartGadget_t>(2); }
    ZKGADGET_StopGadget_t stopGadget() const { return entry<ZKGADGET_StopGadget_t>(3); }
    ZKGADGET_GetStatus_t getStatus() const { return entry<ZKGADGET_GetStatus_t>(4); }
    ZKGADGET_Transmit_t transmit() const { return entry<ZKGADGET_Transmit_t>(5); }
    ZKGADGET_Receive_t receive() const { return entry<ZKGADGET_Receive_t>(6); }

    std::string errorText(std::int32_t code) const { return textOf(entry<ZKGADGET_GetErrorText_t>(1)(code)); }
};

} // namespace tovra
