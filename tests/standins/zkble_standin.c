/* A stand-in for the Bluetooth device library, built by the test build under the real
   file name. It records calls, answers from a script, hands out whole frames, and calls
   the registered scan callback from a thread of its own. Variants are builds with switches:
     STANDIN_WITHOUT_REGISTERSCANCALLBACK  leaves ZKBLE_RegisterScanCallback out. */
#include "standin_common.h"
#include "tovra/device/zkble.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>

#define MAX_EVENTS 256
#define TOO_LONG_CODE (-1201)
#define MAC_SIZE ((int)sizeof(((ZKBLE_ScanRecord*)0)->macAddress))

const char standinDefaultVersion[] = "1.0.0";

typedef struct Event {
    uint32_t type;
    uint32_t readerType;
    uint32_t id;
    char mac[MAC_SIZE];
} Event;
static Event queue[MAX_EVENTS];
static int queued;

static ZKBLE_ScanCallback callback;
static void* callbackContext;

static int storming;
static Event stormEvent;


STANDIN_API const char* ZKBLE_CALL ZKBLE_GetVersion(void) { return standinVersion(); }

STANDIN_API const char* ZKBLE_CALL ZKBLE_GetErrorText(int32_t code) { return standinErrorText(code); }

STANDIN_API int32_t ZKBLE_CALL ZKBLE_Connect(const char* macAddress)
{
    char line[96];
    snprintf(line, sizeof line, "Connect %s", macAddress != NULL ? macAddress : "(null)");
    return standinOpen("Connect", line);
}

STANDIN_API int32_t ZKBLE_CALL ZKBLE_ConnectSpp(const char* macAddress, bool secure)
{
    char line[96];
    snprintf(line, sizeof line, "ConnectSpp %s %d", macAddress != NULL ? macAddress : "(null)", secure ? 1 : 0);
    return standinOpen("ConnectSpp", line);
}

STANDIN_API int32_t ZKBLE_CALL ZKBLE_Disconnect(int32_t handle)
{
    return standinHandleCall("Disconnect", handle);
}

STANDIN_API int32_t ZKBLE_CALL ZKBLE_Transmit(int32_t handle, const uint8_t* data, int32_t length)
{
    (void)data;
    return standinTransmitOn(handle, length);
}

/* Whole frames; one longer than the buffer is dropped with an error. */
STANDIN_API int32_t ZKBLE_CALL ZKBLE_Receive(int32_t handle, uint8_t* buffer, int32_t size)
{
    return standinReceiveWhole(handle, buffer, size, TOO_LONG_CODE, 0);
}

STANDIN_API int32_t ZKBLE_CALL ZKBLE_PutParameter(int32_t handle, const char* key, const char* value)
{
    return standinPutCall("PutParameter", handle, key, value);
}

STANDIN_API int32_t ZKBLE_CALL ZKBLE_GetParameter(int32_t handle, const char* key, char* value, int32_t size)
{
    return standinGetCall("GetParameter", handle, key, value, size);
}

STANDIN_API int32_t ZKBLE_CALL ZKBLE_StartScan(void) { return standinCalled("StartScan", "StartScan"); }

STANDIN_API int32_t ZKBLE_CALL ZKBLE_StopScan(void) { return standinCalled("StopScan", "StopScan"); }

#if !defined(STANDIN_WITHOUT_REGISTERSCANCALLBACK)
STANDIN_API int32_t ZKBLE_CALL ZKBLE_RegisterScanCallback(void* context, ZKBLE_ScanCallback scanCallback)
{
    standinLock();
    int32_t code = standinCalledLocked("RegisterScanCallback", scanCallback != NULL ? "RegisterScanCallback set"
                                                                                    : "RegisterScanCallback clear");
    if (code == 0) {
        callback = scanCallback;
        callbackContext = context;
        standinWakeEvents();
        if (scanCallback == NULL) standinAwaitDelivery(NULL, 0);
    }
    standinUnlock();
    return code;
}
#endif

STANDIN_SAME_TYPE(ZKBLE_GetVersion, ZKBLE_GetVersion_t);
STANDIN_SAME_TYPE(ZKBLE_GetErrorText, ZKBLE_GetErrorText_t);
STANDIN_SAME_TYPE(ZKBLE_Connect, ZKBLE_Connect_t);
STANDIN_SAME_TYPE(ZKBLE_ConnectSpp, ZKBLE_ConnectSpp_t);
STANDIN_SAME_TYPE(ZKBLE_Disconnect, ZKBLE_Disconnect_t);
STANDIN_SAME_TYPE(ZKBLE_Transmit, ZKBLE_Transmit_t);
STANDIN_SAME_TYPE(ZKBLE_Receive, ZKBLE_Receive_t);
STANDIN_SAME_TYPE(ZKBLE_PutParameter, ZKBLE_PutParameter_t);
STANDIN_SAME_TYPE(ZKBLE_GetParameter, ZKBLE_GetParameter_t);
STANDIN_SAME_TYPE(ZKBLE_StartScan, ZKBLE_StartScan_t);
STANDIN_SAME_TYPE(ZKBLE_StopScan, ZKBLE_StopScan_t);
#if !defined(STANDIN_WITHOUT_REGISTERSCANCALLBACK)
STANDIN_SAME_TYPE(ZKBLE_RegisterScanCallback, ZKBLE_RegisterScanCallback_t);
#endif

/* ---- Events ---- */

/* Events reach only a callback registered when they are delivered; without one they are gone. */
int standinNextDelivery(StandinDelivery* delivery)
{
    if (callback == NULL) {
        for (; queued > 0; --queued) standinEventDropped();
        return 0;
    }
    Event event;
    if (queued > 0) {
        event = queue[0];
        --queued;
        memmove(queue, queue + 1, sizeof queue[0] * (size_t)queued);
    } else if (storming) {
        event = stormEvent;
        stormEvent.type = stormEvent.type == ZKBLE_EVENT_SEEN ? ZKBLE_EVENT_GONE : ZKBLE_EVENT_SEEN;
    } else {
        return 0;
    }
    delivery->target = (StandinFunction)callback;
    delivery->finishes = 1;
    delivery->context = callbackContext;
    delivery->type = (int32_t)event.type;
    delivery->id = event.id;
    delivery->number = event.readerType;
    memcpy(delivery->text, event.mac, sizeof event.mac);
    return 1;
}

void standinDeliver(const StandinDelivery* delivery)
{
    ZKBLE_ScanRecord record;
    memset(&record, 0, sizeof record);
    memcpy(record.macAddress, delivery->text, sizeof record.macAddress);
    record.deviceId = delivery->id;
    record.readerType = delivery->number;
    ((ZKBLE_ScanCallback)delivery->target)(delivery->context, (uint32_t)delivery->type, &record);
}

/* "-" is no address and "!" one that fills the field without a terminating zero; others
   are cut to the field. */
static void setMac(char* mac, const char* text)
{
    memset(mac, 0, MAC_SIZE);
    if (strcmp(text, "-") == 0) return;
    if (strcmp(text, "!") == 0) {
        memset(mac, 'F', MAC_SIZE);
        return;
    }
    size_t n = strlen(text);
    memcpy(mac, text, n < (size_t)MAC_SIZE ? n : (size_t)MAC_SIZE);
}

/* Own commands, besides the common ones:
     "event TYPE READERTYPE ID MAC"  the event thread calls the callback with this event
                                     (TYPE and READERTYPE decimal, ID hex, MAC as above)
     "storm READERTYPE ID MAC"       events 1 and 2, alternately, as fast as the callback
                                     takes them, until "calm" or "reset" */
int standinOwnCommand(const char* command, const char** answer)
{
    char id[32];
    char mac[64];
    Event event;
    memset(&event, 0, sizeof event);
    int matched;
    if (strncmp(command, "event ", 6) == 0)
        matched = sscanf(command + 6, "%u %u %31s %63s", &event.type, &event.readerType, id, mac) == 4;
    else if (strncmp(command, "storm ", 6) == 0)
        matched = sscanf(command + 6, "%u %31s %63s", &event.readerType, id, mac) == 3;
    else
        return 0;
    if (!matched || !standinParseHex(id, &event.id) || (command[0] == 'e' && queued == MAX_EVENTS)) {
        *answer = "unknown";
        return 1;
    }
    setMac(event.mac, mac);
    if (command[0] == 'e') {
        queue[queued++] = event;
    } else {
        storming = 1;
        stormEvent = event;
        stormEvent.type = ZKBLE_EVENT_SEEN;
    }
    standinStartEvents();
    standinWakeEvents();
    return 1;
}

void standinOwnCalm(void) { storming = 0; }

void standinOwnReset(void)
{
    queued = 0;
    callback = NULL;
    callbackContext = NULL;
    storming = 0;
}
