/*
 * Encoding as IDR: the fields one after the other, each at its natural alignment up to 4, counted from the record's
 * start.
 *
 * Fields that lie in memory as they do on the wire go in one piece. Near the buffer's end, and where octets of odd
 * length have shifted the wire against memory, they go one by one. The offset runs on whether or not they fit.
 */
#include "lib/librtsock/idl/codec.h"

namespace {

size_t put_record(const idl_output &out, const struct idl_type *type, const void *record, size_t offset);
size_t put_choice(const idl_output &out, const struct idl_type *type, const void *record, size_t offset);

/* A record that is one run needs no loop. */
inline size_t put_any(const idl_output &out, const struct idl_type *type, const void *record, size_t offset)
{
    if (type->it_choice)
        return put_choice(out, type, record, offset);
    size_t octets = type->it_steps->is_octets;
    if (type->it_step_count != 1 || octets == 0 || !idl_fits(out, offset, octets))
        return put_record(out, type, record, offset);
    idl_copy_run(out.buffer + offset, idl_octets(record), type->it_mask, octets);
    return idl_pad(out, offset + octets, PADDING);
}

size_t put_word(const idl_output &out, uint32_t word, size_t offset)
{
    if (idl_fits(out, offset, sizeof word))
        idl_store(out.buffer + offset, word);
    return offset + sizeof word;
}

size_t put_list(const idl_output &out, const struct idl_field *field, const void *record, size_t offset)
{
    const struct idl_type *type = field->if_type;
    const auto *item = static_cast<const uint8_t *>(idl_pointer(record, field));
    const size_t octets = field->if_size;
    uint32_t count = idl_count(record, field);
    offset = put_word(out, count, offset);
    for (; count != 0; count--, item += octets)
        offset = put_any(out, type, item, offset);
    return offset;
}

/* Items that are not there are not counted either. */
size_t put_list_by_pointer(const idl_output &out, const struct idl_field *field, const void *record, size_t offset)
{
    const struct idl_type *type = field->if_type;
    const void *const *items = static_cast<void **>(idl_pointer(record, field));
    size_t begin = offset;
    uint32_t written = 0;
    offset += sizeof written;
    for (uint32_t count = idl_count(record, field); count != 0; count--, items++) {
        if (*items == nullptr)
            continue;
        offset = put_any(out, type, *items, offset);
        written++;
    }
    (void)put_word(out, written, begin);
    return offset;
}

/* The count and what it counts, or neither. */
size_t put_counted(const idl_output &out, const struct idl_field *field, const void *record, size_t offset)
{
    uint32_t count = idl_count(record, field);
    size_t octets = size_t(count) * field->if_size;
    if (idl_fits(out, offset, sizeof count + octets)) {
        idl_store(out.buffer + offset, count);
        idl_copy(out.buffer + offset + sizeof count, static_cast<uint8_t *>(idl_pointer(record, field)), octets);
    }
    return offset + sizeof count + octets;
}

/* Fields of a run that cannot go in one piece. */
[[gnu::noinline]] size_t put_one_by_one(const idl_output &out, const struct idl_step *step, const void *record,
                                        size_t offset)
{
    for (uint32_t i = 0; i < step->is_count; i++) {
        const struct idl_field *field = &step->is_field[i];
        const uint8_t *at = idl_octets(record) + field->if_offset;
        offset = idl_pad(out, offset, idl_layout::align_of(*field));
        if (field->if_kind == IDL_KIND_RECORD) {
            offset = put_any(out, field->if_type, at, offset);
            continue;
        }
        if (idl_fits(out, offset, field->if_size))
            idl_copy(out.buffer + offset, at, field->if_size);
        offset += field->if_size;
    }
    return offset;
}

/* What is no run, at an offset that has its alignment. */
inline size_t put_field(const idl_output &out, const struct idl_field *field, const void *record, size_t offset)
{
    switch (field->if_kind) {
    case IDL_KIND_RECORD:
        return put_any(out, field->if_type, idl_octets(record) + field->if_offset, offset);
    case IDL_KIND_LIST:
        return put_list(out, field, record, offset);
    case IDL_KIND_LIST_PTR:
        return put_list_by_pointer(out, field, record, offset);
    default:
        return put_counted(out, field, record, offset);
    }
}

[[gnu::noinline]] size_t put_record(const idl_output &out, const struct idl_type *type, const void *record,
                                    size_t offset)
{
    const struct idl_step *end = type->it_steps + type->it_step_count;
    for (const struct idl_step *step = type->it_steps; step != end; step++) {
        uint32_t at = step->is_offset;
        size_t octets = step->is_octets;
        offset = idl_pad(out, offset, step->is_align);
        if (octets == 0) {
            offset = put_field(out, step->is_field, record, offset);
        } else if ((offset - at) % PADDING == 0 && idl_fits(out, offset, octets)) {
            idl_copy_run(out.buffer + offset, idl_octets(record) + at, type->it_mask + at, octets);
            offset += octets;
        } else {
            offset = put_one_by_one(out, step, record, offset);
        }
    }
    return idl_pad(out, offset, PADDING);
}

size_t put_choice(const idl_output &out, const struct idl_type *type, const void *record, size_t offset)
{
    uint32_t tag = idl_load<uint32_t>(record);
    const struct idl_field *member = idl_field_by_tag(type, tag);
    const void *body = member != nullptr ? idl_member(record, member) : nullptr;
    size_t begin = offset + CHOICE_HEADER;
    size_t end = body != nullptr ? put_any(out, member->if_type, body, begin) : begin;
    return idl_put_choice_header(out, offset, 0, end - begin, tag);
}

}   // namespace

size_t idl_idr_put(const idl_output &out, const struct idl_type *type, const void *record, size_t offset)
{
    return put_any(out, type, record, offset);
}

extern "C" int32_t idl_idr_encode(const struct idl_type *type, const void *record, void *buffer, size_t size)
{
    uint8_t nowhere;
    const idl_output out = idl_room(buffer, size, &nowhere);
    return idl_result(idl_idr_put(out, type, record, 0));
}
