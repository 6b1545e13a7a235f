/*
 * The loop: contexts, turns, and the one place where the program sleeps.
 *
 * A turn runs the work that needs no kernel (released waiters, fresh write registrations, due timers) and then asks
 * epoll_wait, with a timeout of 0 if such work is left. How long it may sleep is computed each time from the clock
 * and the first timer, so whoever replaces the clock drives the timers.
 *
 * An epoll_wait that cannot sleep is what a busy daemon can save. The usual exchange is: a read event releases a
 * waiter, the waiter registers a writer, the writer releases a waiter. evMainLoop therefore works off what its
 * callbacks leave before it asks the kernel again, but at most ROUNDS_MAX times in a row: jobs that release each
 * other for ever hold up no descriptor. evTurn always asks, so that one turn is one turn.
 *
 * True between turns: cx_released and cx_due are empty, and no callback is on the stack.
 */
#include "platform/ev/ev_private.h"

#include <errno.h>
#include <limits.h>
#include <new>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

static constexpr int EVENTS_MAX = 64;     // taken from the kernel at once
static constexpr int ROUNDS_MAX = 4;
static constexpr int64_t NS_PER_MS = 1000000;
static constexpr uint64_t WAKE_DATA = UINT64_MAX;   // no descriptor has the number that it holds

static int context_open(struct ev_context *ctx)
{
    ctx->cx_epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    ctx->cx_wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (ctx->cx_epoll_fd < 0 || ctx->cx_wake_fd < 0) return -1;
    struct epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = WAKE_DATA;
    return epoll_ctl(ctx->cx_epoll_fd, EPOLL_CTL_ADD, ctx->cx_wake_fd, &event);
}

static void context_free(struct ev_context *ctx)
{
    if (ctx->cx_epoll_fd >= 0) (void)close(ctx->cx_epoll_fd);
    if (ctx->cx_wake_fd >= 0) (void)close(ctx->cx_wake_fd);
    for (struct ev_pool *pool : { &ctx->cx_timer_pool, &ctx->cx_file_pool, &ctx->cx_conn_pool, &ctx->cx_wait_pool,
                                  &ctx->cx_tag_pool }) {
        ev_pool_end(pool);
    }
    free(ctx->cx_heap);
    free(ctx->cx_slots);
    free(ctx);
}

int evCreate(evContext *out)
{
    void *memory = malloc(sizeof(struct ev_context));
    if (!memory) {
        errno = ENOMEM;
        return -1;
    }
    auto *ctx = new (memory) ev_context{};
    for (struct ev_link *list : { &ctx->cx_due, &ctx->cx_fresh, &ctx->cx_released }) ev_link_init(list);
    ctx->cx_timer_pool.po_octets = sizeof(struct ev_timer);
    ctx->cx_file_pool.po_octets = sizeof(struct ev_file);
    ctx->cx_conn_pool.po_octets = sizeof(struct ev_conn);
    ctx->cx_wait_pool.po_octets = sizeof(struct ev_wait);
    ctx->cx_tag_pool.po_octets = sizeof(struct ev_tag);
    if (context_open(ctx) != 0) {
        int error = errno;
        context_free(ctx);
        errno = error;
        return -1;
    }
    *out = ctx;
    return 0;
}

int evDestroy(evContext ctx)
{
    if (ctx->cx_turning) {
        errno = EDEADLK;
        return -1;
    }
    context_free(ctx);
    return 0;
}

void evSetDebug(evContext ctx, int level, void *out)
{
    ctx->cx_debug_level = out ? level : 0;
    ctx->cx_debug_out = out;
}

void ev_debug(const struct ev_context *ctx, int level, const char *format, ...)
{
    if (ctx->cx_debug_level < level) return;
    auto *out = static_cast<FILE *>(ctx->cx_debug_out);
    int error = errno;
    fputs("ev: ", out);
    va_list values;
    va_start(values, format);
    (void)vfprintf(out, format, values);   // a lost debug line changes nothing
    va_end(values);
    fputc('\n', out);
    errno = error;
}

/* How long epoll_wait may sleep: to the first timer, rounded up so that it is due then; no longer than limit_ms. */
static int sleep_ms(const struct ev_context *ctx, int limit_ms)
{
    int64_t due_ns;
    if (limit_ms == 0 || !ev_timer_next_due(ctx, &due_ns)) return limit_ms;
    int64_t left_ns = due_ns - ev_now_ns();
    if (left_ns <= 0) return 0;
    int64_t most_ms = limit_ms < 0 ? INT_MAX : limit_ms;
    int64_t left_ms = (left_ns + NS_PER_MS - 1) / NS_PER_MS;
    return static_cast<int>(left_ms < most_ms ? left_ms : most_ms);
}

static bool work_is_left(const struct ev_context *ctx)
{
    return ctx->cx_dirty.load() || !ev_list_is_empty(&ctx->cx_fresh);
}

static void drain_wakes(struct ev_context *ctx)
{
    uint64_t count;
    (void)!read(ctx->cx_wake_fd, &count, sizeof count);   // only empties it
}

/* epoll_wait, which an evDo of a signal handler ends or keeps from sleeping. The number of events; a signal makes it
 * 0. */
static int wait_for_events(struct ev_context *ctx, struct epoll_event *events, int limit_ms)
{
    int timeout_ms = sleep_ms(ctx, limit_ms);
    ctx->cx_sleeping.store(timeout_ms != 0);
    if (ctx->cx_dirty.load()) timeout_ms = 0;
    int count = epoll_wait(ctx->cx_epoll_fd, events, EVENTS_MAX, timeout_ms);
    ctx->cx_sleeping.store(false);
    return count < 0 && errno == EINTR ? 0 : count;
}

/* The descriptor step. The number of calls, or -1 with errno. */
static int run_files(struct ev_context *ctx, int limit_ms)
{
    struct epoll_event events[EVENTS_MAX];
    int count = wait_for_events(ctx, events, limit_ms);
    if (count < 0) return -1;
    int calls = 0;
    ctx->cx_dispatching = true;
    for (const struct epoll_event *event = events; event < events + count; event++) {
        if (event->data.u64 == WAKE_DATA) drain_wakes(ctx);
        else calls += ev_run_file_event(ctx, event->data.u64, event->events);
    }
    ctx->cx_dispatching = false;
    return calls;
}

/* The steps of a turn that need no kernel. The number of calls. */
static int run_work(struct ev_context *ctx)
{
    ctx->cx_turn++;
    int calls = ev_run_waiters(ctx);
    calls += ev_run_fresh_writes(ctx);
    calls += ev_run_timers(ctx);
    return calls;
}

static int run_turn(struct ev_context *ctx, int max_wait_ms)
{
    int calls = run_work(ctx);
    int file_calls = run_files(ctx, calls > 0 || work_is_left(ctx) ? 0 : max_wait_ms);
    return file_calls < 0 ? -1 : calls + file_calls;
}

static int run_endlessly(struct ev_context *ctx)
{
    for (;;) {
        int rounds = 0;
        do {
            run_work(ctx);
        } while (work_is_left(ctx) && ++rounds < ROUNDS_MAX);
        if (run_files(ctx, work_is_left(ctx) ? 0 : -1) < 0) return -1;
    }
}

int evTurn(evContext ctx, int max_wait_ms)
{
    if (ctx->cx_turning) {
        errno = EDEADLK;
        return -1;
    }
    ctx->cx_turning = true;
    int calls = run_turn(ctx, max_wait_ms);
    ctx->cx_turning = false;
    return calls;
}

int evMainLoop(evContext ctx)
{
    if (ctx->cx_turning) {
        errno = EDEADLK;
        return -1;
    }
    ctx->cx_turning = true;
    int result = run_endlessly(ctx);
    ctx->cx_turning = false;
    return result;
}
