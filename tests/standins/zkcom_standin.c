/* A stand-in for the serial device library, built by the test build under the real file
   name. It records every call, answers from a script, and is steered by one extra export,
   STANDIN_Control. Variants are builds with switches:
     STANDIN_WITHOUT_DETECTPORT  leaves ZKCOM_DetectPort out. */
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#if defined(_WIN32)
#  include <windows.h>
#  define STANDIN_API __declspec(dllexport)
static void pauseMs(int ms) { Sleep((DWORD)ms); }
#else
#  include <time.h>
#  define STANDIN_API __attribute__((visibility("default")))
static void pauseMs(int ms)
{
    struct timespec t = {ms / 1000, (long)(ms % 1000) * 1000000L};
    nanosleep(&t, NULL);
}
#endif

#define TIMEOUT_CODE (-1030)
#define MAX_FRAMES 16
#define MAX_FRAME 32768
#define LOG_SIZE 65536

static atomic_flag busy = ATOMIC_FLAG_INIT;
static void lock(void) { while (atomic_flag_test_and_set(&busy)) pauseMs(0); }
static void unlock(void) { atomic_flag_clear(&busy); }

static char version[64] = "5.0.0";
static char calls[LOG_SIZE];
static size_t callsLength;
static int32_t nextHandle = 7;
/* One scripted failure: after `failAfter` more calls of `failEntry`, the next returns `failCode`. */
static char failEntry[64];
static int32_t failCode;
static int failAfter;
static uint8_t frames[MAX_FRAMES][MAX_FRAME];
static int32_t frameLengths[MAX_FRAMES];
static int frameCount;
/* Frames that go to the receive queue one per transmit, as a reader's answers would. */
static int repliesHeld;
static int presentPorts[256];

/* The caller holds the lock. */
static void record(const char* line)
{
    size_t n = strlen(line);
    if (callsLength + n + 2 > LOG_SIZE) return;
    memcpy(calls + callsLength, line, n);
    callsLength += n;
    calls[callsLength++] = '\n';
    calls[callsLength] = '\0';
}

/* Records the call and gives the scripted failure of this entry, or 0. */
static int32_t called(const char* entry, const char* line)
{
    int32_t code = 0;
    lock();
    record(line);
    if (strcmp(failEntry, entry) == 0 && failAfter-- == 0) {
        code = failCode;
        failEntry[0] = '\0';
    }
    unlock();
    return code;
}

static int hexValue(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

STANDIN_API const char* ZKCOM_GetDLLVersion(void) { return version; }

STANDIN_API int32_t ZKCOM_GetErrorText(int32_t code, char* text, int32_t size)
{
    if (text == NULL || size <= 0) return -1099;
    snprintf(text, (size_t)size, "STANDIN error %d", code);
    return 0;
}

STANDIN_API int32_t ZKCOM_OpenPort(const char* port)
{
    char line[128];
    snprintf(line, sizeof line, "OpenPort %s", port != NULL ? port : "(null)");
    int32_t code = called("OpenPort", line);
    if (code != 0) return code;
    lock();
    code = nextHandle++;
    unlock();
    return code;
}

STANDIN_API int32_t ZKCOM_ClosePort(int32_t handle)
{
    char line[64];
    snprintf(line, sizeof line, "ClosePort %d", handle);
    return called("ClosePort", line);
}

STANDIN_API int32_t ZKCOM_Transmit(int32_t handle, const uint8_t* data, int32_t length)
{
    char line[64];
    (void)data;
    snprintf(line, sizeof line, "Transmit %d %d", handle, length);
    int32_t code = called("Transmit", line);
    lock();
    if (code == 0 && repliesHeld > 0) --repliesHeld;
    unlock();
    return code;
}

STANDIN_API int32_t ZKCOM_Receive(int32_t handle, uint8_t* buffer, int32_t size)
{
    int32_t code = 0;
    (void)handle;
    lock();
    if (strcmp(failEntry, "Receive") == 0) {
        code = failCode;
        failEntry[0] = '\0';
    } else if (frameCount > repliesHeld) {
        code = frameLengths[0] <= size ? frameLengths[0] : -1012;
        if (code > 0) memcpy(buffer, frames[0], (size_t)code);
        --frameCount;
        memmove(frames[0], frames[1], sizeof frames[0] * (size_t)frameCount);
        memmove(frameLengths, frameLengths + 1, sizeof frameLengths[0] * (size_t)frameCount);
    } else {
        code = TIMEOUT_CODE;
    }
    unlock();
    /* Nothing to hand out: wait a little, as a port does, instead of letting callers spin. */
    if (code == TIMEOUT_CODE) pauseMs(20);
    return code;
}

STANDIN_API int32_t ZKCOM_GetPortPara(int32_t handle, const char* name, char* value, int32_t size)
{
    char line[160];
    snprintf(line, sizeof line, "GetPortPara %d %s", handle, name != NULL ? name : "(null)");
    if (value != NULL && size > 0) value[0] = '\0';
    return called("GetPortPara", line);
}

STANDIN_API int32_t ZKCOM_SetPortPara(int32_t handle, const char* name, const char* value)
{
    char line[256];
    snprintf(line, sizeof line, "SetPortPara %d %s %s", handle, name != NULL ? name : "(null)",
             value != NULL ? value : "(null)");
    return called("SetPortPara", line);
}

STANDIN_API int32_t ZKCOM_DoPortCmd(int32_t handle, const char* command, const char* value)
{
    char line[160];
    snprintf(line, sizeof line, "DoPortCmd %d %s %s", handle, command != NULL ? command : "(null)",
             value != NULL ? value : "(null)");
    return called("DoPortCmd", line);
}

#if !defined(STANDIN_WITHOUT_DETECTPORT)
STANDIN_API int32_t ZKCOM_DetectPort(int32_t port)
{
    char line[64];
    snprintf(line, sizeof line, "DetectPort %d", port);
    int32_t code = called("DetectPort", line);
    if (code != 0) return code;
    return port >= 0 && port < 256 && presentPorts[port] ? 0 : -1001;
}
#endif

/* Commands, one per call:
     "reset"                  forget calls, scripts and ports
     "version TEXT"           what ZKCOM_GetDLLVersion answers
     "fail ENTRY CODE [N]"    the call of ENTRY (e.g. SetPortPara) after N more returns CODE
     "frame HEX"              queue a frame for ZKCOM_Receive
     "reply HEX"              queue a frame that ZKCOM_Receive hands out after the next transmit
     "present N"              port N exists for ZKCOM_DetectPort
     "calls"                  the reply is every call so far, one line each
   The reply is "ok", the call lines, or "unknown". */
STANDIN_API int32_t STANDIN_Control(const char* command, char* reply, int32_t size)
{
    const char* answer = "ok";
    if (command == NULL || reply == NULL || size <= 0) return -1;
    lock();
    if (strcmp(command, "reset") == 0) {
        callsLength = 0;
        calls[0] = '\0';
        failEntry[0] = '\0';
        frameCount = 0;
        repliesHeld = 0;
        memset(presentPorts, 0, sizeof presentPorts);
        strcpy(version, "5.0.0");
    } else if (strncmp(command, "version ", 8) == 0) {
        snprintf(version, sizeof version, "%s", command + 8);
    } else if (strncmp(command, "fail ", 5) == 0) {
        failAfter = 0;
        if (sscanf(command + 5, "%63s %d %d", failEntry, &failCode, &failAfter) < 2) answer = "unknown";
    } else if ((strncmp(command, "frame ", 6) == 0 || strncmp(command, "reply ", 6) == 0) && frameCount < MAX_FRAMES) {
        int32_t n = 0;
        const char* p = command + 6;
        if (command[0] == 'r') ++repliesHeld;
        while (p[0] != '\0' && p[1] != '\0' && n < MAX_FRAME && hexValue(p[0]) >= 0 && hexValue(p[1]) >= 0) {
            frames[frameCount][n++] = (uint8_t)(hexValue(p[0]) * 16 + hexValue(p[1]));
            p += 2;
        }
        frameLengths[frameCount++] = n;
    } else if (strncmp(command, "present ", 8) == 0) {
        int port = atoi(command + 8);
        if (port >= 0 && port < 256) presentPorts[port] = 1;
    } else if (strcmp(command, "calls") == 0) {
        answer = calls;
    } else {
        answer = "unknown";
    }
    snprintf(reply, (size_t)size, "%s", answer);
    unlock();
    return 0;
}
