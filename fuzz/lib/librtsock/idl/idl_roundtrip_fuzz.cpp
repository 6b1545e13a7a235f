/*
 * Fuzz target: what a decoder accepts comes back from its encodings the same, in every form that its type has.
 *
 * "The same" is told by the octets that both forms make of the two records. Address families are the exception, being
 * translated one way and not wholly back: a record's are put through the translation before it is compared. Into any
 * buffer shorter than a record nothing is written past its end, the size told is the same, and what is written is what
 * a buffer that is large enough has there.
 */
#include "fuzz/lib/librtsock/idl/idl_input.h"

#include <stdio.h>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

enum { UNTOUCHED = 0xa5 };
using octets = std::vector<uint8_t>;

static size_t phase;

int LLVMFuzzerInitialize(int *, char ***)
{
    stderr = fopen("/dev/null", "w");   // address families out of range are logged; the fuzzer has its own stream
    return stderr ? 0 : 1;
}

static int32_t encode_into(const struct idl_type *type, bool idr, const void *record, const void *map, void *buffer,
                           size_t size)
{
    return idr ? idl_idr_encode(type, record, buffer, size) : idl_tlv_encode(type, record, map, buffer, size);
}

static octets encode(const struct idl_type *type, bool idr, const void *record, const void *map)
{
    octets result(size_t(encode_into(type, idr, record, map, nullptr, 0)), UNTOUCHED);
    must(encode_into(type, idr, record, map, result.data(), result.size()) == int32_t(result.size()));
    return result;
}

/* Of many sizes a part, another for each input. */
static void encode_short(const struct idl_type *type, bool idr, const void *record, const void *map,
                         const octets &whole)
{
    size_t step = 1 + whole.size() / 128;
    for (size_t size = phase % step; size < whole.size(); size += step) {
        octets piece(size, UNTOUCHED);
        must(encode_into(type, idr, record, map, piece.data(), size) == int32_t(whole.size()));
        for (size_t i = 0; i < size; i++) must(piece[i] == UNTOUCHED || piece[i] == whole[i]);
    }
}

static void settle(const struct idl_type *type, uint8_t *record);

static void settle_list(const struct idl_field &field, const uint8_t *record)
{
    uint8_t *array;
    uint32_t count;
    memcpy(&array, record + field.if_offset, sizeof array);
    memcpy(&count, record + field.if_len_offset, sizeof count);
    for (uint32_t i = 0; array && i < count; i++) {
        if (field.if_kind == IDL_KIND_LIST)
            settle(field.if_type, array + i * size_t(field.if_size));
        else
            settle(field.if_type, reinterpret_cast<uint8_t **>(array)[i]);
    }
}

static void settle_member(const struct idl_field &field, uint8_t *record)
{
    uint8_t *member = record + field.if_offset;
    uint32_t tag;
    memcpy(&tag, record, sizeof tag);
    if (field.if_tag != tag) return;
    if (field.if_kind == IDL_KIND_MEMBER_PTR) memcpy(&member, record + field.if_offset, sizeof member);
    if (member) settle(field.if_type, member);
}

/* Puts all address families of a record through their translation. */
static void settle(const struct idl_type *type, uint8_t *record)
{
    for (uint32_t i = 0; i < type->it_count; i++) {
        const struct idl_field &field = type->it_fields[i];
        uint8_t *at = record + field.if_offset;
        if (field.if_kind == IDL_KIND_AF)
            *at = rts_decode_af(rts_encode_af(*at));
        else if (field.if_kind == IDL_KIND_RECORD)
            settle(field.if_type, at);
        else if (field.if_kind == IDL_KIND_LIST || field.if_kind == IDL_KIND_LIST_PTR)
            settle_list(field, record);
        else if (field.if_kind == IDL_KIND_MEMBER || field.if_kind == IDL_KIND_MEMBER_PTR)
            settle_member(field, record);
    }
}

static bool has_form(const struct idl_type *type, bool idr)
{
    return type->it_dialect != (idr ? IDL_DIALECT_NETWORK : IDL_DIALECT_IDR);
}

/* Encodes in one form, reads that again, and compares in all. map, or null, belongs to TLV. */
static void go_round(const struct idl_type *type, bool idr, const void *record, const void *map)
{
    octets out = encode(type, idr, record, map);
    encode_short(type, idr, record, map, out);
    struct idl_blocks blocks = idl_blocks_for(out.size());
    idl_room again(type->it_size), map_room(type->it_map_size);
    void *map_again = map ? map_room.at : nullptr;
    int32_t result = idr ? idl_idr_decode(type, again.at, out.data(), out.size(), idl_take_block, &blocks)
                         : idl_tlv_decode(type, again.at, map_again, out.data(), out.size(), idl_take_block, &blocks);
    must(result == int32_t(out.size()));
    for (bool form : { true, false })
        if (has_form(type, form)) must(encode(type, form, again.at, nullptr) == encode(type, form, record, nullptr));
    if (map) must(encode(type, false, again.at, map_again) == out);
    idl_tlv_release(type, again.at, map_again, idl_give_block, &blocks);
    must(blocks.live == 0);
}

/* In network dialect what does not fit into 16 bits is cut. No value takes more than 8 octets for each in memory. */
static bool is_cut(const struct idl_type *type, const struct idl_blocks &blocks)
{
    return type->it_dialect == IDL_DIALECT_NETWORK && 8 * (type->it_size + blocks.total) > UINT16_MAX;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    struct idl_choice c;
    if (!idl_choose(data, size, c)) return 0;
    const struct idl_type *type = idl_chosen_type(c);
    if (!type) return 0;
    phase = size_t(c.calls);
    struct idl_blocks blocks = idl_blocks_for(size);
    idl_room record(type->it_size), map_room(type->it_map_size);
    void *map = c.map ? map_room.at : nullptr;
    int32_t result = c.idr ? idl_idr_decode(type, record.at, data, size, idl_take_block, &blocks)
                           : idl_tlv_decode(type, record.at, map, data, size, idl_take_block, &blocks);
    if (result >= 0 && !is_cut(type, blocks)) {
        settle(type, static_cast<uint8_t *>(record.at));
        for (bool form : { true, false })
            if (has_form(type, form)) go_round(type, form, record.at, nullptr);
        if (map) go_round(type, false, record.at, map);
    }
    idl_tlv_release(type, record.at, map, idl_give_block, &blocks);
    must(blocks.live == 0);
    return 0;
}
