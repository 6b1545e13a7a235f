/*
 * Operations on routes and multicast groups. Each builds one message; what follows the record in the buffer are the
 * prefix, the next hop given with the route, and what is opaque to the kernel.
 */
#include "lib/librtsock/rtslib_route.h"
#include "lib/librtsock/request.h"
#include "platform/target.h"

namespace {

constexpr struct rtslib_request_form rt_form = { 2, 104, 240, sizeof(struct rt_msg) };
// Kept on purpose: a length of 0 where other types say their header's.
constexpr struct rtslib_request_form mgr_form = { 13, 99, 0, sizeof(struct mgr_msg) };

enum {
    OPAQUE_MARKER = 9,      // the route carries an rt_opaque_info, and its dflags say so
    OPAQUE_DFLAGS = 32766,
};

struct rt_msg *new_route(struct rtslib_cookie *cookie, uint8_t operation, uint16_t tid, uint8_t family, uint8_t rt_type,
                         uint32_t rt_flags, uint8_t **cursor)
{
    auto *route = static_cast<struct rt_msg *>(rtslib_request_new(cookie, &rt_form, operation, cursor));
    if (route == nullptr)
        return nullptr;
    route->tid = tid;
    route->af = family;
    route->rt_type = rt_type;
    route->rt_flags = rt_flags;
    return route;
}

/* The prefix is the first part behind the record; it always fits. */
void put_prefix(struct rt_msg *route, uint8_t **cursor, const void *prefix, uint16_t bits)
{
    route->prefix_bits = bits;
    route->prefix = rtslib_request_prefix(route, cursor, prefix, bits, &route->prefix_len);
}

/* A next hop of one address. 0 or 12. */
int put_gateway(struct rt_msg *route, uint8_t **cursor, const void *gateway)
{
    size_t length = rtslib_sockaddr_length(gateway);
    if (length == 0)
        return 0;
    auto *entry = static_cast<struct rt_nh_entry *>(rtslib_request_room(route, cursor, sizeof(struct rt_nh_entry)));
    auto *address =
        static_cast<struct idl_sockaddr_gen *>(rtslib_request_room(route, cursor, sizeof(struct idl_sockaddr_gen)));
    uint8_t *octets = rtslib_request_octets(route, cursor, gateway, length);
    if (entry == nullptr || address == nullptr || octets == nullptr)
        return TARGET_ENOMEM;
    address->sa = octets;
    address->sa_len = uint32_t(length);
    entry->addrs = address;
    entry->addrs_len = 1;
    route->nh_entries = entry;
    route->nh_entries_len = 1;
    return 0;
}

/* 0 or 12. */
int put_opaque(struct rt_msg *route, uint8_t **cursor, uint32_t type, uint32_t word)
{
    if (type == 0)
        return 0;
    const struct rt_opaque_info info = { type, word };
    int32_t size = tlv_encode_rt_opaque_info_0(&info, nullptr, nullptr, 0);
    auto *octets = static_cast<uint8_t *>(rtslib_request_room(route, cursor, size_t(size)));
    if (octets == nullptr)
        return TARGET_ENOMEM;
    tlv_encode_rt_opaque_info_0(&info, nullptr, octets, size_t(size));
    route->opaque = octets;
    route->opaque_len = uint32_t(size);
    route->opaque_marker = OPAQUE_MARKER;
    route->dflags = OPAQUE_DFLAGS;
    return 0;
}

/* Sends an add, in any case freeing it, and reads the index of the new route. */
int add_and_get(struct rtslib_cookie *cookie, struct rt_msg *route, uint16_t *index)
{
    int result = rtslib_request_send(cookie, route);
    if (result != 0)
        return result;
    void *reply = nullptr;
    result = rtslib_long_msg_read_idl(cookie, &reply, nullptr);
    if (result != 0) {
        rtslib_err(cookie, RTSLIB_ERROR, " failed to get route add ack index\n");
        return result;
    }
    bool good = rtslib_reply_is(reply, RTSLIB_TYPE_ROUTE);
    if (good)
        *index = static_cast<const struct rt_msg *>(reply)->ack_index;
    rtslib_msg_idl_release(cookie, reply);
    return good ? 0 : int(TARGET_EIO);
}

/* The caller's message with a new number and that operation. */
int send_again(struct rtslib_cookie *cookie, void *request, uint8_t operation, void **message)
{
    if (request == nullptr)
        return TARGET_EINVAL;
    int result = rtslib_request_check(cookie, operation, RTSLIB_ANSWERED_GETS, message);
    if (result != 0)
        return result;
    auto *header = static_cast<struct rts_hdr *>(request);
    header->rtsh_seq = ++cookie->seq;
    header->rtsh_op = operation;
    return rtslib_msg_write_idl(cookie, request, nullptr);
}

}   // namespace

int rtslib_rtm_add(struct rtslib_cookie *cookie, uint16_t tid, uint8_t family, uint8_t rt_type, uint32_t rt_flags,
                   uint8_t nh_type, uint32_t nh_flags, uint8_t aux_byte, uint32_t aux_word1, uint32_t aux_word2,
                   uint32_t nhidx, uint32_t opaque_type, uint32_t opaque_word, const void *prefix, uint16_t prefix_bits,
                   const void *gateway, uint16_t *index)
{
    if (cookie == nullptr)
        return TARGET_EINVAL;
    uint8_t *cursor;
    uint8_t operation = index != nullptr ? RTM_OP_ADD_GET : RTM_OP_ADD;
    struct rt_msg *route = new_route(cookie, operation, tid, family, rt_type, rt_flags, &cursor);
    if (route == nullptr)
        return TARGET_ENOMEM;
    if (index != nullptr)
        route->rts_hdr.rtsh_flag = RTSLIB_REQUEST_ACK;
    route->nh_type = nh_type;
    route->nh_flags = nh_flags;
    route->aux_byte = aux_byte;
    route->aux_word1 = aux_word1;
    route->aux_word2 = aux_word2;
    route->nhidx = nhidx;
    put_prefix(route, &cursor, prefix, prefix_bits);
    int result = put_gateway(route, &cursor, gateway);
    if (result == 0)
        result = put_opaque(route, &cursor, opaque_type, opaque_word);
    if (result != 0) {
        rtslib_msg_free(cookie, route);
        return result;
    }
    return index != nullptr ? add_and_get(cookie, route, index) : rtslib_request_send(cookie, route);
}

int rtslib_rtm_delete(struct rtslib_cookie *cookie, void *message)
{
    if (cookie == nullptr || message == nullptr)
        return TARGET_EINVAL;
    // Kept on purpose: the message goes out with the number that it has, where one would expect a new one.
    static_cast<struct rts_hdr *>(message)->rtsh_op = RTM_OP_DELETE;
    return rtslib_msg_write_idl(cookie, message, nullptr);
}

int rtslib_rtm_delete_prefix(struct rtslib_cookie *cookie, uint16_t tid, uint8_t family, uint8_t rt_type,
                             uint32_t rt_flags, const void *prefix, uint16_t prefix_bits, uint32_t aux_word1)
{
    if (cookie == nullptr)
        return TARGET_EINVAL;
    uint8_t *cursor;
    struct rt_msg *route = new_route(cookie, RTM_OP_DELETE, tid, family, rt_type, rt_flags, &cursor);
    if (route == nullptr)
        return TARGET_ENOMEM;
    route->aux_word1 = aux_word1;
    put_prefix(route, &cursor, prefix, prefix_bits);
    return rtslib_request_send(cookie, route);
}

int rtslib_rtm_get(struct rtslib_cookie *cookie, uint16_t tid, uint8_t family, const void *prefix, uint16_t prefix_bits,
                   uint8_t rt_type, uint32_t rt_flags, uint32_t aux_word1, uint8_t aux_byte, uint8_t operation,
                   void **message, void **mask)
{
    int result = rtslib_request_check(cookie, operation, RTSLIB_ANSWERED_GETS, message);
    if (result != 0)
        return result;
    uint8_t *cursor;
    struct rt_msg *route = new_route(cookie, operation, tid, family, rt_type, rt_flags, &cursor);
    if (route == nullptr)
        return TARGET_ENOMEM;
    route->aux_word1 = aux_word1;
    route->aux_byte = aux_byte;
    put_prefix(route, &cursor, prefix, prefix_bits);
    return rtslib_request_run(cookie, route, RTSLIB_ANSWERED_GETS, rtslib_long_msg_read_idl, message, mask);
}

int rtslib_rtm_get_by_type(struct rtslib_cookie *cookie, uint8_t family, uint8_t rt_type, uint8_t operation,
                           void **message, void **mask)
{
    return rtslib_rtm_get(cookie, 0, family, nullptr, 0, rt_type, 0, 0, 0, operation, message, mask);
}

int rtslib_rtm_get_by_prefix(struct rtslib_cookie *cookie, uint8_t family, const void *prefix, uint16_t prefix_bits,
                             uint8_t operation, void **message, void **mask)
{
    return rtslib_rtm_get(cookie, 0, family, prefix, prefix_bits, 0, 0, 0, 0, operation, message, mask);
}

int rtslib_rtm_get_with_msg(struct rtslib_cookie *cookie, void *request, uint8_t operation, void **message,
                            void **mask)
{
    int result = send_again(cookie, request, operation, message);
    if (result == 0 && rtslib_request_is_answered(operation, RTSLIB_ANSWERED_GETS))
        result = rtslib_long_msg_read_idl(cookie, message, mask);
    if (result != 0 && message != nullptr)
        *message = nullptr;
    return result;
}

int rtslib_rtm_get_with_msg_pa(struct rtslib_cookie *cookie, void *request, uint8_t operation, void **message,
                               void **mask, void *arena, size_t arena_size)
{
    int result = send_again(cookie, request, operation, message);
    if (result == 0 && rtslib_request_is_answered(operation, RTSLIB_ANSWERED_GETS))
        result = rtslib_long_msg_read_idl_pa(cookie, message, mask, arena, arena_size);
    if (result != 0 && message != nullptr)
        *message = nullptr;
    return result;
}

int rtslib_mgrm_get(struct rtslib_cookie *cookie, uint16_t tid, uint8_t family, const void *prefix,
                    uint16_t prefix_bits, uint8_t operation, void **message, void **mask)
{
    int result = rtslib_request_check(cookie, operation, RTSLIB_ANSWERED_GETS, message);
    if (result != 0)
        return result;
    uint8_t *cursor;
    auto *group = static_cast<struct mgr_msg *>(rtslib_request_new(cookie, &mgr_form, operation, &cursor));
    if (group == nullptr)
        return TARGET_ENOMEM;
    group->tid = tid;
    group->af = family;
    group->prefix_bits = prefix_bits;
    group->prefix = rtslib_request_prefix(group, &cursor, prefix, prefix_bits, &group->prefix_len);
    return rtslib_request_run(cookie, group, RTSLIB_ANSWERED_GETS, rtslib_msg_read_idl, message, mask);
}
