/*
 * Daemon timers on the hierarchical tree.
 *
 * The event timer stands at the expiry of the tree's root (but for smearing, and a loop without memory). There is one
 * place that moves it, qtimer_rearm, run behind a change of the tree with the root's former expiry; the dispatcher
 * begins by noting that the event timer is spent, and whatever leaves a timer pending passes through qtimer_rearm
 * again.
 *
 * A callback may do anything to its own timer. The touched flag tells the dispatcher that it did, so that the timer is
 * left as the callback wanted it; a destruction is put off until the callback has returned.
 */
#include "lib/libtarne-timers/qtimers.h"
#include "lib/libtarne-timers/autoparent.h"

#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>

namespace {

qtimer_assert_func assert_callback;
const struct ev_timespec latest_gap = { 0, 0 };

void qtimer_dispatch(evContext evctx, void *uap, struct ev_timespec due, struct ev_timespec inter);

void qtimer_rearm(struct qtimer_ctx *ctx, struct ev_timespec old)
{
    bool wanted = htimer_running(&ctx->qc_root);
    struct ev_timespec due = ctx->qc_root.ht_exptime;
    if (ctx->qc_armed == 0) {
        // If the loop has no memory for the timer, the next change of the tree tries again.
        if (wanted && __evSetTimer(ctx->qc_evctx, qtimer_dispatch, ctx, due, __evConsTime(0, 0), &ctx->qc_evtimer) >= 0)
            ctx->qc_armed = 1;
    } else if (!wanted) {
        __evClearTimer(ctx->qc_evctx, ctx->qc_evtimer);
        ctx->qc_evtimer = nullptr;
        ctx->qc_armed = 0;
    } else if (htimer_compare_timestamps(old, due) != 0) {
        __evResetTimer(ctx->qc_evctx, ctx->qc_evtimer, qtimer_dispatch, ctx, due, __evConsTime(0, 0));
    }
}

void run_callback(struct qtimer *timer)
{
    timer->qt_flags &= uint8_t(~QTIMER_TOUCHED);
    timer->qt_flags |= QTIMER_IN_CALLBACK;
    timer->qt_callback(timer, timer->qt_timer.ht_user);
    uint8_t flags = timer->qt_flags;
    timer->qt_flags &= uint8_t(~QTIMER_IN_CALLBACK);
    if ((flags & QTIMER_DESTROY_PENDING) != 0) {
        qtimer_destroy(timer);
    } else if ((flags & (QTIMER_INTERVAL | QTIMER_TOUCHED)) == QTIMER_INTERVAL) {
        struct ev_timespec old = timer->qt_ctx->qc_root.ht_exptime;
        htimer_update_jittered(&timer->qt_timer, timer->qt_interval, timer->qt_jitter);
        qtimer_rearm(timer->qt_ctx, old);
    }
}

void qtimer_dispatch(evContext, void *uap, struct ev_timespec, struct ev_timespec)
{
    auto *ctx = static_cast<qtimer_ctx *>(uap);
    ctx->qc_armed = 0;
    ctx->qc_evtimer = nullptr;
    for (int round = 0; round < QTIMER_ROUNDS; round++) {
        auto *timer = reinterpret_cast<qtimer *>(htimer_first_expired(&ctx->qc_root));
        if (timer == nullptr)
            return;
        if ((timer->qt_flags & QTIMER_INTERVAL) == 0)
            qtimer_stop(timer);
        run_callback(timer);
    }
}

struct qtimer *qtimer_create_common(struct qtimer_ctx *ctx, struct qtimer *parent, qtimer_func callback, uintptr_t user,
                                    bool is_leaf)
{
    auto *timer = static_cast<qtimer *>(calloc(1, sizeof(qtimer)));
    if (timer == nullptr)
        return nullptr;
    struct htimer *above = parent != nullptr ? &parent->qt_timer : &ctx->qc_root;
    if (is_leaf)
        htimer_init_leaf(&timer->qt_timer, above, 0);
    else
        htimer_init_parent(&timer->qt_timer, above, 0);
    timer->qt_timer.ht_user = user;
    timer->qt_callback = callback;
    timer->qt_ctx = ctx;
    return timer;
}

void qtimer_start_common(struct qtimer *timer, struct ev_timespec interval, uint32_t jitter, bool periodic)
{
    if (jitter > QTIMER_JITTER_MAX)
        jitter = QTIMER_JITTER_MAX;
    timer->qt_jitter = uint8_t(jitter);
    if (periodic)
        timer->qt_flags |= QTIMER_INTERVAL;
    else
        timer->qt_flags &= uint8_t(~QTIMER_INTERVAL);
    timer->qt_interval = interval;
    struct ev_timespec old = timer->qt_ctx->qc_root.ht_exptime;
    if ((timer->qt_flags & QTIMER_EFFICIENT_JITTER) != 0)
        htimer_start_jittered_latest(&timer->qt_timer, interval, jitter, latest_gap, false);
    else
        htimer_start_jittered(&timer->qt_timer, interval, jitter);
    qtimer_rearm(timer->qt_ctx, old);
    timer->qt_flags |= QTIMER_TOUCHED;
}

struct ev_timespec whole(uint32_t seconds)
{
    // What the clock cannot hold is as far away as it can be.
    return { seconds <= INT32_MAX ? int32_t(seconds) : INT32_MAX, 0 };
}

}   // namespace

static_assert(offsetof(struct qtimer, qt_timer) == 0, "the tree's leaves are taken for timers");

struct qtimer_ctx *qtimer_init(evContext evctx, qtimer_assert_func assert_func)
{
    assert_callback = assert_func;
    auto *ctx = static_cast<qtimer_ctx *>(calloc(1, sizeof(qtimer_ctx)));
    if (ctx == nullptr)
        return nullptr;
    ctx->qc_evctx = evctx;
    htimer_init_parent(&ctx->qc_root, nullptr, 0);
    return ctx;
}

struct qtimer *qtimer_create_leaf(struct qtimer_ctx *ctx, struct qtimer *parent, qtimer_func callback, uintptr_t user)
{
    return qtimer_create_common(ctx, parent, callback, user, true);
}

struct qtimer *qtimer_create_parent(struct qtimer_ctx *ctx, struct qtimer *parent)
{
    return qtimer_create_common(ctx, parent, nullptr, 0, false);
}

void qtimer_start_oneshot(struct qtimer *timer, uint32_t seconds, uint32_t jitter)
{
    qtimer_start_common(timer, whole(seconds), jitter, false);
}

void qtimer_start_interval(struct qtimer *timer, uint32_t seconds, uint32_t jitter)
{
    qtimer_start_common(timer, whole(seconds), jitter, true);
}

void qtimer_start_oneshot_precise(struct qtimer *timer, struct ev_timespec interval, uint32_t jitter)
{
    qtimer_start_common(timer, interval, jitter, false);
}

void qtimer_start_interval_precise(struct qtimer *timer, struct ev_timespec interval, uint32_t jitter)
{
    qtimer_start_common(timer, interval, jitter, true);
}

/* Kept on purpose: the shared parents go by the jitter as passed, before it is cut. */
void qtimer_start_autoparent_oneshot(struct qtimer *timer, uint32_t seconds, uint32_t jitter)
{
    qtimer_start_autoparent_oneshot_precise(timer, whole(seconds), jitter);
}

void qtimer_start_autoparent_interval(struct qtimer *timer, uint32_t seconds, uint32_t jitter)
{
    qtimer_start_autoparent_interval_precise(timer, whole(seconds), jitter);
}

void qtimer_start_autoparent_oneshot_precise(struct qtimer *timer, struct ev_timespec interval, uint32_t jitter)
{
    qtimer_set_autoparent(timer, interval, jitter);
    qtimer_start_common(timer, interval, jitter, false);
}

void qtimer_start_autoparent_interval_precise(struct qtimer *timer, struct ev_timespec interval, uint32_t jitter)
{
    qtimer_set_autoparent(timer, interval, jitter);
    qtimer_start_common(timer, interval, jitter, true);
}

void qtimer_stop(struct qtimer *timer)
{
    if (timer == nullptr)
        return;
    struct ev_timespec old = timer->qt_ctx->qc_root.ht_exptime;
    htimer_stop(&timer->qt_timer);
    qtimer_rearm(timer->qt_ctx, old);
    timer->qt_flags |= QTIMER_TOUCHED;
}

void qtimer_destroy(struct qtimer *timer)
{
    if (timer == nullptr)
        return;
    qtimer_stop(timer);
    if ((timer->qt_flags & QTIMER_IN_CALLBACK) != 0) {
        timer->qt_flags |= QTIMER_DESTROY_PENDING;
        return;
    }
    qtimer_release_autoparent(timer);
    timer->qt_timer.ht_magic = 0;
    free(timer);
}

bool qtimer_running(const struct qtimer *timer)
{
    return timer != nullptr && htimer_running(&timer->qt_timer);
}

bool qtimer_expired(const struct qtimer *timer)
{
    return timer != nullptr && htimer_expired(&timer->qt_timer);
}

void qtimer_time_remaining_precise(const struct qtimer *timer, struct ev_timespec *out)
{
    *out = { 0, 0 };
    if (!qtimer_running(timer))
        return;
    struct ev_timespec left = timer->qt_timer.ht_exptime;
    struct ev_timespec now;
    htimer_current_time(&now);
    htimer_subtract_timestamps(&left, now);
    if (left.tv_sec >= 0)
        *out = left;
}

uint32_t qtimer_time_remaining(const struct qtimer *timer)
{
    struct ev_timespec left;
    qtimer_time_remaining_precise(timer, &left);
    return uint32_t(left.tv_sec);
}

void qtimer_smear_children(struct qtimer *parent)
{
    // Kept on purpose: no rearming, so that an earliest expiry that came forward still fires at the old time.
    htimer_smear_children(&parent->qt_timer);
}

void qtimer_efficient_jitter(struct qtimer *timer, bool on)
{
    if (on)
        timer->qt_flags |= QTIMER_EFFICIENT_JITTER;
    else
        timer->qt_flags &= uint8_t(~QTIMER_EFFICIENT_JITTER);
}

void qtimer_assert(const char *file, int line, const char *expression)
{
    if (assert_callback == nullptr)
        return;
    char text[QTIMER_ASSERT_MAX];
    snprintf(text, sizeof text, "%s:%d: assert '%s' failed", file, line, expression);
    assert_callback(text);
}
