/*
 * The walk that copies a record. It is made twice, taking the same steps: without a block the parts are only counted,
 * and what the first walk counted is what the second one fills.
 */
#include "lib/librtsock/gencfg/record_copy.h"
#include "lib/librtsock/idl/codec.h"

namespace {

enum { PART_ALIGNMENT = 8 };   // of records, words and pointers alike

/* block null: parts are counted and not copied. */
struct copier {
    uint8_t *block;
    size_t used;
};

/* The next part's place, filled with what stands at from; null while counting. */
uint8_t *place(copier *c, const void *from, size_t octets)
{
    size_t at = c->used;
    c->used = idl_aligned(at + octets, PART_ALIGNMENT);
    if (c->block == nullptr)
        return nullptr;
    if (octets != 0)
        memcpy(c->block + at, from, octets);
    return c->block + at;
}

/* A record, a map or an array as it is, null if there is none, and its shallow copy, null while counting. */
struct pair {
    const void *from;
    uint8_t *to;
};

pair part_at(const pair &whole, size_t offset)
{
    return { idl_octets(whole.from) + offset, whole.to != nullptr ? whole.to + offset : nullptr };
}

/* The same for a map, or an array of maps, which may not be there. */
pair map_at(const pair &whole, size_t offset)
{
    return whole.from != nullptr ? part_at(whole, offset) : whole;
}

void lead_to(const pair &whole, uint32_t offset, uint8_t *part)
{
    if (whole.to != nullptr)
        idl_store<void *>(whole.to + offset, part);
}

void copy_any(copier *c, const struct idl_type *type, const pair &record, const pair &map);

/* An entry of a list by pointer, or a member behind a pointer: the record gets a place of its own. */
pair copy_pointed(copier *c, const struct idl_field *field, const pair &holder, uint32_t offset)
{
    const void *from = idl_load<void *>(idl_octets(holder.from) + offset);
    if (from == nullptr)
        return { nullptr, nullptr };
    uint8_t *to = place(c, from, field->if_size);
    lead_to(holder, offset, to);
    return { from, to };
}

void copy_list(copier *c, const struct idl_field *field, const pair &record, const pair &map)
{
    const void *array = idl_pointer(record.from, field);
    if (array == nullptr)
        return;
    uint32_t count = idl_count(record.from, field);
    size_t entry_octets = idl_entry_octets(field);
    pair entries = { array, place(c, array, count * entry_octets) };
    lead_to(record, field->if_offset, entries.to);
    pair maps = { idl_item_maps(map.from, field), nullptr };
    if (maps.from != nullptr) {
        maps.to = place(c, maps.from, size_t(count) * field->if_type->it_map_size);
        lead_to(map, field->if_map_offset, maps.to);
    }
    for (uint32_t i = 0; i < count; i++) {
        pair item = part_at(entries, i * entry_octets);
        if (field->if_kind == IDL_KIND_LIST_PTR)
            item = copy_pointed(c, field, item, 0);
        if (item.from != nullptr)
            copy_any(c, field->if_type, item, map_at(maps, size_t(i) * field->if_type->it_map_size));
    }
}

void copy_octets(copier *c, const struct idl_field *field, const pair &record)
{
    const void *from = idl_pointer(record.from, field);
    if (from == nullptr)
        return;
    size_t unit = field->if_kind == IDL_KIND_WORD_LIST ? sizeof(uint32_t) : 1;
    lead_to(record, field->if_offset, place(c, from, idl_count(record.from, field) * unit));
}

void copy_field(copier *c, const struct idl_field *field, const pair &record, const pair &map)
{
    switch (field->if_kind) {
    case IDL_KIND_OPAQUE:
    case IDL_KIND_WORD_LIST:
        copy_octets(c, field, record);
        break;
    case IDL_KIND_RECORD:
        copy_any(c, field->if_type, part_at(record, field->if_offset), map_at(map, field->if_map_offset));
        break;
    case IDL_KIND_LIST:
    case IDL_KIND_LIST_PTR:
        copy_list(c, field, record, map);
        break;
    default:
        break;
    }
}

void copy_choice(copier *c, const struct idl_type *type, const pair &record, const pair &map)
{
    const struct idl_field *member = idl_field_by_tag(type, idl_load<uint32_t>(record.from));
    if (member == nullptr)
        return;
    pair body = member->if_kind == IDL_KIND_MEMBER_PTR ? copy_pointed(c, member, record, member->if_offset)
                                                       : part_at(record, member->if_offset);
    if (body.from != nullptr)
        copy_any(c, member->if_type, body, map);
}

/* What stands under the record and its map. */
void copy_any(copier *c, const struct idl_type *type, const pair &record, const pair &map)
{
    if (!type->it_variable)
        return;
    if (type->it_choice)
        return copy_choice(c, type, record, map);
    for (uint32_t i = 0; i < type->it_count; i++)
        copy_field(c, &type->it_fields[i], record, map);
}

}   // namespace

size_t record_copy(const struct idl_type *type, const void *record, const void *map, void *block, void **map_copy)
{
    copier c = { static_cast<uint8_t *>(block), 0 };
    pair copy = { record, place(&c, record, type->it_size) };
    pair presence = { map, map != nullptr ? place(&c, map, type->it_map_size) : nullptr };
    copy_any(&c, type, copy, presence);
    *map_copy = presence.to;
    return c.used;
}
