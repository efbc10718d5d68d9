#if !defined(_WIN32) && !defined(_POSIX_C_SOURCE)
#  define _POSIX_C_SOURCE 200809L
#endif

#include "standin_common.h"

#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* ---- Threads, lock and waits, one whole set per system ---- */

static void eventLoop(void* argument);

#if defined(_WIN32)
#  ifndef _WIN32_WINNT
#    define _WIN32_WINNT 0x0601
#  endif
#  include <windows.h>

typedef HANDLE ThreadHandle;
typedef DWORD ThreadId;

static SRWLOCK mutex = SRWLOCK_INIT;
static CONDITION_VARIABLE eventsChanged = CONDITION_VARIABLE_INIT;
static CONDITION_VARIABLE framesChanged = CONDITION_VARIABLE_INIT;
typedef CONDITION_VARIABLE Condition;

void standinLock(void) { AcquireSRWLockExclusive(&mutex); }
void standinUnlock(void) { ReleaseSRWLockExclusive(&mutex); }
static void waitFor(Condition* condition) { SleepConditionVariableSRW(condition, &mutex, INFINITE, 0); }
static void waitForAtMost(Condition* condition, int ms) { SleepConditionVariableSRW(condition, &mutex, (DWORD)ms, 0); }
static void wakeAll(Condition* condition) { WakeAllConditionVariable(condition); }
static uint64_t nowMs(void) { return GetTickCount64(); }
static ThreadId currentThread(void) { return GetCurrentThreadId(); }
static int sameThread(ThreadId a, ThreadId b) { return a == b; }

static DWORD WINAPI eventLoopEntry(LPVOID argument)
{
    eventLoop(argument);
    return 0;
}

static int startThread(void* argument, ThreadHandle* handle, ThreadId* id)
{
    *handle = CreateThread(NULL, 0, eventLoopEntry, argument, 0, id);
    return *handle != NULL;
}

static void joinThread(ThreadHandle handle)
{
    WaitForSingleObject(handle, INFINITE);
    CloseHandle(handle);
}

static void detachThread(ThreadHandle handle) { CloseHandle(handle); }

#else
#  include <pthread.h>
#  include <time.h>

typedef pthread_t ThreadHandle;
typedef pthread_t ThreadId;

static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t eventsChanged = PTHREAD_COND_INITIALIZER;
static pthread_cond_t framesChanged = PTHREAD_COND_INITIALIZER;
typedef pthread_cond_t Condition;

void standinLock(void) { pthread_mutex_lock(&mutex); }
void standinUnlock(void) { pthread_mutex_unlock(&mutex); }

static void waitFor(Condition* condition) { pthread_cond_wait(condition, &mutex); }

static void waitForAtMost(Condition* condition, int ms)
{
    struct timespec until;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += ms / 1000;
    until.tv_nsec += (long)(ms % 1000) * 1000000L;
    if (until.tv_nsec >= 1000000000L) {
        ++until.tv_sec;
        until.tv_nsec -= 1000000000L;
    }
    pthread_cond_timedwait(condition, &mutex, &until);
}

static void wakeAll(Condition* condition) { pthread_cond_broadcast(condition); }

static uint64_t nowMs(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (uint64_t)t.tv_sec * 1000u + (uint64_t)t.tv_nsec / 1000000u;
}

static ThreadId currentThread(void) { return pthread_self(); }
static int sameThread(ThreadId a, ThreadId b) { return pthread_equal(a, b); }

static void* eventLoopEntry(void* argument)
{
    eventLoop(argument);
    return NULL;
}

static int startThread(void* argument, ThreadHandle* handle, ThreadId* id)
{
    if (pthread_create(handle, NULL, eventLoopEntry, argument) != 0) return 0;
    *id = *handle;
    return 1;
}

static void joinThread(ThreadHandle handle) { pthread_join(handle, NULL); }
static void detachThread(ThreadHandle handle) { pthread_detach(handle); }
#endif

/* ---- State, all under the lock ---- */

#define LOG_SIZE 65536
#define MAX_FRAMES 64
#define VERSION_SLOTS 8
#define MAX_TEXTS 1024

static char calls[LOG_SIZE];
static size_t callsLength;

/* One scripted failure: after `failAfter` more calls of `failEntry`, the next returns `failCode`. */
static char failEntry[64];
static int32_t failCode;
static int failAfter;

/* Queued bytes in order. A held frame is a reader's answer that is not there before the
   transmit it answers; `offset` is how much of a frame a byte-stream read already took. */
typedef struct Frame {
    uint8_t* bytes;
    int32_t length;
    int32_t offset;
    int held;
} Frame;
static Frame frames[MAX_FRAMES];
static int frameCount;
static int countSet;
static int32_t countValue;

/* The version text is handed out by pointer and read without the lock, so a change writes
   a fresh slot rather than the text a caller may still be reading. */
static char versions[VERSION_SLOTS][64];
static unsigned versionSlot;
static _Atomic(const char*) versionNow;

/* At most one event thread is current. A stopped one may still be finishing a delivery;
   it leaves when it sees the generation has moved on. */
static struct {
    int running;
    unsigned generation;
    int stoppedAlive;
    ThreadHandle handle;
    ThreadId id;
} events;
/* The delivery running now; deliveries never overlap, even across a restart. */
static struct {
    int active;
    StandinFunction target;
    int32_t tag;
    ThreadId thread;
} delivering;
static uint64_t fired;

/* ---- Calls and failures ---- */

void standinRecord(const char* line)
{
    size_t n = strlen(line);
    if (callsLength + n + 2 > LOG_SIZE) return;
    memcpy(calls + callsLength, line, n);
    callsLength += n;
    calls[callsLength++] = '\n';
    calls[callsLength] = '\0';
}

int32_t standinCalledLocked(const char* entry, const char* line)
{
    int32_t code = 0;
    if (line != NULL) standinRecord(line);
    if (strcmp(failEntry, entry) == 0 && failAfter-- == 0) {
        code = failCode;
        failEntry[0] = '\0';
    }
    return code;
}

int32_t standinCalled(const char* entry, const char* line)
{
    standinLock();
    int32_t code = standinCalledLocked(entry, line);
    standinUnlock();
    return code;
}

int standinPolledFailure(const char* entry, int32_t* code)
{
    if (strcmp(failEntry, entry) != 0 || failAfter != 0) return 0;
    failEntry[0] = '\0';
    *code = failCode;
    return 1;
}

void standinPolledHandedOut(const char* entry)
{
    if (strcmp(failEntry, entry) == 0 && failAfter > 0) --failAfter;
}

/* ---- Frames ---- */

static int hexValue(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

int standinParseHex(const char* text, uint32_t* value)
{
    uint32_t result = 0;
    size_t n = 0;
    for (; text[n] != '\0'; ++n) {
        if (n == 8 || hexValue(text[n]) < 0) return 0;
        result = result * 16u + (uint32_t)hexValue(text[n]);
    }
    if (n == 0) return 0;
    *value = result;
    return 1;
}

/* Queues the hex pairs at the start of `hex`: 0 when the queue is full. */
static int queueFrame(const char* hex, int held)
{
    size_t n = 0;
    if (frameCount == MAX_FRAMES) return 0;
    while (hexValue(hex[2 * n]) >= 0 && hexValue(hex[2 * n + 1]) >= 0) ++n;
    if (n > INT32_MAX) return 0;
    uint8_t* bytes = malloc(n > 0 ? n : 1);
    if (bytes == NULL) return 0;
    for (size_t i = 0; i < n; ++i) bytes[i] = (uint8_t)(hexValue(hex[2 * i]) * 16 + hexValue(hex[2 * i + 1]));
    frames[frameCount].bytes = bytes;
    frames[frameCount].length = (int32_t)n;
    frames[frameCount].offset = 0;
    frames[frameCount].held = held;
    ++frameCount;
    wakeAll(&framesChanged);
    return 1;
}

static void dropFrame(int index)
{
    free(frames[index].bytes);
    --frameCount;
    memmove(frames + index, frames + index + 1, sizeof frames[0] * (size_t)(frameCount - index));
}

int32_t standinTransmit(const char* line)
{
    standinLock();
    int32_t code = standinCalledLocked("Transmit", line);
    if (code == 0) {
        for (int i = 0; i < frameCount; ++i) {
            if (frames[i].held) {
                frames[i].held = 0;
                wakeAll(&framesChanged);
                break;
            }
        }
    }
    standinUnlock();
    return code;
}

/* Hands out the oldest frame that is not held back: 1 and `*result` set, or 0 without one. */
static int takeFrame(uint8_t* buffer, int32_t size, int whole, int32_t tooLongCode, int32_t* result,
                     const char* line)
{
    int i = 0;
    while (i < frameCount && frames[i].held) ++i;
    if (i == frameCount) return 0;
    Frame* frame = &frames[i];
    int32_t left = frame->length - frame->offset;
    if (whole && left > size) {
        *result = tooLongCode;
        dropFrame(i);
        return 1;
    }
    int32_t n = left < size ? left : size;
    if (n < 0) n = 0;
    if (n > 0) memcpy(buffer, frame->bytes + frame->offset, (size_t)n);
    frame->offset += n;
    if (frame->offset >= frame->length) dropFrame(i);
    *result = countSet ? countValue : n;
    countSet = 0;
    standinPolledHandedOut("Receive");
    if (line != NULL) standinRecord(line);
    return 1;
}

int32_t standinReceive(uint8_t* buffer, int32_t size, int whole, int32_t tooLongCode, int32_t timeoutCode,
                       const char* line)
{
    int32_t result = timeoutCode;
    standinLock();
    /* Nothing to hand out: wait a little, as a device does, instead of letting callers spin. */
    const uint64_t deadline = nowMs() + 20;
    for (;;) {
        if (standinPolledFailure("Receive", &result)) break;
        if (takeFrame(buffer, size, whole, tooLongCode, &result, line)) break;
        const uint64_t now = nowMs();
        if (now >= deadline) {
            result = timeoutCode;
            break;
        }
        waitForAtMost(&framesChanged, (int)(deadline - now));
    }
    standinUnlock();
    return result;
}

/* ---- Texts ---- */

/* Texts are kept for good, so a pointer handed out stays valid on every thread; thread-local
   buffers would do too, but LeakSanitizer trips over the thread-local storage of libraries
   loaded at run time. */
const char* standinErrorText(int32_t code)
{
    static struct {
        int32_t code;
        char text[32];
    } texts[MAX_TEXTS];
    static int textCount;
    const char* text = "STANDIN error (too many codes)";
    standinLock();
    int i = 0;
    while (i < textCount && texts[i].code != code) ++i;
    if (i == textCount && textCount < MAX_TEXTS) {
        texts[i].code = code;
        snprintf(texts[i].text, sizeof texts[i].text, "STANDIN error %d", code);
        ++textCount;
    }
    if (i < textCount) text = texts[i].text;
    standinUnlock();
    return text;
}

const char* standinVersion(void)
{
    const char* version = atomic_load(&versionNow);
    return version != NULL ? version : standinDefaultVersion;
}

/* ---- The event thread ---- */

static void eventLoop(void* argument)
{
    const unsigned mine = (unsigned)(uintptr_t)argument;
    standinLock();
    while (events.generation == mine) {
        StandinDelivery delivery;
        memset(&delivery, 0, sizeof delivery);
        if (delivering.active || !standinNextDelivery(&delivery)) {
            waitFor(&eventsChanged);
            continue;
        }
        delivering.active = 1;
        delivering.target = delivery.target;
        delivering.tag = delivery.tag;
        delivering.thread = currentThread();
        standinUnlock();
        standinDeliver(&delivery);
        standinLock();
        delivering.active = 0;
        if (delivery.finishes) ++fired;
        wakeAll(&eventsChanged);
    }
    --events.stoppedAlive;
    wakeAll(&eventsChanged);
    standinUnlock();
}

void standinStartEvents(void)
{
    if (events.running) return;
    if (!startThread((void*)(uintptr_t)events.generation, &events.handle, &events.id)) return;
    events.running = 1;
}

void standinWakeEvents(void) { wakeAll(&eventsChanged); }

void standinEventDropped(void) { ++fired; }

void standinAwaitDelivery(StandinFunction target, int32_t tag)
{
    const ThreadId self = currentThread();
    while (delivering.active && !sameThread(delivering.thread, self) &&
           (target == NULL || (delivering.target == target && delivering.tag == tag)))
        waitFor(&eventsChanged);
}

/* Stops the event thread and waits until no stopped one is left, unless called from inside
   a delivery, which must not wait for its own thread. */
static void stopEvents(void)
{
    standinLock();
    const ThreadId self = currentThread();
    const int inside = delivering.active && sameThread(delivering.thread, self);
    if (events.running) {
        ThreadHandle handle = events.handle;
        const int own = sameThread(events.id, self);
        events.running = 0;
        ++events.generation;
        ++events.stoppedAlive;
        wakeAll(&eventsChanged);
        if (own) {
            detachThread(handle);
        } else {
            standinUnlock();
            joinThread(handle);
            standinLock();
        }
    }
    while (!inside && events.stoppedAlive > 0) waitFor(&eventsChanged);
    standinUnlock();
}

/* ---- STANDIN_Control ---- */

static void forgetAll(void)
{
    callsLength = 0;
    calls[0] = '\0';
    failEntry[0] = '\0';
    while (frameCount > 0) dropFrame(frameCount - 1);
    countSet = 0;
    atomic_store(&versionNow, NULL);
    wakeAll(&framesChanged);
}

static int parseInt32(const char* text, int32_t* value)
{
    char* end = NULL;
    long long n = strtoll(text, &end, 10);
    if (end == text || *end != '\0' || n < INT32_MIN || n > INT32_MAX) return 0;
    *value = (int32_t)n;
    return 1;
}

STANDIN_API int32_t STANDIN_Control(const char* command, char* reply, int32_t size);

STANDIN_API int32_t STANDIN_Control(const char* command, char* reply, int32_t size)
{
    const char* answer = "ok";
    char number[32];
    if (command == NULL || reply == NULL || size <= 0) return -1;
    if (strcmp(command, "reset") == 0 || strcmp(command, "calm") == 0) {
        standinLock();
        standinOwnCalm();
        standinUnlock();
        stopEvents();
        standinLock();
        fired = 0;
        standinUnlock();
        if (command[0] == 'r') {
            standinLock();
            forgetAll();
            standinOwnReset();
            standinUnlock();
        }
        snprintf(reply, (size_t)size, "%s", answer);
        return 0;
    }
    standinLock();
    if (strncmp(command, "version ", 8) == 0) {
        versionSlot = (versionSlot + 1) % VERSION_SLOTS;
        snprintf(versions[versionSlot], sizeof versions[0], "%s", command + 8);
        atomic_store(&versionNow, versions[versionSlot]);
    } else if (strncmp(command, "fail ", 5) == 0) {
        failAfter = 0;
        if (sscanf(command + 5, "%63s %d %d", failEntry, &failCode, &failAfter) < 2) {
            failEntry[0] = '\0';
            answer = "unknown";
        }
    } else if (strncmp(command, "frame ", 6) == 0 || strncmp(command, "reply ", 6) == 0) {
        if (!queueFrame(command + 6, command[0] == 'r')) answer = "unknown";
    } else if (strncmp(command, "count ", 6) == 0) {
        if (parseInt32(command + 6, &countValue))
            countSet = 1;
        else
            answer = "unknown";
    } else if (strcmp(command, "calls") == 0) {
        answer = calls;
    } else if (strcmp(command, "fired") == 0) {
        snprintf(number, sizeof number, "%llu", (unsigned long long)fired);
        answer = number;
    } else if (!standinOwnCommand(command, &answer)) {
        answer = "unknown";
    }
    snprintf(reply, (size_t)size, "%s", answer);
    standinUnlock();
    return 0;
}

static int32_t nextHandle = 7;

int32_t standinOpen(const char* entry, const char* line)
{
    standinLock();
    int32_t code = standinCalledLocked(entry, line);
    if (code == 0) code = nextHandle++;
    standinUnlock();
    return code;
}

int32_t standinHandleCall(const char* entry, int32_t handle)
{
    char line[96];
    snprintf(line, sizeof line, "%s %d", entry, handle);
    return standinCalled(entry, line);
}

int32_t standinTransmitOn(int32_t handle, long long length)
{
    char line[64];
    snprintf(line, sizeof line, "Transmit %d %lld", handle, length);
    return standinTransmit(line);
}

int32_t standinReceiveWhole(int32_t handle, uint8_t* buffer, int32_t size, int32_t tooLongCode, int32_t timeoutCode)
{
    char line[64];
    snprintf(line, sizeof line, "Receive %d %d", handle, size);
    return standinReceive(buffer, size, 1, tooLongCode, timeoutCode, line);
}

int32_t standinPutCall(const char* entry, int32_t handle, const char* key, const char* value)
{
    char line[256];
    snprintf(line, sizeof line, "%s %d %s %s", entry, handle, key != NULL ? key : "(null)",
             value != NULL ? value : "(null)");
    return standinCalled(entry, line);
}

int32_t standinGetCall(const char* entry, int32_t handle, const char* key, char* value, long long size)
{
    char line[160];
    snprintf(line, sizeof line, "%s %d %s", entry, handle, key != NULL ? key : "(null)");
    if (value != NULL && size > 0) value[0] = '\0';
    return standinCalled(entry, line);
}
