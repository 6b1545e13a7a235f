/*
 * Fuzz target: any octets as a record of any type or as a whole message, in both forms, with a presence map or without.
 *
 * Whatever they are and wherever memory runs out, the result is one that the codec tells of, no block is out of
 * proportion to the input, and release gives back every block: also after an error, where the record is half built.
 */
#include "fuzz/lib/librtsock/idl/idl_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

/* In IDR the padding behind the last field is counted and may be missing. */
static void check_result(int32_t result, size_t size, bool idr)
{
    must(result >= IDL_CODE_CHOICE && (result <= 0 || size_t(result) <= size + (idr ? 3 : 0)));
}

static void decode_type(const struct idl_choice &c, const uint8_t *data, size_t size, struct idl_blocks *blocks)
{
    const struct idl_type *type = idl_chosen_type(c);
    if (!type) return;
    idl_alloc_func take = c.memory == idl_choice::NONE ? nullptr : idl_take_block;
    idl_room record(type->it_size), map_room(type->it_map_size);
    void *map = c.map ? map_room.at : nullptr;
    int32_t result = c.idr ? idl_idr_decode(type, record.at, data, size, take, blocks)
                           : idl_tlv_decode(type, record.at, map, data, size, take, blocks);
    check_result(result, size, c.idr);
    if (c.idr)
        idl_idr_release(type, record.at, idl_give_block, blocks);
    else
        idl_tlv_release(type, record.at, map, idl_give_block, blocks);
}

static void decode_message(const struct idl_choice &c, const std::vector<uint8_t> &octets, struct idl_blocks *blocks)
{
    idl_alloc_func take = c.memory == idl_choice::NONE ? nullptr : idl_take_block;
    struct rts_msg message;
    struct map_rts_msg presence, *map = c.map ? &presence : nullptr;
    int32_t result = c.idr ? idr_decode_rts_msg_0(&message, octets.data(), octets.size(), take, blocks)
                           : tlv_decode_rts_msg_0(&message, map, octets.data(), octets.size(), take, blocks);
    check_result(result, octets.size(), false);
    if (c.idr)
        idr_release_rts_msg_0(&message, idl_give_block, blocks);
    else
        tlv_release_rts_msg_0(&message, map, idl_give_block, blocks);
}

/* The input as a body in an envelope of its number; above all numbers, it has its envelope itself. */
static std::vector<uint8_t> message_of(const struct idl_choice &c, const uint8_t *data, size_t size)
{
    enum { NUMBERS = 112 };
    std::vector<uint8_t> octets(data, data + size);
    if (c.number >= NUMBERS) return octets;
    const uint32_t envelope[] = { c.idr ? uint32_t(IDL_MAGIC_IDR) : uint32_t(IDL_MAGIC_TLV), uint32_t(size), c.number };
    const auto *front = reinterpret_cast<const uint8_t *>(envelope);
    octets.insert(octets.begin(), front, front + sizeof envelope);
    return octets;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    struct idl_choice c;
    if (!idl_choose(data, size, c)) return 0;
    struct idl_blocks blocks = idl_blocks_for(size);
    if (c.memory == idl_choice::FAILS) blocks.calls = c.calls;
    if (c.message)
        decode_message(c, message_of(c, data, size), &blocks);
    else
        decode_type(c, data, size, &blocks);
    must(blocks.live == 0);
    return 0;
}
