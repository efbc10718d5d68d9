#ifndef TOVRA_DEVICE_ZKBLE_H
#define TOVRA_DEVICE_ZKBLE_H

/**
 * @file
 * The Bluetooth device library ZKBLE as tovra calls it: libzkble.so on Linux, zkble.dll
 * on Windows, loaded at run time and required at version 1.0.0 or later. tovra does not
 * ship one. It reaches readers over Bluetooth Low Energy and over the serial port profile,
 * delivers whole frames, and reports readers coming into range or leaving.
 *
 * @addtogroup tovra_devices
 * @{
 */

#include <stdbool.h>
#include <stdint.h>

#if defined(_WIN32)
#  define ZKBLE_CALL __cdecl
#else
/** The calling convention of ZKBLE's entry points: `__cdecl` on Windows. */
#  define ZKBLE_CALL
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** Scan event: a reader came into range. */
#define ZKBLE_EVENT_SEEN 1
/** Scan event: a reader left. */
#define ZKBLE_EVENT_GONE 2

/** What the scan callback is given. */
typedef struct ZKBLE_ScanRecord {
    char macAddress[36]; /**< text, terminated unless it fills the field */
    uint32_t deviceId;   /**< the reader's device id */
    uint32_t readerType; /**< the reader's type number */
} ZKBLE_ScanRecord;

/** Called on the library's own thread; the record is valid only during the call. */
typedef void (ZKBLE_CALL *ZKBLE_ScanCallback)(void* context, uint32_t eventType, const ZKBLE_ScanRecord* record);

/** ZKBLE_GetVersion: the version text, compared with the version required. */
typedef const char* (ZKBLE_CALL *ZKBLE_GetVersion_t)(void);
/** ZKBLE_GetErrorText: the text of one of the library's codes. */
typedef const char* (ZKBLE_CALL *ZKBLE_GetErrorText_t)(int32_t code);
/** ZKBLE_Connect: connects over Low Energy to the reader with this MAC address: a port handle, or an error. */
typedef int32_t (ZKBLE_CALL *ZKBLE_Connect_t)(const char* macAddress);
/** ZKBLE_ConnectSpp: connects over the serial port profile, paired securely or not: a port handle, or an error. */
typedef int32_t (ZKBLE_CALL *ZKBLE_ConnectSpp_t)(const char* macAddress, bool secure);
/** ZKBLE_Disconnect: closes a connection: 0, or an error. */
typedef int32_t (ZKBLE_CALL *ZKBLE_Disconnect_t)(int32_t handle);
/** ZKBLE_Transmit: sends one whole frame: 0 or more, or an error. */
typedef int32_t (ZKBLE_CALL *ZKBLE_Transmit_t)(int32_t handle, const uint8_t* data, int32_t length);
/**
 * ZKBLE_Receive: one whole frame of at most `size` bytes: its length, 0 when none came
 * within the "timeout", or an error.
 */
typedef int32_t (ZKBLE_CALL *ZKBLE_Receive_t)(int32_t handle, uint8_t* buffer, int32_t size);
/** ZKBLE_PutParameter: sets a connection parameter ("timeout" in ms as text): 0, or an error. */
typedef int32_t (ZKBLE_CALL *ZKBLE_PutParameter_t)(int32_t handle, const char* key, const char* value);
/** ZKBLE_GetParameter: a connection parameter's value as text into `value` of `size` bytes: 0, or an error. */
typedef int32_t (ZKBLE_CALL *ZKBLE_GetParameter_t)(int32_t handle, const char* key, char* value, int32_t size);
/** ZKBLE_StartScan: starts reporting readers to the scan callback: 0 or more, or an error. */
typedef int32_t (ZKBLE_CALL *ZKBLE_StartScan_t)(void);
/** ZKBLE_StopScan: stops the scan. */
typedef int32_t (ZKBLE_CALL *ZKBLE_StopScan_t)(void);
/**
 * ZKBLE_RegisterScanCallback: registers the scan callback and its context; a null
 * callback takes it back, after a delivery still running has returned. 0, or an error.
 */
typedef int32_t (ZKBLE_CALL *ZKBLE_RegisterScanCallback_t)(void* context, ZKBLE_ScanCallback callback);

#ifdef __cplusplus
}
#endif

/** @} */

#endif
