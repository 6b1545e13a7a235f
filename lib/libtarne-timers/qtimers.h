/*
 * Daemon timers: allocated timers on one event-library timer for each context.
 *
 * A context holds a tree of timers and keeps one event timer set for the earliest. At expiry a leaf's callback is
 * called; it may start, stop or destroy its own timer, or any other. A periodic timer goes round on its own, counted
 * from its last expiry: one that falls behind fires once for each interval in turn. At most QTIMER_ROUNDS callbacks run
 * in one turn of the loop.
 *
 * Jitter is a percentage, at most 99 (more is cut): a timer fires up to that part of its interval early, never late. It
 * needs intervals long enough for the part not to vanish; see htimer_start_jittered.
 *
 * A context lives as long as the process. One thread only.
 */
#pragma once

#include "pfe-shared/toolkits/timers/hier_timers.h"

#include <stdint.h>

extern "C" {

struct qtimer;
struct qtimer_autoparent;

typedef void (*qtimer_func)(struct qtimer *timer, uintptr_t user);
typedef void (*qtimer_assert_func)(const char *text);

struct qtimer_ctx {
    evContext qc_evctx;
    evTimerID qc_evtimer;    // valid while qc_armed
    struct htimer qc_root;   // parent of all
    uint8_t qc_armed;        // 1 while the event timer exists
};

struct qtimer {
    struct htimer qt_timer;                    // its ht_user is the callback's argument
    struct ev_timespec qt_interval;            // of the last start
    struct qtimer_ctx *qt_ctx;
    struct qtimer_autoparent *qt_autoparent;   // null unless started by an autoparent start
    qtimer_func qt_callback;                   // null for a parent
    uint8_t qt_jitter;
    uint8_t qt_flags;
};

enum {
    QTIMER_INTERVAL = 1 << 0,           // periodic; set or cleared by every start
    QTIMER_TOUCHED = 1 << 1,            // started or stopped since the dispatcher last looked
    QTIMER_DESTROY_PENDING = 1 << 2,    // destroyed in its own callback
    QTIMER_IN_CALLBACK = 1 << 3,
    QTIMER_EFFICIENT_JITTER = 1 << 4,   // started with htimer_start_jittered_latest
};
enum {
    QTIMER_JITTER_MAX = 99,
    QTIMER_ROUNDS = 10,   // callbacks in one turn of the loop
};

/* A new context on the event loop, or null without memory. assert_func (null: silence) hears of misuse in the whole
 * process; the last call decides, a failed one too. */
[[nodiscard]] struct qtimer_ctx *qtimer_init(evContext evctx, qtimer_assert_func assert_func);

/* A stopped timer, the caller's until qtimer_destroy, or null without memory. parent null: the context's root. */
[[nodiscard]] struct qtimer *qtimer_create_leaf(struct qtimer_ctx *ctx, struct qtimer *parent, qtimer_func callback,
                                                uintptr_t user);
[[nodiscard]] struct qtimer *qtimer_create_parent(struct qtimer_ctx *ctx, struct qtimer *parent);

/* Start a leaf, also a running one: once, or each interval. */
void qtimer_start_oneshot(struct qtimer *timer, uint32_t seconds, uint32_t jitter);
void qtimer_start_interval(struct qtimer *timer, uint32_t seconds, uint32_t jitter);
void qtimer_start_oneshot_precise(struct qtimer *timer, struct ev_timespec interval, uint32_t jitter);
void qtimer_start_interval_precise(struct qtimer *timer, struct ev_timespec interval, uint32_t jitter);
/* The same below a parent that all timers of this interval and jitter in the process share, so that a start in the
 * order of time costs one comparison. Without memory the timer ends without a parent and never fires. Use them in one
 * context of a process only: the parents belong to the context that came first. */
void qtimer_start_autoparent_oneshot(struct qtimer *timer, uint32_t seconds, uint32_t jitter);
void qtimer_start_autoparent_interval(struct qtimer *timer, uint32_t seconds, uint32_t jitter);
void qtimer_start_autoparent_oneshot_precise(struct qtimer *timer, struct ev_timespec interval, uint32_t jitter);
void qtimer_start_autoparent_interval_precise(struct qtimer *timer, struct ev_timespec interval, uint32_t jitter);

/* Stops the timer, or all below a parent. Null allowed. Mind: a periodic timer that stops its own parent from inside
 * its callback goes round all the same; it must be stopped itself. */
void qtimer_stop(struct qtimer *timer);
/* Stops and frees the timer; from inside its own callback it is freed when that returns. Children of a parent are the
 * caller's to end first. Null allowed. */
void qtimer_destroy(struct qtimer *timer);

/* False for null. */
bool qtimer_running(const struct qtimer *timer);
bool qtimer_expired(const struct qtimer *timer);
/* Whole seconds left, cut; 0 when stopped or past. */
uint32_t qtimer_time_remaining(const struct qtimer *timer);
void qtimer_time_remaining_precise(const struct qtimer *timer, struct ev_timespec *out);
/* htimer_smear_children. The event timer is not moved: what now expires earlier still waits for the former earliest. */
void qtimer_smear_children(struct qtimer *parent);
/* Has later starts use htimer_start_jittered_latest, which mostly places the timer without a search. */
void qtimer_efficient_jitter(struct qtimer *timer, bool on);

enum { QTIMER_ASSERT_MAX = 120 };   // octets of a text of qtimer_assert, terminator included

}   // extern "C"
