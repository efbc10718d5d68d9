/* A stand-in for the second-generation USB device library, built by the test build under
   the real file name. It records calls, answers from a script, hands out whole frames, and
   queues reader events, calling the registered scan callback from a thread of its own
   while events wait. */
#include "standin_common.h"
#include "tovra/device/zkusb2.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>

#define MAX_DEVICES 32
#define MAX_EVENTS 256
/* A storm stops adding events while this many wait, so a callback that does not take them
   does not make the queue grow without end. */
#define STORM_BACKLOG 16
#define TOO_LONG_CODE (-1201)

const char standinDefaultVersion[] = "1.0.0";

typedef struct Device {
    uint32_t id;
    char name[64];
} Device;
static Device devices[MAX_DEVICES];
static int deviceCount;

static ZKUSB2_ScanCallback callback;
static void* callbackContext;
static ZKUSB2_Event queue[MAX_EVENTS];
static int queued;
/* Events came since the callback was last called. */
static int signalPending;

static int storming;
static int32_t stormType;
static uint32_t stormId;
static char stormName[64];


static int queueEvent(int32_t type, uint32_t id, const char* name)
{
    if (queued == MAX_EVENTS) return 0;
    ZKUSB2_Event* e = &queue[queued++];
    memset(e, 0, sizeof *e);
    e->type = type;
    e->deviceId = id;
    snprintf(e->deviceName, sizeof e->deviceName, "%s", name);
    signalPending = 1;
    return 1;
}

STANDIN_API const char* ZKUSB2_CALL ZKUSB2_GetVersion(void) { return standinVersion(); }

STANDIN_API const char* ZKUSB2_CALL ZKUSB2_GetErrorText(int32_t code) { return standinErrorText(code); }

STANDIN_API int32_t ZKUSB2_CALL ZKUSB2_RegisterScanCallback(void* context, ZKUSB2_ScanCallback scanCallback)
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

STANDIN_API int32_t ZKUSB2_CALL ZKUSB2_StartScan(void)
{
    standinLock();
    int32_t code = standinCalledLocked("StartScan", "StartScan");
    if (code == 0) {
        for (int i = 0; i < deviceCount; ++i) queueEvent(ZKUSB2_EVENT_PLUG, devices[i].id, devices[i].name);
        standinStartEvents();
        standinWakeEvents();
        code = deviceCount;
    }
    standinUnlock();
    return code;
}

STANDIN_API int32_t ZKUSB2_CALL ZKUSB2_StopScan(void) { return standinCalled("StopScan", "StopScan"); }

/* The caller holds the lock. */
static int32_t takeEvent(ZKUSB2_Event* event)
{
    if (event == NULL) return STANDIN_BAD_ARGUMENT;
    if (queued == 0) return 0;
    *event = queue[0];
    --queued;
    memmove(queue, queue + 1, sizeof queue[0] * (size_t)queued);
    standinPolledHandedOut("GetNextEvent");
    if (storming) standinWakeEvents();
    return 1;
}

STANDIN_API int32_t ZKUSB2_CALL ZKUSB2_GetNextEvent(ZKUSB2_Event* event)
{
    int32_t code = 0;
    standinLock();
    if (!standinPolledFailure("GetNextEvent", &code)) code = takeEvent(event);
    standinUnlock();
    return code;
}

STANDIN_API int32_t ZKUSB2_CALL ZKUSB2_OpenDevice(uint32_t deviceId)
{
    char line[64];
    snprintf(line, sizeof line, "OpenDevice %08X", deviceId);
    return standinOpen("OpenDevice", line);
}

STANDIN_API int32_t ZKUSB2_CALL ZKUSB2_CloseDevice(int32_t handle)
{
    return standinHandleCall("CloseDevice", handle);
}

STANDIN_API int32_t ZKUSB2_CALL ZKUSB2_Transmit(int32_t handle, const uint8_t* data, int32_t length)
{
    (void)data;
    return standinTransmitOn(handle, length);
}

/* Whole frames; one longer than the buffer is dropped with an error. */
STANDIN_API int32_t ZKUSB2_CALL ZKUSB2_Receive(int32_t handle, uint8_t* buffer, int32_t size)
{
    return standinReceiveWhole(handle, buffer, size, TOO_LONG_CODE, 0);
}

STANDIN_API int32_t ZKUSB2_CALL ZKUSB2_GetParameter(int32_t handle, const char* key, char* value, int32_t size)
{
    return standinGetCall("GetParameter", handle, key, value, size);
}

STANDIN_API int32_t ZKUSB2_CALL ZKUSB2_PutParameter(int32_t handle, const char* key, const char* value)
{
    return standinPutCall("PutParameter", handle, key, value);
}

STANDIN_SAME_TYPE(ZKUSB2_GetVersion, ZKUSB2_GetVersion_t);
STANDIN_SAME_TYPE(ZKUSB2_GetErrorText, ZKUSB2_GetErrorText_t);
STANDIN_SAME_TYPE(ZKUSB2_RegisterScanCallback, ZKUSB2_RegisterScanCallback_t);
STANDIN_SAME_TYPE(ZKUSB2_StartScan, ZKUSB2_StartScan_t);
STANDIN_SAME_TYPE(ZKUSB2_StopScan, ZKUSB2_StopScan_t);
STANDIN_SAME_TYPE(ZKUSB2_GetNextEvent, ZKUSB2_GetNextEvent_t);
STANDIN_SAME_TYPE(ZKUSB2_OpenDevice, ZKUSB2_OpenDevice_t);
STANDIN_SAME_TYPE(ZKUSB2_CloseDevice, ZKUSB2_CloseDevice_t);
STANDIN_SAME_TYPE(ZKUSB2_Transmit, ZKUSB2_Transmit_t);
STANDIN_SAME_TYPE(ZKUSB2_Receive, ZKUSB2_Receive_t);
STANDIN_SAME_TYPE(ZKUSB2_GetParameter, ZKUSB2_GetParameter_t);
STANDIN_SAME_TYPE(ZKUSB2_PutParameter, ZKUSB2_PutParameter_t);

/* ---- Events ---- */

int standinNextDelivery(StandinDelivery* delivery)
{
    if (callback == NULL) return 0;
    if (storming && queued < STORM_BACKLOG) {
        queueEvent(stormType, stormId, stormName);
        stormType = stormType == ZKUSB2_EVENT_PLUG ? ZKUSB2_EVENT_UNPLUG : ZKUSB2_EVENT_PLUG;
    }
    if (!signalPending || queued == 0) return 0;
    signalPending = 0;
    delivery->finishes = 1;
    delivery->target = (StandinFunction)callback;
    delivery->context = callbackContext;
    return 1;
}

void standinDeliver(const StandinDelivery* delivery) { ((ZKUSB2_ScanCallback)delivery->target)(delivery->context); }

/* Own commands, besides the common ones:
     "device ID NAME"       a reader present: ZKUSB2_StartScan queues a plug event for it
     "event TYPE ID NAME"   queue an event of any type and call the callback
     "plug ID NAME"         the same as "event 1 ID NAME"
     "unplug ID NAME"       the same as "event 2 ID NAME"
     "storm ID NAME"        plug and unplug events, alternately, as fast as the callback
                            takes them, until "calm" or "reset"
   IDs are hex. */
int standinOwnCommand(const char* command, const char** answer)
{
    char id[32];
    char name[64];
    uint32_t number = 0;
    int32_t type = 0;
    int matched = 0;
    if (strncmp(command, "device ", 7) == 0 || strncmp(command, "storm ", 6) == 0) {
        matched = sscanf(strchr(command, ' ') + 1, "%31s %63s", id, name) == 2;
    } else if (strncmp(command, "plug ", 5) == 0 || strncmp(command, "unplug ", 7) == 0) {
        matched = sscanf(strchr(command, ' ') + 1, "%31s %63s", id, name) == 2;
        type = command[0] == 'p' ? ZKUSB2_EVENT_PLUG : ZKUSB2_EVENT_UNPLUG;
    } else if (strncmp(command, "event ", 6) == 0) {
        matched = sscanf(command + 6, "%d %31s %63s", &type, id, name) == 3;
    } else {
        return 0;
    }
    if (!matched || !standinParseHex(id, &number)) {
        *answer = "unknown";
        return 1;
    }
    if (command[0] == 'd') {
        if (deviceCount == MAX_DEVICES) {
            *answer = "unknown";
            return 1;
        }
        devices[deviceCount].id = number;
        snprintf(devices[deviceCount].name, sizeof devices[0].name, "%s", name);
        ++deviceCount;
        return 1;
    }
    if (command[0] == 's') {
        storming = 1;
        stormType = ZKUSB2_EVENT_PLUG;
        stormId = number;
        snprintf(stormName, sizeof stormName, "%s", name);
    } else if (!queueEvent(type, number, name)) {
        *answer = "unknown";
        return 1;
    }
    standinStartEvents();
    standinWakeEvents();
    return 1;
}

void standinOwnCalm(void) { storming = 0; }

void standinOwnReset(void)
{
    deviceCount = 0;
    callback = NULL;
    callbackContext = NULL;
    queued = 0;
    signalPending = 0;
    storming = 0;
}
