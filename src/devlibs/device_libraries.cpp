#include "devlibs/device_libraries.h"

#include "platform/system.h"

#include <array>

namespace tovra {
namespace {

constexpr std::array kZkcomEntries = {
    "ZKCOM_GetDLLVersion", "ZKCOM_GetErrorText", "ZKCOM_OpenPort",    "ZKCOM_ClosePort", "ZKCOM_Transmit",
    "ZKCOM_Receive",       "ZKCOM_GetPortPara",  "ZKCOM_SetPortPara", "ZKCOM_DoPortCmd", "ZKCOM_DetectPort",
};
constexpr std::array kZkusbEntries = {
    "ZKUSB_GetDLLVersion",   "ZKUSB_GetErrorText",    "ZKUSB_OpenDevice",      "ZKUSB_CloseDevice",
    "ZKUSB_Transmit",        "ZKUSB_Receive",         "ZKUSB_GetDevicePara",   "ZKUSB_SetDevicePara",
    "ZKUSB_Scan",            "ZKUSB_GetScanListSize", "ZKUSB_GetScanListPara", "ZKUSB_AddEventHandler",
    "ZKUSB_DelEventHandler",
};
constexpr std::array kZkusb2Entries = {
    "ZKUSB2_GetVersion", "ZKUSB2_GetErrorText", "ZKUSB2_RegisterScanCallback", "ZKUSB2_StartScan",
    "ZKUSB2_StopScan",   "ZKUSB2_GetNextEvent", "ZKUSB2_OpenDevice",           "ZKUSB2_CloseDevice",
    "ZKUSB2_Transmit",   "ZKUSB2_Receive",      "ZKUSB2_GetParameter",         "ZKUSB2_PutParameter",
};
constexpr std::array kZkbleEntries = {
    "ZKBLE_GetVersion",   "ZKBLE_GetErrorText",   "ZKBLE_Connect",      "ZKBLE_ConnectSpp",
    "ZKBLE_Disconnect",   "ZKBLE_Transmit",       "ZKBLE_Receive",      "ZKBLE_PutParameter",
    "ZKBLE_GetParameter", "ZKBLE_StartScan",      "ZKBLE_StopScan",     "ZKBLE_RegisterScanCallback",
};
constexpr std::array kZkudpEntries = {
    "ZKUDP_GetDLLVersion",
    "ZKUDP_GetErrorText",
    "ZKUDP_Discover",
    "ZKUDP_Setup",
};
constexpr std::array kZkgadgetEntries = {
    "ZKGADGET_GetVersion", "ZKGADGET_GetErrorText", "ZKGADGET_StartGadget", "ZKGADGET_StopGadget",
    "ZKGADGET_GetStatus",  "ZKGADGET_Transmit",     "ZKGADGET_Receive",
};

} // namespace

const DeviceLibraryDescription kZkcomLibrary{"ZKCOM", "zkcom", kZkcomEntries, LibraryVersion::release(5, 0, 0)};
const DeviceLibraryDescription kZkusbLibrary{"ZKUSB", "zkusb", kZkusbEntries, LibraryVersion::release(7, 1, 0)};
const DeviceLibraryDescription kZkusb2Library{"ZKUSB2", "zkusb2", kZkusb2Entries, LibraryVersion::release(1, 0, 0)};
const DeviceLibraryDescription kZkbleLibrary{"ZKBLE", "zkble", kZkbleEntries, LibraryVersion::release(1, 0, 0)};
const DeviceLibraryDescription kZkudpLibrary{"ZKUDP", "zkudp", kZkudpEntries, LibraryVersion::release(1, 0, 0)};
const DeviceLibraryDescription kZkgadgetLibrary{"ZKGADGET", platform::gadgetLibraryBaseName(), kZkgadgetEntries,
                                                LibraryVersion::release(0, 2, 0), "ZKGADGET-LIBRARY-LOAD"};

std::string ZkcomLibrary::errorText(std::int32_t code) const
{
    char text[1024] = {};
    if (getErrorText()(code, text, static_cast<std::int32_t>(sizeof text)) < 0) return {};
    text[sizeof text - 1] = '\0';
    return text;
}

std::string ZkusbLibrary::errorText(std::int32_t code) const
{
    char text[1024] = {};
    entry<ZKUSB_GetErrorText_t>(1)(code, text);
    text[sizeof text - 1] = '\0';
    return text;
}

ZkgadgetLibrary& ZkgadgetLibrary::process()
{
    // Never destroyed: a gadget still in use at exit keeps its library.
    static ZkgadgetLibrary* const library = new ZkgadgetLibrary;
    return *library;
}

} // namespace tovra
