/*
 * Descriptors: a table by descriptor number, with one registration for reading and one for writing in each slot.
 *
 * Read interest is told to the kernel at once. Write interest is not: nearly every writer finds room, writes and is
 * gone. So a new write registration stands in cx_fresh and is called at the turn's write step; only if it still
 * stands after that call is EPOLLOUT armed. A message that goes out in one piece costs no call of epoll_ctl. A
 * descriptor that the kernel would not watch (a plain file) goes back to cx_fresh and is called every turn.
 *
 * What the kernel found may be out of date when its turn comes, since earlier callbacks of the same batch close, open
 * and register. Two marks keep such an event from the wrong handler:
 *   - the slot's generation, part of the kernel's event data, changes when the last registration of the number leaves;
 *   - a registration made while a batch is worked on is mute for that batch (fi_mute_turn).
 *
 * The kernel drops a descriptor from its set when it is closed, so what it holds can be less than sl_armed. That
 * shows as ENOENT or EBADF, and is never a failure of the one who leaves.
 */
#include "platform/ev/ev_private.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>

static constexpr int SLOTS_FIRST = 64;
static constexpr uint32_t GENERATION_SHIFT = 32;
// The kernel reports trouble without being asked for it. Whoever is registered is to find out by reading or writing.
static constexpr uint32_t TROUBLE = EPOLLHUP | EPOLLERR;

int ev_fd_set_blocking(int fd, bool blocking, bool *was)
{
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0) return -1;
    if (was) *was = !(flags & O_NONBLOCK);
    int wanted = blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK;
    return wanted == flags ? 0 : fcntl(fd, F_SETFL, wanted);
}

static bool slot_is_free(const struct ev_slot *slot)
{
    return !slot->sl_reader && !slot->sl_writer;
}

/* The slot of fd, the table having grown to it; null with EBADF or ENOMEM. */
static struct ev_slot *slot_of(struct ev_context *ctx, int fd)
{
    if (fd < 0) {
        errno = EBADF;
        return nullptr;
    }
    if (fd < ctx->cx_slot_count) return &ctx->cx_slots[fd];
    int count = ctx->cx_slot_count ? ctx->cx_slot_count : SLOTS_FIRST;
    while (count <= fd) count = count > INT32_MAX / 2 ? INT32_MAX : 2 * count;
    size_t octets = static_cast<size_t>(count) * sizeof(struct ev_slot);
    auto *slots = static_cast<struct ev_slot *>(realloc(ctx->cx_slots, octets));
    if (!slots) {
        errno = ENOMEM;
        return nullptr;
    }
    memset(slots + ctx->cx_slot_count, 0, static_cast<size_t>(count - ctx->cx_slot_count) * sizeof *slots);
    ctx->cx_slots = slots;
    ctx->cx_slot_count = count;
    return &slots[fd];
}

/* Brings what the kernel watches of fd to mask. 0, or -1 with errno if it refuses; taking interest back always
 * works. */
static int kernel_watch(struct ev_context *ctx, int fd, uint32_t mask)
{
    struct ev_slot *slot = &ctx->cx_slots[fd];
    if (slot->sl_armed == mask) return 0;
    bool is_less = (mask & ~slot->sl_armed) == 0;
    int operation = mask == 0 ? EPOLL_CTL_DEL : slot->sl_armed ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
    struct epoll_event event = {};
    event.events = mask;
    event.data.u64 = static_cast<uint64_t>(slot->sl_generation) << GENERATION_SHIFT | static_cast<uint32_t>(fd);
    int result = epoll_ctl(ctx->cx_epoll_fd, operation, fd, &event);
    if (result < 0 && operation == EPOLL_CTL_MOD && errno == ENOENT) {
        result = epoll_ctl(ctx->cx_epoll_fd, EPOLL_CTL_ADD, fd, &event);
    } else if (result < 0 && operation == EPOLL_CTL_ADD && errno == EEXIST) {
        result = epoll_ctl(ctx->cx_epoll_fd, EPOLL_CTL_MOD, fd, &event);
    }
    if (result < 0 && !is_less) return -1;
    slot->sl_armed = mask;
    return 0;
}

/* A registration that stands in the slot for each of events, and is told to nobody yet. Null with ENOMEM. */
static struct ev_file *file_new(struct ev_context *ctx, struct ev_slot *slot, int fd, int events, evFileFunc func,
                                void *uap)
{
    auto *file = static_cast<struct ev_file *>(ev_pool_get(&ctx->cx_file_pool));
    if (!file) {
        errno = ENOMEM;
        return nullptr;
    }
    file->fi_fd = fd;
    file->fi_func = func;
    file->fi_uap = uap;
    file->fi_mute_turn = ctx->cx_dispatching ? ctx->cx_turn : 0;
    if (events & EV_READ) slot->sl_reader = file;
    if (events & EV_WRITE) slot->sl_writer = file;
    return file;
}

static void file_end(struct ev_context *ctx, struct ev_file *file)
{
    struct ev_slot *slot = &ctx->cx_slots[file->fi_fd];
    uint32_t mask = slot->sl_armed;
    if (slot->sl_reader == file) {
        slot->sl_reader = nullptr;
        mask &= ~static_cast<uint32_t>(EPOLLIN);
    }
    if (slot->sl_writer == file) {
        slot->sl_writer = nullptr;
        mask &= ~static_cast<uint32_t>(EPOLLOUT);
    }
    (void)kernel_watch(ctx, file->fi_fd, mask);   // only takes interest back
    if (slot_is_free(slot)) slot->sl_generation++;
    if (ctx->cx_file_now == file) ctx->cx_file_now = nullptr;
    ev_pool_put(&ctx->cx_file_pool, file);
}

static int file_failed(struct ev_context *ctx, struct ev_file *file)
{
    int error = errno;
    file_end(ctx, file);
    errno = error;
    return -1;
}

int evSelectFD(evContext ctx, int fd, int events, evFileFunc func, void *uap, evFileID *id)
{
    if (!func || events == 0 || (events & ~(EV_READ | EV_WRITE))) {
        errno = EINVAL;
        return -1;
    }
    struct ev_slot *slot = slot_of(ctx, fd);
    if (!slot) return -1;
    bool is_first = slot_is_free(slot);
    int missing = (slot->sl_reader ? 0 : EV_READ) | (slot->sl_writer ? 0 : EV_WRITE);
    missing &= events;
    if (missing == 0) {
        if (id) *id = events & EV_READ ? slot->sl_reader : slot->sl_writer;
        return 0;
    }
    struct ev_file *file = file_new(ctx, slot, fd, missing, func, uap);
    if (!file) return -1;
    // The first registration has made the descriptor non-blocking, so a later one saves the calls.
    if (is_first && ev_fd_set_blocking(fd, false, nullptr) != 0) return file_failed(ctx, file);
    if ((missing & EV_READ) && kernel_watch(ctx, fd, slot->sl_armed | EPOLLIN) != 0) return file_failed(ctx, file);
    if (missing & EV_WRITE) ev_list_append(&ctx->cx_fresh, &file->fi_link);
    if (id) *id = file;
    ev_debug(ctx, 1, "descriptor %d: selected for %d", fd, missing);
    return 0;
}

int evDeselectFD(evContext ctx, evFileID id)
{
    if (!ev_record_is_live(id)) {
        errno = EINVAL;
        return -1;
    }
    ev_debug(ctx, 1, "descriptor %d: deselected", id->fi_fd);
    file_end(ctx, id);
    return 0;
}

struct ev_file *ev_file_watch_connect(struct ev_context *ctx, int fd, evFileFunc func, void *uap)
{
    struct ev_slot *slot = slot_of(ctx, fd);
    if (!slot) return nullptr;
    if (!slot_is_free(slot)) {
        errno = EBUSY;
        return nullptr;
    }
    struct ev_file *file = file_new(ctx, slot, fd, EV_WRITE, func, uap);
    if (!file) return nullptr;
    file->fi_mute_turn = ctx->cx_turn;
    if (kernel_watch(ctx, fd, EPOLLOUT) == 0) return file;
    (void)file_failed(ctx, file);
    return nullptr;
}

int ev_run_fresh_writes(struct ev_context *ctx)
{
    if (ev_list_is_empty(&ctx->cx_fresh)) return 0;
    // Those that the handlers register wait for the next turn: they go behind the mark.
    struct ev_link mark;
    ev_list_append(&ctx->cx_fresh, &mark);
    int calls = 0;
    for (; ctx->cx_fresh.next != &mark; calls++) {
        auto *file = reinterpret_cast<struct ev_file *>(ctx->cx_fresh.next);
        ev_link_remove(&file->fi_link);
        ctx->cx_file_now = file;
        ev_debug(ctx, 2, "descriptor %d: called for its first write", file->fi_fd);
        file->fi_func(ctx, file->fi_uap, file->fi_fd, EV_WRITE);
        if (!ctx->cx_file_now) continue;
        ctx->cx_file_now = nullptr;
        uint32_t mask = ctx->cx_slots[file->fi_fd].sl_armed | EPOLLOUT;
        if (kernel_watch(ctx, file->fi_fd, mask) != 0) ev_list_append(&ctx->cx_fresh, &file->fi_link);
    }
    ev_link_remove(&mark);
    return calls;
}

static int file_call(struct ev_context *ctx, struct ev_file *file, int events)
{
    if (file->fi_mute_turn == ctx->cx_turn) return 0;
    ev_debug(ctx, 2, "descriptor %d: called for %d", file->fi_fd, events);
    file->fi_func(ctx, file->fi_uap, file->fi_fd, events);
    return 1;
}

/* The slot that a kernel event is about, or null if the registrations that it was about are gone. */
static const struct ev_slot *slot_of_event(const struct ev_context *ctx, uint64_t data)
{
    const struct ev_slot *slot = &ctx->cx_slots[static_cast<uint32_t>(data)];
    return slot->sl_generation == data >> GENERATION_SHIFT ? slot : nullptr;
}

int ev_run_file_event(struct ev_context *ctx, uint64_t data, uint32_t kernel_events)
{
    const struct ev_slot *slot = slot_of_event(ctx, data);
    if (!slot) return 0;
    int ready = 0;
    if ((kernel_events & (EPOLLIN | TROUBLE)) && (slot->sl_armed & EPOLLIN)) ready |= EV_READ;
    if ((kernel_events & (EPOLLOUT | TROUBLE)) && (slot->sl_armed & EPOLLOUT)) ready |= EV_WRITE;

    int calls = 0;
    if (ready & EV_READ) {
        int events = slot->sl_reader == slot->sl_writer ? ready : EV_READ;
        ready &= ~events;
        calls += file_call(ctx, slot->sl_reader, events);
        slot = slot_of_event(ctx, data);   // the handler may have changed all of it
    }
    if ((ready & EV_WRITE) && slot && slot->sl_writer) calls += file_call(ctx, slot->sl_writer, EV_WRITE);
    return calls;
}

int evHoldFD(int fd, bool on)
{
    int value = on;
    return setsockopt(fd, IPPROTO_TCP, TCP_CORK, &value, sizeof value);
}
