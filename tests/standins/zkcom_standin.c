/* A stand-in for the serial device library, built by the test build under the real file
   name. It records every call, answers from a script, and is steered by one extra export,
   STANDIN_Control. Variants are builds with switches:
     STANDIN_WITHOUT_DETECTPORT  leaves ZKCOM_DetectPort out. */
#include "standin_common.h"
#include "tovra/device/zkcom.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define TOO_LONG_CODE (-1012)

const char standinDefaultVersion[] = "5.0.0";
static int presentPorts[256];

STANDIN_API const char* ZKCOM_CALL ZKCOM_GetDLLVersion(void) { return standinVersion(); }

STANDIN_API int32_t ZKCOM_CALL ZKCOM_GetErrorText(int32_t code, char* text, int32_t size)
{
    if (text == NULL || size <= 0) return STANDIN_BAD_ARGUMENT;
    snprintf(text, (size_t)size, "STANDIN error %d", code);
    return 0;
}

STANDIN_API int32_t ZKCOM_CALL ZKCOM_OpenPort(const char* port)
{
    char line[128];
    snprintf(line, sizeof line, "OpenPort %s", port != NULL ? port : "(null)");
    return standinOpen("OpenPort", line);
}

STANDIN_API int32_t ZKCOM_CALL ZKCOM_ClosePort(int32_t handle)
{
    return standinHandleCall("ClosePort", handle);
}

STANDIN_API int32_t ZKCOM_CALL ZKCOM_Transmit(int32_t handle, const uint8_t* data, int32_t length)
{
    (void)data;
    return standinTransmitOn(handle, length);
}

/* Whole frames; one longer than the buffer is dropped with an error. Receives are not
   recorded: they come as often as the caller polls. */
STANDIN_API int32_t ZKCOM_CALL ZKCOM_Receive(int32_t handle, uint8_t* buffer, int32_t size)
{
    (void)handle;
    return standinReceive(buffer, size, 1, TOO_LONG_CODE, ZKCOM_TIMEOUT, NULL);
}

STANDIN_API int32_t ZKCOM_CALL ZKCOM_GetPortPara(int32_t handle, const char* name, char* value, int32_t size)
{
    return standinGetCall("GetPortPara", handle, name, value, size);
}

STANDIN_API int32_t ZKCOM_CALL ZKCOM_SetPortPara(int32_t handle, const char* name, const char* value)
{
    return standinPutCall("SetPortPara", handle, name, value);
}

STANDIN_API int32_t ZKCOM_CALL ZKCOM_DoPortCmd(int32_t handle, const char* command, const char* value)
{
    char line[160];
    snprintf(line, sizeof line, "DoPortCmd %d %s %s", handle, command != NULL ? command : "(null)",
             value != NULL ? value : "(null)");
    return standinCalled("DoPortCmd", line);
}

#if !defined(STANDIN_WITHOUT_DETECTPORT)
STANDIN_API int32_t ZKCOM_CALL ZKCOM_DetectPort(int32_t port)
{
    char line[64];
    snprintf(line, sizeof line, "DetectPort %d", port);
    standinLock();
    int32_t code = standinCalledLocked("DetectPort", line);
    if (code == 0) code = port >= 0 && port < 256 && presentPorts[port] ? 0 : -1001;
    standinUnlock();
    return code;
}
#endif

STANDIN_SAME_TYPE(ZKCOM_GetDLLVersion, ZKCOM_GetDLLVersion_t);
STANDIN_SAME_TYPE(ZKCOM_GetErrorText, ZKCOM_GetErrorText_t);
STANDIN_SAME_TYPE(ZKCOM_OpenPort, ZKCOM_OpenPort_t);
STANDIN_SAME_TYPE(ZKCOM_ClosePort, ZKCOM_ClosePort_t);
STANDIN_SAME_TYPE(ZKCOM_Transmit, ZKCOM_Transmit_t);
STANDIN_SAME_TYPE(ZKCOM_Receive, ZKCOM_Receive_t);
STANDIN_SAME_TYPE(ZKCOM_GetPortPara, ZKCOM_GetPortPara_t);
STANDIN_SAME_TYPE(ZKCOM_SetPortPara, ZKCOM_SetPortPara_t);
STANDIN_SAME_TYPE(ZKCOM_DoPortCmd, ZKCOM_DoPortCmd_t);
#if !defined(STANDIN_WITHOUT_DETECTPORT)
STANDIN_SAME_TYPE(ZKCOM_DetectPort, ZKCOM_DetectPort_t);
#endif

/* Own command, besides the common ones:
     "present N"  port N exists for ZKCOM_DetectPort */
int standinOwnCommand(const char* command, const char** answer)
{
    (void)answer;
    if (strncmp(command, "present ", 8) != 0) return 0;
    int port = atoi(command + 8);
    if (port >= 0 && port < 256) presentPorts[port] = 1;
    return 1;
}

void standinOwnReset(void) { memset(presentPorts, 0, sizeof presentPorts); }

/* The serial library reports no events. */
void standinOwnCalm(void) {}
int standinNextDelivery(StandinDelivery* delivery)
{
    (void)delivery;
    return 0;
}
void standinDeliver(const StandinDelivery* delivery) { (void)delivery; }
