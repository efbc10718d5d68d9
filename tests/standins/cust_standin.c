/* A stand-in for a custom transport library: it records calls, answers from a script and
   hands out whole frames. Variants are builds with switches:
     STANDIN_WITHOUT_GETPORTPARAMETER  leaves TOVRA_PLI_GetPortParameter out. */
#include "standin_common.h"
#include "tovra/transport.h"

#include <stdint.h>
#include <stdio.h>

#define TOO_LONG_CODE (-9008)

const char standinDefaultVersion[] = "1.0.0";

static int32_t clampedSize(size_t size) { return size > INT32_MAX ? INT32_MAX : (int32_t)size; }

TOVRA_PLI_EXPORT const char* TOVRA_PLI_CALL TOVRA_PLI_GetVersion(void) { return standinVersion(); }

TOVRA_PLI_EXPORT const char* TOVRA_PLI_CALL TOVRA_PLI_GetErrorText(int32_t code) { return standinErrorText(code); }

TOVRA_PLI_EXPORT int32_t TOVRA_PLI_CALL TOVRA_PLI_Connect(const char* connector)
{
    char line[1024];
    snprintf(line, sizeof line, "Connect %s", connector != NULL ? connector : "(null)");
    return standinOpen("Connect", line);
}

TOVRA_PLI_EXPORT int32_t TOVRA_PLI_CALL TOVRA_PLI_Disconnect(int32_t portHandle)
{
    return standinHandleCall("Disconnect", portHandle);
}

TOVRA_PLI_EXPORT int32_t TOVRA_PLI_CALL TOVRA_PLI_Transmit(int32_t portHandle, const uint8_t* data, size_t length)
{
    (void)data;
    return standinTransmitOn(portHandle, (long long)length);
}

TOVRA_PLI_EXPORT int32_t TOVRA_PLI_CALL TOVRA_PLI_Receive(int32_t portHandle, uint8_t* buffer, size_t size)
{
    return standinReceiveWhole(portHandle, buffer, clampedSize(size), TOO_LONG_CODE, TOVRA_PLI_TIMEOUT);
}

TOVRA_PLI_EXPORT int32_t TOVRA_PLI_CALL TOVRA_PLI_PutPortParameter(int32_t portHandle, const char* key,
                                                                   const char* value)
{
    return standinPutCall("PutPortParameter", portHandle, key, value);
}

#if !defined(STANDIN_WITHOUT_GETPORTPARAMETER)
TOVRA_PLI_EXPORT int32_t TOVRA_PLI_CALL TOVRA_PLI_GetPortParameter(int32_t portHandle, const char* key, char* value,
                                                                   size_t size)
{
    return standinGetCall("GetPortParameter", portHandle, key, value, (long long)size);
}
STANDIN_SAME_TYPE(TOVRA_PLI_GetPortParameter, TOVRA_PLI_GetPortParameter_t);
#endif

STANDIN_SAME_TYPE(TOVRA_PLI_GetVersion, TOVRA_PLI_GetVersion_t);
STANDIN_SAME_TYPE(TOVRA_PLI_GetErrorText, TOVRA_PLI_GetErrorText_t);
STANDIN_SAME_TYPE(TOVRA_PLI_Connect, TOVRA_PLI_Connect_t);
STANDIN_SAME_TYPE(TOVRA_PLI_Disconnect, TOVRA_PLI_Disconnect_t);
STANDIN_SAME_TYPE(TOVRA_PLI_Transmit, TOVRA_PLI_Transmit_t);
STANDIN_SAME_TYPE(TOVRA_PLI_Receive, TOVRA_PLI_Receive_t);
STANDIN_SAME_TYPE(TOVRA_PLI_PutPortParameter, TOVRA_PLI_PutPortParameter_t);

/* No events and no commands of its own. */
int standinOwnCommand(const char* command, const char** answer)
{
    (void)command;
    (void)answer;
    return 0;
}
void standinOwnReset(void) {}
void standinOwnCalm(void) {}
int standinNextDelivery(StandinDelivery* delivery)
{
    (void)delivery;
    return 0;
}
void standinDeliver(const StandinDelivery* delivery) { (void)delivery; }
