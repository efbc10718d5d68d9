#ifndef TOVRA_TRANSPORT_H
#define TOVRA_TRANSPORT_H

/**
 * @file
 * What a custom transport library exports so that tovra can reach readers through it.
 */

/**
 * @defgroup tovra_transport Custom transports
 * What a custom transport library exports so that tovra can reach readers through it.
 *
 * An application names the library in a connector, for example
 *
 *     cust:libname=./libmytransport.so:host=10.0.0.7
 *
 * On connect, tovra loads the library by that name (the system's search rules apply),
 * resolves the eight entry points below (a library lacking any of them is refused with
 * -5021, "Cannot load plugin") and passes the whole connector to TOVRA_PLI_Connect(); the
 * other keys are the library's own. There is no version check. `examples/virtual_reader/`
 * is one to copy.
 *
 * The library carries protocol frames whole: TOVRA_PLI_Transmit() is given one request
 * frame, TOVRA_PLI_Receive() hands back one response (or reader request) frame. tovra calls
 * TOVRA_PLI_Transmit() and TOVRA_PLI_Receive() from two different threads at the same time
 * on one port handle; TOVRA_PLI_Disconnect() may come while a receive waits and should end
 * it. Nothing thrown may leave an entry point.
 *
 * Which threads call in: TOVRA_PLI_Connect() the application's thread inside
 * TOVRA_ConnectByHost(); TOVRA_PLI_Transmit() the application's thread inside
 * TOVRA_Transceive() and, in a one-port module, the connection's callback thread sending
 * the answers to the reader's requests (never two transmits on one port handle at once);
 * TOVRA_PLI_Receive() the connection's receiver thread in a one-port module, the
 * application's thread inside TOVRA_Transceive() in a two-port module;
 * TOVRA_PLI_Disconnect() whichever thread ends the connection; TOVRA_PLI_GetErrorText()
 * any thread asking for an error text.
 *
 * Results: 0 or positive on success, negative codes of the library's own (explained by
 * TOVRA_PLI_GetErrorText()) on failure. Keep them away from tovra's own range, -5000 to
 * -5999, and from TOVRA_PLI_TIMEOUT.
 * @{
 */

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#  define TOVRA_PLI_CALL __cdecl
#  define TOVRA_PLI_EXPORT __declspec(dllexport)
#else
/** The calling convention of the entry points: `__cdecl` on Windows. */
#  define TOVRA_PLI_CALL
/** Exports an entry point from the library being built. */
#  define TOVRA_PLI_EXPORT __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/**
 * TOVRA_PLI_Receive found no frame within the library's own wait; tovra asks again until
 * the application's receive timeout has passed. The wait should be short (100-300 ms):
 * the reader's threads notice a disconnect only between receives.
 */
#define TOVRA_PLI_TIMEOUT (-8001)

/**
 * The library's version text, for the application's information.
 *
 * @return The text, valid while the library is loaded.
 */
TOVRA_PLI_EXPORT const char* TOVRA_PLI_CALL TOVRA_PLI_GetVersion(void);

/**
 * The text of one of the library's own codes; it must stay valid until the next call.
 *
 * @param code A negative code the library returned.
 * @return Its text.
 */
TOVRA_PLI_EXPORT const char* TOVRA_PLI_CALL TOVRA_PLI_GetErrorText(int32_t code);

/**
 * Opens the connection the connector describes: a port handle (0 or more) or an error.
 *
 * @param connector The application's whole connector text, "cust:libname=...:..." and
 *                  the library's own keys.
 * @return The port handle, 0 or more, or a negative code.
 */
TOVRA_PLI_EXPORT int32_t TOVRA_PLI_CALL TOVRA_PLI_Connect(const char* connector);

/**
 * Closes a connection; every later call with the handle may fail.
 *
 * @param portHandle What TOVRA_PLI_Connect() returned.
 * @return 0, or a negative code.
 */
TOVRA_PLI_EXPORT int32_t TOVRA_PLI_CALL TOVRA_PLI_Disconnect(int32_t portHandle);

/**
 * Sends one frame: 0 or more, or an error.
 *
 * @param portHandle What TOVRA_PLI_Connect() returned.
 * @param data       One whole frame, header and checksum included.
 * @param length     Its length in bytes.
 * @return 0 or more, or a negative code.
 */
TOVRA_PLI_EXPORT int32_t TOVRA_PLI_CALL TOVRA_PLI_Transmit(int32_t portHandle, const uint8_t* data, size_t length);

/**
 * One whole frame of at most `size` bytes into `buffer`: its length, TOVRA_PLI_TIMEOUT, or
 * an error.
 *
 * @param portHandle What TOVRA_PLI_Connect() returned.
 * @param buffer     Receives the frame.
 * @param size       The buffer's size, 32768 bytes.
 * @return The frame's length, TOVRA_PLI_TIMEOUT, or a negative code.
 */
TOVRA_PLI_EXPORT int32_t TOVRA_PLI_CALL TOVRA_PLI_Receive(int32_t portHandle, uint8_t* buffer, size_t size);

/**
 * Not called by this version of tovra; it must be there all the same.
 *
 * @param portHandle What TOVRA_PLI_Connect() returned.
 * @param key        A parameter's name.
 * @param value      Its new value.
 * @return 0, or a negative code.
 */
TOVRA_PLI_EXPORT int32_t TOVRA_PLI_CALL TOVRA_PLI_PutPortParameter(int32_t portHandle, const char* key,
                                                                   const char* value);

/**
 * Not called by this version of tovra; it must be there all the same.
 *
 * @param portHandle What TOVRA_PLI_Connect() returned.
 * @param key        A parameter's name.
 * @param value      Receives its value, terminated.
 * @param size       The size of `value`.
 * @return 0, or a negative code.
 */
TOVRA_PLI_EXPORT int32_t TOVRA_PLI_CALL TOVRA_PLI_GetPortParameter(int32_t portHandle, const char* key, char* value,
                                                                   size_t size);

/** How tovra calls TOVRA_PLI_GetVersion(). */
typedef const char* (TOVRA_PLI_CALL *TOVRA_PLI_GetVersion_t)(void);
/** How tovra calls TOVRA_PLI_GetErrorText(). */
typedef const char* (TOVRA_PLI_CALL *TOVRA_PLI_GetErrorText_t)(int32_t code);
/** How tovra calls TOVRA_PLI_Connect(). */
typedef int32_t (TOVRA_PLI_CALL *TOVRA_PLI_Connect_t)(const char* connector);
/** How tovra calls TOVRA_PLI_Disconnect(). */
typedef int32_t (TOVRA_PLI_CALL *TOVRA_PLI_Disconnect_t)(int32_t portHandle);
/** How tovra calls TOVRA_PLI_Transmit(). */
typedef int32_t (TOVRA_PLI_CALL *TOVRA_PLI_Transmit_t)(int32_t portHandle, const uint8_t* data, size_t length);
/** How tovra calls TOVRA_PLI_Receive(). */
typedef int32_t (TOVRA_PLI_CALL *TOVRA_PLI_Receive_t)(int32_t portHandle, uint8_t* buffer, size_t size);
/** How tovra would call TOVRA_PLI_PutPortParameter(). */
typedef int32_t (TOVRA_PLI_CALL *TOVRA_PLI_PutPortParameter_t)(int32_t portHandle, const char* key, const char* value);
/** How tovra would call TOVRA_PLI_GetPortParameter(). */
typedef int32_t (TOVRA_PLI_CALL *TOVRA_PLI_GetPortParameter_t)(int32_t portHandle, const char* key, char* value,
                                                               size_t size);

#ifdef __cplusplus
}
#endif

/** @} */

#endif
