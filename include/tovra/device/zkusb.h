#ifndef TOVRA_DEVICE_ZKUSB_H
#define TOVRA_DEVICE_ZKUSB_H

/**
 * @file
 * The USB device library ZKUSB as tovra calls it: libzkusb.so on Linux, zkusb.dll on
 * Windows, loaded at run time and required at version 7.1.0 or later. tovra does not ship
 * one; any library with these entry points will do.
 *
 * Results are 0 or positive on success and negative error codes on failure;
 * ZKUSB_GetErrorText explains them. Device ids are 32-bit numbers; port handles are small
 * non-negative numbers. ZKUSB_Transmit and ZKUSB_Receive may run at the same time on one
 * handle.
 *
 * @addtogroup tovra_devices
 * @{
 */

#include <stdint.h>

#if defined(_WIN32)
#  define ZKUSB_CALL __cdecl
#else
/** The calling convention of ZKUSB's entry points: `__cdecl` on Windows. */
#  define ZKUSB_CALL
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** A receive that got nothing within the device's "TIMEOUT". */
#define ZKUSB_TIMEOUT (-1130)
/** A scan that found no reader; not a failure. */
#define ZKUSB_NO_DEVICE (-1112)
/** Event number of ZKUSB_EventRecord: a reader was plugged in. */
#define ZKUSB_EVENT_PLUG 1
/** Event number of ZKUSB_EventRecord: a reader was pulled out. */
#define ZKUSB_EVENT_UNPLUG 2
/** The only callback type tovra registers. */
#define ZKUSB_CALLBACK_TYPE 3

/**
 * Called on the library's own thread for a reader plugged in or pulled out. The first
 * argument is the library's handle or context value; tovra ignores it.
 */
typedef void (ZKUSB_CALL *ZKUSB_EventHandler)(uint32_t handleOrContext, uint32_t deviceId, const char* deviceName);

/**
 * What ZKUSB_AddEventHandler and ZKUSB_DelEventHandler are given, by address: 32 bytes in
 * the 64-bit layout. The caller keeps the record until the handler is removed.
 */
typedef struct ZKUSB_EventRecord {
    int32_t event;        /**< ZKUSB_EVENT_PLUG or ZKUSB_EVENT_UNPLUG */
    int32_t reserved;     /**< 0 */
    int32_t callbackType; /**< ZKUSB_CALLBACK_TYPE */
    void* context;        /**< the caller's, for its own use */
    ZKUSB_EventHandler handler; /**< called for each event of the record's kind */
} ZKUSB_EventRecord;

/** ZKUSB_GetDLLVersion: the version text, compared with the version required. */
typedef const char* (ZKUSB_CALL *ZKUSB_GetDLLVersion_t)(void);
/** ZKUSB_GetErrorText: writes the text of `code` into `text`, a buffer of at least 1024 bytes, terminated. */
typedef int32_t (ZKUSB_CALL *ZKUSB_GetErrorText_t)(int32_t code, char* text);
/** ZKUSB_OpenDevice: opens the reader with this device id: its port handle, or an error. */
typedef int32_t (ZKUSB_CALL *ZKUSB_OpenDevice_t)(uint32_t deviceId);
/** ZKUSB_CloseDevice: closes the reader: 0, or an error. */
typedef int32_t (ZKUSB_CALL *ZKUSB_CloseDevice_t)(int32_t handle);
/** ZKUSB_Transmit: sends `length` bytes through the named interface ("QEMA-RCI2"): 0, or an error. */
typedef int32_t (ZKUSB_CALL *ZKUSB_Transmit_t)(int32_t handle, const char* interfaceName, const uint8_t* data,
                                               int32_t length);
/**
 * ZKUSB_Receive: reads what the device delivered, at most `size` bytes (frames may arrive
 * cut or several at once): the byte count, ZKUSB_TIMEOUT, or an error.
 */
typedef int32_t (ZKUSB_CALL *ZKUSB_Receive_t)(int32_t handle, const char* interfaceName, uint8_t* buffer,
                                              int32_t size);
/** ZKUSB_GetDevicePara: a device parameter's value as text into `value` of `size` bytes: 0, or an error. */
typedef int32_t (ZKUSB_CALL *ZKUSB_GetDevicePara_t)(int32_t handle, const char* key, char* value, int32_t size);
/** ZKUSB_SetDevicePara: sets a device parameter ("TIMEOUT" in ms as text): 0, or an error. */
typedef int32_t (ZKUSB_CALL *ZKUSB_SetDevicePara_t)(int32_t handle, const char* key, const char* value);
/**
 * ZKUSB_Scan: scans the bus (tovra passes mode 15, flags 0): the number of readers,
 * ZKUSB_NO_DEVICE, or an error. Replaces the scan list.
 */
typedef int32_t (ZKUSB_CALL *ZKUSB_Scan_t)(int32_t mode, int32_t flags);
/** ZKUSB_GetScanListSize: the number of entries in the scan list. */
typedef int32_t (ZKUSB_CALL *ZKUSB_GetScanListSize_t)(void);
/**
 * ZKUSB_GetScanListPara: a value of scan-list entry `index` ("Device-ID", "DeviceName")
 * into `value` of `size` bytes, terminated: 0, or an error.
 */
typedef int32_t (ZKUSB_CALL *ZKUSB_GetScanListPara_t)(int32_t index, const char* key, char* value, int32_t size);
/** ZKUSB_AddEventHandler: adds an event handler (flags 0): 0, or an error. */
typedef int32_t (ZKUSB_CALL *ZKUSB_AddEventHandler_t)(int32_t flags, ZKUSB_EventRecord* record);
/**
 * ZKUSB_DelEventHandler: removes an event handler (flags 0). Removing waits for a delivery
 * of that handler still running, so it is not called after the removal returns.
 */
typedef int32_t (ZKUSB_CALL *ZKUSB_DelEventHandler_t)(int32_t flags, ZKUSB_EventRecord* record);

#ifdef __cplusplus
}
#endif

/** @} */

#endif
