/*
 * Waiters: jobs that stand on a tag until evDo releases them.
 *
 * evDo may interrupt the loop's thread anywhere, so it only counts and pushes: it adds one to the tag's count and
 * puts the tag on the stack cx_dirty, both with atomics that need no lock. The rest is done by the loop at the start
 * of a turn. Each waiter remembers the count at its registration; a count that has moved since means that evDo came
 * later and releases it, and one that has not means that the waiter came later and stays. So evDo is exact to the
 * call, however late it is seen.
 *
 * Waking: evDo writes to the eventfd only while cx_sleeping is set. The loop sets that before its last look at
 * cx_dirty, so an evDo before the look is seen by it and one after the look ends the sleep. One from a callback costs
 * no system call.
 *
 * True whenever a signal can arrive:
 *   - a tag once in a bucket stays there. One that nobody waits on may be given to another value;
 *   - ta_queued is set exactly while the tag is on the stack, and is cleared before its count is read.
 */
#include "platform/ev/ev_private.h"

#include <errno.h>
#include <unistd.h>

static unsigned bucket_of(const void *value)
{
    // Tags are mostly functions and records, aligned to 16 octets or so.
    auto word = reinterpret_cast<uintptr_t>(value);
    return static_cast<unsigned>((word >> 4 ^ word >> 10) % EV_TAG_BUCKETS);
}

static struct ev_tag *tag_find(struct ev_context *ctx, const void *value)
{
    struct ev_tag *tag = ctx->cx_tags[bucket_of(value)].load();
    while (tag && tag->ta_value.load() != value) tag = tag->ta_next;
    return tag;
}

/* A tag of the value's bucket that nobody waits on, a new one if there is none; null if memory is out. */
static struct ev_tag *tag_make(struct ev_context *ctx, const void *value)
{
    std::atomic<struct ev_tag *> &bucket = ctx->cx_tags[bucket_of(value)];
    struct ev_tag *tag = bucket.load();
    while (tag && tag->ta_standing.load() > 0) tag = tag->ta_next;
    if (tag) {
        tag->ta_value.store(value);
        return tag;
    }
    tag = static_cast<struct ev_tag *>(ev_pool_get(&ctx->cx_tag_pool));   // the pool links ta_waiters to itself
    if (!tag) return nullptr;
    tag->ta_value.store(value);
    tag->ta_next = bucket.load();
    bucket.store(tag);
    return tag;
}

int evWaitFor(evContext ctx, const void *tag_value, evWaitFunc func, void *uap, evWaitID *id)
{
    if (!func) {
        errno = EINVAL;
        return -1;
    }
    struct ev_tag *tag = tag_find(ctx, tag_value);
    if (!tag) tag = tag_make(ctx, tag_value);
    auto *wait = tag ? static_cast<struct ev_wait *>(ev_pool_get(&ctx->cx_wait_pool)) : nullptr;
    if (!wait) {
        errno = ENOMEM;
        return -1;
    }
    wait->wa_tag = tag;
    wait->wa_value = tag_value;
    wait->wa_func = func;
    wait->wa_uap = uap;
    ev_list_append(&tag->ta_waiters, &wait->wa_link);
    wait->wa_seen = tag->ta_count.load();
    tag->ta_standing.fetch_add(1);
    if (id) *id = wait;
    ev_debug(ctx, 1, "waiter %p: stands on %p", static_cast<void *>(wait), tag_value);
    return 0;
}

static void wait_leave_tag(struct ev_wait *wait)
{
    ev_link_remove(&wait->wa_link);
    if (wait->wa_tag) wait->wa_tag->ta_standing.fetch_sub(1);
    wait->wa_tag = nullptr;
}

int evUnwait(evContext ctx, evWaitID id)
{
    if (!ev_record_is_live(id)) {
        errno = EINVAL;
        return -1;
    }
    ev_debug(ctx, 1, "waiter %p: removed", static_cast<void *>(id));
    wait_leave_tag(id);
    ev_pool_put(&ctx->cx_wait_pool, id);
    return 0;
}

int evDo(evContext ctx, const void *tag_value)
{
    struct ev_tag *tag = tag_find(ctx, tag_value);
    if (!tag || tag->ta_standing.load() == 0) return 0;
    tag->ta_count.fetch_add(1);
    if (!tag->ta_queued.exchange(true)) {
        tag->ta_next_dirty = ctx->cx_dirty.load();
        while (!ctx->cx_dirty.compare_exchange_weak(tag->ta_next_dirty, tag)) continue;
    }
    if (ctx->cx_sleeping.load()) {
        int error = errno;
        uint64_t one = 1;
        (void)!write(ctx->cx_wake_fd, &one, sizeof one);   // fails only if the loop is to be woken already
        errno = error;
    }
    return 0;
}

/* Moves to cx_released all whose tag's count has moved. They stand in front, since counts only grow. */
static void tag_release(struct ev_context *ctx, struct ev_tag *tag)
{
    tag->ta_queued.store(false);
    uint32_t count = tag->ta_count.load();
    while (!ev_list_is_empty(&tag->ta_waiters)) {
        auto *wait = reinterpret_cast<struct ev_wait *>(tag->ta_waiters.next);
        if (wait->wa_seen == count) return;
        wait_leave_tag(wait);
        ev_list_append(&ctx->cx_released, &wait->wa_link);
    }
}

static void release_dirty(struct ev_context *ctx)
{
    struct ev_tag *stack = ctx->cx_dirty.exchange(nullptr), *queue = nullptr;
    while (stack) {   // the tag that evDo saw first comes first
        struct ev_tag *next = stack->ta_next_dirty;
        stack->ta_next_dirty = queue;
        queue = stack;
        stack = next;
    }
    while (queue) {
        struct ev_tag *tag = queue;
        queue = tag->ta_next_dirty;   // before the release, from where on a signal may push the tag again
        tag_release(ctx, tag);
    }
}

int ev_run_waiters(struct ev_context *ctx)
{
    if (!ctx->cx_dirty.load()) return 0;
    release_dirty(ctx);
    int calls = 0;
    for (; !ev_list_is_empty(&ctx->cx_released); calls++) {
        auto *wait = reinterpret_cast<struct ev_wait *>(ctx->cx_released.next);
        struct ev_wait called = *wait;
        ev_pool_put(&ctx->cx_wait_pool, wait);
        ev_debug(ctx, 2, "waiter %p: called", static_cast<void *>(wait));
        called.wa_func(ctx, called.wa_uap, called.wa_value);
    }
    return calls;
}
