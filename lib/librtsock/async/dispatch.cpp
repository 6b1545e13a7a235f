/*
 * Dispatch: one message, from the octets that were read to the handler of its type.
 *
 * A message in one of the wire forms is decoded, and the handler gets the decoded block; its envelope tells the type,
 * also where nothing can be decoded. A raw one is copied, since the read buffer is overwritten by the next read.
 * From the handler's call on the message is the handler's; on every other road it is freed here. A registration is
 * copied before its handler runs, which may end it.
 */
#include "lib/librtsock/async/async.h"
#include "lib/librtsock/rtslib_envelope.h"
#include "lib/librtsock/rtslib_gencfg.h"
#include "lib/librtsock/rtslib_raw.h"
#include "lib/librtsock/rtslib_unnum.h"
#include "platform/target.h"

#include <errno.h>
#include <string.h>

namespace {

enum {
    TYPE_ADDRESS = 8,
    TYPE_GENCFG = 72,
    TYPE_AT = 8,   // in an envelope
};

/* 0 with a copy of the registration for type, or an error number after the report. */
int find_handler(struct rtslib_cookie *cookie, uint32_t type, struct rtslib_async_reg *reg)
{
    if (type >= RTSLIB_TYPES) {
        rtslib_err(cookie, RTSLIB_WARNING, "received async message of unknown type: %d\n", int(type));
        return TARGET_EOPNOTSUPP;
    }
    if (cookie->async_info->handlers[type] == nullptr) {
        rtslib_err(cookie, RTSLIB_ERROR, "received async message with no handler: %d\n", int(type));
        return TARGET_ENOENT;
    }
    *reg = *cookie->async_info->handlers[type];
    return 0;
}

int dispatch_raw(struct rtslib_cookie *cookie, const uint8_t *octets, uint32_t length)
{
    struct rts_raw_hdr header;
    memcpy(&header, octets, sizeof header);
    struct rtslib_async_reg reg;
    int result = find_handler(cookie, header.type, &reg);
    if (result != 0)
        return result;
    void *copy = rtslib_size_alloc(cookie, length);
    if (copy == nullptr)
        return TARGET_ENOMEM;
    memcpy(copy, octets, length);
    reg.handler(cookie, reg.context, copy, nullptr);
    return 0;
}

int failed_decode(struct rtslib_cookie *cookie, int error)
{
    rtslib_err(cookie, RTSLIB_ERROR, "Failed to decode the msg: error (%d)\n", error);
    return error;
}

/* Donor tracking hears of a deleted address before the handler does, and of any other change behind it. */
void call_for_address(struct rtslib_cookie *cookie, const struct rtslib_async_reg *reg, void *message)
{
    bool is_delete = static_cast<const struct rts_hdr *>(message)->rtsh_op == RTM_OP_DELETE;
    bool is_saved = rtslib_unnum_ifa_save_msg(cookie, message) == 0;
    if (is_saved && is_delete)
        (void)rtslib_unnum_ifa_report(cookie);
    struct rtslib_async_pass pass = { cookie->async_pass, false };
    cookie->async_pass = &pass;
    reg->handler(cookie, reg->context, message, nullptr);
    if (pass.cookie_gone)
        return;
    cookie->async_pass = pass.outer;
    if (is_saved && !is_delete && cookie->unnum != nullptr)
        (void)rtslib_unnum_ifa_report(cookie);
}

/* Takes the message if the result is 0. */
int hand_over(struct rtslib_cookie *cookie, void **message)
{
    int type = static_cast<const struct rts_hdr *>(*message)->rtsh_type;
    struct rtslib_async_reg reg;
    int result = find_handler(cookie, uint32_t(type), &reg);
    if (result != 0)
        return result;
    if (type == TYPE_GENCFG)
        result = rtslib_gencfg_async(cookie, message);
    if (result != 0)
        return result;
    if (type == TYPE_ADDRESS && cookie->unnum != nullptr)
        call_for_address(cookie, &reg, *message);
    else
        reg.handler(cookie, reg.context, *message, nullptr);
    return 0;
}

/* The decoder has stepped over a type that it has no codec for, with nothing to hand to anybody. */
int dispatch_nothing(struct rtslib_cookie *cookie, const uint8_t *octets)
{
    uint32_t type;
    memcpy(&type, octets + TYPE_AT, sizeof type);
    struct rtslib_async_reg reg;
    int result = find_handler(cookie, type, &reg);
    return result != 0 ? result : failed_decode(cookie, TARGET_EOPNOTSUPP);
}

int dispatch(struct rtslib_cookie *cookie, const uint8_t *octets, uint32_t length)
{
    void *message = nullptr;
    int result = rtslib_msg_idl_decode(cookie, octets, length, &message, nullptr);
    if (result == TARGET_EOPNOTSUPP)
        return dispatch_raw(cookie, octets, length);
    if (result != 0)
        return failed_decode(cookie, result);
    cookie->seq++;
    if (message == nullptr)
        return dispatch_nothing(cookie, octets);
    result = hand_over(cookie, &message);
    if (result != 0)
        rtslib_msg_idl_release(cookie, message);
    return result;
}

/* The octet that chooses, or -1 after the report. */
int subtype_of(struct rtslib_cookie *cookie, const struct rtslib_async_subtypes *table, const void *message)
{
    struct rts_raw_hdr header;   // a decoded message begins with the same octets
    memcpy(&header, message, sizeof header);
    int type = header.type, offset = int(table->offset), length = int(header.msglen);
    if (header.msglen <= table->offset) {
        rtslib_err(cookie, RTSLIB_ERROR,
                   "received async message with length < needed for subtype msg_type = %d subtype offset=%d "
                   "msglen=%d\n",
                   type, offset, length);
        return -1;
    }
    int subtype = static_cast<const uint8_t *>(message)[table->offset];
    if (subtype >= table->count) {
        rtslib_err(cookie, RTSLIB_ERROR,
                   "received async message with invalid subtype msg_type = %d subtype offset=%d msglen=%d "
                   "subtype = %d\n",
                   type, offset, length, subtype);
        return -1;
    }
    return subtype;
}

}   // namespace

int rtslib_async_dispatch(struct rtslib_cookie *cookie, const uint8_t *octets, uint32_t length)
{
    int result = dispatch(cookie, octets, length);
    if (result != 0)
        errno = target_errno_to_host(result);
    return result;
}

void rtslib_async_subtype_handler(struct rtslib_cookie *cookie, uintptr_t context, void *message, void *mask)
{
    const auto *table = reinterpret_cast<const struct rtslib_async_subtypes *>(context);
    int subtype = subtype_of(cookie, table, message);
    if (subtype < 0 || table->entries[subtype].handler == nullptr) {
        rtslib_msg_free(cookie, message);
        return;
    }
    struct rtslib_async_reg entry = table->entries[subtype];
    entry.handler(cookie, entry.context, message, mask);
}
