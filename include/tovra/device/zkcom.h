#ifndef TOVRA_DEVICE_ZKCOM_H
#define TOVRA_DEVICE_ZKCOM_H

/**
 * @file
 * The serial device library ZKCOM as tovra calls it: libzkcom.so on Linux, zkcom.dll on
 * Windows, loaded at run time and required at version 5.0.0 or later. tovra ships an open
 * implementation (devices/zkcom); any library with these entry points will do.
 *
 * Ports are named by number ("4" is COM4). Results are 0 or positive on success and
 * negative error codes on failure; ZKCOM_GetErrorText explains them. Handles are small
 * non-negative numbers. ZKCOM_Transmit and ZKCOM_Receive may run at the same time on one
 * handle; ZKCOM_ClosePort wakes a call still waiting on the handle, which then fails.
 *
 * @addtogroup tovra_devices
 * @{
 */

#include <stdint.h>

#if defined(_WIN32)
#  define ZKCOM_CALL __cdecl
#else
/** The calling convention of ZKCOM's entry points: `__cdecl` on Windows. */
#  define ZKCOM_CALL
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** A receive that found no whole frame within the port's time-out. */
#define ZKCOM_TIMEOUT (-1030)

/** ZKCOM_GetDLLVersion: the version text, "major.minor.patch" with an optional "-alphaN", "-betaN" or "-rcN". */
typedef const char* (ZKCOM_CALL *ZKCOM_GetDLLVersion_t)(void);
/**
 * ZKCOM_GetErrorText: writes the text of `code` into `text` (always terminated, cut to
 * `size`); 0, or a negative code for a null or empty buffer.
 */
typedef int32_t (ZKCOM_CALL *ZKCOM_GetErrorText_t)(int32_t code, char* text, int32_t size);
/**
 * ZKCOM_OpenPort: opens the port with the number given as decimal text, exclusively; the
 * port handle (0 or more) or an error. The port starts at 38400 baud, 8E1, a 300 ms
 * receive time-out.
 */
typedef int32_t (ZKCOM_CALL *ZKCOM_OpenPort_t)(const char* port);
/** ZKCOM_ClosePort: closes the port, waking a call still waiting on it: 0, or an error. */
typedef int32_t (ZKCOM_CALL *ZKCOM_ClosePort_t)(int32_t handle);
/** ZKCOM_Transmit: sends all `length` bytes: 0, or an error. */
typedef int32_t (ZKCOM_CALL *ZKCOM_Transmit_t)(int32_t handle, const uint8_t* data, int32_t length);
/**
 * ZKCOM_Receive: one whole frame (its length decided by its first bytes) into `buffer`:
 * its length, ZKCOM_TIMEOUT when none came within the port's time-out, or an error. A
 * frame longer than `size` is taken off the line and answered with an error; bytes after
 * a frame stay for the next call.
 */
typedef int32_t (ZKCOM_CALL *ZKCOM_Receive_t)(int32_t handle, uint8_t* buffer, int32_t size);
/**
 * ZKCOM_GetPortPara: a port parameter's value as text (names compare without case): 0, or
 * an error (also when the value had to be cut to fit `size`; it is always terminated).
 */
typedef int32_t (ZKCOM_CALL *ZKCOM_GetPortPara_t)(int32_t handle, const char* name, char* value, int32_t size);
/**
 * ZKCOM_SetPortPara: sets a port parameter (names compare without case): "baud", "frame"
 * (as "8E1"), "opmode" ("RS232" or "RS485"), "TIMEOUT" (ms); others are kept and answered
 * by ZKCOM_GetPortPara. 0, or an error. Input waiting on the port is dropped on every
 * change of the line settings.
 */
typedef int32_t (ZKCOM_CALL *ZKCOM_SetPortPara_t)(int32_t handle, const char* name, const char* value);
/**
 * ZKCOM_DoPortCmd: a port command ("SETRTS"/"SETDTR" with "ON" or "OFF"): 0 done, 1 when
 * the port cannot do it (ignored), or an error.
 */
typedef int32_t (ZKCOM_CALL *ZKCOM_DoPortCmd_t)(int32_t handle, const char* command, const char* value);
/** ZKCOM_DetectPort: whether the port with this number exists, without opening it: 0 present, negative not. */
typedef int32_t (ZKCOM_CALL *ZKCOM_DetectPort_t)(int32_t port);

#ifdef __cplusplus
}
#endif

/** @} */

#endif
