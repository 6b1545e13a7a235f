/*
 * The frame: a whole message, the choice of all records by message type, with the magic in place of the choice's first
 * word.
 *
 * A type that has no record travels without a body; on arrival its body is stepped over and nothing is stored. The
 * record is the first thing that a decode takes, its presence map the second.
 */
#include "lib/librtsock/idl/codec.h"
#include "lib/librtsock/idl/idl.h"

#include <stddef.h>

#include <array>
#include <type_traits>

namespace {

static_assert(int(IDL_ENVELOPE_SIZE) == int(CHOICE_HEADER));

struct message_row {
    uint32_t type;
    const struct idl_type *record;
};

constexpr message_row rows[] = {
#define IDL_MESSAGE(TYPE, T) { TYPE, &idl_type_##T },
#include "lib/librtsock/idl/catalogue/messages.def"
#undef IDL_MESSAGE
};
static_assert(std::size(rows) == 45, "message types that have a record");

// Whoever has a message finds its header at its start, with tag 1.
#define IDL_MESSAGE(TYPE, T)                                          \
    static_assert(std::is_same_v<decltype(T::rts_hdr), struct rts_hdr>); \
    static_assert(offsetof(struct T, rts_hdr) == 0);
#include "lib/librtsock/idl/catalogue/messages.def"
#undef IDL_MESSAGE

// Laid over storage that clients fill, or told by number to a peer.
static_assert(sizeof(struct gencfg_peerinfo) == 40 && offsetof(struct gencfg_peerinfo, peer) == 8);
static_assert(sizeof(struct gencfg_depinfo) == 24 && offsetof(struct gencfg_depinfo, data) == 8);
static_assert(sizeof(struct rnh_service) == 388 && sizeof(struct rtb_svcs_chan) == 44);
static_assert(sizeof(struct if_module_eprom) == 588);

enum { TYPES = 110 };

constexpr std::array<const struct idl_type *, TYPES> by_type = [] {
    std::array<const struct idl_type *, TYPES> records = {};
    for (const message_row &row : rows)
        records[row.type] = row.record;
    return records;
}();

const struct idl_type *record_of(const struct rts_msg *message)
{
    return message->msg != nullptr ? idl_message_type(message->type) : nullptr;
}

/* What a decode begins with: the message's type is stored, its record made. body is null where there is nothing to
 * decode, and result the decoder's result then. */
struct opened {
    const uint8_t *body;
    uint32_t length;
    int32_t result;
    const struct idl_type *type;
};

opened open_message(uint32_t magic, struct rts_msg *message, const uint8_t *data, size_t length,
                    const idl_memory &memory)
{
    opened o = { nullptr, 0, IDL_CODE_SIZE, nullptr };
    message->type = UINT32_MAX;
    message->msg = nullptr;
    if (length >= sizeof magic && idl_load<uint32_t>(data) != magic)
        o.result = length < IDL_ENVELOPE_SIZE ? IDL_CODE_SIZE : IDL_CODE_MAGIC;
    else
        o.result = idl_open_choice(&message->type, data, length <= INT32_MAX ? length : size_t(INT32_MAX), &o.length);
    if (o.result <= 0)
        return o;
    o.type = idl_message_type(message->type);
    if (o.type == nullptr) {
        o.result = idl_close_choice(int32_t(o.length), o.length);
        return o;
    }
    message->msg = idl_zalloc(memory, o.type->it_size);
    if (message->msg != nullptr)
        o.body = data + IDL_ENVELOPE_SIZE;
    else
        o.result = IDL_CODE_ALLOC;
    return o;
}

}   // namespace

const uint32_t tlv_rtti_sizeof_rts_msg_0 = sizeof(struct rts_msg);
const uint32_t tlv_rtti_sizeof_map_rts_msg_0 = sizeof(struct map_rts_msg);
const uint32_t idr_rtti_sizeof_rts_msg_0 = sizeof(struct rts_msg);

const struct idl_type *idl_message_type(uint32_t rtsh_type)
{
    return rtsh_type < TYPES ? by_type[rtsh_type] : nullptr;
}

int32_t tlv_encode_rts_msg_0(const struct rts_msg *message, const struct map_rts_msg *map, void *buffer, size_t size)
{
    uint8_t nowhere;
    const idl_output out = idl_room(buffer, size, &nowhere);
    const struct idl_type *type = record_of(message);
    const void *presence = map != nullptr ? map->msg : nullptr;
    size_t end = IDL_ENVELOPE_SIZE;
    if (type != nullptr)
        end = idl_tlv_put(out, type, message->msg, presence, IDL_ENVELOPE_SIZE);
    return idl_result(idl_put_choice_header(out, 0, IDL_MAGIC_TLV, end - IDL_ENVELOPE_SIZE, message->type));
}

int32_t idr_encode_rts_msg_0(const struct rts_msg *message, void *buffer, size_t size)
{
    uint8_t nowhere;
    const idl_output out = idl_room(buffer, size, &nowhere);
    const struct idl_type *type = record_of(message);
    size_t end = IDL_ENVELOPE_SIZE;
    if (type != nullptr)
        end = idl_idr_put(out, type, message->msg, IDL_ENVELOPE_SIZE);
    return idl_result(idl_put_choice_header(out, 0, IDL_MAGIC_IDR, end - IDL_ENVELOPE_SIZE, message->type));
}

int32_t tlv_decode_rts_msg_0(struct rts_msg *message, struct map_rts_msg *map, const void *data, size_t length,
                             idl_alloc_func alloc, void *context)
{
    const idl_memory memory = { alloc, context };
    if (map != nullptr)
        map->msg = nullptr;
    opened o = open_message(IDL_MAGIC_TLV, message, idl_octets(data), length, memory);
    if (o.body == nullptr)
        return o.result;
    if (map != nullptr) {
        map->msg = idl_zalloc(memory, o.type->it_map_size);
        if (map->msg == nullptr)
            return IDL_CODE_ALLOC;
    }
    void *presence = map != nullptr ? map->msg : nullptr;
    return idl_close_choice(idl_tlv_take(o.type, message->msg, presence, o.body, o.length, memory), o.length);
}

int32_t idr_decode_rts_msg_0(struct rts_msg *message, const void *data, size_t length, idl_alloc_func alloc,
                             void *context)
{
    const idl_memory memory = { alloc, context };
    opened o = open_message(IDL_MAGIC_IDR, message, idl_octets(data), length, memory);
    if (o.body == nullptr)
        return o.result;
    return idl_close_choice(idl_idr_take(o.type, message->msg, o.body, o.length, memory), o.length);
}

void tlv_release_rts_msg_0(struct rts_msg *message, struct map_rts_msg *map, idl_release_func release, void *context)
{
    const struct idl_type *type = record_of(message);
    if (type == nullptr)
        return;
    void *presence = map != nullptr ? map->msg : nullptr;
    idl_tlv_release(type, message->msg, presence, release, context);
    release(message->msg, context);
    if (presence != nullptr)
        release(presence, context);
}

void idr_release_rts_msg_0(struct rts_msg *message, idl_release_func release, void *context)
{
    tlv_release_rts_msg_0(message, nullptr, release, context);
}
