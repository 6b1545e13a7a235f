/*
 * What the parts of the codec share. Internal.
 *
 * Encoders write into one buffer and pass on the offset that they have come to, which runs on past the buffer's end.
 * Every record begins at a multiple of 4, so alignment counted from the buffer's start is alignment counted from the
 * record's. Decoders find their record and map zeroed and are given exactly the octets that are theirs.
 *
 * The functions here are small and on every message's path, so they are inline; alignment of values in records is the
 * compiler's, on the wire there is none to count on.
 */
#pragma once

#include "lib/librtsock/idl/idl_layout.h"

#include <endian.h>
#include <string.h>

enum {
    CHOICE_HEADER = idl_layout::choice_header,   // three words in host order: 0 or the envelope's magic, length, tag
    PADDING = 4,
};

/* Room for an encoder; of size 0, the size is only counted. */
struct idl_output {
    uint8_t *buffer;
    size_t size;
};

/* buffer may be null: nothing is written then. */
inline idl_output idl_room(void *buffer, size_t size, uint8_t *nowhere)
{
    if (buffer == nullptr)
        return { nowhere, 0 };
    return { static_cast<uint8_t *>(buffer), size };
}

/* Where a decoder gets memory; alloc may be null. */
struct idl_memory {
    idl_alloc_func alloc;
    void *context;
};

inline uint8_t *idl_octets(void *memory)
{
    return static_cast<uint8_t *>(memory);
}

inline const uint8_t *idl_octets(const void *memory)
{
    return static_cast<const uint8_t *>(memory);
}

inline size_t idl_aligned(size_t offset, size_t alignment)
{
    return (offset + (alignment - 1)) & ~(alignment - 1);
}

template <typename value_type> inline value_type idl_load(const void *at)
{
    value_type value;
    memcpy(&value, at, sizeof value);
    return value;
}

template <typename value_type> inline void idl_store(void *at, value_type value)
{
    memcpy(at, &value, sizeof value);
}

/* Integers of the record, as wide as the field. */
inline uint64_t idl_get(const void *at, unsigned width)
{
    switch (width) {
    case 1:
        return *idl_octets(at);
    case 2:
        return idl_load<uint16_t>(at);
    case 4:
        return idl_load<uint32_t>(at);
    default:
        return idl_load<uint64_t>(at);
    }
}

inline void idl_put(void *at, unsigned width, uint64_t value)
{
    switch (width) {
    case 1:
        *idl_octets(at) = uint8_t(value);
        break;
    case 2:
        idl_store(at, uint16_t(value));
        break;
    case 4:
        idl_store(at, uint32_t(value));
        break;
    default:
        idl_store(at, value);
        break;
    }
}

/* Copies octets in pieces. Most copies are of less than two cache lines, where a call costs more than the copy. */
template <typename copier> inline void idl_in_pieces(size_t octets, copier copy)
{
    using two_words = uint64_t __attribute__((vector_size(16)));
    size_t at = 0;
    for (; octets - at >= sizeof(two_words); at += sizeof(two_words))
        copy(two_words(), at);
    if ((octets & sizeof(uint64_t)) != 0) {
        copy(uint64_t(), at);
        at += sizeof(uint64_t);
    }
    if ((octets & sizeof(uint32_t)) != 0) {
        copy(uint32_t(), at);
        at += sizeof(uint32_t);
    }
    if ((octets & sizeof(uint16_t)) != 0) {
        copy(uint16_t(), at);
        at += sizeof(uint16_t);
    }
    if ((octets & sizeof(uint8_t)) != 0)
        copy(uint8_t(), at);
}

inline void idl_copy(uint8_t *to, const uint8_t *from, size_t octets)
{
    enum { WORTH_A_CALL = 128 };
    if (octets > WORTH_A_CALL)
        memcpy(to, from, octets);
    else
        idl_in_pieces(octets, [=](auto piece, size_t at) { idl_store(to + at, idl_load<decltype(piece)>(from + at)); });
}

/* A run of fields, without what its gaps hold. */
inline void idl_copy_run(uint8_t *to, const uint8_t *from, const uint8_t *mask, size_t octets)
{
    idl_in_pieces(octets, [=](auto piece, size_t at) {
        using type = decltype(piece);
        idl_store(to + at, type(idl_load<type>(from + at) & idl_load<type>(mask + at)));
    });
}

/* Sizes in memory are 32 bits, so sums of them in 64 bits do not wrap. */
inline bool idl_fits(const idl_output &out, size_t offset, size_t octets)
{
    return offset + octets <= out.size;
}

/* Zeroes up to the alignment, which is 1, 2 or 4, as far as there is a buffer. The new offset. */
inline size_t idl_pad(const idl_output &out, size_t offset, size_t alignment)
{
    size_t aligned = idl_aligned(offset, alignment);
    if (aligned != offset) [[unlikely]] {
        for (; offset < aligned && offset < out.size; offset++)
            out.buffer[offset] = 0;
    }
    return aligned;
}

inline size_t idl_put_choice_header(const idl_output &out, size_t offset, uint32_t first, size_t length, uint32_t tag)
{
    if (idl_fits(out, offset, CHOICE_HEADER)) {
        idl_store(out.buffer + offset, first);
        idl_store(out.buffer + offset + 4, uint32_t(length));
        idl_store(out.buffer + offset + 8, tag);
    }
    return offset + CHOICE_HEADER + length;
}

inline void *idl_pointer(const void *record, const struct idl_field *field)
{
    return idl_load<void *>(idl_octets(record) + field->if_offset);
}

inline void idl_set_pointer(void *record, const struct idl_field *field, void *pointer)
{
    idl_store(idl_octets(record) + field->if_offset, pointer);
}

/* Of what the pointer leads to: without a pointer it is 0, whatever the record says. */
inline uint32_t idl_count(const void *record, const struct idl_field *field)
{
    return idl_pointer(record, field) != nullptr ? idl_load<uint32_t>(idl_octets(record) + field->if_len_offset) : 0;
}

inline void idl_set_count(void *record, const struct idl_field *field, uint32_t count)
{
    idl_store(idl_octets(record) + field->if_len_offset, count);
}

inline bool idl_bit(const void *map, const struct idl_place *place)
{
    return (idl_load<uint32_t>(idl_octets(map) + place->ip_bit / 32) >> place->ip_bit % 32 & 1) != 0;
}

/* Sets bits of the word of the place's bit. */
inline void idl_set_bits(void *map, const struct idl_place *place, uint32_t bits)
{
    uint8_t *word = idl_octets(map) + place->ip_bit / 32;
    idl_store(word, idl_load<uint32_t>(word) | bits);
}

/* The map of a nested record, or the array of maps of a list; null without a map. */
inline void *idl_nested_map(const void *map, const struct idl_field *field)
{
    return map != nullptr ? const_cast<uint8_t *>(idl_octets(map)) + field->if_map_offset : nullptr;
}

inline void *idl_item_maps(const void *map, const struct idl_field *field)
{
    return map != nullptr ? idl_load<void *>(idl_octets(map) + field->if_map_offset) : nullptr;
}

inline void *idl_item_map(void *maps, const struct idl_field *field, uint32_t index)
{
    return maps != nullptr ? idl_octets(maps) + size_t(index) * field->if_type->it_map_size : nullptr;
}

/* Octets of an entry of a list's array. */
inline size_t idl_entry_octets(const struct idl_field *field)
{
    return field->if_kind == IDL_KIND_LIST_PTR ? sizeof(void *) : field->if_size;
}

/* The item of an entry: the entry itself, or what it points to. */
inline void *idl_item(void *entry, const struct idl_field *field)
{
    return field->if_kind == IDL_KIND_LIST_PTR ? *static_cast<void **>(entry) : entry;
}

/* The member of a choice: the record in place or behind its pointer, which may be null. */
inline void *idl_member(const void *choice, const struct idl_field *member)
{
    if (member->if_kind == IDL_KIND_MEMBER_PTR)
        return idl_pointer(choice, member);
    return const_cast<uint8_t *>(idl_octets(choice) + member->if_offset);
}

/* The field of that tag, or null. Half of the slots are free, so the search ends. */
inline const struct idl_field *idl_field_by_tag(const struct idl_type *type, uint32_t tag)
{
    uint32_t last = (1U << type->it_tag_bits) - 1;
    for (uint32_t slot = idl_tag_slot(tag, type->it_tag_factor, type->it_tag_bits);; slot = (slot + 1) & last) {
        uint32_t number = type->it_tags[slot];
        if (number == 0)
            return nullptr;
        if (type->it_fields[number - 1].if_tag == tag)
            return &type->it_fields[number - 1];
    }
}

/* Sizes are counted in 64 bits and given in 32: what is larger is given as the largest. */
inline int32_t idl_result(size_t octets)
{
    return octets <= INT32_MAX ? int32_t(octets) : INT32_MAX;
}

/* A block, or null: also without an allocation function. */
inline void *idl_alloc(const idl_memory &memory, size_t size)
{
    return memory.alloc != nullptr ? memory.alloc(size, memory.context) : nullptr;
}

inline void *idl_zalloc(const idl_memory &memory, size_t size)
{
    void *block = idl_alloc(memory, size);
    return block != nullptr ? memset(block, 0, size) : nullptr;
}

/* The zeroed item of a zeroed entry, which a list by pointer gets now; or null. */
inline void *idl_new_item(const idl_memory &memory, const struct idl_field *field, void *entry)
{
    if (field->if_kind == IDL_KIND_LIST_PTR)
        *static_cast<void **>(entry) = idl_zalloc(memory, field->if_size);
    return idl_item(entry, field);
}

/* The same for the member of a choice, in place or not. */
inline void *idl_new_member(const idl_memory &memory, const struct idl_field *member, void *choice)
{
    if (member->if_kind == IDL_KIND_MEMBER_PTR)
        idl_set_pointer(choice, member, idl_zalloc(memory, member->if_size));
    return idl_member(choice, member);
}

/* The header of a choice is read and its tag stored: 1, or the decoder's result. */
inline int32_t idl_open_choice(uint32_t *tag, const uint8_t *data, size_t length, uint32_t *body)
{
    *tag = UINT32_MAX;
    if (length < CHOICE_HEADER)
        return IDL_CODE_SIZE;
    *body = idl_load<uint32_t>(data + 4);
    uint32_t total = *body + CHOICE_HEADER;
    if (total < *body)
        return IDL_CODE_GARBLED;
    if (length < total)
        return IDL_CODE_SIZE;
    *tag = idl_load<uint32_t>(data + 8);
    return 1;
}

/* What a choice makes of its member's result. Kept on purpose: -4 counts as read, though no member here gives it. An
 * unknown choice inside is stepped over on the common road. */
inline int32_t idl_close_choice(int32_t result, uint32_t body)
{
    if (result == IDL_CODE_CHOICE || (result >= 0 && uint32_t(result) == body))
        return idl_result(size_t(body) + CHOICE_HEADER);
    return result < 0 ? result : int32_t(IDL_CODE_GARBLED);
}

/* Decodes a choice in either form into a zeroed record; take(type, record, octets, length) decodes the member. */
template <typename taker>
inline int32_t idl_take_choice(const struct idl_type *type, void *record, const uint8_t *data, size_t length,
                               const idl_memory &memory, taker take)
{
    uint32_t tag;
    uint32_t body;
    int32_t opened = idl_open_choice(&tag, data, length, &body);
    idl_store(record, tag);
    if (opened <= 0)
        return opened;
    const struct idl_field *member = idl_field_by_tag(type, tag);
    if (member == nullptr)
        return idl_close_choice(int32_t(body), body);
    void *to = idl_new_member(memory, member, record);
    if (to == nullptr)
        return IDL_CODE_ALLOC;
    return idl_close_choice(take(member->if_type, to, data + CHOICE_HEADER, body), body);
}

/* True if a decode has put anything into the record that would have to be released. */
bool idl_holds_memory(const struct idl_type *type, const void *record);

/* From offset on, which is a multiple of 4; size may be 0. The offset behind the record. */
size_t idl_tlv_put(const idl_output &out, const struct idl_type *type, const void *record, const void *map,
                   size_t offset);
size_t idl_idr_put(const idl_output &out, const struct idl_type *type, const void *record, size_t offset);

/* Into a zeroed record and map. Octets consumed, or an enum idl_code. length is at most INT32_MAX. */
int32_t idl_tlv_take(const struct idl_type *type, void *record, void *map, const uint8_t *data, size_t length,
                     const idl_memory &memory);
int32_t idl_idr_take(const struct idl_type *type, void *record, const uint8_t *data, size_t length,
                     const idl_memory &memory);
