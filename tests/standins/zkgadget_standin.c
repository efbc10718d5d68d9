/* A stand-in for the USB gadget library, built by the test build under the real file name.
   It records calls, answers from a script, and hands out whole frames. A host that is
   attached configures the started gadget one status query later, as a real host takes a
   moment to enumerate the device. */
#include "standin_common.h"
#include "tovra/device/zkgadget.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>

#define TOO_LONG_CODE (-1301)
#define NOT_STARTED_CODE (-1302)
#define ALREADY_STARTED_CODE (-1303)

const char standinDefaultVersion[] = "0.2.0";

static int started;
static int hostAttached;
/* Status queries still to answer "bound" before an attached host has configured the gadget. */
static int configuringQueries;

STANDIN_API const char* ZKGADGET_CALL ZKGADGET_GetVersion(void) { return standinVersion(); }

STANDIN_API const char* ZKGADGET_CALL ZKGADGET_GetErrorText(int32_t code) { return standinErrorText(code); }

/* There is one gadget: starting it twice fails, which shows a caller that starts a gadget
   it already has. */
STANDIN_API int32_t ZKGADGET_CALL ZKGADGET_StartGadget(const char* config)
{
    char line[512];
    snprintf(line, sizeof line, "StartGadget %s", config != NULL ? config : "(null)");
    standinLock();
    int32_t code = standinCalledLocked("StartGadget", line);
    if (code == 0 && started) code = ALREADY_STARTED_CODE;
    if (code == 0) {
        started = 1;
        configuringQueries = 1;
    }
    standinUnlock();
    return code;
}

STANDIN_API int32_t ZKGADGET_CALL ZKGADGET_StopGadget(void)
{
    standinLock();
    int32_t code = standinCalledLocked("StopGadget", "StopGadget");
    if (code == 0) started = 0;
    standinUnlock();
    return code;
}

/* Polled: not recorded; "fail GetStatus CODE" makes the next query answer CODE. */
STANDIN_API int32_t ZKGADGET_CALL ZKGADGET_GetStatus(void)
{
    int32_t status = ZKGADGET_STATUS_UNBOUND;
    standinLock();
    if (!standinPolledFailure("GetStatus", &status)) {
        if (!started) {
            status = ZKGADGET_STATUS_UNBOUND;
        } else if (!hostAttached) {
            status = ZKGADGET_STATUS_BOUND;
        } else if (configuringQueries > 0) {
            --configuringQueries;
            status = ZKGADGET_STATUS_BOUND;
        } else {
            status = ZKGADGET_STATUS_CONFIGURED;
        }
    }
    standinUnlock();
    return status;
}

static int isStarted(void)
{
    standinLock();
    const int now = started;
    standinUnlock();
    return now;
}

STANDIN_API int32_t ZKGADGET_CALL ZKGADGET_Transmit(const uint8_t* data, int32_t length)
{
    char line[64];
    (void)data;
    if (!isStarted()) return NOT_STARTED_CODE;
    snprintf(line, sizeof line, "Transmit %d", length);
    return standinTransmit(line);
}

/* Whole frames; one longer than the buffer is dropped with an error. */
STANDIN_API int32_t ZKGADGET_CALL ZKGADGET_Receive(uint8_t* buffer, int32_t size)
{
    char line[64];
    if (!isStarted()) return NOT_STARTED_CODE;
    snprintf(line, sizeof line, "Receive %d", size);
    return standinReceive(buffer, size, 1, TOO_LONG_CODE, 0, line);
}

STANDIN_SAME_TYPE(ZKGADGET_GetVersion, ZKGADGET_GetVersion_t);
STANDIN_SAME_TYPE(ZKGADGET_GetErrorText, ZKGADGET_GetErrorText_t);
STANDIN_SAME_TYPE(ZKGADGET_StartGadget, ZKGADGET_StartGadget_t);
STANDIN_SAME_TYPE(ZKGADGET_StopGadget, ZKGADGET_StopGadget_t);
STANDIN_SAME_TYPE(ZKGADGET_GetStatus, ZKGADGET_GetStatus_t);
STANDIN_SAME_TYPE(ZKGADGET_Transmit, ZKGADGET_Transmit_t);
STANDIN_SAME_TYPE(ZKGADGET_Receive, ZKGADGET_Receive_t);

/* Own commands, besides the common ones:
     "host attach"  a host is plugged in: it configures the started gadget (or the next
                    one started) one status query later
     "host detach"  the host is gone: the gadget is only bound again */
int standinOwnCommand(const char* command, const char** answer)
{
    (void)answer;
    if (strcmp(command, "host attach") == 0) {
        if (!hostAttached) configuringQueries = 1;
        hostAttached = 1;
        return 1;
    }
    if (strcmp(command, "host detach") == 0) {
        hostAttached = 0;
        return 1;
    }
    return 0;
}

void standinOwnReset(void)
{
    started = 0;
    hostAttached = 0;
    configuringQueries = 0;
}

void standinOwnCalm(void) {}

/* No events: the event thread never starts. */
int standinNextDelivery(StandinDelivery* delivery)
{
    (void)delivery;
    return 0;
}

void standinDeliver(const StandinDelivery* delivery) { (void)delivery; }
