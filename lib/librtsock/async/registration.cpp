/*
 * Registrations: what the client wants to hear of. The first one selects the descriptor; each asks the kernel for the
 * classes that were not asked for yet, and none of them is ever taken back, those of routes apart.
 *
 * A slot holds one registration for each type of message. Where several clients in a process share a type by an octet
 * of the message, the slot's registration is the subtype handler and its context a table of pairs.
 */
#include "lib/librtsock/async/async.h"
#include "lib/librtsock/filter/rts_filter.h"
#include "platform/rtsock/rtsock.h"
#include "platform/target.h"

#include <errno.h>
#include <string.h>

namespace {

struct listen_words {
    uint32_t low, high;
};

struct message_class {
    uint32_t type;
    struct listen_words words;
};
constexpr struct message_class class_rtb = { 1, { 0x2000, 0 } };
constexpr struct message_class class_route = { 2, { 0x200380, 0 } };
constexpr struct message_class class_ifd = { 5, { 0x1, 0 } };
constexpr struct message_class class_ifl = { 6, { 0x2, 0 } };
constexpr struct message_class class_gencfg = { 72, { 0, 0x1 } };

/* Two classes each, for bits 0 and 2 of the client's flag. */
struct family_class {
    uint32_t type, low_bit0, low_bit2;
};
constexpr struct family_class class_iff = { 7, 0x10, 0x4 };
constexpr struct family_class class_ifa = { 8, 0x20, 0x8 };

enum {
    FLAG_BIT0 = 1,
    FLAG_BIT2 = 4,
    EOCHAIN_TYPE = 85,
    EOCHAIN_SUBTYPES = 1,
    EOCHAIN_OFFSET = 24,
    UNFILTERED_AT = 8,   // in a filter block: classes that it takes back
};

int add_class(struct rtslib_cookie *cookie, const struct message_class *c, uintptr_t context,
              rtslib_async_func handler)
{
    return rtslib_setup_async_registration_idl(cookie, c->type, c->words.low, c->words.high, context, handler);
}

int add_family(struct rtslib_cookie *cookie, const struct family_class *c, uint8_t flag, uintptr_t context,
               rtslib_async_func handler)
{
    uint32_t low = ((flag & FLAG_BIT0) != 0 ? c->low_bit0 : 0) | ((flag & FLAG_BIT2) != 0 ? c->low_bit2 : 0);
    return rtslib_setup_async_registration_idl(cookie, c->type, low, 0, context, handler);
}

void socket_readable(evContext ctx, void *uap, int, int)
{
    (void)rtslib_async_event_callback(ctx, static_cast<struct rtslib_cookie *>(uap));   // reported; the loop goes on
}

/* The event library may refuse; a client with a loop of its own, or without an event source, has nothing to select. */
void select_descriptor(struct rtslib_cookie *cookie)
{
    struct rtslib_async_info *info = cookie->async_info;
    if ((info->ev_state & (RTSLIB_EV_SELECTED | RTSLIB_EV_OWN_LOOP)) != 0)
        return;
    info->ev_state |= RTSLIB_EV_SELECTED;
    if (info->ev_ctx == nullptr)
        return;
    if ((info->async_mode & RTSLIB_ASYNC_EXT_SELECT) == 0) {
        (void)evSelectFD(info->ev_ctx, cookie->socket, EV_READ, socket_readable, cookie, &info->ev_file_id);
        return;
    }
    // Trouble of the descriptor counts as readable with the event library, so that reading is all there is to ask for.
    auto *source = static_cast<struct rtslib_ext_select *>(cookie->ext_select);
    if (source != nullptr)
        (void)evSelectFD(info->ev_ctx, int(source->fd), EV_READ, source->func, cookie, &info->ev_file_id);
}

/* 0, or -1 after the report. */
int listen_to(struct rtslib_cookie *cookie, struct listen_words wanted)
{
    struct rtslib_async_info *info = cookie->async_info;
    if ((wanted.low & ~info->listen_lo) == 0 && (wanted.high & ~info->listen_hi) == 0)
        return 0;
    struct listen_words all = { info->listen_lo | wanted.low, info->listen_hi | wanted.high };
    if (rtsock_setsockopt(cookie->socket, RTSOCK_LEVEL, RTSOCK_LISTEN_BITS, &all, sizeof all) < 0) {
        rtslib_err(cookie, RTSLIB_ERROR, "failed to set listen bit %s", strerror(errno));
        return -1;
    }
    info->listen_lo = all.low;
    info->listen_hi = all.high;
    return 0;
}

/* A table with its pairs zeroed, or null. */
struct rtslib_async_subtypes *new_table(uint8_t count, uint32_t offset)
{
    auto *table = static_cast<struct rtslib_async_subtypes *>(
        rtslib_calloc(MEMID_RTSLIB_SUBTYPE, 1, sizeof(struct rtslib_async_subtypes)));
    if (table == nullptr)
        return nullptr;
    table->count = count;
    table->offset = offset;
    table->entries = static_cast<struct rtslib_async_reg *>(
        rtslib_calloc(MEMID_RTSLIB_ASYNC_REG, count, sizeof(struct rtslib_async_reg)));
    if (table->entries != nullptr)
        return table;
    rtslib_free(MEMID_RTSLIB_SUBTYPE, table);
    return nullptr;
}

void free_table(struct rtslib_async_subtypes *table)
{
    rtslib_free(MEMID_RTSLIB_ASYNC_REG, table->entries);
    rtslib_free(MEMID_RTSLIB_SUBTYPE, table);
}

int fill_table(struct rtslib_async_subtypes *table, uint8_t subtype, bool all, struct rtslib_async_reg entry)
{
    if (!all && subtype >= table->count)
        return TARGET_EINVAL;
    uint32_t first = all ? 0 : subtype, end = all ? table->count : subtype + 1U;
    for (uint32_t i = first; i < end; i++)
        table->entries[i] = entry;
    return 0;
}

}   // namespace

int rtslib_setup_async_registration(struct rtslib_cookie *cookie, uint32_t type, uint32_t low, uint32_t high,
                                    uintptr_t context, rtslib_async_func handler)
{
    if (cookie == nullptr || cookie->async_info == nullptr || type >= RTSLIB_ASYNC_SLOTS ||
        cookie->async_info->handlers[type] != nullptr || handler == nullptr)
        return TARGET_EINVAL;
    select_descriptor(cookie);
    if (listen_to(cookie, { low, high }) != 0)
        return -1;
    auto *reg = static_cast<struct rtslib_async_reg *>(
        rtslib_malloc(MEMID_RTSLIB_ASYNC_REG, sizeof(struct rtslib_async_reg)));
    if (reg == nullptr) {
        // Kept on purpose: the selection and the classes asked of the kernel stay, where one would expect them to be
        // taken back; their messages come and have no handler.
        errno = ENOMEM;
        rtslib_err(cookie, RTSLIB_ERROR, "async registration allocation failed %s\n", strerror(errno));
        return -1;
    }
    *reg = { context, handler };
    cookie->async_info->handlers[type] = reg;
    return 0;
}

int rtslib_setup_async_registration_idl(struct rtslib_cookie *cookie, uint32_t type, uint32_t low, uint32_t high,
                                        uintptr_t context, rtslib_async_func handler)
{
    return rtslib_setup_async_registration(cookie, type, low, high, context, handler);
}

void rtslib_async_slot_clear(struct rtslib_cookie *cookie, uint32_t type)
{
    struct rtslib_async_reg *reg = cookie->async_info->handlers[type];
    if (reg == nullptr)
        return;
    // Kept on purpose: only the table of subtypes is freed, and its array of pairs leaks.
    if (reg->handler == rtslib_async_subtype_handler)
        rtslib_free(MEMID_RTSLIB_SUBTYPE, reinterpret_cast<struct rtslib_async_subtypes *>(reg->context));
    reg->context = 0;
    rtslib_free(MEMID_RTSLIB_ASYNC_REG, reg);
    cookie->async_info->handlers[type] = nullptr;
}

int rtslib_ifdm_async_register(struct rtslib_cookie *cookie, uintptr_t context, rtslib_async_func handler)
{
    return add_class(cookie, &class_ifd, context, handler);
}

int rtslib_iflm_async_register(struct rtslib_cookie *cookie, uintptr_t context, rtslib_async_func handler)
{
    return add_class(cookie, &class_ifl, context, handler);
}

int rtslib_iffm_async_register(struct rtslib_cookie *cookie, uint8_t flag, uintptr_t context,
                               rtslib_async_func handler)
{
    return add_family(cookie, &class_iff, flag, context, handler);
}

int rtslib_ifam_async_register(struct rtslib_cookie *cookie, uint8_t flag, uintptr_t context,
                               rtslib_async_func handler)
{
    return add_family(cookie, &class_ifa, flag, context, handler);
}

int rtslib_rtbm_async_register(struct rtslib_cookie *cookie, uintptr_t context, rtslib_async_func handler)
{
    return add_class(cookie, &class_rtb, context, handler);
}

int rtslib_rtm_async_register(struct rtslib_cookie *cookie, uintptr_t context, rtslib_async_func handler)
{
    return add_class(cookie, &class_route, context, handler);
}

int rtslib_gencfg_async_register(struct rtslib_cookie *cookie, uintptr_t context, rtslib_async_func handler)
{
    return add_class(cookie, &class_gencfg, context, handler);
}

int rtslib_ifstate_eochain_register(struct rtslib_cookie *cookie, uintptr_t context, rtslib_async_func handler)
{
    return rtslib_async_subtype_handler_register(cookie, EOCHAIN_TYPE, 0, EOCHAIN_SUBTYPES, EOCHAIN_OFFSET, 0, 0, 0,
                                                 context, handler);
}

int rtslib_async_register_filters(struct rtslib_cookie *cookie, const void *filter)
{
    if (cookie == nullptr || cookie->async_info == nullptr || filter == nullptr)
        return TARGET_EINVAL;
    struct rts_filter_registration block = { cookie->async_info->listen_lo, cookie->async_info->listen_hi, {} };
    memcpy(block.filter, filter, sizeof block.filter);
    if (rtsock_setsockopt(cookie->socket, RTSOCK_LEVEL, RTSOCK_FILTERS, &block, sizeof block) < 0) {
        rtslib_err(cookie, RTSLIB_ERROR, "failed to set listen bit %s", strerror(errno));
        return -1;
    }
    return 0;
}

int rtslib_rtm_async_unregister(struct rtslib_cookie *cookie)
{
    if (cookie == nullptr || cookie->async_info == nullptr)
        return 0;
    uint8_t filter[RTS_FILTER_BLOCK_SIZE] = {};
    memcpy(filter + UNFILTERED_AT, &class_route.words.low, sizeof class_route.words.low);
    cookie->async_info->listen_lo &= ~class_route.words.low;
    rtslib_async_slot_clear(cookie, class_route.type);
    // Kept on purpose: 0 even if the kernel refuses and goes on sending routes; the report tells.
    (void)rtslib_async_register_filters(cookie, filter);
    return 0;
}

int rtslib_async_subtype_handler_register(struct rtslib_cookie *cookie, uint32_t type, uint8_t subtype, uint8_t count,
                                          uint32_t offset, uint8_t all, uint32_t low, uint32_t high,
                                          uintptr_t context, rtslib_async_func handler)
{
    if (cookie == nullptr || cookie->async_info == nullptr || handler == nullptr || type >= RTSLIB_ASYNC_SLOTS)
        return TARGET_EINVAL;
    // Kept on purpose: a later subtype of the type is dropped with 0, where one would expect it in the table.
    if (cookie->async_info->handlers[type] != nullptr)
        return 0;
    struct rtslib_async_subtypes *table = new_table(count, offset);
    if (table == nullptr)
        return TARGET_ENOMEM;
    int result = fill_table(table, subtype, all != 0, { context, handler });
    if (result == 0)
        result = rtslib_setup_async_registration(cookie, type, low, high, reinterpret_cast<uintptr_t>(table),
                                                 rtslib_async_subtype_handler);
    if (result != 0)
        free_table(table);
    return result;
}
