/*
 * Event library: one thread, one loop, callbacks for descriptors, timers, connections and deferred jobs.
 *
 * A context is one loop. Every callback runs from evMainLoop (or evTurn), never from inside the call that registered
 * it. All calls are for the loop's thread, except evDo, which a signal handler may call as well.
 *
 * Results: 0 or more is success, -1 is failure with errno set, unless a function says otherwise. Ids are null when
 * nothing is registered; a call that registers stores the id before it returns, and a failed call leaves it alone.
 * Where an id pointer is an argument it may be null. A null id given to a call that ends a registration is refused
 * with EINVAL and nothing else happens. An id is dead once its registration is gone: a one-shot timer that fired, a
 * waiter that ran, a connection that was reported; it must not be used then.
 *
 * Time is CLOCK_MONOTONIC, read with clock_gettime: a stepped wall clock fires nothing.
 */
#pragma once

#include <stdint.h>
#include <sys/socket.h>

extern "C" {

struct ev_timespec {
    int32_t tv_sec;
    int32_t tv_nsec;   // 0 to 999999999 in every time that the library makes
};

typedef struct ev_context *evContext;
typedef struct ev_timer *evTimerID;
typedef struct ev_file *evFileID;
typedef struct ev_conn *evConnID;
typedef struct ev_wait *evWaitID;

/* due is the time that the timer was set for, inter its interval as registered. */
typedef void (*evTimerFunc)(evContext ctx, void *uap, struct ev_timespec due, struct ev_timespec inter);
/* events is the part of the registration's EV_READ and EV_WRITE that is ready. */
typedef void (*evFileFunc)(evContext ctx, void *uap, int fd, int events);
/* fd is connected and blocking, and the callee's from here on; or -1 with errno set, and the library has closed the
 * descriptor. The addresses are lent until the return; null and 0 when fd is -1. */
typedef void (*evConnFunc)(evContext ctx, void *uap, int fd, const void *local, int local_len, const void *remote,
                           int remote_len);
typedef void (*evWaitFunc)(evContext ctx, void *uap, const void *tag);

enum { EV_READ = 1, EV_WRITE = 2 };

/* Makes a context. -1 with errno if the kernel refuses or memory is out; *ctx is then left alone. */
[[nodiscard]] int evCreate(evContext *ctx);
/* Ends all registrations without calling them, closes the loop's own descriptors, frees the context; those of
 * connections under way go back to the caller. 0, or -1 with EDEADLK from inside a callback. */
int evDestroy(evContext ctx);
/* Prints to out what the loop does, when level is above 0; level 2 and more also prints every dispatch. out is lent
 * until the next call or evDestroy. */
void evSetDebug(evContext ctx, int level, void *out);
/* Runs turns until the kernel refuses to wait: -1 with errno. A signal does not end it. While callbacks leave waiters
 * or write registrations behind, up to four turns may pass before it asks the kernel for descriptors again. */
int evMainLoop(evContext ctx);
/* One turn of the loop: runs all that is due and waits at most max_wait_ms for something if nothing was (-1: no limit).
 * Order within a turn: released waiters, write registrations made so far (those that waiters of this turn made, too),
 * timers, descriptors. A wait that a timer or a signal ends is the turn's end; the next turn runs what it brought. The
 * number of callbacks that ran, or -1 with errno; EDEADLK from inside a callback. */
int evTurn(evContext ctx, int max_wait_ms);

/* Calls func when due has come, then every inter after due; an inter of zero makes it a one-shot. A due in the past
 * fires at the next turn. A repeating timer that fell behind fires once a turn and catches up. Timers of one due time
 * fire in the order of their setting. -1 with EINVAL for a time whose nanoseconds are out of range or a negative
 * inter. */
[[nodiscard]] int evSetTimer(evContext ctx, evTimerFunc func, void *uap, struct ev_timespec due,
                             struct ev_timespec inter, evTimerID *id);
/* Gives an existing timer a new function, argument, due time and interval; also from inside its own callback. */
int evResetTimer(evContext ctx, evTimerID id, evTimerFunc func, void *uap, struct ev_timespec due,
                 struct ev_timespec inter);
int evClearTimer(evContext ctx, evTimerID id);

/* These carry nanoseconds over into seconds; a time that seconds cannot hold becomes the nearest one that they can. */
struct ev_timespec evConsTime(int32_t sec, int32_t nsec);
struct ev_timespec evNowTime(void);
struct ev_timespec evAddTime(struct ev_timespec a, struct ev_timespec b);
/* a - b; negative results keep tv_nsec in range and make tv_sec negative. */
struct ev_timespec evSubTime(struct ev_timespec a, struct ev_timespec b);
/* Negative, zero or positive as a is before, equal to or after b. */
int evCmpTime(struct ev_timespec a, struct ev_timespec b);

/* Connects fd, a stream socket of the caller, to addr. func is called once, at a later turn, when the connection
 * stands or has failed; a failure that the kernel tells at once comes that way too. -1 with errno only for what can
 * never work: a descriptor or address that is no such thing (0.0.0.0 is none: EADDRNOTAVAIL), a socket that is
 * connected already (EISCONN, EALREADY) or registered with evSelectFD (EBUSY), or no memory. fd is then still the
 * caller's and untouched. */
[[nodiscard]] int evConnect(evContext ctx, int fd, const void *addr, int addr_len, evConnFunc func, void *uap,
                            evConnID *id);
/* Forgets a connection that was not reported yet. Its descriptor goes back to the caller, as it is: not closed, and
 * non-blocking. */
int evCancelConn(evContext ctx, evConnID id);

/* Calls func whenever fd is readable (EV_READ), writable (EV_WRITE) or either, level-triggered, until deselected. fd
 * is made non-blocking and stays so. Read and write interest are separate: a second registration of the same kind for
 * one fd leaves the first as it is, with result 0 and *id set to the first one's id. Of EV_READ | EV_WRITE only the
 * part that is not registered yet is. A new write registration is called at the loop's next write step without asking
 * the kernel whether fd is writable: the handler finds out by writing. A descriptor that cannot be waited for (a
 * plain file) is refused for reading with EPERM, and called every turn for writing. */
[[nodiscard]] int evSelectFD(evContext ctx, int fd, int events, evFileFunc func, void *uap, evFileID *id);
/* Ends the registration; nothing is called for it any more, also not for what was already found ready this turn.
 * Call it before the descriptor is closed. */
int evDeselectFD(evContext ctx, evFileID id);

/* Holds back what is written to fd, a TCP socket (on), or lets it go at once (off), so that several writes leave
 * together. Each on needs its off: what is held back would otherwise wait for as long as 200 ms. -1 with errno if fd
 * is none. */
int evHoldFD(int fd, bool on);

/* A one-shot waiter on tag: func runs at the loop's next turn after an evDo on the tag. Waiters of one tag run in the
 * order of their registration. An evDo that came before the registration does not count. */
[[nodiscard]] int evWaitFor(evContext ctx, const void *tag, evWaitFunc func, void *uap, evWaitID *id);
/* Releases all waiters that stand on tag now. Never allocates, never blocks, safe in a signal handler, errno kept.
 * 0, also if none waits. */
int evDo(evContext ctx, const void *tag);
/* Removes a waiter that has not run, released or not. */
int evUnwait(evContext ctx, evWaitID id);

/* The second spelling, under which the timer libraries know the same calls. */
[[nodiscard]] int __evSetTimer(evContext ctx, evTimerFunc func, void *uap, struct ev_timespec due,
                               struct ev_timespec inter, evTimerID *id);
int __evResetTimer(evContext ctx, evTimerID id, evTimerFunc func, void *uap, struct ev_timespec due,
                   struct ev_timespec inter);
int __evClearTimer(evContext ctx, evTimerID id);
struct ev_timespec __evConsTime(int32_t sec, int32_t nsec);
struct ev_timespec __evNowTime(void);
struct ev_timespec __evAddTime(struct ev_timespec a, struct ev_timespec b);
struct ev_timespec __evSubTime(struct ev_timespec a, struct ev_timespec b);
int __evCmpTime(struct ev_timespec a, struct ev_timespec b);

}   // extern "C"
