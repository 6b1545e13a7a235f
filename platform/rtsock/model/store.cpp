/*
 * Objects of all kinds: their records, their trees, and the way in and out.
 *
 * A record is kept as a decoder would give it, every part a block of its own, so that it can be sent as it stands and
 * given back by the codec. Copying is encoding and decoding.
 *
 * What is on its way in goes through three steps: a draft, which is a shallow record made of the request and, for a
 * change, of what was there; the kind's check of it; an object with a deep copy. Only rm_commit and rm_remove move
 * state, and neither can fail.
 */
#include "platform/rtsock/model/rm.h"

#include "lib/librtsock/rtslib_names.h"
#include "platform/target.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>

namespace {

enum { BITS = 8 };

/* A shallow record, and the array of its items where it needed one of its own. */
struct draft {
    uint8_t *record;
    struct rts_msg_info **items;
};

struct rm_object *object_of(struct patricia_node *node)
{
    return reinterpret_cast<struct rm_object *>(node);
}

void *take(size_t size, void *)
{
    return malloc(std::max<size_t>(size, 1));
}

void give(void *memory, void *)
{
    free(memory);
}

void free_record(const struct idl_type *type, void *record)
{
    if (record == nullptr)
        return;
    idl_idr_release(type, record, give, nullptr);
    free(record);
}

int copy_record(const struct idl_type *type, const void *record, void **copy)
{
    size_t size = size_t(idl_idr_encode(type, record, nullptr, 0));
    void *octets = malloc(std::max<size_t>(size, 1));
    *copy = calloc(1, type->it_size);
    int32_t taken = IDL_CODE_ALLOC;
    if (octets != nullptr && *copy != nullptr) {
        idl_idr_encode(type, record, octets, size);
        taken = idl_idr_decode(type, *copy, octets, size, take, nullptr);
    }
    free(octets);
    if (taken > 0)
        return 0;
    free_record(type, *copy);
    *copy = nullptr;
    return taken == IDL_CODE_ALLOC ? TARGET_ENOMEM : TARGET_EINVAL;
}

/* --- drafts ----------------------------------------------------------------------------------------------------- */

bool points_to_parts(const struct idl_field *field)
{
    return field->if_kind == IDL_KIND_OPAQUE || field->if_kind == IDL_KIND_WORD_LIST ||
           field->if_kind == IDL_KIND_LIST || field->if_kind == IDL_KIND_LIST_PTR;
}

size_t octets_in_place(const struct idl_field *field)
{
    if (points_to_parts(field))
        return sizeof(void *);
    return field->if_kind == IDL_KIND_BYTES || field->if_kind == IDL_KIND_RECORD ? field->if_size : field->if_width;
}

/* Fields that the request gives, the header apart, take the place of those in the draft. */
void overlay(const struct idl_type *type, uint8_t *record, const uint8_t *request)
{
    for (uint32_t i = 1; i < type->it_count; i++) {
        const struct idl_field *field = &type->it_fields[i];
        const uint8_t *from = request + field->if_offset;
        size_t octets = octets_in_place(field);
        if (std::all_of(from, from + octets, [](uint8_t octet) { return octet == 0; }))
            continue;
        memcpy(record + field->if_offset, from, octets);
        if (points_to_parts(field))
            memcpy(record + field->if_len_offset, request + field->if_len_offset, sizeof(uint32_t));
    }
}

bool has_item(const struct rts_hdr *header, uint32_t tag)
{
    for (uint32_t i = 0; i < header->rtsh_info_len; i++) {
        if (header->rtsh_info[i] != nullptr && header->rtsh_info[i]->tag == tag)
            return true;
    }
    return false;
}

/* Items of the request, in front of them those of the draft that it does not replace. */
int join_items(struct draft *d, const struct rts_hdr *request)
{
    auto *header = reinterpret_cast<struct rts_hdr *>(d->record);
    if (request->rtsh_info_len == 0)
        return 0;
    size_t most = size_t(header->rtsh_info_len) + request->rtsh_info_len;
    d->items = static_cast<struct rts_msg_info **>(calloc(most, sizeof(struct rts_msg_info *)));
    if (d->items == nullptr)
        return TARGET_ENOMEM;
    uint32_t count = 0;
    for (uint32_t i = 0; i < header->rtsh_info_len; i++) {
        if (!has_item(request, header->rtsh_info[i]->tag))
            d->items[count++] = header->rtsh_info[i];
    }
    for (uint32_t i = 0; i < request->rtsh_info_len; i++) {
        if (request->rtsh_info[i] != nullptr)
            d->items[count++] = request->rtsh_info[i];
    }
    header->rtsh_info = d->items;
    header->rtsh_info_len = count;
    return 0;
}

int make_draft(const struct rm_kind *kind, const void *request, const struct rm_object *old, struct draft *d)
{
    const struct idl_type *type = kind->mk_record;
    d->items = nullptr;
    d->record = static_cast<uint8_t *>(malloc(type->it_size));
    if (d->record == nullptr)
        return TARGET_ENOMEM;
    memcpy(d->record, old != nullptr ? old->mo_record : request, type->it_size);
    int error = 0;
    if (old != nullptr) {
        overlay(type, d->record, static_cast<const uint8_t *>(request));
        error = join_items(d, static_cast<const struct rts_hdr *>(request));
        if (error == 0 && kind->mk_change != nullptr)
            error = kind->mk_change(d->record, request);
    }
    auto *header = reinterpret_cast<struct rts_hdr *>(d->record);
    header->rtsh_type = kind->mk_type;
    header->rtsh_version = rtslib_versions[1 + kind->mk_type];
    header->rtsh_hdrlen = kind->mk_hdrlen;
    header->rtsh_flag = 0;
    return error;
}

/* Into fresh, which has a key and no record. */
int fill_object(const struct rm_kind *kind, void *record, struct rm_object *fresh, const struct rm_object *old)
{
    int error = kind->mk_check != nullptr ? kind->mk_check(record, fresh, old) : 0;
    if (error != 0)
        return error;
    if (!kind->mk_key(record, fresh->mo_key))
        return TARGET_EINVAL;
    if (old == nullptr && rm_get(kind, fresh->mo_key) != nullptr)
        return TARGET_EEXIST;
    if (old != nullptr && memcmp(old->mo_key, fresh->mo_key, kind->mk_tree.pr_key_length) != 0)
        return TARGET_EINVAL;
    return copy_record(kind->mk_record, record, &fresh->mo_record);
}

void tell(const struct rm_kind *kind, struct rm_object *object, uint8_t op, struct rk_client *by)
{
    if (kind->mk_tell != nullptr)
        kind->mk_tell(by, op, object);
    else
        rk_event_all(&rm_kernel, by, kind->mk_listen[0], kind->mk_listen[1], kind->mk_type, op, object->mo_record);
}

/* --- requests --------------------------------------------------------------------------------------------------- */

/* 0 and the object that the request names. */
int named(struct rm_kind *kind, const void *request, struct rm_object **object)
{
    uint8_t key[RM_KEY_MAX];
    if (kind->mk_other == nullptr || !kind->mk_other(request, object)) {
        if (!kind->mk_key(request, key))
            return TARGET_EINVAL;
        *object = rm_get(kind, key);
    }
    return *object != nullptr ? 0 : TARGET_ENOENT;
}

int named_next(struct rm_kind *kind, const void *request, struct rm_object **object)
{
    uint8_t key[RM_KEY_MAX];
    struct rm_object *at = nullptr;
    if (kind->mk_other != nullptr && kind->mk_other(request, &at)) {
        if (at == nullptr)
            return TARGET_ENOENT;
        at = rm_following(kind, at);
    } else {
        if (!kind->mk_key(request, key))
            return TARGET_EINVAL;
        at = rm_behind(kind, key);
    }
    while (at != nullptr && kind->mk_passes != nullptr && !kind->mk_passes(request, at))
        at = rm_following(kind, at);
    *object = at;
    return at != nullptr ? 0 : TARGET_ENOENT;
}

int answer(struct rm_kind *kind, struct rk_client *client, const struct rk_request *request)
{
    struct rm_object *object = nullptr;
    int error = request->op == RTM_OP_GET ? named(kind, request->record, &object)
                                          : named_next(kind, request->record, &object);
    return error != 0 ? error : rk_reply(client, request, kind->mk_type, object->mo_record);
}

/* The answer goes out first: if it cannot, nothing has changed. */
int put(struct rm_kind *kind, struct rk_client *client, const struct rk_request *request, struct rm_object *old,
        bool answered)
{
    struct rm_object *fresh = nullptr;
    int error = rm_make(kind, request->record, old, &fresh);
    if (error == 0 && answered)
        error = rk_reply(client, request, kind->mk_type, fresh->mo_record);
    if (error == 0)
        rm_commit(kind, fresh, old, client);
    else
        rm_discard(kind, fresh);
    return error;
}

int change(struct rm_kind *kind, struct rk_client *client, const struct rk_request *request, bool answered)
{
    struct rm_object *old = nullptr;
    int error = named(kind, request->record, &old);
    return error != 0 ? error : put(kind, client, request, old, answered);
}

int remove_named(struct rm_kind *kind, struct rk_client *client, const struct rk_request *request)
{
    struct rm_object *object = nullptr;
    int error = named(kind, request->record, &object);
    if (error == 0 && kind->mk_passes != nullptr && !kind->mk_passes(request->record, object))
        error = TARGET_ENOENT;
    if (error == 0 && kind->mk_held != nullptr)
        error = kind->mk_held(object);
    if (error == 0)
        rm_remove(kind, object, client);
    return error;
}

}   // namespace

struct rm_object *rm_get(const struct rm_kind *kind, const uint8_t *key)
{
    return object_of(patricia_lookup(&kind->mk_tree, key));
}

struct rm_object *rm_following(const struct rm_kind *kind, const struct rm_object *object)
{
    const struct patricia_node *node = object != nullptr ? &object->mo_node : nullptr;
    return object_of(patricia_find_next(&kind->mk_tree, node));
}

struct rm_object *rm_behind(struct rm_kind *kind, const uint8_t *key)
{
    struct rm_object *at = key != nullptr ? rm_get(kind, key) : nullptr;
    if (key == nullptr || at != nullptr)
        return rm_following(kind, at);
    // The tree walks from node to node only, so the key goes in for as long as it takes to ask who follows it.
    alignas(struct rm_object) uint8_t room[sizeof(struct rm_object) + RM_KEY_MAX] = {};
    auto *probe = reinterpret_cast<struct rm_object *>(room);
    memcpy(probe->mo_key, key, kind->mk_tree.pr_key_length);
    if (!patricia_add(&kind->mk_tree, &probe->mo_node))
        return nullptr;
    at = rm_following(kind, probe);
    patricia_delete(&kind->mk_tree, &probe->mo_node);
    return at;
}

int rm_make(struct rm_kind *kind, void *record, const struct rm_object *old, struct rm_object **fresh)
{
    struct draft d;
    int error = make_draft(kind, record, old, &d);
    *fresh = static_cast<struct rm_object *>(calloc(1, sizeof(struct rm_object) + kind->mk_tree.pr_key_length));
    if (*fresh == nullptr)
        error = TARGET_ENOMEM;
    if (error == 0)
        error = fill_object(kind, d.record, *fresh, old);
    free(d.items);
    free(d.record);
    if (error == 0)
        return 0;
    rm_discard(kind, *fresh);
    *fresh = nullptr;
    return error;
}

void rm_discard(struct rm_kind *kind, struct rm_object *object)
{
    if (object == nullptr)
        return;
    rm_discard(&rm_nexthops, object->mo_made);
    free_record(kind->mk_record, object->mo_record);
    free(object);
}

void rm_commit(struct rm_kind *kind, struct rm_object *fresh, struct rm_object *old, struct rk_client *by)
{
    if (old != nullptr) {
        fresh->mo_packets = old->mo_packets;
        fresh->mo_of_route = old->mo_of_route;
        patricia_delete(&kind->mk_tree, &old->mo_node);
    }
    patricia_add(&kind->mk_tree, &fresh->mo_node);
    if (kind->mk_joined != nullptr)
        kind->mk_joined(fresh);
    if (old != nullptr && kind->mk_left != nullptr)
        kind->mk_left(old);
    rm_discard(kind, old);
    tell(kind, fresh, old != nullptr ? RTM_OP_CHANGE : RTM_OP_ADD, by);
}

void rm_remove(struct rm_kind *kind, struct rm_object *object, struct rk_client *by)
{
    if (kind->mk_below != nullptr)
        kind->mk_below(object, by);
    patricia_delete(&kind->mk_tree, &object->mo_node);
    if (kind->mk_left != nullptr)
        kind->mk_left(object);
    tell(kind, object, RTM_OP_DELETE, by);
    rm_discard(kind, object);
}

void rm_clear(struct rm_kind *kind)
{
    struct rm_object *object;
    while ((object = rm_following(kind, nullptr)) != nullptr) {
        patricia_delete(&kind->mk_tree, &object->mo_node);
        rm_discard(kind, object);
    }
}

int rm_add(struct rm_kind *kind, void *record)
{
    struct rm_object *fresh;
    int error = rm_make(kind, record, nullptr, &fresh);
    if (error == 0)
        rm_commit(kind, fresh, nullptr, nullptr);
    return error;
}

int rm_serve_kind(struct rm_kind *kind, struct rk_client *client, const struct rk_request *request)
{
    if (request->record == nullptr)
        return TARGET_EOPNOTSUPP;
    switch (request->op) {
    case RTM_OP_GET:
    case RTM_OP_GETNEXT:
        return answer(kind, client, request);
    case RTM_OP_ADD:
    case RTM_OP_ADD_GET:
        return put(kind, client, request, nullptr, request->op == RTM_OP_ADD_GET);
    case RTM_OP_CHANGE:
    case RTM_OP_CHG_GET:
        return change(kind, client, request, request->op == RTM_OP_CHG_GET);
    case RTM_OP_DELETE:
        return remove_named(kind, client, request);
    default:
        return TARGET_EOPNOTSUPP;
    }
}

/* --- keys ------------------------------------------------------------------------------------------------------- */

uint8_t *rm_put16(uint8_t *key, uint32_t value)
{
    *key++ = uint8_t(value >> BITS);
    *key++ = uint8_t(value);
    return key;
}

uint8_t *rm_put32(uint8_t *key, uint32_t value)
{
    return rm_put16(rm_put16(key, value >> 2 * BITS), value);
}

void rm_mask_prefix(uint8_t *prefix, uint32_t length, uint32_t bits)
{
    uint32_t whole = bits / BITS;
    if (whole >= length)
        return;
    prefix[whole] = uint8_t(prefix[whole] & ~(0xff >> bits % BITS));
    memset(prefix + whole + 1, 0, length - whole - 1);
}

uint8_t *rm_put_prefix(uint8_t *key, const uint8_t *prefix, uint32_t length, uint32_t bits, size_t room)
{
    size_t octets = (size_t(bits) + BITS - 1) / BITS;
    if (octets > room || octets > (prefix != nullptr ? length : 0))
        return nullptr;
    memset(key, 0, room);
    if (octets != 0)
        memcpy(key, prefix, octets);
    rm_mask_prefix(key, uint32_t(room), bits);
    return rm_put16(key + room, bits);
}

bool rm_text_equals(const char *a, uint32_t a_length, const char *b, uint32_t b_length)
{
    size_t length = a != nullptr ? strnlen(a, a_length) : 0;
    size_t other = b != nullptr ? strnlen(b, b_length) : 0;
    return length == other && (length == 0 || memcmp(a, b, length) == 0);
}
