#ifndef TOVRA_DEVICE_ZKGADGET_H
#define TOVRA_DEVICE_ZKGADGET_H

/**
 * @file
 * The USB gadget library ZKGADGET as tovra calls it: libzkgadget.so on Linux (Windows has
 * none), loaded at run time and required at version 0.2.0 or later. tovra does not ship
 * one. It makes this host a USB device that a USB host, a reader's controller, configures;
 * there is one gadget per process, and it carries whole frames.
 *
 * @addtogroup tovra_devices
 * @{
 */

#include <stdint.h>

#if defined(_WIN32)
#  define ZKGADGET_CALL __cdecl
#else
/** The calling convention of ZKGADGET's entry points. */
#  define ZKGADGET_CALL
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** What ZKGADGET_GetStatus answers besides its errors (negative): not bound. */
#define ZKGADGET_STATUS_UNBOUND 0
/** Bound, not yet configured by a host. */
#define ZKGADGET_STATUS_BOUND 1
/** Configured by a host: frames may flow. */
#define ZKGADGET_STATUS_CONFIGURED 2

/** ZKGADGET_GetVersion: the version text, compared with the version required. */
typedef const char* (ZKGADGET_CALL *ZKGADGET_GetVersion_t)(void);
/** ZKGADGET_GetErrorText: the text of one of the library's codes. */
typedef const char* (ZKGADGET_CALL *ZKGADGET_GetErrorText_t)(int32_t code);
/**
 * ZKGADGET_StartGadget: binds the gadget with a configuration of key=value pairs separated
 * by ':' (tovra passes its connector text as it stands): 0, or an error. A host may
 * configure it afterwards.
 */
typedef int32_t (ZKGADGET_CALL *ZKGADGET_StartGadget_t)(const char* config);
/** ZKGADGET_StopGadget: unbinds the gadget, whether a host configured it or not: 0, or an error. */
typedef int32_t (ZKGADGET_CALL *ZKGADGET_StopGadget_t)(void);
/** ZKGADGET_GetStatus: one of the ZKGADGET_STATUS_ values, or an error. */
typedef int32_t (ZKGADGET_CALL *ZKGADGET_GetStatus_t)(void);
/** ZKGADGET_Transmit: sends one whole frame to the host: the count sent, or an error. */
typedef int32_t (ZKGADGET_CALL *ZKGADGET_Transmit_t)(const uint8_t* data, int32_t length);
/**
 * ZKGADGET_Receive: one whole frame of at most `size` bytes from the host: its length, 0
 * when none came within the library's time-out, or an error.
 */
typedef int32_t (ZKGADGET_CALL *ZKGADGET_Receive_t)(uint8_t* buffer, int32_t size);

#ifdef __cplusplus
}
#endif

/** @} */

#endif
