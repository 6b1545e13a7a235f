/*
 * Giving back what a decoder allocated under a record, depth first: items before their array, an array before the maps
 * beside it. The record itself stays, and is not cleared.
 */
#include "lib/librtsock/idl/codec.h"

namespace {

struct releaser {
    idl_release_func release;
    void *context;
};

void release_any(const releaser &r, const struct idl_type *type, void *record, void *map);

void release_list(const releaser &r, const struct idl_field *field, void *record, void *map)
{
    void *array = idl_pointer(record, field);
    auto *entry = static_cast<uint8_t *>(array);
    void *maps = idl_item_maps(map, field);
    uint32_t count = idl_count(record, field);
    for (uint32_t i = 0; i < count; i++, entry += idl_entry_octets(field)) {
        void *item = idl_item(entry, field);
        if (item == nullptr)
            continue;
        release_any(r, field->if_type, item, idl_item_map(maps, field, i));
        if (field->if_kind == IDL_KIND_LIST_PTR)
            r.release(item, r.context);
    }
    if (array != nullptr)
        r.release(array, r.context);
    if (maps != nullptr)
        r.release(maps, r.context);
}

void release_choice(const releaser &r, const struct idl_type *type, void *record, void *map)
{
    const struct idl_field *member = idl_field_by_tag(type, idl_load<uint32_t>(record));
    void *body = member != nullptr ? idl_member(record, member) : nullptr;
    if (body == nullptr)
        return;
    release_any(r, member->if_type, body, map);
    if (member->if_kind == IDL_KIND_MEMBER_PTR)
        r.release(body, r.context);
}

void release_record(const releaser &r, const struct idl_type *type, void *record, void *map)
{
    for (uint32_t i = 0; i < type->it_count; i++) {
        const struct idl_field *field = &type->it_fields[i];
        switch (field->if_kind) {
        case IDL_KIND_OPAQUE:
        case IDL_KIND_WORD_LIST:
            if (idl_pointer(record, field) != nullptr)
                r.release(idl_pointer(record, field), r.context);
            break;
        case IDL_KIND_RECORD:
            release_any(r, field->if_type, idl_octets(record) + field->if_offset, idl_nested_map(map, field));
            break;
        case IDL_KIND_LIST:
        case IDL_KIND_LIST_PTR:
            release_list(r, field, record, map);
            break;
        default:
            break;
        }
    }
}

void release_any(const releaser &r, const struct idl_type *type, void *record, void *map)
{
    if (!type->it_variable)
        return;
    if (type->it_choice)
        release_choice(r, type, record, map);
    else
        release_record(r, type, record, map);
}

bool choice_holds(const struct idl_type *type, const void *record)
{
    const struct idl_field *member = idl_field_by_tag(type, idl_load<uint32_t>(record));
    const void *body = member != nullptr ? idl_member(record, member) : nullptr;
    return body != nullptr && (member->if_kind == IDL_KIND_MEMBER_PTR || idl_holds_memory(member->if_type, body));
}

bool field_holds(const struct idl_field *field, const void *record)
{
    switch (field->if_kind) {
    case IDL_KIND_OPAQUE:
    case IDL_KIND_WORD_LIST:
    case IDL_KIND_LIST:
    case IDL_KIND_LIST_PTR:
        return idl_pointer(record, field) != nullptr;
    case IDL_KIND_RECORD:
        return idl_holds_memory(field->if_type, idl_octets(record) + field->if_offset);
    default:
        return false;
    }
}

}   // namespace

bool idl_holds_memory(const struct idl_type *type, const void *record)
{
    if (!type->it_variable)
        return false;
    if (type->it_choice)
        return choice_holds(type, record);
    for (uint32_t i = 0; i < type->it_count; i++) {
        if (field_holds(&type->it_fields[i], record))
            return true;
    }
    return false;
}

void idl_tlv_release(const struct idl_type *type, void *record, void *map, idl_release_func release, void *context)
{
    release_any({ release, context }, type, record, map);
}

void idl_idr_release(const struct idl_type *type, void *record, idl_release_func release, void *context)
{
    release_any({ release, context }, type, record, nullptr);
}

bool idl_map_has(const struct idl_type *type, const void *map, uint32_t index)
{
    return idl_bit(map, &type->it_places[index]);
}
