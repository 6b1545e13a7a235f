/*
 * Next hops: one for each index, which is given out to those that ask for none.
 *
 * refcnt of the record counts the routes that use it; while there is one the next hop stays. One that was made for a
 * route's gateway goes with the last route.
 */
#include "platform/rtsock/model/rm.h"

#include "platform/target.h"

namespace {

enum { KEY_OCTETS = 4, NH_UNICAST = 2 };

uint32_t last_index;   // given out

const struct rnh_msg *nexthop(const void *record)
{
    return static_cast<const struct rnh_msg *>(record);
}

bool nexthop_key(const void *record, uint8_t *key)
{
    rm_put32(key, nexthop(record)->idx);
    return true;
}

uint32_t free_index(void)
{
    do
        last_index++;
    while (last_index == 0 || rm_nexthop_at(last_index) != nullptr);
    return last_index;
}

int nexthop_check(void *draft, struct rm_object *, const struct rm_object *old)
{
    auto *record = static_cast<struct rnh_msg *>(draft);
    record->refcnt = old != nullptr ? nexthop(old->mo_record)->refcnt : 0;
    if (record->idx == 0)
        record->idx = free_index();
    return 0;
}

/* A walk, and a deletion, for an owner heeds what is of that owner; 0 is all. */
bool nexthop_passes(const void *request, const struct rm_object *object)
{
    uint8_t owner = nexthop(request)->owner;
    return owner == 0 || owner == nexthop(object->mo_record)->owner;
}

int nexthop_held(const struct rm_object *object)
{
    return nexthop(object->mo_record)->refcnt != 0 ? TARGET_EBUSY : 0;
}

}   // namespace

struct rm_kind rm_nexthops = {
    .mk_tree = rm_tree(KEY_OCTETS),
    .mk_record = &idl_type_rnh_msg,
    .mk_type = 10,
    .mk_hdrlen = 732,
    .mk_key = nexthop_key,
    .mk_passes = nexthop_passes,
    .mk_check = nexthop_check,
    .mk_held = nexthop_held,
};

struct rm_object *rm_nexthop_at(uint32_t index)
{
    uint8_t key[KEY_OCTETS];
    rm_put32(key, index);
    return rm_get(&rm_nexthops, key);
}

int rm_nexthop_make(uint32_t ifidx, uint8_t family, uint8_t *address, uint32_t length, struct rm_object **made)
{
    struct rnh_msg record = {};
    record.ifidx = ifidx;
    record.af = family;
    record.nh = NH_UNICAST;
    record.addr = address;
    record.addr_len = length;
    int error = rm_make(&rm_nexthops, &record, nullptr, made);
    if (error == 0)
        (*made)->mo_of_route = true;
    return error;
}

void rm_nexthop_hold(uint32_t index)
{
    struct rm_object *object = rm_nexthop_at(index);
    if (object != nullptr)
        static_cast<struct rnh_msg *>(object->mo_record)->refcnt++;
}

void rm_nexthop_release(uint32_t index)
{
    struct rm_object *object = rm_nexthop_at(index);
    if (object == nullptr)
        return;
    uint32_t left = --static_cast<struct rnh_msg *>(object->mo_record)->refcnt;
    if (left == 0 && object->mo_of_route)
        rm_remove(&rm_nexthops, object, nullptr);
}

void rm_nexthop_reset(void)
{
    rm_clear(&rm_nexthops);
    last_index = 0;
}
