#ifndef TOVRA_TOVRA_H
#define TOVRA_TOVRA_H

/* The flat C interface of the tovra reader communication library.
   Results: 0 or a positive value (handle, count, length) on success, a negative error code
   on failure; TOVRA_GetLastErrorText explains the last one. Texts returned are owned by
   the library and stay valid until the next call that changes them for the same reader. */

#include <stdint.h>

#include "tovra/export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef void    (TOVRA_CALL *TOVRA_ReaderConnectedCallback)(int32_t readerHandle, void* userContext, const char* connectionText);
typedef void    (TOVRA_CALL *TOVRA_ReaderDisconnectedCallback)(int32_t readerHandle, void* userContext);
/* Return 0 with *response and *responseLength set (at most the preset 32760 bytes) to answer. */
typedef int32_t (TOVRA_CALL *TOVRA_ReaderRequestCallback)(int32_t readerHandle, void* userContext,
                    const uint8_t* request, uint64_t requestLength, uint8_t** response, uint64_t* responseLength);
typedef void    (TOVRA_CALL *TOVRA_DetectSerialCallback)(int32_t readerHandle, void* userContext, const char* candidate);
typedef void    (TOVRA_CALL *TOVRA_AppLoggingCallback)(int32_t readerHandle, void* userContext, const char* line);
typedef void    (TOVRA_CALL *TOVRA_LoggingCallback)(void* context, const char* line);
typedef void    (TOVRA_CALL *TOVRA_DiscoveryCallback)(void* userContext, int32_t event, const char* scanInfo);

/* Reader objects: module kind 2 is a one-port module, any other a two-port module. */
TOVRA_API int32_t     TOVRA_CALL TOVRA_Create(int32_t moduleKind, const char* connector);
TOVRA_API int32_t     TOVRA_CALL TOVRA_Delete(int32_t readerHandle);
TOVRA_API int32_t     TOVRA_CALL TOVRA_Terminate(int32_t readerHandle);
TOVRA_API int32_t     TOVRA_CALL TOVRA_NextReaderHandle(int32_t first);
TOVRA_API const char* TOVRA_CALL TOVRA_GetConnector(int32_t readerHandle);
TOVRA_API const char* TOVRA_CALL TOVRA_GetConnectionState(int32_t readerHandle);
TOVRA_API int32_t     TOVRA_CALL TOVRA_GetLowLevelPortHandle(int32_t readerHandle);
/* The library version text, "1.0.2". */
TOVRA_API const char* TOVRA_CALL TOVRA_GetVersion(void);

/* Connections and data exchange. */
TOVRA_API int32_t     TOVRA_CALL TOVRA_ConnectByHost(int32_t readerHandle, const char* connection);
TOVRA_API int32_t     TOVRA_CALL TOVRA_DisconnectByHost(int32_t readerHandle);
TOVRA_API int32_t     TOVRA_CALL TOVRA_DetectSerial(int32_t readerHandle, const char* detection);
TOVRA_API int32_t     TOVRA_CALL TOVRA_StartListener(int32_t readerHandle, const char* listener);
TOVRA_API int32_t     TOVRA_CALL TOVRA_StopListener(int32_t readerHandle);
TOVRA_API int32_t     TOVRA_CALL TOVRA_Transceive(int32_t readerHandle, const uint8_t* request, uint64_t requestLength,
                                                  uint8_t* response, uint64_t* responseLength);
TOVRA_API int32_t     TOVRA_CALL TOVRA_SetReceiveTimeout(int32_t readerHandle, uint32_t milliseconds);
TOVRA_API int32_t     TOVRA_CALL TOVRA_GetReceiveTimeout(int32_t readerHandle);

/* Callbacks; a null callback switches the notification off. */
TOVRA_API int32_t     TOVRA_CALL TOVRA_SetReaderConnectedCallbacks(int32_t readerHandle, void* userContext,
                          TOVRA_ReaderConnectedCallback connected, TOVRA_ReaderDisconnectedCallback disconnected);
TOVRA_API int32_t     TOVRA_CALL TOVRA_SetReaderRequestCallback(int32_t readerHandle, void* userContext,
                                                                TOVRA_ReaderRequestCallback callback);
TOVRA_API int32_t     TOVRA_CALL TOVRA_SetDetectSerialCallback(int32_t readerHandle, void* userContext,
                                                               TOVRA_DetectSerialCallback callback);

/* Last error of a reader, or of a discovery manager (-1 USB, -2 BLE, -3 serial, -4 UDP). */
TOVRA_API int32_t     TOVRA_CALL TOVRA_GetLastError(int32_t handle);
TOVRA_API const char* TOVRA_CALL TOVRA_GetLastErrorText(int32_t handle);

/* Discovery managers (their last errors through the pseudo-handles above). */
/* Whether serial port `port` is present, without opening it: 1 present, 0 not, or an error.
   The device type is "com" or empty. */
TOVRA_API int32_t     TOVRA_CALL TOVRA_ComManagerDetect(const char* deviceType, int32_t port);
/* USB readers: each one found is reported (event 1) before the start returns, with its
   number as the result; then readers plugged in (1) or pulled out (2) as they come, on the
   device library's thread. After the stop returns the callback is not called again; a
   stop from inside the callback is allowed. Scan info: the lines of the last start, null
   past the end. */
TOVRA_API int32_t     TOVRA_CALL TOVRA_UsbManagerStartDiscover(void* userContext, TOVRA_DiscoveryCallback callback);
TOVRA_API int32_t     TOVRA_CALL TOVRA_UsbManagerStopDiscover(void);
TOVRA_API const char* TOVRA_CALL TOVRA_UsbManagerScanInfo(int32_t index);
/* Bluetooth readers coming into range (1) or leaving (2), on the device library's thread;
   the same rules for the stop. */
TOVRA_API int32_t     TOVRA_CALL TOVRA_BleManagerStartDiscover(void* userContext, TOVRA_DiscoveryCallback callback);
TOVRA_API int32_t     TOVRA_CALL TOVRA_BleManagerStopDiscover(void);
/* Readers on the network, through UDP. The callback (kept across starts) gets event 1 for
   a reader that answers, or whose answer changed, and 2 for one that stopped answering,
   on the discovery thread; the line, with "UDP" replaced by "tcp", connects to the reader:
     UDP:ReaderType="...":DeviceId=<8 hex>:MacAddress="...":IpAddress="...":Netmask="...":
         Gateway="...":Dhcp=<0|1>:Port=<tcp port>
   The target is "address=<IPv4, default 255.255.255.255>:port=<default 10002>:
   lost=<silent rounds before a reader counts as gone, default 3>:bind=<local IPv4>", every
   key optional; an interval of 0 means 1000 ms. A second start gives -5032; a stop or a
   set-up while discovery does not run -5033. A stop from inside the callback is refused
   (-5032). After the stop returns the callback is not called again. The set-up text names
   the reader by MacAddress="..." and gives any of IpAddress, Netmask, Gateway, Dhcp and
   Port; it waits about a second for the reader's answer and returns its result. */
TOVRA_API int32_t     TOVRA_CALL TOVRA_UdpManagerSetEventCallback(void* userContext, TOVRA_DiscoveryCallback callback);
TOVRA_API int32_t     TOVRA_CALL TOVRA_UdpManagerStartDiscover(uint32_t intervalMs, const char* target);
TOVRA_API int32_t     TOVRA_CALL TOVRA_UdpManagerStopDiscover(void);
TOVRA_API int32_t     TOVRA_CALL TOVRA_UdpManagerSetup(const char* setupText, uint8_t flags);

/* Logging. The last two take effect only before the first reader object is created. */
TOVRA_API int32_t     TOVRA_CALL TOVRA_SetAppLoggingCallback(int32_t readerHandle, void* userContext,
                                                             TOVRA_AppLoggingCallback callback);
TOVRA_API int32_t     TOVRA_CALL TOVRA_SetAppLoggingFilename(int32_t readerHandle, const char* fileName);
TOVRA_API int32_t     TOVRA_CALL TOVRA_SetAppLoggingUdpDestination(int32_t readerHandle, const char* address, uint32_t port);
TOVRA_API int32_t     TOVRA_CALL TOVRA_AppendLogMessage(int32_t readerHandle, const char* message);
TOVRA_API void        TOVRA_CALL TOVRA_SetLoggingParameter(const char* parameterText);
TOVRA_API void        TOVRA_CALL TOVRA_SetLoggingCallback(void* context, TOVRA_LoggingCallback callback);

#ifdef __cplusplus
}
#endif

#endif
