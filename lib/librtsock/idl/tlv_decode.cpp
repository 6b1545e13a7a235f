/*
 * Decoding of TLV.
 *
 * A record is a run of elements; where the run stops making sense the record ends, and it is for what encloses it to
 * find that octets are left over. Each nested value is handed on with exactly its own octets, so nothing is read
 * outside the element it stands in. A type cannot nest in itself, for it stands in the catalogue before all that use
 * it: the depth is the catalogue's. Memory is taken for what is really there: a list is as long as its run of
 * elements, an opaque as long as its value.
 *
 * Senders mostly write fields as they are declared. The decoder looks for the next one first, and knows of a field that
 * stands behind all those seen that it has not been seen: it is still zero, and its presence bit clear.
 */
#include "lib/librtsock/idl/codec.h"
#include "lib/librtsock/idl/idl.h"

#include <type_traits>

namespace {

struct element {
    uint32_t tag;
    uint32_t length;
    size_t value;   // offset
    size_t end;     // offset of what is behind the value
};

struct input {
    const uint8_t *data;
    size_t length;
};

/* Element headers and the order of integers. */
struct host {
    static constexpr size_t header = idl_layout::host_header;
    static void get_header(const uint8_t *at, element &e)
    {
        e.tag = idl_load<uint32_t>(at);
        e.length = idl_load<uint32_t>(at + sizeof e.tag);
    }
    static uint64_t ordered(uint64_t value, unsigned) { return value; }
};

struct network {
    static constexpr size_t header = 2 * sizeof(uint16_t);
    static void get_header(const uint8_t *at, element &e)
    {
        e.tag = be16toh(idl_load<uint16_t>(at));
        e.length = be16toh(idl_load<uint16_t>(at + sizeof(uint16_t)));
    }
    static uint64_t ordered(uint64_t value, unsigned width) { return be64toh(value << (64 - 8 * width)); }
};

/* The element at offset, which is at most the input's length. False: there is no whole one. */
template <typename dialect> bool read_element(const input &in, size_t offset, element &e)
{
    if (in.length - offset < dialect::header)
        return false;
    dialect::get_header(in.data + offset, e);
    e.value = offset + dialect::header;
    e.end = e.value + e.length;
    return e.end <= in.length;
}

template <typename dialect>
int32_t read_integer(const input &in, const struct idl_field *field, uint8_t *at, const element &e)
{
    if (e.length < field->if_width)
        return IDL_CODE_GARBLED;
    uint64_t value = dialect::ordered(idl_get(in.data + e.value, field->if_width), field->if_width);
    if (field->if_kind == IDL_KIND_AF)
        value = rts_decode_af(uint8_t(value));
    idl_put(at, field->if_width, value);
    return 0;
}

template <typename dialect>
int32_t read_flexible(const input &in, const struct idl_field *field, uint8_t *at, const element &e)
{
    bool known = e.length == 1 || e.length == 2 || e.length == 4 || e.length == 8;
    uint64_t value = known ? dialect::ordered(idl_get(in.data + e.value, e.length), e.length) : 0;
    idl_put(at, field->if_width, value);
    return 0;
}

template <typename dialect>
int32_t read_counted(const input &in, const struct idl_field *field, void *record, const element &e,
                     const idl_memory &memory)
{
    if (idl_pointer(record, field) != nullptr)
        return IDL_CODE_GARBLED;
    uint32_t count = e.length / field->if_size;
    idl_set_count(record, field, count);
    if (count == 0)
        return 0;
    size_t octets = size_t(count) * field->if_size;
    auto *to = static_cast<uint8_t *>(idl_alloc(memory, octets));
    if (to == nullptr)
        return IDL_CODE_ALLOC;
    idl_set_pointer(record, field, to);
    idl_copy(to, in.data + e.value, octets);
    for (size_t at = 0; field->if_kind == IDL_KIND_WORD_LIST && at < octets; at += sizeof(uint32_t)) {
        uint32_t word = idl_load<uint32_t>(to + at);
        idl_store(to + at, uint32_t(dialect::ordered(word, sizeof word)));
    }
    return 0;
}

/* The nested record or choice, zeroed, must use its value up. */
int32_t read_nested(const input &in, const struct idl_type *type, void *record, void *map, const element &e,
                    const idl_memory &memory)
{
    int32_t result = idl_tlv_take(type, record, map, in.data + e.value, e.length, memory);
    if (result < 0)
        return result;
    return uint32_t(result) == e.length ? 0 : int32_t(IDL_CODE_GARBLED);
}

/* A record in place that may have been read before. */
int32_t read_again(const input &in, const struct idl_field *field, void *record, void *map, const element &e,
                   const idl_memory &memory)
{
    // The second one would lose what the first one allocated.
    if (idl_holds_memory(field->if_type, record))
        return IDL_CODE_GARBLED;
    memset(record, 0, field->if_size);
    return read_nested(in, field->if_type, record, map, e, memory);
}

/* Elements of one tag, back to back: e and those behind it. */
template <typename dialect> uint32_t count_run(const input &in, element e)
{
    uint32_t count = 1;
    uint32_t tag = e.tag;
    while (read_element<dialect>(in, e.end, e) && e.tag == tag)
        count++;
    return count;
}

/* The zeroed array of maps of a list. Null in *maps if no map is wanted. */
int32_t make_maps(const struct idl_field *field, void *map, uint32_t count, const idl_memory &memory, void **maps)
{
    *maps = nullptr;
    if (map == nullptr)
        return 0;
    *maps = idl_item_maps(map, field);
    if (*maps == nullptr)
        *maps = idl_zalloc(memory, size_t(count) * field->if_type->it_map_size);
    idl_store(idl_nested_map(map, field), *maps);
    return *maps != nullptr ? 0 : int32_t(IDL_CODE_ALLOC);
}

/* e is the first item's element, and then the last one's. */
template <typename dialect>
int32_t read_list(const input &in, const struct idl_field *field, void *record, void *map, element &e,
                  const idl_memory &memory)
{
    if (idl_pointer(record, field) != nullptr)
        return IDL_CODE_GARBLED;
    uint32_t count = count_run<dialect>(in, e);
    auto *entry = static_cast<uint8_t *>(idl_zalloc(memory, count * idl_entry_octets(field)));
    if (entry == nullptr)
        return IDL_CODE_ALLOC;
    idl_set_pointer(record, field, entry);
    idl_set_count(record, field, count);
    void *maps;
    int32_t result = make_maps(field, map, count, memory, &maps);
    for (uint32_t i = 0; i < count && result == 0; i++, entry += idl_entry_octets(field)) {
        if (i > 0 && (!read_element<dialect>(in, e.end, e) || e.tag != field->if_tag))
            return IDL_CODE_GARBLED;
        void *item = idl_new_item(memory, field, entry);
        if (item == nullptr)
            return IDL_CODE_ALLOC;
        result = read_nested(in, field->if_type, item, idl_item_map(maps, field, i), e, memory);
    }
    return result;
}

/* fresh: the field is known not to have been read before. */
template <typename dialect>
int32_t read_field(const input &in, const struct idl_field *field, bool fresh, void *record, void *map, element &e,
                   const idl_memory &memory)
{
    uint8_t *at = idl_octets(record) + field->if_offset;
    switch (field->if_kind) {
    case IDL_KIND_INT:
    case IDL_KIND_AF:
        return read_integer<dialect>(in, field, at, e);
    case IDL_KIND_FLEX:
        return read_flexible<dialect>(in, field, at, e);
    case IDL_KIND_BYTES:
        idl_copy(at, in.data + e.value, e.length < field->if_size ? e.length : field->if_size);
        return 0;
    case IDL_KIND_OPAQUE:
    case IDL_KIND_WORD_LIST:
        return read_counted<dialect>(in, field, record, e, memory);
    case IDL_KIND_RECORD:
        return fresh ? read_nested(in, field->if_type, at, idl_nested_map(map, field), e, memory)
                     : read_again(in, field, at, idl_nested_map(map, field), e, memory);
    default:
        return read_list<dialect>(in, field, record, map, e, memory);
    }
}

/* Elements of the integers expected next, as long as they come with the declared width, their padding and nothing in
 * between. The new offset; *next is moved on. */
size_t read_expected(const input &in, const struct idl_type *type, uint32_t *next, void *record, void *map,
                     size_t offset)
{
    const struct idl_place *first = &type->it_places[*next];
    const struct idl_field *field = &type->it_fields[*next];
    const struct idl_place *place = first;
    const struct idl_place *end = first + first->ip_elements;
    size_t octets = first->ip_element_octets;
    for (; place != end && in.length - offset >= octets; place++, field++, offset += octets) {
        const uint8_t *at = in.data + offset;
        if (idl_load<uint64_t>(at) != place->ip_header)
            break;
        idl_put(idl_octets(record) + field->if_offset, field->if_width, idl_get(at + host::header, field->if_width));
    }
    uint32_t count = uint32_t(place - first);
    if (map != nullptr && count != 0)
        idl_set_bits(map, first, uint32_t((uint64_t(1) << count) - 1) << first->ip_bit % 32);
    *next += count;
    return offset;
}

const struct idl_field *find_field(const struct idl_type *type, uint32_t next, uint32_t tag)
{
    if (next < type->it_count && type->it_fields[next].if_tag == tag)
        return &type->it_fields[next];
    return idl_field_by_tag(type, tag);
}

template <typename dialect>
int32_t take_record(const struct idl_type *type, void *record, void *map, const input &in, const idl_memory &memory)
{
    constexpr bool has_runs = std::is_same_v<dialect, host>;
    uint32_t next = 0;   // the field behind the last of those seen
    size_t offset = 0;
    for (;;) {
        if (has_runs && next < type->it_count && type->it_places[next].ip_elements != 0)
            offset = read_expected(in, type, &next, record, map, offset);
        element e;
        if (!read_element<dialect>(in, offset, e))
            return int32_t(offset);
        const struct idl_field *field = find_field(type, next, e.tag);
        if (field != nullptr) {
            uint32_t index = uint32_t(field - type->it_fields);
            const struct idl_place *place = &type->it_places[index];
            bool fresh = index >= next;
            if (fresh || map == nullptr || !idl_bit(map, place)) {
                int32_t result = read_field<dialect>(in, field, fresh, record, map, e, memory);
                if (result != 0)
                    return result;
                if (map != nullptr)
                    idl_set_bits(map, place, 1U << place->ip_bit % 32);
                next = fresh ? index + 1 : next;
            }
        }
        offset = idl_aligned(e.end, PADDING);
        if (offset > in.length)
            return int32_t(e.end);
    }
}

}   // namespace

int32_t idl_tlv_take(const struct idl_type *type, void *record, void *map, const uint8_t *data, size_t length,
                     const idl_memory &memory)
{
    auto take = [&](auto member, void *to, auto octets, size_t count) {
        return idl_tlv_take(member, to, map, octets, count, memory);
    };
    if (type->it_choice)
        return idl_take_choice(type, record, data, length, memory, take);
    const input in = { data, length };
    return type->it_dialect == IDL_DIALECT_NETWORK ? take_record<network>(type, record, map, in, memory)
                                                   : take_record<host>(type, record, map, in, memory);
}

extern "C" int32_t idl_tlv_decode(const struct idl_type *type, void *record, void *map, const void *data, size_t length,
                                  idl_alloc_func alloc, void *context)
{
    memset(record, 0, type->it_size);
    if (map != nullptr)
        memset(map, 0, type->it_map_size);
    return idl_tlv_take(type, record, map, idl_octets(data), length <= INT32_MAX ? length : size_t(INT32_MAX),
                        { alloc, context });
}
