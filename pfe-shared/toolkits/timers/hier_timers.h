/*
 * Hierarchical timers: a passive tree that keeps many timers sorted, so that the earliest expiry is read off its root.
 *
 * The tree has no clock, no thread and no memory of its own: nodes are embedded at the head of their owner's structure.
 * A leaf is a timer. A parent groups: its expiry mirrors its earliest child, so that groups can be stopped, attached
 * and detached in one operation, and timers of one interval under one parent are sorted by appending.
 *
 * Two layers. The tree logic (this folder) knows nothing of how siblings are linked or time is represented; that is the
 * link personality, the second half of this header, which a program with another clock or list replaces alone. The one
 * at hand is lib/libtarne-timers/hier_timers_link_personality: circular lists, and the event library's clock.
 *
 * Between operations: only running nodes are on a sibling list, in order of expiry, those of equal expiry in the order
 * of their setting; but a running timer that is set anew keeps its place where that still fits. A parent runs exactly
 * while a child does, and then has its first child's expiry. Leaves have no children.
 *
 * Nothing here fails or allocates. Misuse is reported to qtimer_assert, and the operation goes on. One thread only.
 */
#pragma once

#include "platform/ev/ev.h"

#include <stdint.h>

extern "C" {

struct htimer {
    struct htimer *ht_parent;        // null for a root or a detached subtree
    struct htimer *ht_first_child;   // earliest child; null when none is running
    struct htimer *ht_next;          // next later sibling, round to the first; null while not linked
    struct htimer *ht_prev;          // next earlier sibling; of the first child, the latest; null while not linked
    struct ev_timespec ht_exptime;   // absolute; of a parent, its first child's
    uint16_t ht_tag;                 // the owner's
    uint8_t ht_magic;                // HTIMER_MAGIC once initialised
    uint8_t ht_flags;
    uintptr_t ht_user;               // the owner's; cleared by initialisation
};

enum {
    HTIMER_MAGIC = 0x42,
    HTIMER_RUNNING = 1 << 0,
    HTIMER_LEAF = 1 << 1,
};

static inline bool htimer_initialized(const struct htimer *timer)
{
    return timer->ht_magic == HTIMER_MAGIC;
}
static inline bool htimer_running(const struct htimer *timer)
{
    return (timer->ht_flags & HTIMER_RUNNING) != 0;
}
static inline bool htimer_is_leaf(const struct htimer *timer)
{
    return (timer->ht_flags & HTIMER_LEAF) != 0;
}

/* --- tree logic ------------------------------------------------------------------------------------------------ */

/* Zero the node and give it a parent (null allowed) and a tag. It is linked only when it starts. The node must be
 * stopped, and zeroed if it was never initialised. */
void htimer_init_leaf(struct htimer *timer, struct htimer *parent, uint16_t tag);
void htimer_init_parent(struct htimer *timer, struct htimer *parent, uint16_t tag);

/* Start a leaf, or start it anew: it expires interval from now, or up to percent of the interval earlier, never later.
 * percent above 100 is 100.
 *
 * Mind: with a percent other than 0, htimer_rand divides by zero where percent of the interval comes out as nothing. It
 * is counted in 32 bits, in microseconds up to 41 s, in milliseconds up to 42948 s, in seconds above: so for very short
 * intervals, and for some above 42949672 s, where the product wraps. */
void htimer_start(struct htimer *timer, struct ev_timespec interval);
void htimer_start_jittered(struct htimer *timer, struct ev_timespec interval, uint32_t percent);
/* The same, but a timer that would land before the parent's latest child goes gap behind that one, which costs no
 * walk of the siblings. If force is false and that child expires only after the full interval, the timer takes the
 * full interval instead. With a gap it may so expire later than its interval. Needs a parent. */
void htimer_start_jittered_latest(struct htimer *timer, struct ev_timespec interval, uint32_t percent,
                                  struct ev_timespec gap, bool force);
/* Start a running leaf anew counted from its last expiry, so that a periodic timer does not drift; a stopped one from
 * now. */
void htimer_update(struct htimer *timer, struct ev_timespec interval);
void htimer_update_jittered(struct htimer *timer, struct ev_timespec interval, uint32_t percent);
/* Has a leaf expire at exactly that time. */
void htimer_set_exptime(struct htimer *timer, struct ev_timespec exptime);
/* Stops a leaf, or all leaves below a parent. Expiry stops nothing: an expired timer stays the first until its owner
 * stops or starts it. */
void htimer_stop(struct htimer *timer);
/* Spreads the running children, all leaves, evenly over the time up to the latest one. None moves later, the latest not
 * at all; fewer than three stay. */
void htimer_smear_children(struct htimer *parent);
/* Attaches a detached subtree, running or not, below parent. */
void htimer_graft_subtree(struct htimer *root, struct htimer *parent);
/* Detaches a subtree from its parent; its timers stay running in it. */
void htimer_prune_subtree(struct htimer *root);
/* *out: interval, less a random jitter of up to percent, from base (null: from now). */
void htimer_calculate_exptime(struct ev_timespec *out, const struct ev_timespec *base, struct ev_timespec interval,
                              uint32_t percent);

/* --- link personality ------------------------------------------------------------------------------------------ */

/* True for a running node whose expiry is now or past. */
bool htimer_expired(const struct htimer *timer);
/* The leaf below root, or root itself, that expired first; null if none has. */
struct htimer *htimer_first_expired(struct htimer *root);
/* The next sibling, round to the first. */
struct htimer *htimer_next_sibling(const struct htimer *timer);
/* The running child of parent that expires last, or null. */
struct htimer *htimer_latest_child(const struct htimer *parent);
/* Puts the timer, whose expiry is set and whose running bit was was_running with the expiry old, where it belongs among
 * its siblings. True if the parent's earliest expiry may have changed. It must have a parent. */
bool htimer_relink_timer(struct htimer *timer, struct ev_timespec old, bool was_running);
/* Takes the timer off its parent's list. True if it was the first child; false too without a parent, and on a node that
 * is not linked. */
bool htimer_delink_timer(struct htimer *timer);

void htimer_add_timestamps(struct ev_timespec *a, struct ev_timespec b);
void htimer_subtract_timestamps(struct ev_timespec *a, struct ev_timespec b);
/* Negative, zero or positive as a is before, equal to or after b. */
int htimer_compare_timestamps(struct ev_timespec a, struct ev_timespec b);
/* a, which is not negative, divided by n, which is not 0, in 32-bit arithmetic: at most a little less than the exact
 * quotient. */
void htimer_divn_timestamp(struct ev_timespec *a, uint32_t n);
bool htimer_is_zero(struct ev_timespec time);
void htimer_current_time(struct ev_timespec *out);
/* Time from now to time, or to the timer's expiry; zero if that is past, or the timer stopped. */
void htimer_time_until(struct ev_timespec time, struct ev_timespec *out);
void htimer_time_left(const struct htimer *timer, struct ev_timespec *out);
/* A random number below bound, which must not be 0: there is no guard. */
uint32_t htimer_rand(uint32_t bound);

/* Where misuse is reported: gives "FILE:LINE: assert 'EXPRESSION' failed" to the callback of qtimer_init, if there is
 * one, and returns. */
void qtimer_assert(const char *file, int line, const char *expression);

}   // extern "C"
