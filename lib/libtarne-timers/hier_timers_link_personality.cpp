/*
 * Link personality of the hierarchical timers: circular doubly linked siblings, and the event library's clock.
 *
 * A new timer is searched for from the tail: timers of one interval under one parent land there after a single
 * comparison, and a timer goes behind all those of its own expiry. The price is a walk for timers that are started in
 * random order. Stopped nodes are on no list; a parent's ht_first_child is null exactly when its list is empty.
 */
#include "pfe-shared/toolkits/timers/hier_timers.h"

#include <stdlib.h>

namespace {

const char unit[] = "lib/libtarne-timers/hier_timers_link_personality";

enum { NSEC_PER_SEC = 1000000000 };

bool later(const struct htimer *a, const struct htimer *b)
{
    return htimer_compare_timestamps(a->ht_exptime, b->ht_exptime) > 0;
}

void link_behind(struct htimer *timer, struct htimer *earlier)
{
    timer->ht_prev = earlier;
    timer->ht_next = earlier->ht_next;
    earlier->ht_next->ht_prev = timer;
    earlier->ht_next = timer;
}

/* True if the timer became the first child. */
bool insert(struct htimer *timer)
{
    struct htimer *parent = timer->ht_parent;
    struct htimer *first = parent->ht_first_child;
    if (first == nullptr) {
        parent->ht_first_child = timer->ht_next = timer->ht_prev = timer;
        return true;
    }
    struct htimer *latest = first->ht_prev;
    struct htimer *earlier = latest;
    do {
        if (!later(earlier, timer)) {
            link_behind(timer, earlier);
            return false;
        }
        earlier = earlier->ht_prev;
    } while (earlier != latest);
    link_behind(timer, latest);   // which, in a circle, is before the first
    parent->ht_first_child = timer;
    return true;
}

bool out_of_order(const struct htimer *timer)
{
    const struct htimer *first = timer->ht_parent->ht_first_child;
    if (timer != first && later(timer->ht_prev, timer))
        return true;
    return timer->ht_next != first && later(timer, timer->ht_next);
}

}   // namespace

bool htimer_expired(const struct htimer *timer)
{
    return htimer_running(timer) && htimer_compare_timestamps(timer->ht_exptime, __evNowTime()) <= 0;
}

struct htimer *htimer_first_expired(struct htimer *root)
{
    if (!htimer_expired(root))
        return nullptr;
    struct htimer *cur_timer = root;
    while (cur_timer != nullptr && !htimer_is_leaf(cur_timer))
        cur_timer = cur_timer->ht_first_child;
    if (cur_timer == nullptr)
        qtimer_assert(unit, __LINE__, "cur_timer");
    return cur_timer;
}

struct htimer *htimer_next_sibling(const struct htimer *timer)
{
    return timer->ht_next;
}

struct htimer *htimer_latest_child(const struct htimer *parent)
{
    return parent->ht_first_child != nullptr ? parent->ht_first_child->ht_prev : nullptr;
}

bool htimer_relink_timer(struct htimer *timer, struct ev_timespec old, bool was_running)
{
    if (!was_running)
        return insert(timer);
    if (htimer_compare_timestamps(old, timer->ht_exptime) == 0)
        return false;
    // Kept on purpose: a timer that comes to equal its next sibling stays in front of it, though it was set later.
    // True also for a timer that is not the first: the walk upward ends one level on, where nothing has changed.
    if (!out_of_order(timer))
        return true;
    bool was_first = htimer_delink_timer(timer);
    return insert(timer) || was_first;
}

bool htimer_delink_timer(struct htimer *timer)
{
    struct htimer *parent = timer->ht_parent;
    if (parent == nullptr || timer->ht_next == nullptr)
        return false;
    bool was_first = parent->ht_first_child == timer;
    timer->ht_prev->ht_next = timer->ht_next;
    timer->ht_next->ht_prev = timer->ht_prev;
    if (was_first)
        parent->ht_first_child = timer->ht_next != timer ? timer->ht_next : nullptr;
    timer->ht_next = timer->ht_prev = nullptr;
    return was_first;
}

void htimer_add_timestamps(struct ev_timespec *a, struct ev_timespec b)
{
    *a = __evAddTime(*a, b);
}

void htimer_subtract_timestamps(struct ev_timespec *a, struct ev_timespec b)
{
    *a = __evSubTime(*a, b);
}

int htimer_compare_timestamps(struct ev_timespec a, struct ev_timespec b)
{
    return __evCmpTime(a, b);
}

void htimer_divn_timestamp(struct ev_timespec *a, uint32_t n)
{
    // Kept on purpose: 32 bits without a sign, and what is cut off is not made up for.
    uint32_t seconds = uint32_t(a->tv_sec);
    uint32_t nanoseconds = uint32_t(a->tv_nsec);
    a->tv_sec = int32_t(seconds / n);
    a->tv_nsec = int32_t(seconds % n * (NSEC_PER_SEC / n) + nanoseconds / n);
}

bool htimer_is_zero(struct ev_timespec time)
{
    return time.tv_sec == 0 && time.tv_nsec == 0;
}

void htimer_current_time(struct ev_timespec *out)
{
    *out = __evNowTime();
}

void htimer_time_until(struct ev_timespec time, struct ev_timespec *out)
{
    struct ev_timespec now = __evNowTime();
    *out = __evCmpTime(time, now) > 0 ? __evSubTime(time, now) : ev_timespec { 0, 0 };
}

void htimer_time_left(const struct htimer *timer, struct ev_timespec *out)
{
    *out = { 0, 0 };
    if (htimer_running(timer))
        htimer_time_until(timer->ht_exptime, out);
}

uint32_t htimer_rand(uint32_t bound)
{
    return uint32_t(random()) % bound;   // Kept on purpose: no guard against a bound of 0
}
