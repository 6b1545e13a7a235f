/*
 * Routes: one for each table, family and prefix, in that order; shorter prefixes before the longer ones that they hold.
 *
 * A prefix is kept without the bits behind its length. In inet and inet6 one that is longer than an address is a
 * multicast group with its source behind it. A route leads to a next hop by index; one that carries a gateway gets a
 * next hop made for it, which comes into its tree together with the route.
 */
#include "platform/rtsock/model/rm.h"

#include "lib/librtsock/rtslib_names.h"
#include "platform/target.h"

#include <string.h>

#include <algorithm>

namespace {

enum {
    TID_OCTETS = 2,
    KEY_OCTETS = TID_OCTETS + 1 + RM_PREFIX_MAX + 2,
    BITS_INET = 2 * 32,    // group and source
    BITS_INET6 = 2 * 128,
    BITS_OTHER = RM_PREFIX_MAX * 8,
};

uint16_t last_ack;   // index given to a route

const struct rt_msg *route(const void *record)
{
    return static_cast<const struct rt_msg *>(record);
}

bool put_key(uint8_t *key, uint32_t tid, uint8_t family, const uint8_t *prefix, uint32_t length, uint32_t bits)
{
    key = rm_put16(key, tid);
    *key++ = family;
    return rm_put_prefix(key, prefix, length, bits, RM_PREFIX_MAX) != nullptr;
}

bool route_key(const void *record, uint8_t *key)
{
    const struct rt_msg *r = route(record);
    return put_key(key, r->tid, r->af, r->prefix, r->prefix_len, r->prefix_bits);
}

bool route_passes(const void *request, const struct rm_object *object)
{
    const struct rt_msg *asked = route(request);
    const struct rt_msg *given = route(object->mo_record);
    return asked->rt_type == 0 || (asked->rt_type == given->rt_type && asked->af == given->af);
}

/* A get by type alone: the first of the table's family. */
bool route_other(const void *record, struct rm_object **found)
{
    const struct rt_msg *request = route(record);
    if (request->rts_hdr.rtsh_op != RTM_OP_GET || request->rt_type == 0 || request->prefix_bits != 0)
        return false;
    struct rm_object *object = rm_route_at(request->tid, request->af, nullptr, 0, 0);
    if (object == nullptr)
        object = rm_route_behind(request->tid, request->af, nullptr, 0, 0);
    while (object != nullptr && !route_passes(request, object))
        object = rm_following(&rm_routes, object);
    *found = object;
    return true;
}

bool prefix_fits(const struct rt_msg *record)
{
    uint32_t most = BITS_OTHER;
    if (record->af == TARGET_AF_INET)
        most = BITS_INET;
    else if (record->af == TARGET_AF_INET6)
        most = BITS_INET6;
    return record->af != 0 && record->prefix_bits <= most;
}

/* The next hop that comes with the route. The record then names it as if it had been there. */
int make_gateway(struct rt_msg *record, struct rm_object *fresh)
{
    if (record->nh_entries_len == 0)
        return 0;
    const struct rt_nh_entry *entry = record->nh_entries;
    if (record->nh_entries_len != 1 || entry->addrs_len != 1)
        return TARGET_EOPNOTSUPP;
    int error = rm_nexthop_make(entry->ifidx, record->af, entry->addrs->sa, entry->addrs->sa_len, &fresh->mo_made);
    if (error != 0)
        return error;
    record->nhidx = static_cast<const struct rnh_msg *>(fresh->mo_made->mo_record)->idx;
    record->nh_entries = nullptr;
    record->nh_entries_len = 0;
    return 0;
}

int route_check(void *draft, struct rm_object *fresh, const struct rm_object *old)
{
    auto *record = static_cast<struct rt_msg *>(draft);
    if (!prefix_fits(record))
        return TARGET_EINVAL;
    if (!rm_table_exists(record->tid, record->af))
        return TARGET_ENOENT;
    if (record->prefix != nullptr)
        rm_mask_prefix(record->prefix, record->prefix_len, record->prefix_bits);
    int error = make_gateway(record, fresh);
    if (error != 0)
        return error;
    if (record->nhidx != 0) {
        const struct rm_object *nexthop = fresh->mo_made != nullptr ? fresh->mo_made : rm_nexthop_at(record->nhidx);
        if (nexthop == nullptr)
            return TARGET_ENOENT;
        record->nh_type = static_cast<const struct rnh_msg *>(nexthop->mo_record)->nh;
    }
    if (old == nullptr) {
        last_ack = uint16_t(std::max(1, (last_ack + 1) & UINT16_MAX));
        record->ack_index = last_ack;
    }
    return 0;
}

void route_joined(struct rm_object *object)
{
    if (object->mo_made != nullptr)
        rm_commit(&rm_nexthops, object->mo_made, nullptr, nullptr);
    object->mo_made = nullptr;
    rm_nexthop_hold(route(object->mo_record)->nhidx);
}

void route_left(const struct rm_object *object)
{
    rm_nexthop_release(route(object->mo_record)->nhidx);
}

}   // namespace

struct rm_kind rm_routes = {
    .mk_tree = rm_tree(KEY_OCTETS),
    .mk_record = &idl_type_rt_msg,
    .mk_type = 2,
    .mk_hdrlen = 240,
    .mk_listen = { 0x200380, 0 },
    .mk_key = route_key,
    .mk_other = route_other,
    .mk_passes = route_passes,
    .mk_check = route_check,
    .mk_joined = route_joined,
    .mk_left = route_left,
};

struct rm_object *rm_route_at(uint32_t tid, uint8_t family, const uint8_t *prefix, uint32_t length, uint32_t bits)
{
    uint8_t key[KEY_OCTETS];
    return put_key(key, tid, family, prefix, length, bits) ? rm_get(&rm_routes, key) : nullptr;
}

struct rm_object *rm_route_behind(uint32_t tid, uint8_t family, const uint8_t *prefix, uint32_t length, uint32_t bits)
{
    uint8_t key[KEY_OCTETS];
    return put_key(key, tid, family, prefix, length, bits) ? rm_behind(&rm_routes, key) : nullptr;
}

struct rm_object *rm_route_longest(uint32_t tid, uint8_t family, const uint8_t *prefix, uint32_t length, uint32_t bits)
{
    uint8_t key[KEY_OCTETS];
    if (!put_key(key, tid, family, prefix, length, bits))
        return nullptr;
    for (uint32_t tried = bits;; tried--) {
        uint8_t *at = key + TID_OCTETS + 1;
        rm_mask_prefix(at, RM_PREFIX_MAX, tried);
        rm_put16(at + RM_PREFIX_MAX, tried);
        struct rm_object *object = rm_get(&rm_routes, key);
        if (object != nullptr || tried == 0)
            return object;
    }
}

void rm_table_empty(uint16_t tid, uint8_t family, struct rk_client *by)
{
    uint8_t key[KEY_OCTETS] = {};
    *rm_put16(key, tid) = family;
    struct rm_object *object = rm_get(&rm_routes, key);
    if (object == nullptr)
        object = rm_behind(&rm_routes, key);
    while (object != nullptr && memcmp(object->mo_key, key, TID_OCTETS + 1) == 0) {
        struct rm_object *next = rm_following(&rm_routes, object);
        rm_remove(&rm_routes, object, by);
        object = next;
    }
}

void rm_route_reset(void)
{
    rm_clear(&rm_routes);
    last_ack = 0;
}
