/*
 * Decoding of IDR: each field is read where the layout says, and whatever is missing makes the record garbled. What
 * stands behind the last field is the enclosing level's concern.
 *
 * A count is believed only as far as memory for it stays in proportion to the octets at hand: a list longer than its
 * smallest items could be, and COUNT_SLACK on top, is garbled before anything is allocated for it. All other memory is
 * taken for octets that are there. Fields that lie on the wire as they do in memory come in one piece, unless octets of
 * odd length have shifted one against the other.
 */
#include "lib/librtsock/idl/codec.h"

namespace {

enum { COUNT_SLACK = 16 };

/* offset may have been moved past the end by an alignment. */
struct input {
    const uint8_t *data;
    size_t length;
    size_t offset;
};

bool has(const input &in, size_t octets)
{
    return in.offset + octets <= in.length;
}

bool take_count(input &in, uint32_t *count)
{
    in.offset = idl_aligned(in.offset, sizeof *count);
    if (!has(in, sizeof *count))
        return false;
    *count = idl_load<uint32_t>(in.data + in.offset);
    in.offset += sizeof *count;
    return true;
}

int32_t read_plain(input &in, uint8_t *to, size_t octets)
{
    if (!has(in, octets))
        return IDL_CODE_GARBLED;
    idl_copy(to, in.data + in.offset, octets);
    in.offset += octets;
    return 0;
}

int32_t read_counted(input &in, const struct idl_field *field, void *record, const idl_memory &memory)
{
    uint32_t count;
    if (!take_count(in, &count))
        return IDL_CODE_GARBLED;
    if (count == 0)
        return 0;
    size_t octets = size_t(count) * field->if_size;
    if (memory.alloc == nullptr)
        return IDL_CODE_ALLOC;
    if (!has(in, octets))
        return IDL_CODE_GARBLED;
    auto *to = static_cast<uint8_t *>(idl_alloc(memory, octets));
    if (to == nullptr)
        return IDL_CODE_ALLOC;
    idl_set_pointer(record, field, to);
    idl_set_count(record, field, count);
    return read_plain(in, to, octets);
}

int32_t read_nested(input &in, const struct idl_type *type, void *record, const idl_memory &memory)
{
    in.offset = idl_aligned(in.offset, PADDING);
    if (!has(in, 0))
        return IDL_CODE_GARBLED;
    int32_t result = idl_idr_take(type, record, in.data + in.offset, in.length - in.offset, memory);
    if (result < 0)
        return result;
    in.offset += size_t(result);
    // A choice that is cut off reads as nothing, which is no place to go on from.
    return result != 0 && has(in, 0) ? 0 : int32_t(IDL_CODE_GARBLED);
}

int32_t read_list(input &in, const struct idl_field *field, void *record, const idl_memory &memory)
{
    uint32_t count;
    if (!take_count(in, &count))
        return IDL_CODE_GARBLED;
    if (count == 0)
        return 0;
    if (memory.alloc == nullptr)
        return IDL_CODE_ALLOC;
    if (count > (in.length - in.offset) / field->if_type->it_idr_least + COUNT_SLACK)
        return IDL_CODE_GARBLED;
    auto *entry = static_cast<uint8_t *>(idl_zalloc(memory, count * idl_entry_octets(field)));
    if (entry == nullptr)
        return IDL_CODE_ALLOC;
    idl_set_pointer(record, field, entry);
    idl_set_count(record, field, count);
    int32_t result = 0;
    for (; count != 0 && result == 0; count--, entry += idl_entry_octets(field)) {
        void *item = idl_new_item(memory, field, entry);
        result = item != nullptr ? read_nested(in, field->if_type, item, memory) : int32_t(IDL_CODE_ALLOC);
    }
    return result;
}

/* What is no run. */
inline int32_t read_field(input &in, const struct idl_field *field, void *record, const idl_memory &memory)
{
    switch (field->if_kind) {
    case IDL_KIND_RECORD:
        return read_nested(in, field->if_type, idl_octets(record) + field->if_offset, memory);
    case IDL_KIND_LIST:
    case IDL_KIND_LIST_PTR:
        return read_list(in, field, record, memory);
    default:
        return read_counted(in, field, record, memory);
    }
}

/* Fields of a run that cannot come in one piece. */
[[gnu::noinline]] int32_t read_one_by_one(input &in, const struct idl_step *step, void *record,
                                          const idl_memory &memory)
{
    int32_t result = 0;
    for (uint32_t i = 0; i < step->is_count && result == 0; i++) {
        const struct idl_field *field = &step->is_field[i];
        uint8_t *at = idl_octets(record) + field->if_offset;
        in.offset = idl_aligned(in.offset, idl_layout::align_of(*field));
        result = field->if_kind == IDL_KIND_RECORD ? read_nested(in, field->if_type, at, memory)
                                                   : read_plain(in, at, field->if_size);
    }
    return result;
}

int32_t take_record(const struct idl_type *type, void *record, input &in, const idl_memory &memory)
{
    const struct idl_step *end = type->it_steps + type->it_step_count;
    for (const struct idl_step *step = type->it_steps; step != end; step++) {
        uint32_t at = step->is_offset;
        size_t octets = step->is_octets;
        in.offset = idl_aligned(in.offset, step->is_align);
        if (octets != 0 && (in.offset - at) % PADDING == 0) {
            if (!has(in, octets))
                return IDL_CODE_GARBLED;
            idl_copy_run(idl_octets(record) + at, in.data + in.offset, type->it_mask + at, octets);
            in.offset += octets;
            continue;
        }
        int32_t result = octets == 0 ? read_field(in, step->is_field, record, memory)
                                     : read_one_by_one(in, step, record, memory);
        if (result != 0)
            return result;
    }
    // The padding behind the last field counts, and is not looked at: the enclosing level finds it missing.
    return idl_result(idl_aligned(in.offset, PADDING));
}

}   // namespace

int32_t idl_idr_take(const struct idl_type *type, void *record, const uint8_t *data, size_t length,
                     const idl_memory &memory)
{
    auto take = [&](auto member, void *to, auto octets, size_t count) {
        return idl_idr_take(member, to, octets, count, memory);
    };
    if (type->it_choice)
        return idl_take_choice(type, record, data, length, memory, take);
    input in = { data, length, 0 };
    return take_record(type, record, in, memory);
}

extern "C" int32_t idl_idr_decode(const struct idl_type *type, void *record, const void *data, size_t length,
                                  idl_alloc_func alloc, void *context)
{
    memset(record, 0, type->it_size);
    return idl_idr_take(type, record, idl_octets(data), length <= INT32_MAX ? length : size_t(INT32_MAX),
                        { alloc, context });
}
