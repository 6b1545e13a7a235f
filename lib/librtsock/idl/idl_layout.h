/*
 * What the codec knows of a type beyond its table, computed at compile time: where presence bits are, how a tag is
 * found, and which fields can go together.
 *
 * In IDR a run of fields goes in one piece between memory and wire if they lie there alike; the mask of the record
 * keeps out what its gaps hold. In TLV a run of integers goes in one loop: their headers never change, and all their
 * elements are of one size.
 */
#pragma once

#include "lib/librtsock/idl/idl_table.h"

#include <array>
#include <bit>

/* Where the search for a tag begins, among 2 to the power of bits slots. From there one goes on to the next slot, and
 * from the last to the first. factor is odd. */
constexpr uint32_t idl_tag_slot(uint32_t tag, uint32_t factor, uint32_t bits)
{
    return tag * factor >> (32 - bits);
}

namespace idl_layout {

static_assert(std::endian::native == std::endian::little, "host order on the wire is the target's: little-endian");

constexpr uint32_t idr_word = 4;        // nothing is aligned beyond that in IDR
constexpr uint32_t host_header = 8;     // of an element in host dialect
constexpr uint32_t choice_header = 12;

constexpr bool is_list(idl_kind kind)
{
    return kind == IDL_KIND_LIST || kind == IDL_KIND_LIST_PTR;
}

constexpr bool is_integer(idl_kind kind)
{
    return kind == IDL_KIND_INT || kind == IDL_KIND_FLEX || kind == IDL_KIND_AF;
}

constexpr bool is_pointer(idl_kind kind)
{
    return kind == IDL_KIND_OPAQUE || kind == IDL_KIND_WORD_LIST || is_list(kind) || kind == IDL_KIND_MEMBER_PTR;
}

constexpr uint32_t round_up(uint32_t offset, uint32_t alignment)
{
    return (offset + alignment - 1) / alignment * alignment;
}

/* Walks a map as the compiler lays it out: bits fill words, and what stands behind a bit makes the next one begin a
 * fresh word. */
struct bit_cursor {
    uint32_t next = 0;           // first free octet
    uint32_t word = 0;           // octet offset of the word being filled
    uint32_t used = 32;          // its bits in use

    constexpr uint32_t take()
    {
        if (used == 32) {
            word = round_up(next, 4);
            next = word + 4;
            used = 0;
        }
        return word * 32 + used++;
    }
    constexpr void jump(uint32_t offset)
    {
        next = offset;
        used = 32;
    }
};

template <size_t count, size_t size> struct layout {
    static constexpr uint32_t tag_bits = std::bit_width(count) + 1;   // at most half of the slots are taken

    std::array<idl_place, count> places;
    std::array<idl_step, count> steps;
    uint32_t step_count;
    std::array<uint8_t, size> mask;
    std::array<uint16_t, size_t(1) << tag_bits> tags;
    uint32_t tag_factor;
    bool tags_unique;
    bool flat;   // one run without a gap, to the last octet
    uint32_t idr_least;
};

/* Facts of the nested types, by field: they cannot be read through a pointer at compile time. */
struct nested_facts {
    uint32_t map_size;
    uint32_t idr_least;
    bool flat;
    bool variable;
    bool alien;   // of another dialect: it would be carried in that one, or not at all
};

constexpr uint32_t align_of(const idl_field &field)
{
    if (is_integer(field.if_kind) && field.if_width < idr_word)
        return field.if_width;
    return field.if_kind == IDL_KIND_BYTES ? 1 : idr_word;
}

/* Octets of a field that lies in memory as it does in IDR, or 0. Its place in memory must have the alignment of its
 * place on the wire, which a structure alone does not give to octets in a record of their own. */
constexpr uint32_t flat_octets(const idl_field &field, const nested_facts &nested)
{
    if (field.if_offset % align_of(field) != 0)
        return 0;
    if (is_integer(field.if_kind))
        return field.if_width;
    return field.if_kind == IDL_KIND_BYTES || (field.if_kind == IDL_KIND_RECORD && nested.flat) ? field.if_size : 0;
}

constexpr uint32_t least_of(const idl_field &field, const nested_facts &nested)
{
    if (is_integer(field.if_kind))
        return field.if_width;
    if (field.if_kind == IDL_KIND_BYTES)
        return field.if_size;
    return field.if_kind == IDL_KIND_RECORD ? nested.idr_least : idr_word;
}

template <size_t count>
constexpr void place_bits(std::array<idl_place, count> &places, const idl_field (&fields)[count],
                          const nested_facts (&nested)[count])
{
    bit_cursor cursor;
    for (size_t i = 0; i < count; i++) {
        places[i].ip_bit = cursor.take();
        if (fields[i].if_kind == IDL_KIND_RECORD)
            cursor.jump(fields[i].if_map_offset + nested[i].map_size);
        else if (is_list(fields[i].if_kind))
            cursor.jump(fields[i].if_map_offset + uint32_t(sizeof(void *)));
    }
}

/* Puts the number of each field into the first free slot of its tag. Slots passed by in all, or UINT32_MAX if two
 * fields have one tag. */
template <size_t count, size_t size>
constexpr uint32_t fill_tags(layout<count, size> &result, const idl_field (&fields)[count])
{
    uint32_t passed = 0;
    result.tags = {};
    for (size_t i = 0; i < count; i++) {
        uint32_t slot = idl_tag_slot(fields[i].if_tag, result.tag_factor, result.tag_bits);
        for (; result.tags[slot] != 0; slot = (slot + 1) % result.tags.size(), passed++) {
            if (fields[result.tags[slot] - 1].if_tag == fields[i].if_tag)
                return UINT32_MAX;
        }
        result.tags[slot] = uint16_t(i + 1);
    }
    return passed;
}

/* Of some factors that spread numbers well, the one that makes these tags be found soonest. */
template <size_t count, size_t size>
constexpr void place_tags(layout<count, size> &result, const idl_field (&fields)[count])
{
    constexpr uint32_t golden = 0x9e3779b1;   // 2 to the power of 32, divided by the golden ratio
    constexpr uint32_t step = 0x3c6ef372, factors = 32;
    uint32_t best = golden;
    uint32_t least = UINT32_MAX;
    for (uint32_t i = 0; i < factors && least != 0; i++) {
        result.tag_factor = golden + i * step;
        uint32_t passed = fill_tags(result, fields);
        if (passed < least) {
            least = passed;
            best = result.tag_factor;
        }
    }
    result.tag_factor = best;
    result.tags_unique = fill_tags(result, fields) != UINT32_MAX;
}

/* A run may be copied when its first octet stands at the same offset modulo 4 in memory and on the wire: the gaps,
 * which alignment to at most 4 makes, are then the same. */
template <size_t count, size_t size>
constexpr void place_steps(layout<count, size> &result, const idl_field (&fields)[count],
                           const nested_facts (&nested)[count])
{
    for (size_t i = 0; i < count; i++) {
        uint32_t octets = flat_octets(fields[i], nested[i]);
        idl_step &last = result.steps[result.step_count > 0 ? result.step_count - 1 : 0];
        if (octets != 0 && last.is_octets != 0 &&
            round_up(last.is_offset + last.is_octets, align_of(fields[i])) == fields[i].if_offset) {
            last.is_count++;
            last.is_octets = fields[i].if_offset + octets - last.is_offset;
            continue;
        }
        result.steps[result.step_count++] = { &fields[i], 1, fields[i].if_offset, octets, align_of(fields[i]) };
    }
}

template <size_t count, size_t size>
constexpr void place_mask(std::array<uint8_t, size> &mask, const idl_field (&fields)[count],
                          const nested_facts (&nested)[count])
{
    for (size_t i = 0; i < count; i++) {
        for (uint32_t at = 0; at < flat_octets(fields[i], nested[i]); at++)
            mask[fields[i].if_offset + at] = 0xff;
    }
}

/* One integer as an element. Address families are translated, and go by themselves. */
constexpr void place_element(idl_place &place, const idl_field &field, uint32_t record_size)
{
    if ((field.if_kind != IDL_KIND_INT && field.if_kind != IDL_KIND_FLEX) || record_size < idr_word)
        return;
    place.ip_header = uint64_t(field.if_width) << 32 | field.if_tag;
    place.ip_elements = 1;
    place.ip_elements_bits = 1U << place.ip_bit % 32;
    place.ip_element_octets = uint8_t(host_header + round_up(field.if_width, idr_word));
    place.ip_load = field.if_offset;
    if (field.if_width < idr_word && place.ip_load > record_size - idr_word)
        place.ip_load = record_size - idr_word;   // a load at the value itself would reach past the record
    place.ip_shift = uint8_t(8 * (field.if_offset - place.ip_load));
    place.ip_mask = field.if_width < idr_word ? (1U << 8 * field.if_width) - 1 : UINT32_MAX;
}

template <size_t count>
constexpr void place_elements(std::array<idl_place, count> &places, const idl_field (&fields)[count],
                              uint32_t record_size)
{
    for (size_t i = count; i-- > 0;) {
        place_element(places[i], fields[i], record_size);
        if (places[i].ip_elements == 0 || i + 1 == count)
            continue;
        const idl_place &next = places[i + 1];
        if (next.ip_element_octets == places[i].ip_element_octets && next.ip_bit / 32 == places[i].ip_bit / 32) {
            places[i].ip_elements = uint8_t(next.ip_elements + 1);
            places[i].ip_elements_bits |= next.ip_elements_bits;
        }
    }
}

template <size_t size, size_t count>
constexpr layout<count, size> record(const idl_field (&fields)[count], const nested_facts (&nested)[count])
{
    layout<count, size> result = {};
    place_bits(result.places, fields, nested);
    place_steps(result, fields, nested);
    place_mask(result.mask, fields, nested);
    place_elements(result.places, fields, size);
    place_tags(result, fields);
    for (size_t i = 0; i < count; i++)
        result.idr_least += least_of(fields[i], nested[i]);
    result.idr_least = round_up(result.idr_least, idr_word);
    result.flat = size % idr_word == 0;
    for (uint8_t octet : result.mask)
        result.flat = result.flat && octet != 0;
    return result;
}

template <size_t size, size_t count> constexpr layout<count, size> choice(const idl_field (&fields)[count])
{
    layout<count, size> result = {};
    place_tags(result, fields);
    result.idr_least = choice_header;
    return result;
}

/* Checks for static_assert. */

template <size_t count> constexpr bool has_alien(const nested_facts (&nested)[count])
{
    for (const nested_facts &facts : nested) {
        if (facts.alien)
            return true;
    }
    return false;
}

template <size_t count>
constexpr bool is_variable(const idl_field (&fields)[count], const nested_facts (&nested)[count])
{
    for (size_t i = 0; i < count; i++) {
        if (is_pointer(fields[i].if_kind) || nested[i].variable)
            return true;
    }
    return false;
}

/* Octets of the map as place_bits walked it. */
template <size_t count, size_t size>
constexpr uint32_t map_size(const idl_field (&fields)[count], const nested_facts (&nested)[count],
                            const layout<count, size> &places, uint32_t alignment)
{
    uint32_t end = 0;
    for (size_t i = 0; i < count; i++) {
        uint32_t behind = places.places[i].ip_bit / 32 + 4;
        if (fields[i].if_kind == IDL_KIND_RECORD)
            behind = fields[i].if_map_offset + nested[i].map_size;
        else if (is_list(fields[i].if_kind))
            behind = fields[i].if_map_offset + uint32_t(sizeof(void *));
        end = behind > end ? behind : end;
    }
    return round_up(end, alignment);
}

}   // namespace idl_layout
