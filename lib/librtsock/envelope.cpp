/*
 * Messages to and from their wire forms.
 *
 * Decoding goes into an arena: one block in which the record comes first, then its presence map if it is a TLV message,
 * then every string, array and item. So one call frees it all, and the decoders never reach the general allocator. How
 * large the block must be is not known before: it grows by a fixed step and the decode starts over, until it fits. The
 * growth ends: what a decoder takes is bounded by a multiple of the octets it read.
 */
#include "lib/librtsock/rtslib_envelope.h"
#include "lib/librtsock/io_private.h"
#include "platform/target.h"

#include <string.h>

uint32_t rtslib_msglen;

namespace {

enum {
    ARENA_FIRST = RTSLIB_MSG_MAX,
    ARENA_STEP = 1024,
    ARENA_ALIGNMENT = alignof(max_align_t) < 8 ? alignof(max_align_t) : 8,   // records hold 64-bit words and pointers
    MAGIC_OCTETS = 4,
    LENGTH_OCTETS = 8,
};

struct arena {
    uint8_t *block;
    size_t size;
    size_t used;
};

void *arena_take(size_t size, void *context)
{
    auto *a = static_cast<arena *>(context);
    size_t rounded = (size + ARENA_ALIGNMENT - 1) & ~size_t(ARENA_ALIGNMENT - 1);
    if (rounded < size || rounded > a->size - a->used)
        return nullptr;
    void *memory = a->block + a->used;
    a->used += rounded;
    return memory;
}

struct code_row {
    const char *text;
    int error;
};
constexpr code_row codes[] = {
    { "Invalid Buffer Size", TARGET_EINVAL }, { "Garbled Message", TARGET_EINVAL },
    { "Allocation Failure", TARGET_ENOMEM },  { "Invalid Magic", TARGET_EINVAL },
    { "Invalid Choice", TARGET_EINVAL },      { "HOMOGENEOUS", TARGET_EINVAL },
};
constexpr code_row code_unknown = { "Unknown", TARGET_EINVAL };
// Kept on purpose: the table of the flat form ends before -5.
enum { TLV_CODES = 6, IDR_CODES = 5 };

/* Error number of a decoder's result, reported unless it is a shortage that the caller makes good. */
int judge_code(struct rtslib_cookie *cookie, int32_t code, bool tlv, bool quiet)
{
    if (code > 0)
        return 0;
    int known = tlv ? TLV_CODES : IDR_CODES;
    const code_row &row = code > -known ? codes[-code] : code_unknown;
    if (!(quiet && code == IDL_CODE_ALLOC))
        rtslib_err(cookie, RTSLIB_DEBUG, tlv ? "IDL TLV Decode Error %d(%s)" : "IDL IDR Decode Error %d(%s)", code,
                   row.text);
    return row.error;
}

int decode_into(struct rtslib_cookie *cookie, const void *octets, size_t length, void **message, void **mask, arena *a,
                bool quiet)
{
    uint32_t magic;
    if (rtslib_idl_peek_magic(&magic, octets, length) == nullptr)
        return TARGET_EINVAL;
    a->used = 0;
    if (magic != IDL_MAGIC_TLV && magic != IDL_MAGIC_IDR)
        return TARGET_EOPNOTSUPP;
    bool tlv = magic == IDL_MAGIC_TLV;
    struct rts_msg decoded = {};
    struct map_rts_msg map = {};
    int32_t code = tlv ? tlv_decode_rts_msg_0(&decoded, mask != nullptr ? &map : nullptr, octets, length, arena_take, a)
                       : idr_decode_rts_msg_0(&decoded, octets, length, arena_take, a);
    int error = judge_code(cookie, code, tlv, quiet);
    // A type without a codec: nothing to hand over.
    if (error != 0 || decoded.msg == nullptr)
        return error;
    auto *header = static_cast<struct rts_hdr *>(decoded.msg);
    header->rtsh_msglen = uint32_t(length);
    // The envelope decided which record this is. Handlers go by the header, which must not tell of another one.
    header->rtsh_type = uint8_t(decoded.type);
    *message = decoded.msg;
    if (tlv && mask != nullptr)
        *mask = map.msg;
    return 0;
}

int decode_growing(struct rtslib_cookie *cookie, const void *octets, size_t length, size_t total, void **message,
                   void **mask)
{
    size_t size = total > ARENA_FIRST ? total + ARENA_STEP : size_t(ARENA_FIRST);
    for (;; size += ARENA_STEP) {
        arena a = { static_cast<uint8_t *>(rtslib_size_alloc(cookie, size)), size, 0 };
        if (a.block == nullptr) {
            rtslib_err(cookie, RTSLIB_ERROR, "Allocation Failure");
            return TARGET_ENOMEM;
        }
        void *decoded = nullptr;
        int error = decode_into(cookie, octets, length, &decoded, mask, &a, true);
        if (error == 0 && decoded != nullptr) {
            *message = decoded;
            return 0;
        }
        rtslib_msg_free(cookie, a.block);
        if (error != TARGET_ENOMEM)
            return error;
        rtslib_err(cookie, RTSLIB_DEBUG, "Insufficient buffer. Growing the buffer and retrying");
    }
}

/* total: octets that the envelope claims. */
int common_decode(struct rtslib_cookie *cookie, const void *octets, size_t length, uint32_t *total, void **message,
                  void **mask)
{
    uint32_t magic;
    if (rtslib_idl_peek_magic(&magic, octets, length) == nullptr) {
        rtslib_err(cookie, RTSLIB_ERROR, "Failed to peek magic");
        return TARGET_EOPNOTSUPP;
    }
    if (magic == 0)
        return TARGET_EOPNOTSUPP;
    if (rtslib_idl_peek_length(total, octets, length) == nullptr) {
        rtslib_err(cookie, RTSLIB_ERROR, "Failed to peek message");
        return TARGET_EOPNOTSUPP;
    }
    // A claim beyond what is here is refused by the decoder, and needs no memory of that size.
    size_t claimed = *total <= length ? *total : length;
    return decode_growing(cookie, octets, length, claimed, message, mask);
}

/* Octets needed. */
uint32_t encode_message(const void *message, const void *mask, void *buffer, size_t size)
{
    void *record = const_cast<void *>(message);
    struct rts_msg pair = { static_cast<const struct rts_hdr *>(message)->rtsh_type, record };
    if (mask == nullptr)
        return uint32_t(idr_encode_rts_msg_0(&pair, buffer, size));
    struct map_rts_msg map = { const_cast<void *>(mask) };
    return uint32_t(tlv_encode_rts_msg_0(&pair, &map, buffer, size));
}

bool send_buffer_holds(const struct rtslib_cookie *cookie)
{
    return cookie->wbuf != nullptr && cookie->wbuf <= cookie->wbuf_pos &&
           size_t(cookie->wbuf_pos - cookie->wbuf) <= cookie->wbuf_sz;
}

bool receive_buffer_holds(const struct rtslib_cookie *cookie)
{
    const uint8_t *data = cookie->rbuf_data;
    return data != nullptr && cookie->rbuf_pos >= data && cookie->rbuf_last >= data &&
           size_t(cookie->rbuf_pos - data) <= cookie->rbuf_sz && size_t(cookie->rbuf_last - data) <= cookie->rbuf_sz &&
           cookie->rbuf_pos < cookie->rbuf_last;
}

}   // namespace

uint32_t *rtslib_idl_peek_magic(uint32_t *out, const void *octets, size_t length)
{
    if (length < MAGIC_OCTETS)
        return nullptr;
    memcpy(out, octets, sizeof *out);
    return out;
}

uint32_t *rtslib_idl_peek_length(uint32_t *out, const void *octets, size_t length)
{
    if (length < LENGTH_OCTETS)
        return nullptr;
    memcpy(out, static_cast<const uint8_t *>(octets) + MAGIC_OCTETS, sizeof *out);
    *out += IDL_ENVELOPE_SIZE;
    return out;
}

int rtslib_msg_idl_encode(struct rtslib_cookie *cookie, const void *message, const void *mask, void **out,
                          uint32_t *length)
{
    *out = nullptr;
    *length = 0;
    for (uint32_t size = RTSLIB_MSG_MAX;;) {
        void *buffer = rtslib_size_alloc(cookie, size);
        if (buffer == nullptr) {
            rtslib_err(cookie, RTSLIB_ERROR, "Allocation Failure for (%d) bytes", int(size));
            return TARGET_ENOMEM;
        }
        uint32_t needed = encode_message(message, mask, buffer, size);
        if (needed <= size) {
            *out = buffer;
            *length = rtslib_msglen = needed;
            return 0;
        }
        rtslib_msg_free(cookie, buffer);
        size = needed;
    }
}

int rtslib_msg_idl_encode_pa(struct rtslib_cookie *cookie, const void *message, void *buffer, uint32_t *size)
{
    if (buffer == nullptr || *size == 0) {
        rtslib_err(cookie, RTSLIB_ERROR, "Invalid parameters");
        return TARGET_EINVAL;
    }
    uint32_t room = *size;
    *size = encode_message(message, nullptr, buffer, room);
    return *size <= room ? 0 : TARGET_ENOMEM;
}

int rtslib_msg_idl_decode(struct rtslib_cookie *cookie, const void *octets, size_t length, void **message, void **mask)
{
    uint32_t total;
    return common_decode(cookie, octets, length, &total, message, mask);
}

int rtslib_msg_idl_decode_pa(struct rtslib_cookie *cookie, const void *octets, size_t length, void **message,
                             void **mask, void *block, size_t block_size)
{
    arena a = { static_cast<uint8_t *>(block), block_size, 0 };
    return decode_into(cookie, octets, length, message, mask, &a, false);
}

void rtslib_msg_idl_release(struct rtslib_cookie *cookie, void *message)
{
    rtslib_msg_free(cookie, message);
}

int rtslib_bulkmsg_idl_encode(struct rtslib_cookie *cookie, uint32_t *length, const void *message, const void *mask)
{
    if (cookie == nullptr || message == nullptr) {
        rtslib_err(cookie, RTSLIB_FATAL, "%s: Invalid input from caller: cookie=%p, rawmsg=%p\n", __func__,
                   static_cast<void *>(cookie), message);
        return TARGET_EINVAL;
    }
    if (!send_buffer_holds(cookie)) {
        rtslib_err(cookie, RTSLIB_FATAL, "%s: Invalid/Corrupted common send buffer\n", __func__);
        return TARGET_EINVAL;
    }
    *length = 0;
    uint32_t room = uint32_t(cookie->wbuf + cookie->wbuf_sz - cookie->wbuf_pos);
    uint32_t needed = encode_message(message, mask, cookie->wbuf_pos, room);
    if (needed > room)
        return TARGET_ENOMEM;
    *length = needed;
    return 0;
}

int rtslib_bulkmsg_idl_decode(struct rtslib_cookie *cookie, uint32_t *length, void **reply, void **mask)
{
    if (cookie == nullptr || length == nullptr) {
        rtslib_err(cookie, RTSLIB_FATAL, "%s: Invalid input from caller: cookie=%p, len_decoded=%p\n", __func__,
                   static_cast<void *>(cookie), static_cast<void *>(length));
        return TARGET_EINVAL;
    }
    if (!receive_buffer_holds(cookie)) {
        rtslib_err(cookie, RTSLIB_FATAL, "%s: Invalid/Corrupted common receive buffer\n", __func__);
        return TARGET_EINVAL;
    }
    *length = 0;
    size_t left = size_t(cookie->rbuf_last + 1 - cookie->rbuf_pos);
    if (left < RTSLIB_HDR_SIZE) {
        rtslib_err(cookie, RTSLIB_FATAL, "%s: msg read too small for header: %d\n", __func__, int(left));
        return TARGET_EIO;
    }
    void *asked = *reply;
    uint32_t total = 0;
    int error = common_decode(cookie, cookie->rbuf_pos, left, &total, reply, mask);
    if (error != 0) {
        *reply = asked;
        return error;
    }
    if (total > left) {
        // Kept on purpose: the decoded block is not given back on this road.
        rtslib_err(cookie, RTSLIB_ERROR, "%s: len(%d) in IDL-ized msg hdr exceeded boundary of read data(%d)\n",
                   __func__, int(total), int(left));
        *reply = asked;
        return TARGET_EIO;
    }
    *length = total;
    return 0;
}

int rtsm_info_user_add(struct rts_hdr *header, struct rts_msg_info *item, uint8_t **cursor)
{
    if (header->rtsh_info == nullptr) {
        if (cursor == nullptr || *cursor == nullptr)
            return TARGET_ENOMEM;
        header->rtsh_info = reinterpret_cast<struct rts_msg_info **>(*cursor);
        header->rtsh_info_len = 0;
        *cursor += RTSM_INFO_TABLE;
    }
    if (header->rtsh_info_len >= RTSM_INFO_MAX)
        return TARGET_ENOMEM;
    header->rtsh_info[header->rtsh_info_len++] = item;
    return 0;
}
