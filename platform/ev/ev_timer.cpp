/*
 * Timers: a binary heap by due time, and the turn's step that calls what is due.
 *
 * A turn first takes everything due out of the heap into the list cx_due, in order, and then calls from that list. So
 * a timer runs at most once a turn, one that a callback sets for the past waits for the next turn, and a callback may
 * clear or reset any timer: each knows whether it stands in the heap (tm_place), in the list (tm_link) or in neither.
 *
 * True whenever a callback runs:
 *   - a repeating timer is back in the heap, its next due time its last one plus the interval. It does not drift;
 *   - a one-shot is in neither place and is cx_timer_now. If it is that still when its callback returns, it ends;
 *   - the heap has room for every live timer, so that putting one back or resetting it cannot fail.
 */
#include "platform/ev/ev_private.h"

#include <errno.h>
#include <stdlib.h>

static constexpr int32_t NSEC_MAX = 999999999;
static constexpr size_t HEAP_ROOM_FIRST = 16;

static bool is_before(const struct ev_timer *a, const struct ev_timer *b)
{
    return a->tm_due_ns != b->tm_due_ns ? a->tm_due_ns < b->tm_due_ns : a->tm_order < b->tm_order;
}

static void heap_place(struct ev_context *ctx, size_t place, struct ev_timer *timer)
{
    ctx->cx_heap[place] = timer;
    timer->tm_place = place;
}

/* Puts timer where it belongs, place being free. */
static void heap_settle(struct ev_context *ctx, size_t place, struct ev_timer *timer)
{
    while (place > 0 && is_before(timer, ctx->cx_heap[(place - 1) / 2])) {
        heap_place(ctx, place, ctx->cx_heap[(place - 1) / 2]);
        place = (place - 1) / 2;
    }
    for (size_t child; (child = 2 * place + 1) < ctx->cx_heap_count; place = child) {
        if (child + 1 < ctx->cx_heap_count && is_before(ctx->cx_heap[child + 1], ctx->cx_heap[child])) child++;
        if (!is_before(ctx->cx_heap[child], timer)) break;
        heap_place(ctx, place, ctx->cx_heap[child]);
    }
    heap_place(ctx, place, timer);
}

static void heap_insert(struct ev_context *ctx, struct ev_timer *timer)
{
    ctx->cx_heap_count++;
    heap_settle(ctx, ctx->cx_heap_count - 1, timer);
}

static void heap_remove(struct ev_context *ctx, struct ev_timer *timer)
{
    size_t place = timer->tm_place;
    timer->tm_place = EV_NO_PLACE;
    struct ev_timer *last = ctx->cx_heap[--ctx->cx_heap_count];
    if (last != timer) heap_settle(ctx, place, last);
}

static bool heap_has_room(struct ev_context *ctx)
{
    if (ctx->cx_timers < ctx->cx_heap_room) return true;
    size_t room = ctx->cx_heap_room ? 2 * ctx->cx_heap_room : HEAP_ROOM_FIRST;
    void *heap = realloc(ctx->cx_heap, room * sizeof ctx->cx_heap[0]);
    if (!heap) return false;
    ctx->cx_heap = static_cast<struct ev_timer **>(heap);
    ctx->cx_heap_room = room;
    return true;
}

/* Takes the timer out of wherever it stands; if its own callback runs, the timer does not end with it. */
static void timer_detach(struct ev_context *ctx, struct ev_timer *timer)
{
    if (timer->tm_place != EV_NO_PLACE) heap_remove(ctx, timer);
    ev_link_remove(&timer->tm_link);
    if (ctx->cx_timer_now == timer) ctx->cx_timer_now = nullptr;
}

static void timer_end(struct ev_context *ctx, struct ev_timer *timer)
{
    timer_detach(ctx, timer);
    ctx->cx_timers--;
    ev_pool_put(&ctx->cx_timer_pool, timer);
}

static void timer_put(struct ev_context *ctx, struct ev_timer *timer, evTimerFunc func, void *uap,
                      struct ev_timespec due, struct ev_timespec inter)
{
    timer->tm_func = func;
    timer->tm_uap = uap;
    timer->tm_due_ns = ev_time_to_ns(due);
    timer->tm_inter_ns = ev_time_to_ns(inter);
    timer->tm_order = ctx->cx_timer_order++;
    heap_insert(ctx, timer);
    ev_debug(ctx, 1, "timer %p: due %d.%09d every %d.%09d", static_cast<void *>(timer), due.tv_sec, due.tv_nsec,
             inter.tv_sec, inter.tv_nsec);
}

static bool arguments_are_good(evTimerFunc func, struct ev_timespec due, struct ev_timespec inter)
{
    return func && due.tv_nsec >= 0 && due.tv_nsec <= NSEC_MAX && inter.tv_sec >= 0 && inter.tv_nsec >= 0 &&
           inter.tv_nsec <= NSEC_MAX;
}

int evSetTimer(evContext ctx, evTimerFunc func, void *uap, struct ev_timespec due, struct ev_timespec inter,
               evTimerID *id)
{
    if (!arguments_are_good(func, due, inter)) {
        errno = EINVAL;
        return -1;
    }
    auto *timer = heap_has_room(ctx) ? static_cast<struct ev_timer *>(ev_pool_get(&ctx->cx_timer_pool)) : nullptr;
    if (!timer) {
        errno = ENOMEM;
        return -1;
    }
    ctx->cx_timers++;
    timer_put(ctx, timer, func, uap, due, inter);
    if (id) *id = timer;
    return 0;
}

int evResetTimer(evContext ctx, evTimerID id, evTimerFunc func, void *uap, struct ev_timespec due,
                 struct ev_timespec inter)
{
    if (!ev_record_is_live(id) || !arguments_are_good(func, due, inter)) {
        errno = EINVAL;
        return -1;
    }
    timer_detach(ctx, id);
    timer_put(ctx, id, func, uap, due, inter);
    return 0;
}

int evClearTimer(evContext ctx, evTimerID id)
{
    if (!ev_record_is_live(id)) {
        errno = EINVAL;
        return -1;
    }
    ev_debug(ctx, 1, "timer %p: cleared", static_cast<void *>(id));
    timer_end(ctx, id);
    return 0;
}

static void take_due(struct ev_context *ctx)
{
    int64_t now = ev_now_ns();
    while (ctx->cx_heap_count > 0 && ctx->cx_heap[0]->tm_due_ns <= now) {
        struct ev_timer *timer = ctx->cx_heap[0];
        heap_remove(ctx, timer);
        ev_list_append(&ctx->cx_due, &timer->tm_link);
    }
}

static void timer_call(struct ev_context *ctx, struct ev_timer *timer)
{
    struct ev_timespec due = ev_time_from_ns(timer->tm_due_ns), inter = ev_time_from_ns(timer->tm_inter_ns);
    ev_link_remove(&timer->tm_link);
    if (timer->tm_inter_ns > 0) {
        timer->tm_due_ns += timer->tm_inter_ns;
        timer->tm_order = ctx->cx_timer_order++;
        heap_insert(ctx, timer);
    } else {
        ctx->cx_timer_now = timer;
    }
    ev_debug(ctx, 2, "timer %p: called", static_cast<void *>(timer));
    timer->tm_func(ctx, timer->tm_uap, due, inter);
    if (ctx->cx_timer_now) timer_end(ctx, ctx->cx_timer_now);
}

int ev_run_timers(struct ev_context *ctx)
{
    if (ctx->cx_heap_count == 0) return 0;
    take_due(ctx);
    int calls = 0;
    for (; !ev_list_is_empty(&ctx->cx_due); calls++) {
        timer_call(ctx, reinterpret_cast<struct ev_timer *>(ctx->cx_due.next));
    }
    return calls;
}

bool ev_timer_next_due(const struct ev_context *ctx, int64_t *due_ns)
{
    if (ctx->cx_heap_count == 0) return false;
    *due_ns = ctx->cx_heap[0]->tm_due_ns;
    return true;
}

int __evSetTimer(evContext ctx, evTimerFunc func, void *uap, struct ev_timespec due, struct ev_timespec inter,
                 evTimerID *id)
{
    return evSetTimer(ctx, func, uap, due, inter, id);
}

int __evResetTimer(evContext ctx, evTimerID id, evTimerFunc func, void *uap, struct ev_timespec due,
                   struct ev_timespec inter)
{
    return evResetTimer(ctx, id, func, uap, due, inter);
}

int __evClearTimer(evContext ctx, evTimerID id)
{
    return evClearTimer(ctx, id);
}
