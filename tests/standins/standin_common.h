/* What the stand-in device libraries share: one lock, the call record, scripted failures,
   the frame queue behind Receive, the event thread that calls handlers, and the exported
   STANDIN_Control with its common commands. Each stand-in is its own shared library with
   its own copy of this state.

   Common commands of STANDIN_Control (the reply is "ok", what was asked for, or "unknown"):
     "reset"                stop the event thread; forget calls, scripts, frames, events and
                            handlers; the version goes back to the default
     "version TEXT"         what the version entry point answers
     "fail ENTRY CODE [N]"  the call of ENTRY after N more returns CODE, once. Receive and
                            GetNextEvent count only calls that hand something out, since the
                            ones that find nothing come as often as the caller polls.
     "frame HEX"            queue bytes for Receive
     "reply HEX"            queue bytes that Receive gets only after the next successful Transmit
     "count N"              the next Receive that hands out bytes answers N instead of the
                            true count, but writes no more than it was given room for
     "calls"                every call so far, one line each
     "fired"                how many events the event thread has finished with since the last
                            "reset" or "calm": delivered, every call returned, or dropped for
                            want of anyone to call. A test waits for it before it looks for
                            what an event must not have done.
     "calm"                 stop a storm and the event thread; "fired" starts again from 0
   Each stand-in adds its own commands through standinOwnCommand. */
#ifndef TOVRA_TESTS_STANDIN_COMMON_H
#define TOVRA_TESTS_STANDIN_COMMON_H

#include <stdint.h>

#if defined(_WIN32)
#  define STANDIN_API __declspec(dllexport)
#else
#  define STANDIN_API __attribute__((visibility("default")))
#endif

/* Fails the build when a definition no longer has the type of the public header's
   function pointer, so a stand-in cannot drift from what the product calls. */
#define STANDIN_SAME_TYPE(function, type)                                                                    \
    _Static_assert(_Generic(&function, type: 1, default: 0), #function " differs from " #type)

/* What stand-ins answer for arguments no real library would accept. */
#define STANDIN_BAD_ARGUMENT (-1099)

/* The lock guards all state of the stand-in. It is never held while a handler runs. */
void standinLock(void);
void standinUnlock(void);

/* Records a call line. The caller holds the lock. */
void standinRecord(const char* line);
/* Records the call and gives the scripted failure of `entry` that is due, or 0. Takes the lock. */
int32_t standinCalled(const char* entry, const char* line);
/* The same with the lock held. */
int32_t standinCalledLocked(const char* entry, const char* line);
/* For entries that are polled (Receive, GetNextEvent): 1 and `*code` set when the failure
   of `entry` is due now, without counting the call; standinPolledHandedOut counts one that
   handed something out. The caller holds the lock. */
int standinPolledFailure(const char* entry, int32_t* code);
void standinPolledHandedOut(const char* entry);

/* Records a transmit; when it succeeds, the oldest held reply becomes receivable. */
int32_t standinTransmit(const char* line);
/* A Receive: hands out the oldest receivable frame, waiting about 20 ms for one to come.
   `whole`: the frame whole, or `tooLongCode` (and the frame dropped) when it does not fit;
   otherwise as a byte stream, at most `size` bytes, the rest staying queued. Without a
   frame the result is `timeoutCode`. `line` is recorded when bytes are handed out. */
int32_t standinReceive(uint8_t* buffer, int32_t size, int whole, int32_t tooLongCode, int32_t timeoutCode,
                       const char* line);

/* The calls most entry points are: an open hands out the next port handle (7, 8, ...)
   unless a failure is due; a call on a handle records "ENTRY HANDLE"; a transmit records
   "Transmit HANDLE LENGTH"; a receive of whole frames records "Receive HANDLE SIZE" when
   it hands one out. */
int32_t standinOpen(const char* entry, const char* line);
int32_t standinHandleCall(const char* entry, int32_t handle);
int32_t standinTransmitOn(int32_t handle, long long length);
/* Parameter calls record "ENTRY HANDLE KEY VALUE" and "ENTRY HANDLE KEY"; a get leaves the
   value empty. */
int32_t standinPutCall(const char* entry, int32_t handle, const char* key, const char* value);
int32_t standinGetCall(const char* entry, int32_t handle, const char* key, char* value, long long size);
int32_t standinReceiveWhole(int32_t handle, uint8_t* buffer, int32_t size, int32_t tooLongCode, int32_t timeoutCode);

/* Hex digits to a number; 0 when `text` is not just 1 to 8 hex digits. */
int standinParseHex(const char* text, uint32_t* value);
/* The text of `code` for libraries that hand out a pointer rather than fill a buffer;
   it stays valid while the library is loaded. */
const char* standinErrorText(int32_t code);
/* What the version entry point answers. */
const char* standinVersion(void);

/* Anything an event thread calls, in a form that can be compared and cast back. */
typedef void (*StandinFunction)(void);

/* One call the event thread makes: `target` and `tag` identify it for a removal that must
   wait for it; `finishes` says it is the last call for its event; the rest is what the
   stand-in passes along. */
typedef struct StandinDelivery {
    StandinFunction target;
    int32_t tag;
    int finishes;
    void* context;
    int32_t type;
    uint32_t id;
    uint32_t number;
    char text[72];
} StandinDelivery;

/* Starts the event thread unless it runs. The caller holds the lock. */
void standinStartEvents(void);
/* Tells the event thread that something may be there to deliver. The caller holds the lock. */
void standinWakeEvents(void);
/* Counts an event dropped without a call. The caller holds the lock. */
void standinEventDropped(void);
/* Returns once no delivery of `target` with `tag` is running (of anything, when `target` is
   null), unless the caller is that very delivery: a handler that removes itself must not
   wait for itself. The caller holds the lock; it is let go while waiting. */
void standinAwaitDelivery(StandinFunction target, int32_t tag);

/* Each stand-in defines these. All but standinDeliver are called with the lock held. */
extern const char standinDefaultVersion[];
/* 1 and `*answer` set when `command` is one of the stand-in's own. */
int standinOwnCommand(const char* command, const char** answer);
/* Forget everything of the stand-in's own; the event thread has stopped. */
void standinOwnReset(void);
/* Stop a storm; the event thread stops next. */
void standinOwnCalm(void);
/* 1 and `*delivery` filled when the event thread has something to deliver now. */
int standinNextDelivery(StandinDelivery* delivery);
/* Makes the call, without the lock. */
void standinDeliver(const StandinDelivery* delivery);

#endif
