#ifndef TOVRA_DEVICE_ZKUSB2_H
#define TOVRA_DEVICE_ZKUSB2_H

/**
 * @file
 * The second-generation USB device library ZKUSB2 as tovra calls it: libzkusb2.so on
 * Linux, zkusb2.dll on Windows, loaded at run time and required at version 1.0.0 or later.
 * tovra does not ship one. Unlike ZKUSB, it delivers whole frames and reports readers
 * plugged in or pulled out as queued events.
 *
 * @addtogroup tovra_devices
 * @{
 */

#include <stdint.h>

#if defined(_WIN32)
#  define ZKUSB2_CALL __cdecl
#else
/** The calling convention of ZKUSB2's entry points: `__cdecl` on Windows. */
#  define ZKUSB2_CALL
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** Event type: a reader was plugged in. */
#define ZKUSB2_EVENT_PLUG 1
/** Event type: a reader was pulled out. */
#define ZKUSB2_EVENT_UNPLUG 2

/** One event taken with ZKUSB2_GetNextEvent. */
typedef struct ZKUSB2_Event {
    int32_t type;           /**< ZKUSB2_EVENT_PLUG, ZKUSB2_EVENT_UNPLUG, or another the caller drops */
    uint32_t deviceId;      /**< the reader's device id */
    char deviceName[64];    /**< terminated */
} ZKUSB2_Event;

/**
 * Called on the library's own thread when events are waiting; the handler takes them with
 * ZKUSB2_GetNextEvent.
 */
typedef void (ZKUSB2_CALL *ZKUSB2_ScanCallback)(void* context);

/** ZKUSB2_GetVersion: the version text, compared with the version required. */
typedef const char* (ZKUSB2_CALL *ZKUSB2_GetVersion_t)(void);
/** ZKUSB2_GetErrorText: the text of one of the library's codes. */
typedef const char* (ZKUSB2_CALL *ZKUSB2_GetErrorText_t)(int32_t code);
/**
 * ZKUSB2_RegisterScanCallback: registers the scan callback and its context; a null
 * callback takes it back, after a delivery still running has returned. 0, or an error.
 */
typedef int32_t (ZKUSB2_CALL *ZKUSB2_RegisterScanCallback_t)(void* context, ZKUSB2_ScanCallback callback);
/** ZKUSB2_StartScan: starts scanning: the number of readers present (each also queued as a plug event), or an error. */
typedef int32_t (ZKUSB2_CALL *ZKUSB2_StartScan_t)(void);
/** ZKUSB2_StopScan: stops scanning. */
typedef int32_t (ZKUSB2_CALL *ZKUSB2_StopScan_t)(void);
/** ZKUSB2_GetNextEvent: takes the oldest waiting event: 1 taken, 0 none waiting, or an error. */
typedef int32_t (ZKUSB2_CALL *ZKUSB2_GetNextEvent_t)(ZKUSB2_Event* event);
/** ZKUSB2_OpenDevice: opens the reader with this device id: its port handle, or an error. */
typedef int32_t (ZKUSB2_CALL *ZKUSB2_OpenDevice_t)(uint32_t deviceId);
/** ZKUSB2_CloseDevice: closes the reader: 0, or an error. */
typedef int32_t (ZKUSB2_CALL *ZKUSB2_CloseDevice_t)(int32_t handle);
/** ZKUSB2_Transmit: sends one whole frame: 0 or more, or an error. */
typedef int32_t (ZKUSB2_CALL *ZKUSB2_Transmit_t)(int32_t handle, const uint8_t* data, int32_t length);
/**
 * ZKUSB2_Receive: one whole frame of at most `size` bytes: its length, 0 when none came
 * within the "receive-timeout", or an error.
 */
typedef int32_t (ZKUSB2_CALL *ZKUSB2_Receive_t)(int32_t handle, uint8_t* buffer, int32_t size);
/** ZKUSB2_GetParameter: a device parameter's value as text into `value` of `size` bytes: 0, or an error. */
typedef int32_t (ZKUSB2_CALL *ZKUSB2_GetParameter_t)(int32_t handle, const char* key, char* value, int32_t size);
/** ZKUSB2_PutParameter: sets a device parameter ("receive-timeout" in ms as text): 0, or an error. */
typedef int32_t (ZKUSB2_CALL *ZKUSB2_PutParameter_t)(int32_t handle, const char* key, const char* value);

#ifdef __cplusplus
}
#endif

/** @} */

#endif
