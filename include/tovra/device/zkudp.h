#ifndef TOVRA_DEVICE_ZKUDP_H
#define TOVRA_DEVICE_ZKUDP_H

/**
 * @file
 * The UDP discovery library ZKUDP as tovra calls it: libzkudp.so on Linux, zkudp.dll on
 * Windows, loaded at run time and required at version 1.0.0 or later. tovra ships an open
 * implementation (devices/zkudp).
 *
 * The library finds readers on the network: a thread of its own sends a Discover datagram
 * every interval to a target (the broadcast address by default) and reports each reader
 * that answers, as one scan-info line, and each that stops answering. It also sends a
 * reader new network settings, addressed by the reader's MAC address.
 *
 * Wire protocol, one text datagram per message, in tovra's parameter syntax (':' between
 * key=value entries, values with ':' in double quotes):
 *
 *     ZKUDP:Version=1:Cmd=Discover:Seq=<n>
 *     ZKUDP:Version=1:Cmd=Announce:Seq=<n>:ReaderType="...":DeviceId=<8 hex>:MacAddress="...":
 *         IpAddress="...":Netmask="...":Gateway="...":Dhcp=<0|1>:Port=<tcp port>
 *     ZKUDP:Version=1:Cmd=Setup:Seq=<n>:MacAddress="...":Flags=<n>[:IpAddress="..."][:Netmask="..."]
 *         [:Gateway="..."][:Dhcp=<0|1>][:Port=<tcp port>]
 *     ZKUDP:Version=1:Cmd=SetupAck:Seq=<n>:MacAddress="...":Result=<0 or a negative code>
 *
 * Readers answer to the source address and port of the request; answers whose Seq is not
 * that of the current round (or of the set-up waited for) are dropped. Keys may be added
 * in later versions; receivers ignore keys they do not know.
 *
 * Scan-info line of a reader, with "UDP" replaced by "tcp" a working TCP connector:
 *
 *     UDP:ReaderType="...":DeviceId=<8 hex>:MacAddress="...":IpAddress="...":Netmask="...":
 *         Gateway="...":Dhcp=<0|1>:Port=<tcp port>
 *
 * Results are 0 or positive on success and negative codes (-1601 to -1630) on failure;
 * ZKUDP_GetErrorText explains them.
 *
 * @addtogroup tovra_devices
 * @{
 */

#include <stdint.h>

#if defined(_WIN32)
#  define ZKUDP_CALL __cdecl
#else
/** The calling convention of ZKUDP's entry points: `__cdecl` on Windows. */
#  define ZKUDP_CALL
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Events of the handler. */
#define ZKUDP_EVENT_SEEN 1 /**< a reader answered for the first time, or its answer changed */
#define ZKUDP_EVENT_GONE 2 /**< a reader stopped answering for the configured number of rounds */

/**
 * Called on the library's thread, never after ZKUDP_Discover(NULL, NULL, 0, NULL) has
 * returned; `scanInfo` is valid only during the call.
 */
typedef void (ZKUDP_CALL *ZKUDP_Handler)(void* context, int32_t event, const char* scanInfo);

/** ZKUDP_GetDLLVersion: the version text, compared with the version required. */
typedef const char* (ZKUDP_CALL *ZKUDP_GetDLLVersion_t)(void);
/** ZKUDP_GetErrorText: the text of a code; valid while the library is loaded. */
typedef const char* (ZKUDP_CALL *ZKUDP_GetErrorText_t)(int32_t code);
/**
 * ZKUDP_Discover. With a handler: starts discovery (a thread of the library) every
 * `intervalMs` (0: 1000) towards `target`, a parameter body
 *
 *     address=<IPv4, default 255.255.255.255>:port=<default 10002>:lost=<rounds, default 3>:
 *     bind=<local IPv4, default any>
 *
 * (keys without case; all optional). 0, or an error; an error also while discovery runs.
 * With a null handler: stops discovery and joins its thread (0), unless called from that
 * thread (an error, nothing stopped).
 */
typedef int32_t (ZKUDP_CALL *ZKUDP_Discover_t)(void* context, ZKUDP_Handler handler, uint32_t intervalMs,
                                              const char* target);
/**
 * ZKUDP_Setup: sends a reader new settings: `setupText` is a parameter body with MacAddress
 * (required) and any of IpAddress, Netmask, Gateway, Dhcp, Port; `flags` travel with it
 * for the reader. Waits about 1 s for the acknowledgement, resending twice: the reader's
 * Result, or an error (no answer, not discovering, a bad text).
 */
typedef int32_t (ZKUDP_CALL *ZKUDP_Setup_t)(const char* setupText, uint8_t flags);

#ifdef __cplusplus
}
#endif

/** @} */

#endif
