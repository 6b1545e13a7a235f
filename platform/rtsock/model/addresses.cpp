/*
 * Addresses: one for each unit, family, local prefix and destination prefix, in that order. They stand on a family.
 *
 * A request that gives only one of the two prefixes, or none, means the first address that has what it gives.
 */
#include "platform/rtsock/model/rm.h"

#include "lib/librtsock/rtslib_names.h"
#include "platform/target.h"

#include <string.h>

namespace {

enum {
    FAMILY_OCTETS = 5,         // unit and family
    ADDRESS_OCTETS = 20,       // of the longest
    PART_OCTETS = ADDRESS_OCTETS + 2,
    KEY_OCTETS = FAMILY_OCTETS + 2 * PART_OCTETS,
};

const struct ifa_msg *address(const void *record)
{
    return static_cast<const struct ifa_msg *>(record);
}

bool address_key(const void *record, uint8_t *key)
{
    const struct ifa_msg *a = address(record);
    key = rm_put32(key, a->ifl_idx);
    *key++ = a->af;
    key = rm_put_prefix(key, a->local, a->local_len, a->local_bits, ADDRESS_OCTETS);
    return key != nullptr && rm_put_prefix(key, a->dest, a->dest_len, a->dest_bits, ADDRESS_OCTETS) != nullptr;
}

/* The first address of the request's unit and family that has the part of its key, or null. */
struct rm_object *first_with(const uint8_t *key, size_t part, size_t part_octets)
{
    uint8_t start[KEY_OCTETS] = {};
    memcpy(start, key, FAMILY_OCTETS);
    struct rm_object *object = rm_behind(&rm_addresses, start);
    while (object != nullptr && memcmp(object->mo_key, key, FAMILY_OCTETS) == 0) {
        if (memcmp(object->mo_key + part, key + part, part_octets) == 0)
            return object;
        object = rm_following(&rm_addresses, object);
    }
    return nullptr;
}

bool address_other(const void *record, struct rm_object **found)
{
    uint8_t key[KEY_OCTETS];
    const struct ifa_msg *request = address(record);
    bool none = request->local_bits == 0 && request->dest_bits == 0;
    bool both = request->local_bits != 0 && request->dest_bits != 0;
    if (both || (none && request->rts_hdr.rtsh_op == RTM_OP_GETNEXT) || !address_key(record, key))
        return false;
    *found = first_with(key, FAMILY_OCTETS + (request->local_bits != 0 ? 0 : PART_OCTETS), none ? 0 : PART_OCTETS);
    return true;
}

int address_check(void *draft, struct rm_object *, const struct rm_object *old)
{
    auto *record = static_cast<struct ifa_msg *>(draft);
    record->change = 0;
    if (rm_family_at(record->ifl_idx, record->af) == nullptr)
        return TARGET_ENOENT;
    if (old != nullptr) {
        const struct ifa_msg *before = address(old->mo_record);
        record->local_bits = before->local_bits;
        record->local = before->local;
        record->local_len = before->local_len;
        record->dest_bits = before->dest_bits;
        record->dest = before->dest;
        record->dest_len = before->dest_len;
    }
    return record->local_bits != 0 || record->dest_bits != 0 ? 0 : TARGET_EINVAL;
}

}   // namespace

struct rm_kind rm_addresses = {
    .mk_tree = rm_tree(KEY_OCTETS),
    .mk_record = &idl_type_ifa_msg,
    .mk_type = 8,
    .mk_hdrlen = 156,
    .mk_listen = { 0x28, 0 },
    .mk_key = address_key,
    .mk_other = address_other,
    .mk_check = address_check,
};

void rm_addresses_empty(uint32_t ifl_index, uint8_t family, struct rk_client *by)
{
    uint8_t key[KEY_OCTETS] = {};
    *rm_put32(key, ifl_index) = family;
    struct rm_object *object;
    while ((object = rm_behind(&rm_addresses, key)) != nullptr && memcmp(object->mo_key, key, FAMILY_OCTETS) == 0)
        rm_remove(&rm_addresses, object, by);
}
