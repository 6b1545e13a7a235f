/*
 * Devices, logical interfaces (units) on them, and families on those. What stands below goes first when one goes.
 *
 * Names are the device's. A request names its object by index if it gives one, otherwise by what else it gives: a name,
 * a name and a unit, a device index and a unit, an SNMP index. These are looked for one by one: a router has few.
 */
#include "platform/rtsock/model/rm.h"

#include "lib/librtsock/rtslib_names.h"
#include "platform/target.h"

#include <string.h>

#include <algorithm>

namespace {

enum {
    DEVICE_KEY_OCTETS = 2,
    UNIT_KEY_OCTETS = 4,
    FAMILY_KEY_OCTETS = 5,
    // Of change words. A 0 in a change means that nothing is given, unless the change says that it is about that.
    CHANGE_FLAGS = 1,
    CHANGE_PRIVFLAGS = 2, CHANGE_SUBSET = 16,   // of units only
    ITEM_SUBSET = 225,
    SUBSET_BITS = 16,
};

const struct ifdev_msg *device(const void *record)
{
    return static_cast<const struct ifdev_msg *>(record);
}

const struct ifl_msg *unit(const void *record)
{
    return static_cast<const struct ifl_msg *>(record);
}

const struct iff_msg *family(const void *record)
{
    return static_cast<const struct iff_msg *>(record);
}

/* The first object that a question holds for, or null. */
template <typename question> struct rm_object *first_that(struct rm_kind *kind, question holds)
{
    struct rm_object *object = rm_following(kind, nullptr);
    while (object != nullptr && !holds(object))
        object = rm_following(kind, object);
    return object;
}

/* --- devices ---------------------------------------------------------------------------------------------------- */

bool device_key(const void *record, uint8_t *key)
{
    rm_put16(key, device(record)->idx);
    return true;
}

bool device_other(const void *record, struct rm_object **found)
{
    const struct ifdev_msg *request = device(record);
    if (request->idx != 0 || (request->name_len == 0 && request->snmpid == 0))
        return false;
    *found = request->name_len != 0 ? rm_device_named(request->name, request->name_len)
                                    : first_that(&rm_devices, [&](const struct rm_object *o) {
                                          return device(o->mo_record)->snmpid == request->snmpid;
                                      });
    return true;
}

bool has_units(uint32_t device_index)
{
    return first_that(&rm_units, [=](const struct rm_object *o) {
               return unit(o->mo_record)->ifd_idx == device_index;
           }) != nullptr;
}

int device_check(void *draft, struct rm_object *, const struct rm_object *old)
{
    auto *record = static_cast<struct ifdev_msg *>(draft);
    record->change = 0;
    if (old != nullptr)
        record->idx = device(old->mo_record)->idx;
    if (record->idx == 0 || record->name_len == 0)
        return TARGET_EINVAL;
    const struct rm_object *same = rm_device_named(record->name, record->name_len);
    if (same != nullptr && same != old)
        return TARGET_EEXIST;
    // Units and families bear their device's name.
    return old != nullptr && same == nullptr && has_units(record->idx) ? TARGET_EBUSY : 0;
}

int device_change(void *draft, const void *record)
{
    if ((device(record)->change & CHANGE_FLAGS) != 0)
        static_cast<struct ifdev_msg *>(draft)->flags = device(record)->flags;
    return 0;
}

/* A device stays as long as a unit of another one stands on one of its units. */
int device_held(const struct rm_object *object)
{
    uint32_t index = device(object->mo_record)->idx;
    const struct rm_object *above = first_that(&rm_units, [=](const struct rm_object *o) {
        const struct rm_object *parent = rm_unit_at(unit(o->mo_record)->parent_idx);
        return unit(o->mo_record)->ifd_idx != index && parent != nullptr && unit(parent->mo_record)->ifd_idx == index;
    });
    return above != nullptr ? TARGET_EBUSY : 0;
}

void device_below(const struct rm_object *object, struct rk_client *by)
{
    uint32_t index = device(object->mo_record)->idx;
    struct rm_object *next;
    for (struct rm_object *o = rm_following(&rm_units, nullptr); o != nullptr; o = next) {
        next = rm_following(&rm_units, o);
        if (unit(o->mo_record)->ifd_idx == index)
            rm_remove(&rm_units, o, by);
    }
}

/* --- units ------------------------------------------------------------------------------------------------------ */

bool unit_key(const void *record, uint8_t *key)
{
    rm_put32(key, unit(record)->ifl_idx);
    return true;
}

bool same_place(const struct ifl_msg *a, const struct ifl_msg *b)
{
    return a->ifd_idx == b->ifd_idx && a->unit == b->unit;
}

bool unit_other(const void *record, struct rm_object **found)
{
    const struct ifl_msg *request = unit(record);
    if (request->ifl_idx != 0)
        return false;
    if (request->name_len != 0) {
        *found = rm_unit_named(request->name, request->name_len, request->unit);
        return true;
    }
    if (request->ifd_idx == 0 && request->snmpid == 0)
        return false;
    *found = first_that(&rm_units, [&](const struct rm_object *o) {
        const struct ifl_msg *u = unit(o->mo_record);
        return request->ifd_idx != 0 ? same_place(u, request) : u->snmpid == request->snmpid;
    });
    return true;
}

/* A unit on others must not come to stand on itself. */
int check_parent(const struct ifl_msg *record)
{
    uint32_t below = record->parent_idx;
    while (below != 0) {
        if (below == record->ifl_idx)
            return TARGET_EINVAL;
        const struct rm_object *parent = rm_unit_at(below);
        if (parent == nullptr)
            return TARGET_ENOENT;
        below = unit(parent->mo_record)->parent_idx;
    }
    return 0;
}

bool has_families(uint32_t unit_index)
{
    return first_that(&rm_families, [=](const struct rm_object *o) {
               return family(o->mo_record)->ifl_idx == unit_index;
           }) != nullptr;
}

int unit_check(void *draft, struct rm_object *, const struct rm_object *old)
{
    auto *record = static_cast<struct ifl_msg *>(draft);
    record->change = 0;
    if (old != nullptr)
        record->ifl_idx = unit(old->mo_record)->ifl_idx;
    if (record->ifl_idx == 0)
        return TARGET_EINVAL;
    const struct rm_object *below = record->ifd_idx != 0 ? rm_device_at(record->ifd_idx)
                                                         : rm_device_named(record->name, record->name_len);
    if (below == nullptr)
        return TARGET_ENOENT;
    const struct ifdev_msg *d = device(below->mo_record);
    record->ifd_idx = d->idx;
    record->name = d->name;
    record->name_len = d->name_len;
    // Families bear their unit's name and tenant.
    if (old != nullptr && has_families(record->ifl_idx) &&
        (!same_place(unit(old->mo_record), record) || unit(old->mo_record)->tenant != record->tenant))
        return TARGET_EBUSY;
    const struct rm_object *same =
        first_that(&rm_units, [&](const struct rm_object *o) { return same_place(unit(o->mo_record), record); });
    return same != nullptr && same != old ? int(TARGET_EEXIST) : check_parent(record);
}

/* Bits of the subset map come as items, which do not stay. */
int unit_change(void *draft, const void *record)
{
    auto *changed = static_cast<struct ifl_msg *>(draft);
    struct rts_hdr *header = &changed->rts_hdr;
    uint32_t kept = 0;
    if ((unit(record)->change & CHANGE_FLAGS) != 0)
        changed->flags = unit(record)->flags;
    if ((unit(record)->change & CHANGE_PRIVFLAGS) != 0) {
        changed->privflags = unit(record)->privflags;
        changed->priv_byte = unit(record)->priv_byte;
    }
    if (unit(record)->rts_hdr.rtsh_info_len == 0)
        return 0;
    for (uint32_t i = 0; i < header->rtsh_info_len; i++) {
        const struct rts_msg_info *item = header->rtsh_info[i];
        if (item->tag != ITEM_SUBSET || (unit(record)->change & CHANGE_SUBSET) == 0) {
            header->rtsh_info[kept++] = header->rtsh_info[i];
            continue;
        }
        const struct ifl_subset_iif *subset = &item->u.ifl_subset_iif;
        if (subset->bit >= SUBSET_BITS)
            return TARGET_EINVAL;
        uint32_t bit = 1U << subset->bit;
        changed->subset_map = uint16_t(subset->value != 0 ? changed->subset_map | bit : changed->subset_map & ~bit);
    }
    header->rtsh_info_len = kept;
    return 0;
}

void unit_below(const struct rm_object *object, struct rk_client *by)
{
    rm_families_empty(unit(object->mo_record)->ifl_idx, by);
}

/* A unit that others stand on stays. */
int unit_held(const struct rm_object *object)
{
    uint32_t index = unit(object->mo_record)->ifl_idx;
    const struct rm_object *above =
        first_that(&rm_units, [=](const struct rm_object *o) { return unit(o->mo_record)->parent_idx == index; });
    return above != nullptr ? TARGET_EBUSY : 0;
}

/* --- families --------------------------------------------------------------------------------------------------- */

bool family_key(const void *record, uint8_t *key)
{
    *rm_put32(key, family(record)->ifl_idx) = family(record)->af;
    return true;
}

bool family_other(const void *record, struct rm_object **found)
{
    const struct iff_msg *request = family(record);
    if (request->ifl_idx != 0 || request->name_len == 0)
        return false;
    const struct rm_object *below = rm_unit_named(request->name, request->name_len, request->subunit);
    *found = below != nullptr ? rm_family_at(unit(below->mo_record)->ifl_idx, request->af) : nullptr;
    return true;
}

int family_check(void *draft, struct rm_object *, const struct rm_object *)
{
    auto *record = static_cast<struct iff_msg *>(draft);
    const struct rm_object *below = rm_unit_at(record->ifl_idx);
    if (below == nullptr)
        return TARGET_ENOENT;
    const struct ifl_msg *u = unit(below->mo_record);
    record->subunit = u->unit;
    record->lrid = u->lrid;
    record->tenant = u->tenant;
    record->name = u->name;
    record->name_len = u->name_len;
    return record->af != 0 ? 0 : TARGET_EINVAL;
}

void family_below(const struct rm_object *object, struct rk_client *by)
{
    rm_addresses_empty(family(object->mo_record)->ifl_idx, family(object->mo_record)->af, by);
}

}   // namespace

struct rm_kind rm_devices = {
    .mk_tree = rm_tree(DEVICE_KEY_OCTETS),
    .mk_record = &idl_type_ifdev_msg,
    .mk_type = 5,
    .mk_hdrlen = 164,
    .mk_listen = { 0x1, 0 },
    .mk_key = device_key,
    .mk_other = device_other,
    .mk_check = device_check,
    .mk_change = device_change,
    .mk_held = device_held,
    .mk_below = device_below,
};

struct rm_kind rm_units = {
    .mk_tree = rm_tree(UNIT_KEY_OCTETS),
    .mk_record = &idl_type_ifl_msg,
    .mk_type = 6,
    .mk_hdrlen = 204,
    .mk_listen = { 0x2, 0 },
    .mk_key = unit_key,
    .mk_other = unit_other,
    .mk_check = unit_check,
    .mk_change = unit_change,
    .mk_held = unit_held,
    .mk_below = unit_below,
};

struct rm_kind rm_families = {
    .mk_tree = rm_tree(FAMILY_KEY_OCTETS),
    .mk_record = &idl_type_iff_msg,
    .mk_type = 7,
    .mk_hdrlen = 296,
    .mk_listen = { 0x14, 0 },
    .mk_key = family_key,
    .mk_other = family_other,
    .mk_check = family_check,
    .mk_below = family_below,
};

struct rm_object *rm_device_at(uint32_t index)
{
    uint8_t key[DEVICE_KEY_OCTETS];
    rm_put16(key, index);
    return index <= UINT16_MAX ? rm_get(&rm_devices, key) : nullptr;
}

struct rm_object *rm_device_named(const char *name, uint32_t length)
{
    return first_that(&rm_devices, [=](const struct rm_object *o) {
        const struct ifdev_msg *d = device(o->mo_record);
        return rm_text_equals(d->name, d->name_len, name, length);
    });
}

struct rm_object *rm_unit_at(uint32_t index)
{
    uint8_t key[UNIT_KEY_OCTETS];
    rm_put32(key, index);
    return rm_get(&rm_units, key);
}

struct rm_object *rm_unit_named(const char *name, uint32_t length, uint32_t number)
{
    return first_that(&rm_units, [=](const struct rm_object *o) {
        const struct ifl_msg *u = unit(o->mo_record);
        return u->unit == number && rm_text_equals(u->name, u->name_len, name, length);
    });
}

struct rm_object *rm_family_at(uint32_t ifl_index, uint8_t af)
{
    uint8_t key[FAMILY_KEY_OCTETS];
    *rm_put32(key, ifl_index) = af;
    return rm_get(&rm_families, key);
}

struct rm_object *rm_family_behind(uint32_t ifl_index, uint8_t af)
{
    uint8_t key[FAMILY_KEY_OCTETS];
    *rm_put32(key, ifl_index) = af;
    return rm_behind(&rm_families, key);
}

void rm_families_empty(uint32_t ifl_index, struct rk_client *by)
{
    struct rm_object *next;
    for (struct rm_object *o = rm_following(&rm_families, nullptr); o != nullptr; o = next) {
        next = rm_following(&rm_families, o);
        if (family(o->mo_record)->ifl_idx == ifl_index)
            rm_remove(&rm_families, o, by);
    }
}
