/*
 * Encoding as TLV: one pass, elements in declaration order, the header of a nested record written behind its body.
 *
 * The offset runs on whether or not an element fits, so that the result is the size needed. What does not fit is left
 * out whole; nothing is written at or past the buffer's end. Every element is padded as soon as it is written, so that
 * the next one finds the offset aligned. Runs of integers, whose headers never change, go in one loop where there is
 * room for all of them and all are present; otherwise, and in the network dialect, they go one by one.
 */
#include "lib/librtsock/idl/codec.h"
#include "lib/librtsock/idl/idl.h"

namespace {

size_t put_record(const idl_output &out, const struct idl_type *type, const void *record, const void *map,
                  size_t offset);
size_t put_choice(const idl_output &out, const struct idl_type *type, const void *record, const void *map,
                  size_t offset);

inline size_t put_any(const idl_output &out, const struct idl_type *type, const void *record, const void *map,
                      size_t offset)
{
    return type->it_choice ? put_choice(out, type, record, map, offset) : put_record(out, type, record, map, offset);
}

/* Element headers and the order of integers. */
struct host {
    static constexpr size_t header = idl_layout::host_header;
    static void put_header(uint8_t *at, uint32_t tag, size_t length) { idl_store(at, uint64_t(length) << 32 | tag); }
    static uint64_t ordered(uint64_t value, unsigned) { return value; }
    static size_t length_kept(size_t length) { return length; }
};

struct network {
    static constexpr size_t header = 2 * sizeof(uint16_t);
    static void put_header(uint8_t *at, uint32_t tag, size_t length)
    {
        idl_store(at, htobe16(uint16_t(tag)));
        idl_store(at + sizeof(uint16_t), htobe16(uint16_t(length)));
    }
    static uint64_t ordered(uint64_t value, unsigned width) { return htobe64(value) >> (64 - 8 * width); }
    // Kept on purpose: what 16 bits cannot say is cut off a nested record's length, and the elements behind land as if
    // the record were that short.
    static size_t length_kept(size_t length) { return uint16_t(length); }
};

template <typename dialect>
size_t put_octets(const idl_output &out, uint32_t tag, const void *octets, size_t length, size_t offset)
{
    if (idl_fits(out, offset, dialect::header + length)) {
        dialect::put_header(out.buffer + offset, tag, length);
        idl_copy(out.buffer + offset + dialect::header, idl_octets(octets), length);
    }
    return idl_pad(out, offset + dialect::header + length, PADDING);
}

template <typename dialect>
size_t put_integer(const idl_output &out, const struct idl_field *field, const uint8_t *at, size_t offset)
{
    uint64_t value = idl_get(at, field->if_width);
    if (field->if_kind == IDL_KIND_AF)
        value = rts_encode_af(uint8_t(value));
    value = dialect::ordered(value, field->if_width);
    return put_octets<dialect>(out, field->if_tag, &value, field->if_width, offset);
}

template <typename dialect>
size_t put_words(const idl_output &out, const struct idl_field *field, const void *words, uint32_t count, size_t offset)
{
    size_t length = size_t(count) * sizeof(uint32_t);
    size_t end = put_octets<dialect>(out, field->if_tag, words, length, offset);
    if (end > out.size)
        return end;
    for (size_t at = end - length; at < end; at += sizeof(uint32_t)) {
        uint32_t word = idl_load<uint32_t>(out.buffer + at);
        idl_store(out.buffer + at, uint32_t(dialect::ordered(word, sizeof word)));
    }
    return end;
}

template <typename dialect>
size_t put_nested(const idl_output &out, const struct idl_field *field, const void *record, const void *map,
                  size_t offset)
{
    size_t begin = offset + dialect::header;
    size_t length = dialect::length_kept(put_any(out, field->if_type, record, map, begin) - begin);
    if (begin <= out.size)
        dialect::put_header(out.buffer + offset, field->if_tag, length);
    return begin + length;
}

template <typename dialect>
size_t put_list(const idl_output &out, const struct idl_field *field, const void *record, void *maps, size_t offset)
{
    auto *entry = static_cast<uint8_t *>(idl_pointer(record, field));
    const size_t octets = idl_entry_octets(field);
    uint32_t count = idl_count(record, field);
    for (uint32_t i = 0; i < count; i++, entry += octets) {
        const void *item = idl_item(entry, field);
        if (item != nullptr)
            offset = put_nested<dialect>(out, field, item, idl_item_map(maps, field, i), offset);
    }
    return offset;
}

template <typename dialect>
size_t put_field(const idl_output &out, const struct idl_field *field, const void *record, const void *map,
                 size_t offset)
{
    const uint8_t *at = idl_octets(record) + field->if_offset;
    switch (field->if_kind) {
    case IDL_KIND_INT:
    case IDL_KIND_FLEX:
    case IDL_KIND_AF:
        return put_integer<dialect>(out, field, at, offset);
    case IDL_KIND_BYTES:
        return put_octets<dialect>(out, field->if_tag, at, field->if_size, offset);
    case IDL_KIND_OPAQUE:
        return put_octets<dialect>(out, field->if_tag, idl_pointer(record, field), idl_count(record, field), offset);
    case IDL_KIND_WORD_LIST:
        return put_words<dialect>(out, field, idl_pointer(record, field), idl_count(record, field), offset);
    case IDL_KIND_RECORD:
        return put_nested<dialect>(out, field, at, idl_nested_map(map, field), offset);
    default:
        return put_list<dialect>(out, field, record, idl_item_maps(map, field), offset);
    }
}

/* The run of integers that begins at place, for which there is room. */
void put_elements(uint8_t *at, const struct idl_place *place, const uint8_t *record)
{
    const struct idl_place *end = place + place->ip_elements;
    if (place->ip_element_octets == host::header + sizeof(uint64_t)) {
        for (; place != end; place++, at += host::header + sizeof(uint64_t)) {
            idl_store(at, place->ip_header);
            idl_store(at + host::header, idl_load<uint64_t>(record + place->ip_load));
        }
        return;
    }
    for (; place != end; place++, at += host::header + PADDING) {
        idl_store(at, place->ip_header);
        idl_store(at + host::header, idl_load<uint32_t>(record + place->ip_load) >> place->ip_shift & place->ip_mask);
    }
}

bool run_is_present(const void *map, const struct idl_place *place)
{
    return map == nullptr ||
           (~idl_load<uint32_t>(idl_octets(map) + place->ip_bit / 32) & place->ip_elements_bits) == 0;
}

size_t put_host_record(const idl_output &out, const struct idl_type *type, const void *record, const void *map,
                       size_t offset)
{
    const struct idl_field *field = type->it_fields;
    const struct idl_field *end = field + type->it_count;
    for (const struct idl_place *place = type->it_places; field != end;) {
        size_t octets = size_t(place->ip_elements) * place->ip_element_octets;
        if (octets != 0 && idl_fits(out, offset, octets) && run_is_present(map, place)) {
            put_elements(out.buffer + offset, place, idl_octets(record));
            offset += octets;
            field += place->ip_elements;
            place += place->ip_elements;
            continue;
        }
        if (map == nullptr || idl_bit(map, place))
            offset = put_field<host>(out, field, record, map, offset);
        field++;
        place++;
    }
    return offset;
}

size_t put_network_record(const idl_output &out, const struct idl_type *type, const void *record, const void *map,
                          size_t offset)
{
    for (uint32_t i = 0; i < type->it_count; i++) {
        if (map == nullptr || idl_bit(map, &type->it_places[i]))
            offset = put_field<network>(out, &type->it_fields[i], record, map, offset);
    }
    return offset;
}

size_t put_record(const idl_output &out, const struct idl_type *type, const void *record, const void *map,
                  size_t offset)
{
    return type->it_dialect == IDL_DIALECT_NETWORK ? put_network_record(out, type, record, map, offset)
                                                   : put_host_record(out, type, record, map, offset);
}

size_t put_choice(const idl_output &out, const struct idl_type *type, const void *record, const void *map,
                  size_t offset)
{
    uint32_t tag = idl_load<uint32_t>(record);
    const struct idl_field *member = idl_field_by_tag(type, tag);
    const void *body = member != nullptr ? idl_member(record, member) : nullptr;
    size_t begin = offset + CHOICE_HEADER;
    size_t end = body != nullptr ? put_any(out, member->if_type, body, map, begin) : begin;
    return idl_put_choice_header(out, offset, 0, end - begin, tag);
}

}   // namespace

size_t idl_tlv_put(const idl_output &out, const struct idl_type *type, const void *record, const void *map,
                   size_t offset)
{
    return put_any(out, type, record, map, offset);
}

extern "C" int32_t idl_tlv_encode(const struct idl_type *type, const void *record, const void *map, void *buffer,
                                  size_t size)
{
    uint8_t nowhere;
    const idl_output out = idl_room(buffer, size, &nowhere);
    return idl_result(idl_tlv_put(out, type, record, map, 0));
}
