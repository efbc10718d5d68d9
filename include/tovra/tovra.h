#ifndef TOVRA_TOVRA_H
#define TOVRA_TOVRA_H

/**
 * @file
 * The flat C interface of the tovra reader communication library.
 *
 * Results: 0 or a positive value (handle, count, length) on success, a negative error code
 * on failure; TOVRA_GetLastErrorText() explains the last one. Texts returned are owned by
 * the library and stay valid until the next call that changes them for the same reader.
 * Nothing thrown inside the library ever leaves one of these functions.
 */

/**
 * @defgroup tovra_readers Reader objects
 * Creating, finding and deleting the reader modules behind reader handles.
 *
 * @defgroup tovra_connections Connections and data exchange
 * Connecting to a reader, letting a reader connect, and exchanging requests and responses.
 *
 * @defgroup tovra_callbacks Reader callbacks
 * What the application hears from a reader module, on which thread, and what it may do there.
 *
 * @defgroup tovra_errors Results and error codes
 * The codes every function returns, their texts, and the last error of readers and managers.
 *
 * @defgroup tovra_discovery Discovery
 * Finding serial ports, USB, Bluetooth and network readers without connecting to them.
 *
 * @defgroup tovra_logging Logging
 * The library's log and the application's own log outputs per reader.
 *
 * @defgroup tovra_devices Device libraries
 * What tovra calls in each device library that serial, USB, Bluetooth, network discovery
 * and gadget connections go through (include/tovra/device/).
 *
 * Device libraries are loaded at run time by file name, so they must be where the
 * system's loader looks (`LD_LIBRARY_PATH` or the library folders on Linux; beside the
 * program or on `PATH` on Windows). A library that is missing, lacks an entry point, or is
 * older than required is reported at connect with -5021 "Cannot load plugin" or -5022
 * "Plugin version mismatch"; the reader's last-error text then names the versions
 * involved. A vendor's library with these entry points, or one written for a device of
 * your own, will do.
 */

#include <stdint.h>

#include "tovra/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @addtogroup tovra_callbacks
 *
 * A reader module tells the application about its reader through three callbacks, each
 * set with its own setter and each given back the user context the setter was given:
 * a reader connected (TOVRA_ReaderConnectedCallback), it left
 * (TOVRA_ReaderDisconnectedCallback), and it asks something (TOVRA_ReaderRequestCallback).
 * A fourth one, TOVRA_DetectSerialCallback, follows a serial detection.
 *
 * The first three run on a thread of the library that serves one connection: in a
 * one-port module the connection's callback thread, in a two-port module the reader
 * channel's thread. That thread has a stack of 256 KiB: keep large buffers off the stack.
 * One connection's callbacks never overlap, and a new connection's come only after the
 * previous one's have returned; callbacks of different readers may run at the same time.
 *
 * From inside them an application may call any `TOVRA_*` function on any reader, its own
 * included:
 * - TOVRA_DisconnectByHost() and TOVRA_StopListener() return 0 at once; on the
 *   callback's own connection they take effect when the callback returns, after a
 *   response it gave has been sent.
 * - TOVRA_Delete() returns 0 and the handle is gone at once; the reader's connections end
 *   when the callback returns, and the application hears nothing more from that reader.
 * - The connection a disconnected callback reports still holds its channel until the
 *   callback returns: a TOVRA_ConnectByHost() of that channel from inside it gives -5004.
 *   "Discon" in TOVRA_GetConnectionState() means the channel is free again.
 *
 * What a callback must not do: throw or jump out of it, or wait for another application
 * thread that may be calling TOVRA_Delete(), TOVRA_DisconnectByHost() or
 * TOVRA_StopListener() on the same reader: from another thread those calls wait for the
 * reader's callbacks to return.
 *
 * A setter takes a copy of the callback and context under a lock of its own and the
 * reader copies them before each call, so a callback is never seen half-changed. A call
 * already running when the setter returns still finishes with the old pair: keep the old
 * context alive until then, or until the reader has been deleted.
 * @{
 */

/**
 * A reader has connected to the reader module's listener.
 *
 * Called once per connection a reader makes (see TOVRA_StartListener()), before any of its
 * requests reaches TOVRA_ReaderRequestCallback; never for connections the host makes.
 *
 * @param readerHandle   The reader module.
 * @param userContext    As given to TOVRA_SetReaderConnectedCallbacks().
 * @param connectionText Where the reader came from, valid only during the call:
 *                       "TCP:PeerAddress=<address>:PeerPort=<port>" for TCP,
 *                       "COM from host connection" for a serial port, "GADGET from host
 *                       connection" for the gadget transport.
 *
 * @par Runs on
 * One-port module: the new connection's callback thread. Two-port module: the reader
 * channel's thread.
 *
 * @par From inside the callback
 * Anything the group's rules allow; a TOVRA_StopListener() or TOVRA_Delete() here turns
 * the reader away as soon as the callback returns.
 */
typedef void    (TOVRA_CALL *TOVRA_ReaderConnectedCallback)(int32_t readerHandle, void* userContext, const char* connectionText);

/**
 * A reader's connection has ended.
 *
 * One-port module: called when the reader closes the connection, whether the host or the
 * reader made it; not when the host ends it (TOVRA_DisconnectByHost(),
 * TOVRA_StopListener(), TOVRA_Terminate(), TOVRA_Delete()). Two-port module: called
 * whenever the reader channel's connection ends, for whatever reason, also during a
 * TOVRA_StopListener() or TOVRA_Delete() from another thread, before that call returns.
 * Never for a reader deleted from one of its own callbacks.
 *
 * @param readerHandle The reader module.
 * @param userContext  As given to TOVRA_SetReaderConnectedCallbacks().
 *
 * @par Runs on
 * The thread that served the connection: the callback thread (one-port) or the reader
 * channel's thread (two-port), which closes the connection once the callback has returned.
 *
 * @par From inside the callback
 * Anything the group's rules allow. The ending connection still holds its channel: a
 * TOVRA_ConnectByHost() of that channel gives -5004 until the callback has returned.
 */
typedef void    (TOVRA_CALL *TOVRA_ReaderDisconnectedCallback)(int32_t readerHandle, void* userContext);

/**
 * A reader asks the application something; the callback's answer goes back as the response.
 *
 * Return 0 with *response and *responseLength set (at most the preset 32760 bytes) to
 * answer. The answer is copied into a response frame of the request's frame generation,
 * addressed with the channel's bus address, before anything else happens; the library
 * keeps no pointer to it afterwards. An answer too long for that generation is not sent.
 *
 * In a two-port module a request whose command code is 0x77 arrives with one byte more at
 * its end, the bus address, put where its checksum began.
 *
 * @param readerHandle   The reader module.
 * @param userContext    As given to TOVRA_SetReaderRequestCallback().
 * @param request        The request payload (command code and data), valid only during the call.
 * @param requestLength  Its length in bytes.
 * @param response       Null on entry; point it at the answer, in memory of the
 *                       application's that stays valid until the callback returns.
 * @param responseLength 32760 on entry; set it to the answer's length.
 * @return 0 to send the answer (given a non-null *response and a non-zero
 *         *responseLength); any other value, or no answer, sends nothing.
 *
 * @par Runs on
 * One-port module: the connection's callback thread, for connections the host made as well
 * as those the reader made. Two-port module: the reader channel's thread. One request at
 * a time per connection, in the order they came; the next one waits until this returns.
 *
 * @par From inside the callback
 * Anything the group's rules allow. A TOVRA_DisconnectByHost(), TOVRA_StopListener() or
 * TOVRA_Delete() of this reader takes effect after the answer has been sent.
 */
typedef int32_t (TOVRA_CALL *TOVRA_ReaderRequestCallback)(int32_t readerHandle, void* userContext,
                    const uint8_t* request, uint64_t requestLength, uint8_t** response, uint64_t* responseLength);

/**
 * A serial detection is about to probe the next line setting.
 *
 * @param readerHandle The reader module.
 * @param userContext  As given to TOVRA_SetDetectSerialCallback().
 * @param candidate    The connector text of this probe, valid only during the call, e.g.
 *                     "COM:Device=COM5:BusAddress=255:Baud=9600:Frame=8E1".
 *
 * @par Runs on
 * The thread that called TOVRA_DetectSerial(), before each probe.
 *
 * @par From inside the callback
 * Any function. The port stays held for the search: a TOVRA_ConnectByHost() of this
 * reader gives -5004, and a TOVRA_DisconnectByHost() ends the search, which then fails
 * with -5006.
 */
typedef void    (TOVRA_CALL *TOVRA_DetectSerialCallback)(int32_t readerHandle, void* userContext, const char* candidate);

/** @} */

/**
 * @addtogroup tovra_logging
 * @{
 */

/**
 * One line of a reader's own log, for the application.
 *
 * The reader's frame dumps and the messages of TOVRA_AppendLogMessage(), one whole line
 * each, without a line break; see TOVRA_SetAppLoggingCallback().
 *
 * @param readerHandle The reader module whose line it is.
 * @param userContext  As given to TOVRA_SetAppLoggingCallback().
 * @param line         The line, valid only during the call.
 *
 * @par Runs on
 * Whichever thread writes the line: the application's own thread for the frames it sends
 * and the messages it appends, the reader's threads for the frames they receive and the
 * responses they send.
 *
 * @par From inside the callback
 * Copy the line and return. It may be called while the reader holds its own locks (inside
 * a transceive, for instance): do not call the library for that reader from here. A
 * TOVRA_Transceive() could wait forever and a TOVRA_AppendLogMessage() would call the
 * callback again without end.
 */
typedef void    (TOVRA_CALL *TOVRA_AppLoggingCallback)(int32_t readerHandle, void* userContext, const char* line);

/**
 * One line of the library's log: every line any reader or discovery manager writes.
 *
 * @param context As given to TOVRA_SetLoggingCallback().
 * @param line    The line, without a line break, valid only during the call.
 *
 * @par Runs on
 * Whichever thread writes the line: application threads, the library's connection and
 * listener threads, and the device libraries' discovery threads.
 *
 * @par From inside the callback
 * Copy the line and return; call no `TOVRA_*` function. Lines are written while the
 * library holds locks (the handle registry's during TOVRA_Terminate(), for one), and most
 * functions write lines themselves, which would call the callback again.
 */
typedef void    (TOVRA_CALL *TOVRA_LoggingCallback)(void* context, const char* line);

/** @} */

/**
 * @addtogroup tovra_discovery
 * @{
 */

/**
 * A discovery manager reports a reader.
 *
 * @param userContext As given to the start (USB, Bluetooth) or to
 *                    TOVRA_UdpManagerSetEventCallback() (network).
 * @param event       1: a reader was found, plugged in, came into range, or its answer
 *                    changed; 2: it was pulled out, left, or stopped answering.
 * @param scanInfo    The reader's line, valid only during the call:
 *                    - USB: `USB:ReaderType="<name>":DeviceId=<id>`
 *                    - Bluetooth: `BLE:ReaderType=<n>:DeviceId=<8 hex>:MacAddress="<address>"`
 *                    - network: `UDP:ReaderType="...":DeviceId=<8 hex>:MacAddress="...":`
 *                      `IpAddress="...":Netmask="...":Gateway="...":Dhcp=<0|1>:Port=<tcp port>`
 *
 * @par Runs on
 * - USB: readers found by TOVRA_UsbManagerStartDiscover() on the thread that called it,
 *   before it returns; readers plugged in or pulled out later on the USB library's thread.
 * - Bluetooth: the Bluetooth library's thread.
 * - Network: the discovery thread of the UDP library.
 * After a stop has returned the callback is not called again.
 *
 * @par From inside the callback
 * Any reader function, and TOVRA_UsbManagerScanInfo(). A stop or start from inside is
 * allowed for USB and Bluetooth (a stop does not wait for the callback it is called from,
 * nor for a stop on another thread); for the network a stop or start there gives -5032 and
 * a set-up is refused by the UDP library, whatever other threads do meanwhile.
 */
typedef void    (TOVRA_CALL *TOVRA_DiscoveryCallback)(void* userContext, int32_t event, const char* scanInfo);

/** @} */

/**
 * @addtogroup tovra_readers
 *
 * A reader module stands behind one reader handle: a one-port module (kind 2) talks to its
 * reader over one channel, "SingleCh", on which both sides may start an exchange; a
 * two-port module (any other kind) has an application channel, "AppCh", on which the host
 * asks and the reader answers, and a reader channel, "RdrCh", on which a reader that
 * connected to the host asks and the application answers.
 *
 * Handles are positive and count up from 1 within a process; a deleted handle is never
 * handed out again, and every call with it gives -5002.
 *
 * A call on a reader holds it for as long as it runs: a TOVRA_Delete() from another
 * thread never frees a reader under a running call, which then returns with an error.
 * @{
 */

/**
 * Creates a reader module and returns its handle.
 *
 * Module kind 2 is a one-port module, any other a two-port module.
 *
 * @param moduleKind 2 for a one-port module, any other value for a two-port module.
 * @param connector  The connector text that TOVRA_ConnectByHost() uses when it is given
 *                   none, e.g. "tcp:IPAddress=10.0.0.7:Port=10001"; may be null. It is
 *                   not checked here.
 * @return The new reader handle, positive.
 * @retval -5001 The reader module could not be made (out of memory).
 *
 * @par Thread safety
 * Any thread, inside callbacks too. The first reader of a process makes the library's
 * logger, which reads the logging configuration (see TOVRA_SetLoggingParameter()).
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_Create(int32_t moduleKind, const char* connector);

/**
 * Ends the reader's connections, stops its listener and destroys it.
 *
 * @param readerHandle The reader module.
 * @retval 0     The handle is gone.
 * @retval -5002 The handle names no reader.
 *
 * @par Thread safety
 * Any thread. From another thread it waits for the reader's threads: once it has returned
 * no callback of that reader runs, and none comes. A call still running on the reader
 * meanwhile keeps it alive until it returns, with an error. From inside one of the
 * reader's own callbacks it returns at once: the handle is gone, the connections end when
 * the callback returns, and the application hears nothing more from that reader. Not from
 * inside a logging callback.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_Delete(int32_t readerHandle);

/**
 * Releases every wait inside the reader, without waiting for anything itself.
 *
 * A transceive waiting for its response returns -5011. The reader channel's
 * connection ends (one-port: the single channel's connection), and from now on the reader
 * turns away readers that connect to its listener; connections by the host still work.
 *
 * @param readerHandle The reader module.
 * @retval 0     The reader is terminating.
 * @retval -5002 The handle names no reader.
 *
 * @par Thread safety
 * Any thread, at any time, inside callbacks too; it never blocks.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_Terminate(int32_t readerHandle);

/**
 * Enumerates the live reader handles in ascending order.
 *
 * With 0 the enumeration starts at the smallest handle; with any other value it moves on
 * to the next handle above the one it last gave. A reader deleted meanwhile is skipped.
 *
 * @param first 0 to start, any other value to go on.
 * @return The next live handle, or 0 when there is none.
 *
 * @par Thread safety
 * Any thread, but the position is one for the whole process: two enumerations at once
 * step each other on.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_NextReaderHandle(int32_t first);

/**
 * The connector text of the reader's host channel.
 *
 * That is the text given to TOVRA_Create(), replaced by the text of a later
 * TOVRA_ConnectByHost() or TOVRA_DetectSerial() (after a successful detection, the line
 * settings found: "COM:Device=COM5:BusAddress=255:Baud=9600:Frame=8E1"); in a one-port
 * module also by the text of TOVRA_StartListener().
 *
 * @param readerHandle The reader module.
 * @return The text, empty for an unknown handle (never null). It stays valid until a call
 *         replaces it or the reader is deleted.
 *
 * @par Thread safety
 * Any thread; copy the text if another thread may connect, detect or listen on the
 * reader meanwhile.
 */
TOVRA_API const char* TOVRA_CALL TOVRA_GetConnector(int32_t readerHandle);

/**
 * The connection state of the reader's channels.
 *
 * One-port module: "SingleCh=Con" or "SingleCh=Discon". Two-port module:
 * "AppCh=Con:RdrCh=Con", "AppCh=Con:RdrCh=Discon", "AppCh=Discon:RdrCh=Con" or
 * "AppCh=Discon:RdrCh=Discon". "Discon" means that the channel is free: a
 * TOVRA_ConnectByHost() right after it succeeds.
 *
 * @param readerHandle The reader module.
 * @return One of the texts above, valid for as long as the library is loaded; empty for
 *         an unknown handle.
 *
 * @par Thread safety
 * Any thread, inside callbacks too.
 */
TOVRA_API const char* TOVRA_CALL TOVRA_GetConnectionState(int32_t readerHandle);

/**
 * The transport's port handle of the host channel.
 *
 * That is the single channel's (one-port) or the application channel's (two-port).
 *
 * @param readerHandle The reader module.
 * @return The port handle, 0 or more, or -1 while the channel is not connected.
 * @retval -5002 The handle names no reader.
 *
 * @par Thread safety
 * Any thread; the value may be stale as soon as another thread connects or disconnects.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_GetLowLevelPortHandle(int32_t readerHandle);

/**
 * The library version text, "1.0.2".
 *
 * @return TOVRA_VERSION_TEXT of the library that runs, valid for as long as it is loaded.
 *
 * @par Thread safety
 * Any thread, at any time.
 */
TOVRA_API const char* TOVRA_CALL TOVRA_GetVersion(void);

/** @} */

/**
 * @addtogroup tovra_connections
 *
 * Either the host connects to the reader (TOVRA_ConnectByHost(), or TOVRA_DetectSerial()
 * for a serial reader whose line settings are not known), or the reader connects to the
 * host (TOVRA_StartListener(); TOVRA_ReaderConnectedCallback reports it). A one-port
 * module does either on its single channel; a two-port module connects its application
 * channel and listens on its reader channel, both at once if need be.
 *
 * A connector text names the transport in its first part and gives the transport's keys
 * after it, separated by ':' (keys are case-blind; a value holding ':' goes in double
 * quotes):
 *
 * | Connector | Keys, defaults | Listener |
 * |---|---|---|
 * | `tcp:IPAddress=...:Port=...` | ipaddress (required; a host name is resolved), port (10001), connecttimeout (ms; the system's when left out) | numeric ipaddress (0.0.0.0), port (required), backlog (5), keepalive (1), keepidle (1), keepcount (5), keepinterval (1) |
 * | `com:Device=COM4` | device (required: COM4 or 4), busaddress (255), baud (38400), frame (8E1), opmode (RS232, or RS485) | the port is handed over at once |
 * | `usb:DeviceId=1A2B3C4D` | deviceid (hexadecimal; none opens device 0) | none |
 * | `bthle:MacAddress="00:11:22:33:44:55"` | macaddress (required) | none |
 * | `bthspp:MacAddress="...":Secure=true` | macaddress (required), secure (true; any other value pairs without security) | none |
 * | `cust:libname=/path/to/libmine.so:...` | libname (required), the rest for the library (see @ref tovra_transport) | none |
 * | `gadget:...` | the whole text configures the gadget | handed over once a host has configured the gadget |
 *
 * Serial, USB, Bluetooth and gadget connections go through device libraries loaded at run
 * time (see @ref tovra_devices); a missing or too old one gives -5021 or -5022.
 *
 * An exchange sends a request payload (a command code and its data; the library adds the
 * frame's header, bus address and checksum) and returns the response payload (command
 * code, the reader's status byte, data). One-port modules use enhanced frames, payloads
 * of up to 32760 bytes; two-port modules advanced frames, up to 32762 bytes.
 * @{
 */

/**
 * Connects the host to the reader over the transport the connection text names.
 *
 * One-port module: connects the single channel and starts the connection's two threads, so
 * that requests the reader sends on it reach TOVRA_ReaderRequestCallback. Two-port module:
 * connects the application channel, which has no thread of its own.
 *
 * Every successful connect sets the receive timeout to 5000 ms: set another one after it.
 *
 * @param readerHandle The reader module.
 * @param connection   The connector text, which replaces the stored one; null connects
 *                     with the stored one.
 * @retval 0     Connected.
 * @retval -5002 The handle names no reader.
 * @retval -5004 The channel is connected already, being connected by another thread, or
 *               (one-port) held by a reader that connected to the listener; also while a
 *               connection that ended is still being closed.
 * @retval -5020 The connector text names no transport, or there is none.
 * @retval -5003 A key the transport needs is missing or unusable.
 * @retval -5021 The transport's device library (or the custom library) cannot be loaded
 *               or lacks an entry point.
 * @retval -5022 The device library is older than required.
 * @retval -5001 The connection's threads could not be started; it was closed again.
 * @return Any other negative value is the transport's own code (TCP: -1501 to -1522; a
 *         device library's codes), explained by TOVRA_GetLastErrorText().
 *
 * @par Thread safety
 * Any thread, inside callbacks too. Of two connects on one channel one wins and the other
 * gives -5004. It blocks for as long as the transport takes to connect.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_ConnectByHost(int32_t readerHandle, const char* connection);

/**
 * Ends the host channel's connection.
 *
 * One-port module: ends the single channel's connection, whoever made it; a listener
 * stays. Two-port module: closes the application channel; the reader channel is not
 * touched. A transceive waiting on it returns -5011. No disconnected callback reports it.
 *
 * @param readerHandle The reader module.
 * @retval 0     Always for a known handle, also when nothing was connected.
 * @retval -5002 The handle names no reader.
 *
 * @par Thread safety
 * Any thread. From another thread it waits until the connection is closed and its threads
 * have ended (a callback of it still running included): then the channel reads "Discon".
 * From inside a callback of the one-port connection it ends, it returns at once and the
 * connection ends when the callback returns, after a response it gave has been sent.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_DisconnectByHost(int32_t readerHandle);

/**
 * Connects to a serial reader whose line settings are not known.
 *
 * The port is opened, then each line setting is tried with a probe request (payload
 * 0x52 0x00, 200 ms for the answer) until the reader answers: 38400, 57600, 115200, 230400,
 * 19200, 9600 and 4800 baud, each with 8E1, 8N1 and 8O1, in that order (the short list
 * stops after 115200). On success the connection stays open at the settings found,
 * TOVRA_GetConnector() names them and the receive timeout is 5000 ms; otherwise the port is
 * closed again. TOVRA_DetectSerialCallback hears of each probe.
 *
 * @param readerHandle The reader module.
 * @param detection    "com:Device=COM5" with the optional keys busaddress (255),
 *                     detectmode (1 for the short list of 9 settings, anything else for
 *                     all 21) and detectdelay (ms to pause before each probe and after
 *                     success, 5).
 * @retval 0     The reader answered; it stays connected.
 * @retval -5002 The handle names no reader.
 * @retval -5005 The text is null, its first part is not "com", or it has no device.
 * @retval -5006 No setting was answered; the port is closed.
 * @retval -5004 The channel is connected already (see TOVRA_ConnectByHost()).
 * @retval -5003 The device does not name a port.
 * @retval -5021 The serial library cannot be loaded.
 * @retval -5022 The serial library is older than required.
 * @retval -5001 The connection's threads could not be started.
 * @return Any other negative value is the serial library's code for a port that cannot
 *         be opened.
 *
 * @par Thread safety
 * Any thread; it blocks for the whole search, up to about 21 times (200 ms + detectdelay).
 * The channel is held throughout: connects on it meanwhile give -5004.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_DetectSerial(int32_t readerHandle, const char* detection);

/**
 * Lets a reader connect to the host: listens on the reader's channel.
 *
 * One-port module: the single channel, which a reader's connection then shares with
 * nothing else (a reader that connects while the host is connected is turned away).
 * Two-port module: the reader channel; the application channel stays free for the host.
 * One reader at a time: another one that connects meanwhile is turned away. Each
 * connection is reported by TOVRA_ReaderConnectedCallback, its requests go to
 * TOVRA_ReaderRequestCallback, its end to TOVRA_ReaderDisconnectedCallback. A serial
 * "listener" hands the port over at once, as if the reader had connected; a gadget one
 * once a USB host has configured the gadget.
 *
 * @param readerHandle The reader module.
 * @param listener     A connector text of a transport that has a listener (tcp, com,
 *                     gadget); accepted connections are made with it too.
 * @retval 0     Listening.
 * @retval -5002 The handle names no reader.
 * @retval -5009 The text is null.
 * @retval -5008 A listener runs already; a serial port that could not be handed over.
 * @retval -5030 The transport has no listener (usb, bthle, bthspp, cust, or none).
 * @retval -5021 The gadget library cannot be loaded (always on Windows).
 * @retval -5022 The gadget library is older than required.
 * @return Any other negative value is the transport's code; TCP: -1501 no socket, -1502
 *         address not numeric, -1503 port missing or out of range, -1511 the address is
 *         in use, -1512 listening failed, -1515 a socket option was refused.
 *
 * @par Thread safety
 * Any thread, inside callbacks too.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_StartListener(int32_t readerHandle, const char* listener);

/**
 * Stops listening and ends the connection a reader made to it.
 *
 * One-port module: ends the single channel's connection, whoever made it. Two-port
 * module: ends the reader channel's connection (its disconnected callback runs before this
 * returns); the application channel is not touched. Listening may start again at once.
 *
 * @param readerHandle The reader module.
 * @retval 0     Always for a known handle, also when nothing listened.
 * @retval -5002 The handle names no reader.
 *
 * @par Thread safety
 * Any thread. From another thread it waits for the listener's thread and the connection's
 * threads. From inside one of the reader's callbacks it returns at once: the listener is
 * gone, and the callback's connection ends when the callback returns.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_StopListener(int32_t readerHandle);

/**
 * Sends one request and waits for the reader's response.
 *
 * One-port module: whatever response frame arrives first answers it (command codes are not
 * matched); requests the reader sends meanwhile go to TOVRA_ReaderRequestCallback, and
 * frames that fail their checks are dropped. Two-port module: the next frame on the
 * application channel is the response, read on the calling thread.
 *
 * @param readerHandle   The reader module.
 * @param request        The request payload: command code and data.
 * @param requestLength  1 to 32760 bytes (one-port) or 32762 (two-port). Two-port: with a
 *                       null request or a length of 0 nothing is sent and only a further
 *                       response to an earlier request is awaited.
 * @param response       Receives the response payload: command code, status byte, data.
 * @param responseLength In: the capacity of `response`; out: the bytes written. Left as
 *                       it was on failure.
 * @retval 0     The response is in `response`.
 * @retval -5002 The handle names no reader.
 * @retval -5018 The host channel is not connected.
 * @retval -5010 `response` or `responseLength` is null (one-port: `request` too).
 * @retval -5017 The request is empty (one-port) or too long, or the response is longer
 *               than the capacity: it is dropped and nothing copied.
 * @retval -5015 No response came within the receive timeout.
 * @retval -5011 The connection was ended while the call waited (disconnect, listener
 *               stop, terminate, delete; one-port: also the reader leaving) or before it.
 * @retval -5012 Two-port: the reader closed the connection.
 * @retval -5016 Two-port: the frame received failed its length or checksum check (this
 *               code has no text of its own).
 * @return Any other negative value is the transport's code for a failed send (two-port:
 *         or receive), e.g. TCP -1520, -1521, -1522.
 *
 * @par Thread safety
 * Any thread, inside callbacks too. Transceives on one reader take turns: one exchange at a
 * time, each waiting for the one before.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_Transceive(int32_t readerHandle, const uint8_t* request, uint64_t requestLength,
                                                  uint8_t* response, uint64_t* responseLength);

/**
 * Sets how long a transceive waits for its response.
 *
 * One-port module: 0 gives up at once, after sending. Two-port module: 0 (or a value of
 * 2^31 or more) waits without limit, until a response, the connection's end or
 * TOVRA_Terminate(). Every successful connect sets it back to 5000 ms.
 *
 * @param readerHandle The reader module.
 * @param milliseconds The time to wait.
 * @retval 0     Set.
 * @retval -5002 The handle names no reader.
 *
 * @par Thread safety
 * Any thread; a transceive already waiting keeps the time it started with.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_SetReceiveTimeout(int32_t readerHandle, uint32_t milliseconds);

/**
 * How long a transceive waits for its response.
 *
 * @param readerHandle The reader module.
 * @return The receive timeout in milliseconds: 5000 after a connect, otherwise as last set.
 * @retval -5002 The handle names no reader.
 *
 * @par Thread safety
 * Any thread.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_GetReceiveTimeout(int32_t readerHandle);

/** @} */

/**
 * @addtogroup tovra_callbacks
 * @{
 */

/**
 * Sets the callbacks for readers connecting and leaving; a null callback switches the
 * notification off.
 *
 * @param readerHandle The reader module.
 * @param userContext  Passed back to both callbacks unchanged.
 * @param connected    Called when a reader connects to the listener, or null.
 * @param disconnected Called when a reader's connection ends, or null.
 * @retval 0     Set; earlier ones are replaced.
 * @retval -5002 The handle names no reader.
 *
 * @par Thread safety
 * Any thread, inside callbacks too. The three values change together.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_SetReaderConnectedCallbacks(int32_t readerHandle, void* userContext,
                          TOVRA_ReaderConnectedCallback connected, TOVRA_ReaderDisconnectedCallback disconnected);

/**
 * Sets the callback that answers the reader's requests; null leaves them unanswered.
 *
 * @param readerHandle The reader module.
 * @param userContext  Passed back to the callback unchanged.
 * @param callback     The callback, or null.
 * @retval 0     Set; an earlier one is replaced.
 * @retval -5002 The handle names no reader.
 *
 * @par Thread safety
 * Any thread, inside callbacks too.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_SetReaderRequestCallback(int32_t readerHandle, void* userContext,
                                                                TOVRA_ReaderRequestCallback callback);

/**
 * Sets the callback that follows TOVRA_DetectSerial(); null switches it off.
 *
 * @param readerHandle The reader module.
 * @param userContext  Passed back to the callback unchanged.
 * @param callback     The callback, or null.
 * @retval 0     Set; an earlier one is replaced.
 * @retval -5002 The handle names no reader.
 *
 * @par Thread safety
 * Any thread; a detection running on another thread sees the change at its next probe.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_SetDetectSerialCallback(int32_t readerHandle, void* userContext,
                                                               TOVRA_DetectSerialCallback callback);

/** @} */

/**
 * @addtogroup tovra_errors
 *
 * Every function that returns an `int32_t` gives 0 or a positive value (a handle, a count,
 * a length) on success and a negative code on failure. Codes from -5001 to -5040 are the
 * library's own:
 *
 * | Code  | Text | Meaning |
 * |-------|------|---------|
 * | -5001 | Cannot create a reader module | out of memory, or the system refused a thread |
 * | -5002 | Invalid reader handle | no reader has this handle (any more) |
 * | -5003 | Connection parameter error | a key the transport needs is missing or unusable |
 * | -5004 | Reader module connect failed | the channel is connected or being connected already |
 * | -5005 | Detection parameter error | a detection or port-detection text that cannot be used |
 * | -5006 | Detection failed | no line setting was answered |
 * | -5007 | Reader module disconnect failed | the transport could not close the connection |
 * | -5008 | Listener already running | a second listener, or a serial port that could not be handed over |
 * | -5009 | Listener parameter error | no listener text |
 * | -5010 | Invalid null pointer parameter | a pointer that must be given is null |
 * | -5011 | Communication is terminated | the connection was ended while a call waited on it |
 * | -5012 | Disconnected by peer | the reader closed the connection |
 * | -5015 | Receive timeout | no response within the receive timeout |
 * | -5016 | `---` | a frame failed its length or checksum check (this code has no text of its own) |
 * | -5017 | Payload too large | a payload empty or too long for its frame, or a response too long for the buffer |
 * | -5018 | Not connected | the channel is not connected |
 * | -5020 | Invalid plugin type | the connector text names no transport |
 * | -5021 | Cannot load plugin | a device or custom library is missing or lacks an entry point |
 * | -5022 | Plugin version mismatch | a device library is older than required; its text names the versions |
 * | -5024 | Plugin function is not implemented | the transport cannot do what was asked |
 * | -5030 | Invalid listener type | the transport has no listener |
 * | -5032 | The operation is already started | a discovery runs already, or cannot be stopped from where it was asked |
 * | -5033 | The operation is not yet started | a discovery that does not run was to be stopped or used |
 * | -5040 | `---` | a reader connected while its module terminates and was turned away (never returned to the application) |
 *
 * The other codes between -5001 and -5040 are not used; their text, like that of any code
 * outside the range, is `---`. Codes outside the range come from the transports and
 * device libraries and are explained by them: the TCP transport's are -1501 no socket,
 * -1502 address not an IPv4 or IPv6 address, -1503 invalid port, -1504 host name not
 * resolved, -1510 connect failed, -1511 bind failed, -1512 listen failed, -1513 accept
 * failed, -1515 socket option refused, -1520 send failed, -1521 receive failed, -1522 a
 * frame too long for the buffer.
 *
 * The texts of the library's codes, as TOVRA_GetLastErrorText() gives them, read
 * "TOVRA error: code=-5018: Not connected".
 * @{
 */

/**
 * The last error of a reader, or of a discovery manager (-1 USB, -2 BLE, -3 serial, -4 UDP).
 *
 * A reader keeps the result of its last connect, transceive, detection or listener start
 * (and of a reader's connection it had to turn away); a manager that of its last call.
 *
 * @param handle A reader handle, or -1 (USB), -2 (Bluetooth), -3 (serial ports) or -4
 *               (network) for the discovery managers.
 * @return The last result: 0 or a negative code.
 * @retval -5002 The handle names no reader (and no manager).
 *
 * @par Thread safety
 * Any thread. A reader keeps one value: with several threads working on it, the last one
 * to finish wins.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_GetLastError(int32_t handle);

/**
 * The text of the last error of a reader or discovery manager.
 *
 * Reader: "Ok, no error" for 0; for the library's codes "TOVRA error: code=<code>: <text>"
 * (the table above); for a transport's code the transport's own text, also after a failed
 * connect has let go of the transport; "Plugin error <code>" when nothing can explain it.
 * A manager: its own text, the device library's text for the device library's codes and
 * -5022, or "<USB|BLE|COM|UDP> manager plugin error <code>" while its library is not loaded.
 *
 * @param handle A reader handle, or -1 to -4 as for TOVRA_GetLastError().
 * @return The text; empty for an unknown handle (never null). A reader's text stays
 *         valid until the next call that composes one for that reader, a manager's on the
 *         calling thread until that thread asks for the same manager again.
 *
 * @par Thread safety
 * Any thread. A reader keeps one text, which its next failure or text request (on any
 * thread) replaces: copy it at once when other threads use the reader.
 */
TOVRA_API const char* TOVRA_CALL TOVRA_GetLastErrorText(int32_t handle);

/** @} */

/**
 * @addtogroup tovra_discovery
 *
 * One process-wide manager per kind of discovery, each over its device library, which is
 * loaded on first use and kept (one that failed to load is not tried again). Each keeps
 * its last error, read through a pseudo-handle: TOVRA_GetLastError() and
 * TOVRA_GetLastErrorText() with -1 (USB), -2 (Bluetooth), -3 (serial ports) or -4
 * (network).
 *
 * The managers report readers through TOVRA_DiscoveryCallback; after a stop has returned
 * it is not called again. Starts and stops of one manager from different threads take
 * turns.
 * @{
 */

/**
 * Whether serial port `port` is present, without opening it: 1 present, 0 not, or an error.
 * The device type is "com" or empty.
 *
 * @param deviceType "com" (any case), empty or null.
 * @param port       The port number: 4 for COM4.
 * @retval 1     The port is there.
 * @retval 0     It is not.
 * @retval -5005 The device type is something else.
 * @retval -5021 The serial library cannot be loaded.
 * @retval -5022 The serial library is older than required.
 *
 * @par Thread safety
 * Any thread; concurrent calls share the manager's last error.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_ComManagerDetect(const char* deviceType, int32_t port);

/**
 * Finds USB readers and reports readers plugged in or pulled out until the stop.
 *
 * Each reader found is reported (event 1) before the start returns, with their number as
 * the result; then readers plugged in (1) or pulled out (2) as they come, on the device
 * library's thread. A start while discovering replaces the callback.
 *
 * @param userContext Passed back to the callback unchanged.
 * @param callback    The callback, or null to find readers without hearing of them.
 * @return The number of readers found, 0 or more.
 * @retval -5021 The USB library cannot be loaded.
 * @retval -5022 The USB library is older than required.
 * @return Any other negative value is the USB library's code for a failed scan.
 *
 * @par Thread safety
 * Any thread, inside the discovery callback too.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_UsbManagerStartDiscover(void* userContext, TOVRA_DiscoveryCallback callback);

/**
 * Stops reporting USB readers plugged in or pulled out.
 *
 * After the stop returns the callback is not called again.
 *
 * @retval 0     Stopped.
 * @retval -5021 The USB library was never loaded (no start yet, or it failed).
 * @retval -5022 The USB library is older than required.
 *
 * @par Thread safety
 * Any thread. From inside the callback it is allowed and does not wait for that callback.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_UsbManagerStopDiscover(void);

/**
 * The lines of the readers the last USB start found, null past the end.
 *
 * @param index 0 for the first reader found.
 * @return `USB:ReaderType="<name>":DeviceId=<id>`, or null when `index` is negative or not
 *         below the number of readers found. The text is a copy for the calling thread,
 *         valid until that thread's next call.
 *
 * @par Thread safety
 * Any thread, inside the discovery callback too.
 */
TOVRA_API const char* TOVRA_CALL TOVRA_UsbManagerScanInfo(int32_t index);

/**
 * Reports Bluetooth readers coming into range (1) or leaving (2) until the stop.
 *
 * The callback runs on the device library's thread; the same rules for the stop as for
 * USB. A start while discovering replaces the callback.
 *
 * @param userContext Passed back to the callback unchanged.
 * @param callback    The callback.
 * @retval 0     Discovering.
 * @retval -5021 The Bluetooth library cannot be loaded.
 * @retval -5022 The Bluetooth library is older than required.
 * @return Any other negative value is the Bluetooth library's code for a scan it refused.
 *
 * @par Thread safety
 * Any thread, inside the discovery callback too.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_BleManagerStartDiscover(void* userContext, TOVRA_DiscoveryCallback callback);

/**
 * Stops reporting Bluetooth readers.
 *
 * After the stop returns the callback is not called again.
 *
 * @retval 0     Stopped.
 * @retval -5021 The Bluetooth library was never loaded (no start yet, or it failed).
 * @retval -5022 The Bluetooth library is older than required.
 *
 * @par Thread safety
 * Any thread. From inside the callback it is allowed and does not wait for that callback.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_BleManagerStopDiscover(void);

/**
 * Sets the callback of the network discovery, kept across starts; null switches it off.
 *
 * Readers on the network, through UDP. The callback gets event 1 for a reader that answers,
 * or whose answer changed, and 2 for one that stopped answering, on the discovery thread;
 * the line, with "UDP" replaced by "tcp", connects to the reader:
 *
 *     UDP:ReaderType="...":DeviceId=<8 hex>:MacAddress="...":IpAddress="...":Netmask="...":
 *         Gateway="...":Dhcp=<0|1>:Port=<tcp port>
 *
 * @param userContext Passed back to the callback unchanged.
 * @param callback    The callback, or null.
 * @retval 0 Always.
 *
 * @par Thread safety
 * Any thread, inside the callback too. Switching it off does not wait for a call already
 * running; TOVRA_UdpManagerStopDiscover() does.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_UdpManagerSetEventCallback(void* userContext, TOVRA_DiscoveryCallback callback);

/**
 * Starts finding readers on the network: a discovery datagram every interval.
 *
 * The target is "address=<IPv4, default 255.255.255.255>:port=<default 10002>:
 * lost=<silent rounds before a reader counts as gone, default 3>:bind=<local IPv4>", every
 * key optional. The default address sends one directed broadcast per network interface.
 *
 * @param intervalMs The time between rounds; 0 means 1000 ms.
 * @param target     The target text, or empty or null for the defaults.
 * @retval 0     Discovering.
 * @retval -5032 Discovery runs already (a start from inside the callback included).
 * @retval -5021 The UDP library cannot be loaded.
 * @retval -5022 The UDP library is older than required.
 * @return Any other negative value is the UDP library's code (ours: -1601 to -1630), for
 *         instance for a target it cannot use or a socket it cannot open.
 *
 * @par Thread safety
 * Any thread; from inside the callback it gives -5032.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_UdpManagerStartDiscover(uint32_t intervalMs, const char* target);

/**
 * Stops the network discovery and waits for its thread.
 *
 * After the stop returns the callback is not called again.
 *
 * @retval 0     Stopped.
 * @retval -5033 Discovery does not run.
 * @retval -5032 Called from inside the callback, whose thread cannot wait for itself;
 *               nothing is stopped.
 * @return Any other negative value is the UDP library's code.
 *
 * @par Thread safety
 * Any thread but the callback's.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_UdpManagerStopDiscover(void);

/**
 * Gives one reader new network settings, addressed by its MAC address.
 *
 * The set-up text names the reader by MacAddress="..." and gives any of IpAddress,
 * Netmask, Gateway, Dhcp and Port, e.g.
 * `MacAddress="02:00:00:00:00:01":IpAddress="10.0.0.9":Port=10005`. It reaches a reader
 * whose address does not fit the host's network. The call waits about a second for the
 * reader's acknowledgement, sending up to three times, and returns its result.
 *
 * @param setupText The set-up text.
 * @param flags     Passed to the reader with the settings.
 * @return The reader's result: 0, or its negative code.
 * @retval -5033 Discovery does not run.
 * @return Any other negative value is the UDP library's code (ours: -1601 to -1630): no
 *         acknowledgement, a set-up text it cannot use, or a set-up from the callback.
 *
 * @par Thread safety
 * Any thread, but not from inside the callback, where it cannot wait for the answer.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_UdpManagerSetup(const char* setupText, uint8_t flags);

/** @} */

/**
 * @addtogroup tovra_logging
 *
 * The first logger of a process (made by the first TOVRA_Create() or the first call that
 * reaches a discovery manager) reads the configuration once: the text given to
 * TOVRA_SetLoggingParameter() before that, else the file named by the environment
 * variable `OLMA_LOGGER_CONGIG_FILE`, else `./olma.conf`. Without any, nothing is logged
 * except to a callback set with TOVRA_SetLoggingCallback() before that time.
 *
 * Besides, each reader has outputs of the application's own for its frame dumps and the
 * messages of TOVRA_AppendLogMessage(): a callback, a file and a UDP destination, which
 * may be set at any time.
 * @{
 */

/**
 * Sends the reader's frame dumps and application messages to a callback.
 *
 * A callback switches the reader's dumps of whole frames on.
 *
 * @param readerHandle The reader module.
 * @param userContext  Passed back to the callback unchanged.
 * @param callback     The callback, or null to stop calling one.
 * @retval 0     Set.
 * @retval -5002 The handle names no reader.
 *
 * @par Thread safety
 * Any thread, but not from inside a logging callback.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_SetAppLoggingCallback(int32_t readerHandle, void* userContext,
                                                             TOVRA_AppLoggingCallback callback);

/**
 * Appends the reader's frame dumps and application messages to a file.
 *
 * A file name switches the reader's dumps of whole frames on; the file is opened for each
 * line, so it may be moved away at any time. A file that cannot be opened is skipped.
 *
 * @param readerHandle The reader module.
 * @param fileName     The file, or null or empty to stop writing one.
 * @retval 0     Set.
 * @retval -5002 The handle names no reader.
 *
 * @par Thread safety
 * Any thread, but not from inside a logging callback.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_SetAppLoggingFilename(int32_t readerHandle, const char* fileName);

/**
 * Sends the reader's frame dumps and application messages as UDP datagrams, one per line.
 *
 * Unlike a callback or file it does not switch the frame dumps on.
 *
 * @param readerHandle The reader module.
 * @param address      A numeric IPv4 or IPv6 address; null or empty stops sending. One
 *                     that is not numeric leaves sending off, without an error.
 * @param port         1 to 65535; another value stops sending.
 * @retval 0     Set.
 * @retval -5002 The handle names no reader.
 *
 * @par Thread safety
 * Any thread, but not from inside a logging callback.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_SetAppLoggingUdpDestination(int32_t readerHandle, const char* address, uint32_t port);

/**
 * Writes the application's message into the reader's log.
 *
 * The record is tagged " APP" with the reader handle and the calling thread's id, and goes
 * to every output of the reader, the application's included, whatever its categories.
 *
 * @param readerHandle The reader module.
 * @param message      The message.
 * @retval 0     Written.
 * @retval -5002 The handle names no reader.
 * @retval -5010 The message is null.
 *
 * @par Thread safety
 * Any thread, but not from inside a logging callback, which it would call again.
 */
TOVRA_API int32_t     TOVRA_CALL TOVRA_AppendLogMessage(int32_t readerHandle, const char* message);

/**
 * Gives the logging configuration as text, instead of a file.
 *
 * Takes effect only before the first logger is made (see the group's description); later
 * calls are kept and never read. An empty text lets the file be read.
 *
 * @param parameterText The configuration, or null to take back an earlier one.
 *
 * @par Thread safety
 * Any thread; it must have returned before the first logger is made.
 */
TOVRA_API void        TOVRA_CALL TOVRA_SetLoggingParameter(const char* parameterText);

/**
 * Sets the callback that receives every line of the library's log.
 *
 * Takes effect only before the first logger is made (see the group's description).
 *
 * @param context  Passed back to the callback unchanged.
 * @param callback The callback, or null.
 *
 * @par Thread safety
 * Any thread; it must have returned before the first logger is made.
 */
TOVRA_API void        TOVRA_CALL TOVRA_SetLoggingCallback(void* context, TOVRA_LoggingCallback callback);

/** @} */

#ifdef __cplusplus
}
#endif

#endif
