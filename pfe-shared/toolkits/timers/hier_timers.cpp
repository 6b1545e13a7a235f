/*
 * Tree logic of the hierarchical timers.
 *
 * Two walks upward carry everything. htimer_apply_exptime follows a new expiry from a node to the root and stops at the
 * first level at which nothing changed; htimer_remove_timer takes a node off, and with it each parent that is left
 * empty. Siblings and times are only touched through the link personality, except that htimer_calculate_exptime has to
 * look at the words of an interval to choose a unit in which a hundredfold fits into 32 bits: 41 s and 42948 s are the
 * longest whole seconds for microseconds and for milliseconds. Beyond 42949672 s it does not fit in any, and wraps.
 */
#include "pfe-shared/toolkits/timers/hier_timers.h"

#include <string.h>

namespace {

const char unit[] = "pfe-shared/toolkits/timers/hier_timers";

#define HTIMER_ASSERT(expression) \
    do {                          \
        if (!(expression))        \
            qtimer_assert(unit, __LINE__, #expression); \
    } while (false)

enum { PERCENT_MAX = 100, SMEAR_LEAST = 3 };

struct jitter_unit {
    int32_t seconds_max;       // of the interval, for this unit to be used
    uint32_t in_second;        // units in a second
    uint32_t nanoseconds;      // in a unit
    bool counts_nanoseconds;   // the interval's nanoseconds count
};
// Kept on purpose: above 42948 s the nanoseconds of the interval are ignored.
constexpr jitter_unit jitter_units[] = {
    { 41, 1000000, 1000, true },
    { 42948, 1000, 1000000, true },
    { INT32_MAX, 1, 1000000000, false },
};

struct ev_timespec draw_jitter(struct ev_timespec interval, uint32_t percent)
{
    const jitter_unit *row = jitter_units;
    while (interval.tv_sec > row->seconds_max)
        row++;
    uint32_t value = uint32_t(interval.tv_sec) * row->in_second;
    if (row->counts_nanoseconds)
        value += uint32_t(interval.tv_nsec) / row->nanoseconds;
    uint32_t drawn = htimer_rand(value * percent / PERCENT_MAX);
    return { int32_t(drawn / row->in_second), int32_t(drawn % row->in_second * row->nanoseconds) };
}

void htimer_init_common(struct htimer *timer, struct htimer *parent, uint16_t tag)
{
    if (htimer_initialized(timer))
        HTIMER_ASSERT(!htimer_running(timer));
    if (parent != nullptr)
        HTIMER_ASSERT(htimer_initialized(parent) && !htimer_is_leaf(parent));
    memset(timer, 0, sizeof *timer);
    timer->ht_parent = parent;
    timer->ht_magic = HTIMER_MAGIC;
    timer->ht_tag = tag;
}

/* Every start, update and smear ends here. */
void htimer_apply_exptime(struct htimer *timer, struct ev_timespec exptime)
{
    struct ev_timespec old = timer->ht_exptime;
    bool was_running = htimer_running(timer);
    timer->ht_exptime = exptime;
    timer->ht_flags |= HTIMER_RUNNING;
    while (timer->ht_parent != nullptr && htimer_relink_timer(timer, old, was_running)) {
        timer = timer->ht_parent;
        HTIMER_ASSERT(!htimer_is_leaf(timer) && htimer_initialized(timer));
        old = timer->ht_exptime;
        was_running = htimer_running(timer);
        timer->ht_exptime = timer->ht_first_child->ht_exptime;
        timer->ht_flags |= HTIMER_RUNNING;
    }
}

void htimer_remove_timer(struct htimer *timer)
{
    while (timer != nullptr && htimer_delink_timer(timer)) {
        timer = timer->ht_parent;
        if (timer->ht_first_child != nullptr) {
            htimer_apply_exptime(timer, timer->ht_first_child->ht_exptime);
            return;
        }
        timer->ht_flags &= uint8_t(~HTIMER_RUNNING);
    }
}

void stop_leaf(struct htimer *timer)
{
    htimer_remove_timer(timer);
    timer->ht_flags &= uint8_t(~HTIMER_RUNNING);
}

struct htimer *deepest_first(struct htimer *timer)
{
    while (timer->ht_first_child != nullptr)
        timer = timer->ht_first_child;
    return timer;
}

/* Running children of a parent that has some. */
uint32_t count_children(struct htimer *parent)
{
    const struct htimer *latest = htimer_latest_child(parent);
    uint32_t count = 1;
    for (struct htimer *cur_timer = parent->ht_first_child; cur_timer != latest;
         cur_timer = htimer_next_sibling(cur_timer)) {
        HTIMER_ASSERT(htimer_is_leaf(cur_timer));
        count++;
    }
    return count;
}

struct ev_timespec share_of(struct ev_timespec until, struct ev_timespec from, uint32_t count)
{
    htimer_subtract_timestamps(&until, from);
    htimer_divn_timestamp(&until, count);
    return until;
}

/* Gives the children slots between now and the latest. Where one already expires before its slot, the spreading begins
 * anew from there. Expiries are written in place: none passes its neighbour, so that no child needs relinking. */
void smear(struct htimer *cur, struct ev_timespec latest, uint32_t count)
{
    struct ev_timespec base;
    htimer_current_time(&base);
    while (count > 1) {
        struct ev_timespec gap = share_of(latest, base, count);
        struct ev_timespec slot = base;
        htimer_add_timestamps(&slot, gap);
        if (htimer_compare_timestamps(cur->ht_exptime, slot) < 0) {
            slot = cur->ht_exptime;
            gap = share_of(latest, slot, count - 1);
        }
        if (htimer_is_zero(gap))
            return;
        while (count > 1 && htimer_compare_timestamps(cur->ht_exptime, slot) >= 0) {
            cur->ht_exptime = slot;
            htimer_add_timestamps(&slot, gap);
            cur = htimer_next_sibling(cur);
            count--;
        }
        base = cur->ht_exptime;
    }
}

}   // namespace

void htimer_calculate_exptime(struct ev_timespec *out, const struct ev_timespec *base, struct ev_timespec interval,
                              uint32_t percent)
{
    struct ev_timespec jitter = { 0, 0 };
    if (percent != 0)
        jitter = draw_jitter(interval, percent < PERCENT_MAX ? percent : uint32_t(PERCENT_MAX));
    if (base != nullptr)
        *out = *base;
    else
        htimer_current_time(out);
    htimer_add_timestamps(out, interval);
    htimer_subtract_timestamps(out, jitter);
}

void htimer_init_parent(struct htimer *timer, struct htimer *parent, uint16_t tag)
{
    htimer_init_common(timer, parent, tag);
}

void htimer_init_leaf(struct htimer *timer, struct htimer *parent, uint16_t tag)
{
    htimer_init_common(timer, parent, tag);
    timer->ht_flags |= HTIMER_LEAF;
}

void htimer_set_exptime(struct htimer *timer, struct ev_timespec exptime)
{
    HTIMER_ASSERT(htimer_initialized(timer));
    HTIMER_ASSERT(htimer_is_leaf(timer));
    htimer_apply_exptime(timer, exptime);
}

void htimer_start(struct htimer *timer, struct ev_timespec interval)
{
    htimer_start_jittered(timer, interval, 0);
}

void htimer_start_jittered(struct htimer *timer, struct ev_timespec interval, uint32_t percent)
{
    HTIMER_ASSERT(htimer_initialized(timer));
    HTIMER_ASSERT(htimer_is_leaf(timer));
    struct ev_timespec exptime;
    htimer_calculate_exptime(&exptime, nullptr, interval, percent);
    htimer_apply_exptime(timer, exptime);
}

void htimer_start_jittered_latest(struct htimer *timer, struct ev_timespec interval, uint32_t percent,
                                  struct ev_timespec gap, bool force)
{
    HTIMER_ASSERT(htimer_initialized(timer));
    HTIMER_ASSERT(htimer_is_leaf(timer));
    struct ev_timespec candidate;
    htimer_calculate_exptime(&candidate, nullptr, interval, percent);
    HTIMER_ASSERT(timer->ht_parent);
    const struct htimer *latest = timer->ht_parent != nullptr ? htimer_latest_child(timer->ht_parent) : nullptr;
    if (latest != nullptr && htimer_compare_timestamps(candidate, latest->ht_exptime) < 0) {
        struct ev_timespec plain;
        htimer_calculate_exptime(&plain, nullptr, interval, 0);
        if (!force && htimer_compare_timestamps(latest->ht_exptime, plain) >= 0) {
            candidate = plain;
        } else {
            candidate = latest->ht_exptime;
            htimer_add_timestamps(&candidate, gap);
        }
    }
    htimer_set_exptime(timer, candidate);
}

void htimer_update(struct htimer *timer, struct ev_timespec interval)
{
    htimer_update_jittered(timer, interval, 0);
}

void htimer_update_jittered(struct htimer *timer, struct ev_timespec interval, uint32_t percent)
{
    if (!htimer_running(timer)) {
        htimer_start_jittered(timer, interval, percent);
        return;
    }
    HTIMER_ASSERT(htimer_initialized(timer));
    HTIMER_ASSERT(htimer_is_leaf(timer));
    struct ev_timespec exptime;
    htimer_calculate_exptime(&exptime, &timer->ht_exptime, interval, percent);
    htimer_apply_exptime(timer, exptime);
}

void htimer_stop(struct htimer *timer)
{
    HTIMER_ASSERT(htimer_initialized(timer));
    if (!htimer_running(timer))
        return;
    if (htimer_is_leaf(timer)) {
        stop_leaf(timer);
        return;
    }
    for (struct htimer *deepest = deepest_first(timer); deepest != timer; deepest = deepest_first(timer))
        stop_leaf(deepest);
}

void htimer_smear_children(struct htimer *parent)
{
    struct htimer *first = parent->ht_first_child;
    if (first == nullptr || first == htimer_latest_child(parent))
        return;
    uint32_t count = count_children(parent);
    if (count < SMEAR_LEAST)
        return;
    smear(first, htimer_latest_child(parent)->ht_exptime, count);
    htimer_apply_exptime(parent, first->ht_exptime);
}

void htimer_graft_subtree(struct htimer *root, struct htimer *parent)
{
    if (root->ht_parent == parent)
        return;
    HTIMER_ASSERT(root->ht_parent == NULL);
    HTIMER_ASSERT(!htimer_is_leaf(parent) && htimer_initialized(parent));
    root->ht_parent = parent;
    if (htimer_running(root) && htimer_relink_timer(root, { 0, 0 }, false))
        htimer_apply_exptime(parent, root->ht_exptime);
}

void htimer_prune_subtree(struct htimer *root)
{
    if (root->ht_parent == nullptr)
        return;
    htimer_remove_timer(root);
    root->ht_parent = nullptr;
}
