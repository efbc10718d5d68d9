#ifndef TOVRA_DEVICE_ZKUSB2_H
#define TOVRA_DEVICE_ZKUSB2_H

/* The second-generation USB device library ZKUSB2 as tovra calls it: libzkusb2.so on
   Linux, zkusb2.dll on Windows, loaded at run time and required at version 1.0.0 or later.
   tovra does not ship one. Unlike ZKUSB, it delivers whole frames and reports readers
   plugged in or pulled out as queued events. */

#include <stdint.h>

#if defined(_WIN32)
#  define ZKUSB2_CALL __cdecl
#else
#  define ZKUSB2_CALL
#endif

#ifdef __cplusplus
extern "C" {
#endif

#define ZKUSB2_EVENT_PLUG 1
#define ZKUSB2_EVENT_UNPLUG 2

/* One event taken with ZKUSB2_GetNextEvent. */
typedef struct ZKUSB2_Event {
    int32_t type;           /* ZKUSB2_EVENT_PLUG, ZKUSB2_EVENT_UNPLUG, or another the caller drops */
    uint32_t deviceId;
    char deviceName[64];    /* terminated */
} ZKUSB2_Event;

/* Called on the library's own thread when events are waiting; the handler takes them with
   ZKUSB2_GetNextEvent. */
typedef void (ZKUSB2_CALL *ZKUSB2_ScanCallback)(void* context);

typedef const char* (ZKUSB2_CALL *ZKUSB2_GetVersion_t)(void);
typedef const char* (ZKUSB2_CALL *ZKUSB2_GetErrorText_t)(int32_t code);
/* Registers the scan callback and its context; a null callback takes it back, after a
   delivery still running has returned. 0, or an error. */
typedef int32_t (ZKUSB2_CALL *ZKUSB2_RegisterScanCallback_t)(void* context, ZKUSB2_ScanCallback callback);
/* Starts scanning: the number of readers present (each also queued as a plug event), or an error. */
typedef int32_t (ZKUSB2_CALL *ZKUSB2_StartScan_t)(void);
typedef int32_t (ZKUSB2_CALL *ZKUSB2_StopScan_t)(void);
/* Takes the oldest waiting event: 1 taken, 0 none waiting, or an error. */
typedef int32_t (ZKUSB2_CALL *ZKUSB2_GetNextEvent_t)(ZKUSB2_Event* event);
typedef int32_t (ZKUSB2_CALL *ZKUSB2_OpenDevice_t)(uint32_t deviceId);
typedef int32_t (ZKUSB2_CALL *ZKUSB2_CloseDevice_t)(int32_t handle);
typedef int32_t (ZKUSB2_CALL *ZKUSB2_Transmit_t)(int32_t handle, const uint8_t* data, int32_t length);
/* One whole frame of at most `size` bytes: its length, 0 when none came within the
   "receive-timeout", or an error. */
typedef int32_t (ZKUSB2_CALL *ZKUSB2_Receive_t)(int32_t handle, uint8_t* buffer, int32_t size);
typedef int32_t (ZKUSB2_CALL *ZKUSB2_GetParameter_t)(int32_t handle, const char* key, char* value, int32_t size);
/* Sets a device parameter ("receive-timeout" in ms as text): 0, or an error. */
typedef int32_t (ZKUSB2_CALL *ZKUSB2_PutParameter_t)(int32_t handle, const char* key, const char* value);

#ifdef __cplusplus
}
#endif

#endif
