/* A custom transport library with a reader inside: every request frame handed to
   TOVRA_PLI_Transmit is answered by a virtual reader, the way a reader answers a command it
   knows, and the answer comes back through TOVRA_PLI_Receive. Nothing leaves the process.

   It is meant as a starting point for a real transport. Keep the connection table, the
   error table and the threading scheme; replace the frame queue with the real link (see
   README.md).

   Connector:  cust:libname=<this library>:delay=<ms>
       delay   milliseconds between a request and its answer (0 to 60000, default 0)

   Thread safety: one lock guards every connection; a receive waits on its connection's
   condition variable, so a transmit or a disconnect on another thread wakes it at once. */

#if !defined(_WIN32) && !defined(_POSIX_C_SOURCE)
#  define _POSIX_C_SOURCE 200809L /* clock_gettime, pthread_condattr_setclock */
#endif

#include "tovra/transport.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* ---------------------------------------------------------------------------------------
   The operating system: one lock, condition variables, a monotonic clock. Nothing below
   this section depends on the platform. */

#if defined(_WIN32)

#  ifndef WIN32_LEAN_AND_MEAN
#    define WIN32_LEAN_AND_MEAN
#  endif
#  include <windows.h>

typedef CONDITION_VARIABLE vr_cond;

static SRWLOCK vr_mutex = SRWLOCK_INIT;

static void vr_lock(void) { AcquireSRWLockExclusive(&vr_mutex); }
static void vr_unlock(void) { ReleaseSRWLockExclusive(&vr_mutex); }
static int vr_cond_init(vr_cond* cond)
{
    InitializeConditionVariable(cond);
    return 0;
}
static void vr_cond_destroy(vr_cond* cond) { (void)cond; }
static void vr_cond_broadcast(vr_cond* cond) { WakeAllConditionVariable(cond); }

static uint64_t vr_now_ns(void)
{
    LARGE_INTEGER count, frequency;
    QueryPerformanceCounter(&count);
    QueryPerformanceFrequency(&frequency);
    const uint64_t c = (uint64_t)count.QuadPart, f = (uint64_t)frequency.QuadPart;
    /* Split so that the multiplication cannot overflow however long the machine runs. */
    return c / f * 1000000000u + c % f * 1000000000u / f;
}

/* Waits with the lock held until woken, or at most `ns`; it may return early. */
static void vr_cond_wait(vr_cond* cond, uint64_t ns)
{
    /* Rounded up: the caller checks the clock again and must not spin on a 0 ms wait. */
    uint64_t ms = (ns + 999999u) / 1000000u;
    if (ms >= INFINITE) ms = INFINITE - 1;
    SleepConditionVariableSRW(cond, &vr_mutex, (DWORD)ms, 0);
}

#else

#  include <pthread.h>
#  include <time.h>

typedef pthread_cond_t vr_cond;

static pthread_mutex_t vr_mutex = PTHREAD_MUTEX_INITIALIZER;

static void vr_lock(void) { pthread_mutex_lock(&vr_mutex); }
static void vr_unlock(void) { pthread_mutex_unlock(&vr_mutex); }

/* On the monotonic clock, so that setting the wall clock cannot stretch a receive. */
static int vr_cond_init(vr_cond* cond)
{
    pthread_condattr_t attributes;
    if (pthread_condattr_init(&attributes) != 0) return -1;
    int result = pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    if (result == 0) result = pthread_cond_init(cond, &attributes);
    pthread_condattr_destroy(&attributes);
    return result;
}
static void vr_cond_destroy(vr_cond* cond) { pthread_cond_destroy(cond); }
static void vr_cond_broadcast(vr_cond* cond) { pthread_cond_broadcast(cond); }

static uint64_t vr_now_ns(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (uint64_t)now.tv_sec * 1000000000u + (uint64_t)now.tv_nsec;
}

/* Waits with the lock held until woken, or at most `ns`; it may return early. */
static void vr_cond_wait(vr_cond* cond, uint64_t ns)
{
    const uint64_t until = vr_now_ns() + ns;
    struct timespec deadline;
    deadline.tv_sec = (time_t)(until / 1000000000u);
    deadline.tv_nsec = (long)(until % 1000000000u);
    pthread_cond_timedwait(cond, &vr_mutex, &deadline);
}

#endif

/* ---------------------------------------------------------------------------------------
   Results and their texts. The codes stay clear of tovra's own (-5000 to -5999) and of
   TOVRA_PLI_TIMEOUT. */

enum {
    VR_NOT_CONNECTED = -9001,
    VR_INVALID_ARGUMENT = -9002,
    VR_INVALID_CONNECTOR = -9003,
    VR_TOO_MANY_CONNECTIONS = -9004,
    VR_OUT_OF_MEMORY = -9005,
    VR_INVALID_FRAME = -9006,
    VR_QUEUE_FULL = -9007,
    VR_BUFFER_TOO_SMALL = -9008,
    VR_UNKNOWN_PARAMETER = -9009,
    VR_INVALID_VALUE = -9010,
};

static const struct {
    int32_t code;
    const char* text;
} vr_errors[] = {
    {0, "OK"},
    {TOVRA_PLI_TIMEOUT, "No frame within the receive wait"},
    {VR_NOT_CONNECTED, "Not connected (unknown or closed port handle)"},
    {VR_INVALID_ARGUMENT, "Invalid argument (null pointer)"},
    {VR_INVALID_CONNECTOR, "Invalid connector (delay must be 0 to 60000 ms)"},
    {VR_TOO_MANY_CONNECTIONS, "Too many connections"},
    {VR_OUT_OF_MEMORY, "Out of memory or system resources"},
    {VR_INVALID_FRAME, "Invalid frame (length or CRC wrong); not answered"},
    {VR_QUEUE_FULL, "Too many answers not yet received"},
    {VR_BUFFER_TOO_SMALL, "Receive buffer too small for the frame; the frame was dropped"},
    {VR_UNKNOWN_PARAMETER, "Unknown port parameter"},
    {VR_INVALID_VALUE, "Invalid port parameter value"},
};

/* ---------------------------------------------------------------------------------------
   Frames. The first byte tells the generation: a standard frame starts with its total
   length (5..255); advanced (0x02) and enhanced (0x03) frames carry a big-endian 16-bit
   length next. The CRC closes every frame, low byte first. */

enum {
    VR_ADVANCED = 0x02,
    VR_ENHANCED = 0x03,
    VR_DIRECTION_REQUEST = 0x01,
    VR_DIRECTION_RESPONSE = 0x02,
    VR_MAX_STANDARD_LENGTH = 255,
    VR_MAX_LENGTH = 32768,
};

/* CRC-16: polynomial 0x1021 bit-reflected, start 0xFFFF, no final xor. */
static uint16_t vr_crc16(const uint8_t* bytes, size_t length)
{
    uint16_t crc = 0xFFFF;
    for (size_t i = 0; i < length; ++i) {
        crc = (uint16_t)(crc ^ bytes[i]);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1u) != 0 ? (uint16_t)((crc >> 1) ^ 0x8408u) : (uint16_t)(crc >> 1);
    }
    return crc;
}

static size_t vr_header_size(uint8_t first)
{
    if (first == VR_ENHANCED) return 6;
    if (first == VR_ADVANCED) return 4;
    return 2;
}

/* The header size of a whole, intact frame of exactly `length` bytes; 0 for anything else.
   A frame needs at least a command byte between header and CRC. */
static size_t vr_check_frame(const uint8_t* frame, size_t length)
{
    if (length < 3) return 0;
    const uint8_t first = frame[0];
    if (first < 5 && first != VR_ADVANCED && first != VR_ENHANCED) return 0;
    const size_t header = vr_header_size(first);
    const size_t declared = first >= 5 ? first : (size_t)frame[1] << 8 | frame[2];
    if (declared != length || length > VR_MAX_LENGTH || length < header + 1 + 2) return 0;
    const uint16_t crc = vr_crc16(frame, length - 2);
    if (frame[length - 2] != (uint8_t)crc || frame[length - 1] != (uint8_t)(crc >> 8)) return 0;
    return header;
}

/* The reader's answer to a checked request: [command, status 0x00, rest of the request's
   payload], cut to what the generation can carry, in the request's generation and bus
   address. `answer` has room for `length + 1` bytes; returns the answer's length. */
static size_t vr_make_answer(const uint8_t* request, size_t length, size_t header, uint8_t* answer)
{
    const uint8_t first = request[0];
    const size_t maxLength = first >= 5 ? VR_MAX_STANDARD_LENGTH : VR_MAX_LENGTH;
    size_t payload = length - header - 2 + 1; /* one status byte more than the request */
    if (header + payload + 2 > maxLength) payload = maxLength - header - 2;
    const size_t total = header + payload + 2;

    switch (first) {
    case VR_ENHANCED:
        answer[0] = VR_ENHANCED;
        answer[1] = (uint8_t)(total >> 8);
        answer[2] = (uint8_t)total;
        answer[3] = 0x00;
        answer[4] = VR_DIRECTION_RESPONSE;
        break;
    case VR_ADVANCED:
        answer[0] = VR_ADVANCED;
        answer[1] = (uint8_t)(total >> 8);
        answer[2] = (uint8_t)total;
        break;
    default:
        answer[0] = (uint8_t)total;
        break;
    }
    answer[header - 1] = request[header - 1]; /* bus address */
    answer[header] = request[header];         /* command */
    answer[header + 1] = 0x00;                /* status: OK */
    memcpy(answer + header + 2, request + header + 1, payload - 2);
    const uint16_t crc = vr_crc16(answer, total - 2);
    answer[total - 2] = (uint8_t)crc;
    answer[total - 1] = (uint8_t)(crc >> 8);
    return total;
}

/* ---------------------------------------------------------------------------------------
   Connections. A real transport keeps its socket or device here instead of the queue. */

enum {
    VR_MAX_CONNECTIONS = 64,
    VR_MAX_QUEUED = 256,         /* answers nobody has received yet, per connection */
    VR_MAX_DELAY_MS = 60000,
    VR_RECEIVE_WAIT_MS = 100,
};

struct vr_answer {
    struct vr_answer* next;
    uint64_t due; /* vr_now_ns() from which it may be received */
    size_t length;
    uint8_t bytes[];
};

struct vr_port {
    int32_t handle;
    int open;      /* cleared by TOVRA_PLI_Disconnect */
    int receivers; /* receives inside; the last one out frees a closed port */
    uint32_t delayMs;
    vr_cond changed; /* an answer was queued or the port closed */
    struct vr_answer* first;
    struct vr_answer* last;
    size_t queued;
};

/* All guarded by vr_mutex, as is every field of every port. */
static struct vr_port* vr_ports[VR_MAX_CONNECTIONS];
static int32_t vr_lastHandle;

static struct vr_port* vr_find(int32_t handle)
{
    for (size_t i = 0; i < VR_MAX_CONNECTIONS; ++i)
        if (vr_ports[i] != NULL && vr_ports[i]->handle == handle) return vr_ports[i];
    return NULL;
}

static void vr_drop_answers(struct vr_port* port)
{
    while (port->first != NULL) {
        struct vr_answer* next = port->first->next;
        free(port->first);
        port->first = next;
    }
    port->last = NULL;
    port->queued = 0;
}

static void vr_free_port(struct vr_port* port)
{
    vr_drop_answers(port);
    vr_cond_destroy(&port->changed);
    free(port);
}

/* Handles count up and are not reused soon, so a call with a stale handle does not reach
   a newer connection. */
static int32_t vr_next_handle(void)
{
    do vr_lastHandle = vr_lastHandle == INT32_MAX ? 1 : vr_lastHandle + 1;
    while (vr_find(vr_lastHandle) != NULL);
    return vr_lastHandle;
}

/* ---------------------------------------------------------------------------------------
   Connector and parameter texts. */

static char vr_lower(char c) { return c >= 'A' && c <= 'Z' ? (char)(c - 'A' + 'a') : c; }

static int vr_equal_folded(const char* a, const char* b)
{
    while (*a != '\0' && vr_lower(*a) == vr_lower(*b)) {
        ++a;
        ++b;
    }
    return vr_lower(*a) == vr_lower(*b);
}

static void vr_append(char* text, size_t size, size_t* used, char c, int* cut)
{
    if (*used + 1 < size) text[(*used)++] = c;
    else *cut = 1;
    text[*used] = '\0';
}

/* Reads the next "key=value" section of a connector the way tovra reads it: sections end
   at ':', blanks are dropped, double quotes keep a value's ':' and blanks (a Windows path
   for libname, say). Key and value are cut to their buffers, which sets *cut. Returns the
   text after the section, or NULL after the last one. */
static const char* vr_next_section(const char* text, char* key, size_t keySize, char* value, size_t valueSize,
                                   int* cut)
{
    size_t keyUsed = 0, valueUsed = 0;
    int inValue = 0, quoted = 0;
    key[0] = value[0] = '\0';
    *cut = 0;
    for (; *text != '\0'; ++text) {
        const char c = *text;
        if (quoted) {
            if (c == '"') quoted = 0;
            else vr_append(value, valueSize, &valueUsed, c, cut);
        } else if (c == ':') {
            return text + 1;
        } else if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
            continue;
        } else if (!inValue) {
            if (c == '=') inValue = 1;
            else vr_append(key, keySize, &keyUsed, vr_lower(c), cut);
        } else if (c == '"') {
            quoted = 1;
        } else {
            vr_append(value, valueSize, &valueUsed, c, cut);
        }
    }
    return NULL;
}

/* Decimal milliseconds, digits only, 0 to VR_MAX_DELAY_MS. */
static int vr_parse_delay(const char* text, uint32_t* delayMs)
{
    uint32_t value = 0;
    if (*text == '\0') return 0;
    for (; *text != '\0'; ++text) {
        if (*text < '0' || *text > '9') return 0;
        value = value * 10 + (uint32_t)(*text - '0');
        if (value > VR_MAX_DELAY_MS) return 0;
    }
    *delayMs = value;
    return 1;
}

/* The keys this library reads from a connector; tovra's own (libname) and unknown ones
   are passed over. A key given twice keeps its first value, as in tovra. */
static int32_t vr_read_connector(const char* connector, uint32_t* delayMs)
{
    char key[16], value[16];
    int cut = 0, haveDelay = 0;
    const char* text = connector;
    while (text != NULL) {
        text = vr_next_section(text, key, sizeof key, value, sizeof value, &cut);
        if (strcmp(key, "delay") == 0 && !haveDelay) {
            if (cut || !vr_parse_delay(value, delayMs)) return VR_INVALID_CONNECTOR;
            haveDelay = 1;
        }
    }
    return 0;
}

/* ---------------------------------------------------------------------------------------
   The entry points. */

TOVRA_PLI_EXPORT const char* TOVRA_PLI_CALL TOVRA_PLI_GetVersion(void) { return "1.0.0"; }

TOVRA_PLI_EXPORT const char* TOVRA_PLI_CALL TOVRA_PLI_GetErrorText(int32_t code)
{
    for (size_t i = 0; i < sizeof vr_errors / sizeof vr_errors[0]; ++i)
        if (vr_errors[i].code == code) return vr_errors[i].text;
    return "Unknown error code";
}

TOVRA_PLI_EXPORT int32_t TOVRA_PLI_CALL TOVRA_PLI_Connect(const char* connector)
{
    if (connector == NULL) return VR_INVALID_ARGUMENT;
    uint32_t delayMs = 0;
    const int32_t read = vr_read_connector(connector, &delayMs);
    if (read != 0) return read;

    struct vr_port* port = calloc(1, sizeof *port);
    if (port == NULL) return VR_OUT_OF_MEMORY;
    if (vr_cond_init(&port->changed) != 0) {
        free(port);
        return VR_OUT_OF_MEMORY;
    }
    port->open = 1;
    port->delayMs = delayMs;

    int32_t result = VR_TOO_MANY_CONNECTIONS;
    vr_lock();
    for (size_t i = 0; i < VR_MAX_CONNECTIONS; ++i) {
        if (vr_ports[i] == NULL) {
            port->handle = result = vr_next_handle();
            vr_ports[i] = port;
            break;
        }
    }
    vr_unlock();
    if (result < 0) vr_free_port(port);
    return result;
}

TOVRA_PLI_EXPORT int32_t TOVRA_PLI_CALL TOVRA_PLI_Disconnect(int32_t portHandle)
{
    struct vr_port* port = NULL;
    vr_lock();
    for (size_t i = 0; i < VR_MAX_CONNECTIONS; ++i) {
        if (vr_ports[i] != NULL && vr_ports[i]->handle == portHandle) {
            port = vr_ports[i];
            vr_ports[i] = NULL;
            break;
        }
    }
    if (port != NULL) {
        port->open = 0;
        vr_drop_answers(port);
        /* A waiting receive sees the port closed at once; the last one out frees it. */
        vr_cond_broadcast(&port->changed);
        if (port->receivers == 0) vr_free_port(port);
    }
    vr_unlock();
    return port != NULL ? 0 : VR_NOT_CONNECTED;
}

TOVRA_PLI_EXPORT int32_t TOVRA_PLI_CALL TOVRA_PLI_Transmit(int32_t portHandle, const uint8_t* data, size_t length)
{
    if (data == NULL) return VR_INVALID_ARGUMENT;
    const size_t header = vr_check_frame(data, length);
    int32_t result;
    vr_lock();
    struct vr_port* port = vr_find(portHandle);
    if (port == NULL) {
        result = VR_NOT_CONNECTED;
    } else if (header == 0) {
        result = VR_INVALID_FRAME;
    } else if (data[0] == VR_ENHANCED && (data[4] & VR_DIRECTION_REQUEST) == 0 &&
               (data[4] & VR_DIRECTION_RESPONSE) != 0) {
        /* The application answering a request of the reader's. This reader never asks
           anything, so there is nothing to do with it; a real transport sends it on. */
        result = (int32_t)length;
    } else if (port->queued >= VR_MAX_QUEUED) {
        result = VR_QUEUE_FULL;
    } else {
        struct vr_answer* answer = malloc(sizeof *answer + length + 1);
        if (answer == NULL) {
            result = VR_OUT_OF_MEMORY;
        } else {
            /* The delay is taken per answer, so a change reaches the next request only. */
            answer->next = NULL;
            answer->due = vr_now_ns() + (uint64_t)port->delayMs * 1000000u;
            answer->length = vr_make_answer(data, length, header, answer->bytes);
            if (port->last != NULL) port->last->next = answer;
            else port->first = answer;
            port->last = answer;
            ++port->queued;
            vr_cond_broadcast(&port->changed);
            result = (int32_t)length;
        }
    }
    vr_unlock();
    return result;
}

TOVRA_PLI_EXPORT int32_t TOVRA_PLI_CALL TOVRA_PLI_Receive(int32_t portHandle, uint8_t* buffer, size_t size)
{
    if (buffer == NULL) return VR_INVALID_ARGUMENT;
    int32_t result;
    vr_lock();
    struct vr_port* port = vr_find(portHandle);
    if (port == NULL) {
        vr_unlock();
        return VR_NOT_CONNECTED;
    }
    ++port->receivers;
    const uint64_t deadline = vr_now_ns() + (uint64_t)VR_RECEIVE_WAIT_MS * 1000000u;
    for (;;) {
        if (!port->open) {
            result = VR_NOT_CONNECTED;
            break;
        }
        const uint64_t now = vr_now_ns();
        struct vr_answer* answer = port->first;
        if (answer != NULL && answer->due <= now) {
            port->first = answer->next;
            if (port->first == NULL) port->last = NULL;
            --port->queued;
            /* A frame is handed over whole or not at all. */
            if (answer->length <= size) {
                memcpy(buffer, answer->bytes, answer->length);
                result = (int32_t)answer->length;
            } else {
                result = VR_BUFFER_TOO_SMALL;
            }
            free(answer);
            break;
        }
        if (now >= deadline) {
            result = TOVRA_PLI_TIMEOUT;
            break;
        }
        const uint64_t until = answer != NULL && answer->due < deadline ? answer->due : deadline;
        vr_cond_wait(&port->changed, until - now);
    }
    --port->receivers;
    if (!port->open && port->receivers == 0) vr_free_port(port);
    vr_unlock();
    return result;
}

TOVRA_PLI_EXPORT int32_t TOVRA_PLI_CALL TOVRA_PLI_PutPortParameter(int32_t portHandle, const char* key,
                                                                   const char* value)
{
    if (key == NULL || value == NULL) return VR_INVALID_ARGUMENT;
    uint32_t delayMs = 0;
    const int isDelay = vr_equal_folded(key, "delay");
    const int valid = isDelay && vr_parse_delay(value, &delayMs);
    int32_t result;
    vr_lock();
    struct vr_port* port = vr_find(portHandle);
    if (port == NULL) result = VR_NOT_CONNECTED;
    else if (!isDelay) result = VR_UNKNOWN_PARAMETER;
    else if (!valid) result = VR_INVALID_VALUE;
    else {
        port->delayMs = delayMs;
        result = 0;
    }
    vr_unlock();
    return result;
}

TOVRA_PLI_EXPORT int32_t TOVRA_PLI_CALL TOVRA_PLI_GetPortParameter(int32_t portHandle, const char* key, char* value,
                                                                   size_t size)
{
    if (key == NULL || (value == NULL && size > 0)) return VR_INVALID_ARGUMENT;
    const int isDelay = vr_equal_folded(key, "delay");
    uint32_t delayMs = 0;
    int32_t result;
    vr_lock();
    struct vr_port* port = vr_find(portHandle);
    if (port == NULL) result = VR_NOT_CONNECTED;
    else if (!isDelay) result = VR_UNKNOWN_PARAMETER;
    else {
        delayMs = port->delayMs;
        result = 0;
    }
    vr_unlock();
    if (result == 0 && size > 0) {
        char text[16];
        const int written = snprintf(text, sizeof text, "%u", (unsigned)delayMs);
        size_t length = written > 0 ? (size_t)written : 0;
        if (length > size - 1) length = size - 1;
        memcpy(value, text, length);
        value[length] = '\0';
    }
    return result;
}
