/* A stand-in for the USB device library, built by the test build under the real file
   name. It records calls, answers from a script, reads like a byte stream, and calls the
   registered event handlers from a thread of its own. Variants are builds with switches:
     STANDIN_WITHOUT_DELEVENTHANDLER  leaves ZKUSB_DelEventHandler out. */
#include "standin_common.h"
#include "tovra/device/zkusb.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>

#define MAX_HANDLERS 8
#define MAX_DEVICES 32
#define MAX_EVENTS 256
#define NO_ROOM (-1097)
#define NOT_REGISTERED (-1098)

const char standinDefaultVersion[] = "7.1.0";

typedef struct Device {
    char id[32];
    char name[64];
} Device;
/* Readers present, and what the last scan found of them. */
static Device devices[MAX_DEVICES];
static int deviceCount;
static Device scanList[MAX_DEVICES];
static int scanListSize;

/* Slots keep their place, so an event part-way through its handlers stays right when
   others are added or removed. */
typedef struct Registration {
    int used;
    int32_t event;
    void* context;
    ZKUSB_EventHandler handler;
} Registration;
static Registration registrations[MAX_HANDLERS];

/* Events in order; `next` is the first registration slot this event has not yet been
   offered to. */
typedef struct Event {
    int32_t event;
    uint32_t id;
    char name[64];
    int next;
    int storm;
} Event;
static Event queue[MAX_EVENTS];
static int queued;

static int storming;
static int32_t stormEvent;
static uint32_t stormId;
static char stormName[64];


STANDIN_API const char* ZKUSB_CALL ZKUSB_GetDLLVersion(void) { return standinVersion(); }

STANDIN_API int32_t ZKUSB_CALL ZKUSB_GetErrorText(int32_t code, char* text)
{
    if (text == NULL) return STANDIN_BAD_ARGUMENT;
    snprintf(text, 1024, "STANDIN error %d", code);
    return 0;
}

STANDIN_API int32_t ZKUSB_CALL ZKUSB_OpenDevice(uint32_t deviceId)
{
    char line[64];
    snprintf(line, sizeof line, "OpenDevice %08X", deviceId);
    return standinOpen("OpenDevice", line);
}

STANDIN_API int32_t ZKUSB_CALL ZKUSB_CloseDevice(int32_t handle)
{
    return standinHandleCall("CloseDevice", handle);
}

STANDIN_API int32_t ZKUSB_CALL ZKUSB_Transmit(int32_t handle, const char* interfaceName, const uint8_t* data,
                                              int32_t length)
{
    char line[160];
    (void)data;
    snprintf(line, sizeof line, "Transmit %d %s %d", handle, interfaceName != NULL ? interfaceName : "(null)",
             length);
    return standinTransmit(line);
}

/* A byte stream: a queued chunk is handed out up to `size` bytes, the rest stays for the
   next read. */
STANDIN_API int32_t ZKUSB_CALL ZKUSB_Receive(int32_t handle, const char* interfaceName, uint8_t* buffer,
                                             int32_t size)
{
    char line[160];
    snprintf(line, sizeof line, "Receive %d %s %d", handle, interfaceName != NULL ? interfaceName : "(null)",
             size);
    return standinReceive(buffer, size, 0, 0, ZKUSB_TIMEOUT, line);
}

STANDIN_API int32_t ZKUSB_CALL ZKUSB_GetDevicePara(int32_t handle, const char* key, char* value, int32_t size)
{
    return standinGetCall("GetDevicePara", handle, key, value, size);
}

STANDIN_API int32_t ZKUSB_CALL ZKUSB_SetDevicePara(int32_t handle, const char* key, const char* value)
{
    return standinPutCall("SetDevicePara", handle, key, value);
}

STANDIN_API int32_t ZKUSB_CALL ZKUSB_Scan(int32_t mode, int32_t flags)
{
    char line[64];
    snprintf(line, sizeof line, "Scan %d %d", mode, flags);
    standinLock();
    int32_t code = standinCalledLocked("Scan", line);
    if (code == 0) {
        memcpy(scanList, devices, sizeof devices);
        scanListSize = deviceCount;
        code = scanListSize > 0 ? scanListSize : ZKUSB_NO_DEVICE;
    }
    standinUnlock();
    return code;
}

STANDIN_API int32_t ZKUSB_CALL ZKUSB_GetScanListSize(void)
{
    standinLock();
    int32_t code = standinCalledLocked("GetScanListSize", NULL);
    if (code == 0) code = scanListSize;
    standinUnlock();
    return code;
}

STANDIN_API int32_t ZKUSB_CALL ZKUSB_GetScanListPara(int32_t index, const char* key, char* value, int32_t size)
{
    standinLock();
    int32_t code = standinCalledLocked("GetScanListPara", NULL);
    if (code == 0) {
        const char* text = NULL;
        if (value != NULL && size > 0 && key != NULL && index >= 0 && index < scanListSize) {
            if (strcmp(key, "Device-ID") == 0) text = scanList[index].id;
            if (strcmp(key, "DeviceName") == 0) text = scanList[index].name;
        }
        if (text != NULL)
            snprintf(value, (size_t)size, "%s", text);
        else
            code = STANDIN_BAD_ARGUMENT;
    }
    standinUnlock();
    return code;
}

STANDIN_API int32_t ZKUSB_CALL ZKUSB_AddEventHandler(int32_t flags, ZKUSB_EventRecord* record)
{
    char line[128];
    if (record == NULL)
        snprintf(line, sizeof line, "AddEventHandler %d (null)", flags);
    else
        snprintf(line, sizeof line, "AddEventHandler %d event=%d reserved=%d type=%d", flags, record->event,
                 record->reserved, record->callbackType);
    standinLock();
    int32_t code = standinCalledLocked("AddEventHandler", line);
    if (code == 0 && (record == NULL || record->handler == NULL)) code = STANDIN_BAD_ARGUMENT;
    if (code == 0) {
        Registration* slot = NULL;
        for (int i = 0; i < MAX_HANDLERS && slot == NULL; ++i)
            if (registrations[i].used && registrations[i].event == record->event &&
                registrations[i].handler == record->handler)
                slot = &registrations[i];
        for (int i = 0; i < MAX_HANDLERS && slot == NULL; ++i)
            if (!registrations[i].used) slot = &registrations[i];
        if (slot != NULL) {
            slot->used = 1;
            slot->event = record->event;
            slot->context = record->context;
            slot->handler = record->handler;
            standinWakeEvents();
        } else {
            code = NO_ROOM;
        }
    }
    standinUnlock();
    return code;
}

#if !defined(STANDIN_WITHOUT_DELEVENTHANDLER)
STANDIN_API int32_t ZKUSB_CALL ZKUSB_DelEventHandler(int32_t flags, ZKUSB_EventRecord* record)
{
    char line[96];
    if (record == NULL)
        snprintf(line, sizeof line, "DelEventHandler %d (null)", flags);
    else
        snprintf(line, sizeof line, "DelEventHandler %d event=%d", flags, record->event);
    standinLock();
    int32_t code = standinCalledLocked("DelEventHandler", line);
    if (code == 0 && record == NULL) code = STANDIN_BAD_ARGUMENT;
    if (code == 0) {
        code = NOT_REGISTERED;
        for (int i = 0; i < MAX_HANDLERS; ++i) {
            if (registrations[i].used && registrations[i].event == record->event &&
                registrations[i].handler == record->handler) {
                registrations[i].used = 0;
                code = 0;
            }
        }
        if (code == 0) standinAwaitDelivery((StandinFunction)record->handler, record->event);
    }
    standinUnlock();
    return code;
}
#endif

STANDIN_SAME_TYPE(ZKUSB_GetDLLVersion, ZKUSB_GetDLLVersion_t);
STANDIN_SAME_TYPE(ZKUSB_GetErrorText, ZKUSB_GetErrorText_t);
STANDIN_SAME_TYPE(ZKUSB_OpenDevice, ZKUSB_OpenDevice_t);
STANDIN_SAME_TYPE(ZKUSB_CloseDevice, ZKUSB_CloseDevice_t);
STANDIN_SAME_TYPE(ZKUSB_Transmit, ZKUSB_Transmit_t);
STANDIN_SAME_TYPE(ZKUSB_Receive, ZKUSB_Receive_t);
STANDIN_SAME_TYPE(ZKUSB_GetDevicePara, ZKUSB_GetDevicePara_t);
STANDIN_SAME_TYPE(ZKUSB_SetDevicePara, ZKUSB_SetDevicePara_t);
STANDIN_SAME_TYPE(ZKUSB_Scan, ZKUSB_Scan_t);
STANDIN_SAME_TYPE(ZKUSB_GetScanListSize, ZKUSB_GetScanListSize_t);
STANDIN_SAME_TYPE(ZKUSB_GetScanListPara, ZKUSB_GetScanListPara_t);
STANDIN_SAME_TYPE(ZKUSB_AddEventHandler, ZKUSB_AddEventHandler_t);
#if !defined(STANDIN_WITHOUT_DELEVENTHANDLER)
STANDIN_SAME_TYPE(ZKUSB_DelEventHandler, ZKUSB_DelEventHandler_t);
#endif

/* ---- Events ---- */

static int anyHandlerFor(int32_t event)
{
    for (int i = 0; i < MAX_HANDLERS; ++i)
        if (registrations[i].used && registrations[i].event == event) return 1;
    return 0;
}

static int queueEvent(int32_t event, uint32_t id, const char* name, int storm)
{
    if (queued == MAX_EVENTS) return 0;
    Event* e = &queue[queued++];
    memset(e, 0, sizeof *e);
    e->event = event;
    e->id = id;
    snprintf(e->name, sizeof e->name, "%s", name);
    e->storm = storm;
    return 1;
}

static void dropEvent(int index)
{
    --queued;
    memmove(queue + index, queue + index + 1, sizeof queue[0] * (size_t)(queued - index));
}

int standinNextDelivery(StandinDelivery* delivery)
{
    for (;;) {
        if (queued == 0) {
            /* A storm with nobody to call would spin; it waits for a handler instead. */
            if (!storming || (!anyHandlerFor(ZKUSB_EVENT_PLUG) && !anyHandlerFor(ZKUSB_EVENT_UNPLUG))) return 0;
            queueEvent(stormEvent, stormId, stormName, 1);
            stormEvent = stormEvent == ZKUSB_EVENT_PLUG ? ZKUSB_EVENT_UNPLUG : ZKUSB_EVENT_PLUG;
        }
        Event* e = &queue[0];
        const Registration* r = NULL;
        while (r == NULL && e->next < MAX_HANDLERS) {
            r = &registrations[e->next++];
            if (!r->used || r->event != e->event) r = NULL;
        }
        if (r == NULL) {
            dropEvent(0);
            standinEventDropped();
            continue;
        }
        delivery->target = (StandinFunction)r->handler;
        delivery->tag = r->event;
        delivery->context = r->context;
        delivery->id = e->id;
        snprintf(delivery->text, sizeof delivery->text, "%s", e->name);
        while (e->next < MAX_HANDLERS && !(registrations[e->next].used && registrations[e->next].event == e->event))
            ++e->next;
        if (e->next == MAX_HANDLERS) {
            delivery->finishes = 1;
            dropEvent(0);
        }
        return 1;
    }
}

void standinDeliver(const StandinDelivery* delivery)
{
    ((ZKUSB_EventHandler)delivery->target)((uint32_t)(uintptr_t)delivery->context, delivery->id, delivery->text);
}

/* Own commands, besides the common ones:
     "device ID NAME"  a reader present for the next ZKUSB_Scan (ID as text, e.g. 0A1B2C3D)
     "plug ID NAME"    the event thread calls the plug handlers with ID read as hex
     "unplug ID NAME"  the same for the unplug handlers
     "storm ID NAME"   plug and unplug events, alternately, as fast as the handlers take
                       them, until "calm" or "reset" */
int standinOwnCommand(const char* command, const char** answer)
{
    char id[32];
    char name[64];
    uint32_t number = 0;
    if (strncmp(command, "device ", 7) == 0) {
        if (deviceCount == MAX_DEVICES || sscanf(command + 7, "%31s %63s", id, name) != 2) {
            *answer = "unknown";
        } else {
            snprintf(devices[deviceCount].id, sizeof devices[0].id, "%s", id);
            snprintf(devices[deviceCount].name, sizeof devices[0].name, "%s", name);
            ++deviceCount;
        }
        return 1;
    }
    const char* arguments = NULL;
    int32_t event = 0;
    if (strncmp(command, "plug ", 5) == 0) {
        arguments = command + 5;
        event = ZKUSB_EVENT_PLUG;
    } else if (strncmp(command, "unplug ", 7) == 0) {
        arguments = command + 7;
        event = ZKUSB_EVENT_UNPLUG;
    } else if (strncmp(command, "storm ", 6) == 0) {
        arguments = command + 6;
    } else {
        return 0;
    }
    if (sscanf(arguments, "%31s %63s", id, name) != 2 || !standinParseHex(id, &number)) {
        *answer = "unknown";
        return 1;
    }
    if (event == 0) {
        storming = 1;
        stormEvent = ZKUSB_EVENT_PLUG;
        stormId = number;
        snprintf(stormName, sizeof stormName, "%s", name);
    } else if (!queueEvent(event, number, name, 0)) {
        *answer = "unknown";
        return 1;
    }
    standinStartEvents();
    standinWakeEvents();
    return 1;
}

void standinOwnCalm(void)
{
    storming = 0;
    /* A storm event half-way through its handlers would otherwise come after later ones. */
    for (int i = queued - 1; i >= 0; --i)
        if (queue[i].storm) dropEvent(i);
}

void standinOwnReset(void)
{
    deviceCount = 0;
    scanListSize = 0;
    memset(registrations, 0, sizeof registrations);
    queued = 0;
    storming = 0;
}
