/*
 * Routing tables: one for each index and family. Names are unique in a family.
 *
 * A request names its table by index, or by name with index 65535. Routes stand in a table that exists; they go with
 * it.
 */
#include "platform/rtsock/model/rm.h"

#include "lib/librtsock/rtslib_names.h"
#include "platform/target.h"

#include <string.h>

namespace {

enum { TID_BY_NAME = 65535, ANY_FAMILY = 0, LAST_FAMILY = 255, KEY_OCTETS = 3 };

const struct rtb_msg *table(const void *record)
{
    return static_cast<const struct rtb_msg *>(record);
}

void put_key(uint8_t *key, uint32_t tid, uint8_t family)
{
    *rm_put16(key, tid) = family;
}

/* Without a family a walk goes on behind all tables of the index; without an index it begins. */
bool table_key(const void *record, uint8_t *key)
{
    const struct rtb_msg *request = table(record);
    if (request->tid == TID_BY_NAME) {
        put_key(key, 0, 0);
        return request->rts_hdr.rtsh_op == RTM_OP_GETNEXT;
    }
    put_key(key, request->tid, request->af != ANY_FAMILY ? request->af : uint8_t(LAST_FAMILY));
    return true;
}

struct rm_object *first_of_index(uint32_t tid)
{
    uint8_t key[KEY_OCTETS];
    put_key(key, tid, 0);
    struct rm_object *object = rm_behind(&rm_tables, key);
    return object != nullptr && table(object->mo_record)->tid == tid ? object : nullptr;
}

bool table_other(const void *record, struct rm_object **found)
{
    const struct rtb_msg *request = table(record);
    if (request->tid == TID_BY_NAME && request->name_len != 0) {
        *found = rm_table_named(request->name, request->name_len, request->af);
        return true;
    }
    if (request->tid == TID_BY_NAME || request->af != ANY_FAMILY || request->rts_hdr.rtsh_op == RTM_OP_GETNEXT)
        return false;
    *found = first_of_index(request->tid);
    return true;
}

bool table_passes(const void *request, const struct rm_object *object)
{
    uint8_t family = table(request)->af;
    return family == ANY_FAMILY || family == table(object->mo_record)->af;
}

int table_check(void *draft, struct rm_object *, const struct rm_object *old)
{
    auto *record = static_cast<struct rtb_msg *>(draft);
    if (old != nullptr)
        record->tid = table(old->mo_record)->tid;
    if (record->tid == TID_BY_NAME || record->af == ANY_FAMILY || record->name_len == 0)
        return TARGET_EINVAL;
    const struct rm_object *same = rm_table_named(record->name, record->name_len, record->af);
    return same != nullptr && same != old ? TARGET_EEXIST : 0;
}

void table_below(const struct rm_object *object, struct rk_client *by)
{
    rm_table_empty(table(object->mo_record)->tid, table(object->mo_record)->af, by);
}

}   // namespace

struct rm_kind rm_tables = {
    .mk_tree = rm_tree(KEY_OCTETS),
    .mk_record = &idl_type_rtb_msg,
    .mk_type = 1,
    .mk_hdrlen = 200,
    .mk_listen = { 0x2000, 0 },
    .mk_key = table_key,
    .mk_other = table_other,
    .mk_passes = table_passes,
    .mk_check = table_check,
    .mk_below = table_below,
};

struct rm_object *rm_table_named(const char *name, uint32_t length, uint8_t family)
{
    for (struct rm_object *o = rm_following(&rm_tables, nullptr); o != nullptr; o = rm_following(&rm_tables, o)) {
        const struct rtb_msg *record = table(o->mo_record);
        if ((family == ANY_FAMILY || record->af == family) &&
            rm_text_equals(record->name, record->name_len, name, length))
            return o;
    }
    return nullptr;
}

bool rm_table_exists(uint32_t tid, uint8_t family)
{
    if (family == ANY_FAMILY)
        return tid < TID_BY_NAME && first_of_index(tid) != nullptr;
    uint8_t key[KEY_OCTETS];
    put_key(key, tid, family);
    return tid < TID_BY_NAME && rm_get(&rm_tables, key) != nullptr;
}

int rm_serve_table(struct rk_client *client, const struct rk_request *request)
{
    struct rk_request served = *request;
    const struct rtb_msg *record = table(request->record);
    // An add that brings items for a table that is there gives it the items.
    if (record != nullptr && request->op == RTM_OP_ADD && record->rts_hdr.rtsh_info_len != 0 &&
        record->af != ANY_FAMILY && rm_table_exists(record->tid, record->af))
        served.op = RTM_OP_CHANGE;
    return rm_serve_kind(&rm_tables, client, &served);
}
