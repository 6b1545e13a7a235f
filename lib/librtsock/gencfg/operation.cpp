/*
 * The one operation through which all blob requests go.
 *
 * Refusals come first and send nothing. Then the blob is compressed if the client asks for it, the request is built,
 * written and answered; whatever becomes of it, the client's structure has its own blob back, unless a reply has taken
 * the structure's place. Building, writing and reading can each be the client's, so that requests can go another way
 * than over the cookie's socket.
 *
 * A message is laid over nothing: its record points to the client's key, blob, peers and dependencies, and the encoder
 * fetches them from there.
 */
#include "lib/librtsock/gencfg/gencfg.h"
#include "platform/target.h"

#include <string.h>

#include <algorithm>

namespace {

enum { TYPE = 72, VERSION = 105, FIXED_OCTETS = 108 };

/* What a call was given, beside the structure. */
struct exchange {
    struct rtslib_cookie *cookie;
    uint8_t operation;
    void **message, **mask;
    uint32_t *seq;
    uintptr_t context;
    rtslib_gencfg_alloc_func alloc;
    rtslib_gencfg_free_func free;
    rtslib_gencfg_write_func write;
    rtslib_gencfg_read_func read;
};

bool is_get(uint8_t operation)
{
    return operation == RTM_OP_GET || operation == RTM_OP_GETNEXT;
}

bool is_change_and_get(uint8_t operation)
{
    return operation == RTM_OP_ADD_GET || operation == RTM_OP_CHG_GET;
}

bool has_reply(uint8_t operation)
{
    return is_get(operation) || is_change_and_get(operation);
}

/* Kept on purpose: a request with a reply that adds or changes sends its blob as it is, whatever its flags. */
bool is_compressed(uint8_t operation, const gencfg_t *gencfg)
{
    return (operation == RTM_OP_ADD || operation == RTM_OP_CHANGE) && (gencfg->flags & GENCFG_FLAG_COMPRESSED) != 0;
}

/* True if there is nothing left that the cookie would be needed for. */
bool does_without_cookie(const exchange &x)
{
    return x.seq != nullptr && x.alloc != nullptr && x.free != nullptr && x.write != nullptr &&
           (x.read != nullptr || !has_reply(x.operation));
}

int refuse_exchange(const exchange &x, const gencfg_t *gencfg)
{
    if (gencfg == nullptr || (x.cookie == nullptr && !does_without_cookie(x)))
        return TARGET_EINVAL;
    if (has_reply(x.operation) && x.message == nullptr)
        return TARGET_EINVAL;
    return gencfg->flags == 0 && !is_get(x.operation) ? TARGET_EINVAL : 0;
}

int refuse_parts(const gencfg_t *gencfg)
{
    if ((gencfg->flags & GENCFG_FLAG_DEPEND) != 0 && (gencfg->dep == nullptr || gencfg->dep_count == 0))
        return TARGET_EINVAL;
    if (gencfg->peer_count != 0 && gencfg->peers == nullptr)
        return TARGET_EINVAL;
    if ((gencfg->flags & GENCFG_FLAG_KEY) != 0 && gencfg->key_len > GENCFG_KEY_MAX) {
        rtslib_err(nullptr, RTSLIB_ERROR, "Gencfg blob key length (%u) is greater than %u bytes\n", gencfg->key_len,
                   unsigned(GENCFG_KEY_MAX));
        return TARGET_EINVAL;
    }
    return 0;
}

int refuse_blob(const gencfg_t *gencfg)
{
    if (gencfg->blob_len < GENCFG_BLOB_LIMIT)
        return 0;
    rtslib_err(nullptr, RTSLIB_ERROR, "Gencfg blob is too large (%d bytes)\n", int(gencfg->blob_len));
    return TARGET_ENOSPC;
}

/* A walk may begin without a key; a bulk delete needs none. */
int refuse_key(uint8_t operation, const gencfg_t *gencfg)
{
    bool pointer = gencfg->key != nullptr;
    bool length = gencfg->key_len != 0;
    if ((gencfg->flags & GENCFG_FLAG_KEY) == 0)
        return 0;
    if (operation == RTM_OP_GETNEXT)
        return pointer == length ? 0 : TARGET_EINVAL;
    return (pointer && length) || (gencfg->flags & GENCFG_FLAG_BULK_DELETE) != 0 ? 0 : TARGET_EINVAL;
}

void fill_parts(struct gencfg_msg *message, const gencfg_t *gencfg)
{
    message->peers = reinterpret_cast<struct gencfg_peerinfo *>(gencfg->peers);
    message->peers_len = gencfg->peer_count;
    if ((gencfg->flags & GENCFG_FLAG_KEY) != 0) {
        message->key = static_cast<uint8_t *>(gencfg->key);
        message->key_len = gencfg->key_len;
    }
    if ((gencfg->flags & GENCFG_FLAG_DEPEND) != 0) {
        message->dep = static_cast<struct gencfg_depinfo *>(gencfg->dep);
        message->dep_len = gencfg->dep_count;
    }
    if (gencfg->blob != nullptr && gencfg->blob_len != 0) {
        message->blob = static_cast<uint8_t *>(gencfg->blob);
        message->blob_len = gencfg->blob_len;
    }
}

void fill(const exchange &x, struct gencfg_msg *message, const gencfg_t *gencfg)
{
    uint32_t *seq = x.seq != nullptr ? x.seq : &x.cookie->seq;
    struct rts_hdr *header = &message->rts_hdr;
    header->rtsh_version = VERSION;
    header->rtsh_type = TYPE;
    header->rtsh_op = x.operation;
    header->rtsh_hdrlen = FIXED_OCTETS;
    header->rtsh_msglen = FIXED_OCTETS;
    header->rtsh_seq = ++*seq;
    message->major = gencfg->major;
    message->minor = gencfg->minor;
    message->aux = gencfg->aux;
    message->seq_hint = gencfg->seq_hint;
    message->flags = gencfg->flags;
    if ((gencfg->flags & GENCFG_FLAG_OBJECT_ID) != 0)
        message->object_id = gencfg->object_id;
    message->extra = gencfg->extra;
    fill_parts(message, gencfg);
}

template <typename count> count cut_to(uint32_t value)
{
    return count(std::min<uint32_t>(value, count(-1)));
}

/* The structure from the reply. A length and what it measures are taken together, or not at all. */
void refresh(gencfg_t *gencfg, const struct gencfg_msg *reply)
{
    gencfg->major = reply->major;
    gencfg->minor = reply->minor;
    gencfg->aux = reply->aux;
    gencfg->object_id = reply->object_id;
    gencfg->flags = reply->flags;
    gencfg->extra = reply->extra;
    gencfg->blob = reply->blob;
    gencfg->blob_len = reply->blob_len;
    gencfg->peers = reinterpret_cast<gencfg_peerinfo_t *>(reply->peers);
    gencfg->peer_count = gencfg->peer_max = cut_to<uint8_t>(reply->peers_len);
    if ((reply->flags & GENCFG_FLAG_KEY) != 0) {
        gencfg->key = reply->key;
        gencfg->key_len = cut_to<uint16_t>(reply->key_len);
    }
    if ((reply->flags & GENCFG_FLAG_DEPEND) != 0) {
        gencfg->dep = reply->dep;
        gencfg->dep_count = cut_to<uint16_t>(reply->dep_len);
    }
}

/* The reply as the record that it should be, or null: none, or, over the socket, a message of another type, which is
 * the caller's to look at and not read here. */
struct gencfg_msg *reply_of(const exchange &x)
{
    auto *reply = x.message != nullptr ? static_cast<struct gencfg_msg *>(*x.message) : nullptr;
    if (reply == nullptr || (x.read == nullptr && reply->rts_hdr.rtsh_type != TYPE))
        return nullptr;
    return reply;
}

int open_reply(const exchange &x)
{
    struct gencfg_msg *reply = reply_of(x);
    if (reply == nullptr || (reply->flags & GENCFG_FLAG_COMPRESSED) == 0 || reply->blob_len == 0)
        return 0;
    int result = gencfg_decompress(x.cookie, &reply, x.mask);
    *x.message = reply;
    // Kept on purpose: a walk is told 0 for a blob that nobody can read, so that it goes on behind it.
    return x.operation == RTM_OP_GETNEXT ? 0 : result;
}

int read_reply(const exchange &x)
{
    int result = x.read != nullptr ? x.read(x.context, x.message, x.mask)
                                   : rtslib_long_msg_read_idl(x.cookie, x.message, x.mask);
    return result == 0 ? open_reply(x) : result;
}

int transact(const exchange &x, gencfg_t *gencfg)
{
    constexpr size_t octets = sizeof(struct gencfg_msg);
    void *room = x.alloc != nullptr ? x.alloc(octets) : rtslib_size_alloc(x.cookie, octets);
    if (room == nullptr)
        return TARGET_ENOMEM;
    bool bulk = (gencfg->flags & GENCFG_FLAG_BULK_DELETE) != 0;
    auto *request = static_cast<struct gencfg_msg *>(memset(room, 0, octets));
    fill(x, request, gencfg);
    int result = x.write != nullptr ? x.write(x.context, request) : rtslib_msg_write_idl(x.cookie, request, nullptr);
    bool replies = has_reply(x.operation);
    if (replies && result == 0)
        result = read_reply(x);
    // Kept on purpose: a bulk delete has its structure filled from any reply that came, also where the result is an
    // error, though other requests of its kind leave the structure alone.
    const struct gencfg_msg *reply = replies ? reply_of(x) : nullptr;
    if (reply != nullptr && (bulk || (result == 0 && !is_change_and_get(x.operation))))
        refresh(gencfg, reply);
    if (x.free != nullptr)
        x.free(request);
    else
        rtslib_msg_free(x.cookie, request);
    return result;
}

int send_checked(const exchange &x, gencfg_t *gencfg)
{
    int result = refuse_blob(gencfg);
    if (result == 0)
        result = refuse_key(x.operation, gencfg);
    return result == 0 ? transact(x, gencfg) : result;
}

int send_compressed(const exchange &x, gencfg_t *gencfg)
{
    void *blob = gencfg->blob;
    uint32_t length = gencfg->blob_len;
    int result = gencfg_compress(x.cookie, gencfg);
    if (result != 0)
        return result;
    result = send_checked(x, gencfg);
    rtslib_free(MEMID_RTSLIB_READ_BUFFER, gencfg->blob);
    gencfg->blob = blob;
    gencfg->blob_len = length;
    return result;
}

/* Over the cookie's socket. */
int request(struct rtslib_cookie *cookie, gencfg_t *gencfg, uint8_t operation, void **message, void **mask)
{
    if (cookie == nullptr)
        return TARGET_EINVAL;
    return rtslib_gencfg_op_export(cookie, gencfg, operation, message, mask, nullptr, 0, nullptr, nullptr, nullptr,
                                   nullptr);
}

int request_flagged(struct rtslib_cookie *cookie, gencfg_t *gencfg, uint32_t flag, void **message, void **mask)
{
    if (cookie == nullptr || gencfg == nullptr)
        return TARGET_EINVAL;
    gencfg->flags |= flag;
    return request(cookie, gencfg, RTM_OP_CHG_GET, message, mask);
}

}   // namespace

int rtslib_gencfg_op_export(struct rtslib_cookie *cookie, gencfg_t *gencfg, uint8_t operation, void **message,
                            void **mask, uint32_t *seq, uintptr_t context, rtslib_gencfg_alloc_func alloc,
                            rtslib_gencfg_free_func free, rtslib_gencfg_write_func write, rtslib_gencfg_read_func read)
{
    const exchange x = { cookie, operation, message, mask, seq, context, alloc, free, write, read };
    if (message != nullptr)
        *message = nullptr;
    if (mask != nullptr)
        *mask = nullptr;
    int result = refuse_exchange(x, gencfg);
    if (result == 0)
        result = refuse_parts(gencfg);
    if (result != 0)
        return result;
    return is_compressed(operation, gencfg) ? send_compressed(x, gencfg) : send_checked(x, gencfg);
}

int rtslib_gencfg_add(struct rtslib_cookie *cookie, gencfg_t *gencfg)
{
    return request(cookie, gencfg, RTM_OP_ADD, nullptr, nullptr);
}

int rtslib_gencfg_change(struct rtslib_cookie *cookie, gencfg_t *gencfg)
{
    return request(cookie, gencfg, RTM_OP_CHANGE, nullptr, nullptr);
}

int rtslib_gencfg_delete(struct rtslib_cookie *cookie, gencfg_t *gencfg)
{
    return request(cookie, gencfg, RTM_OP_DELETE, nullptr, nullptr);
}

int rtslib_gencfg_get(struct rtslib_cookie *cookie, gencfg_t *gencfg, uint8_t operation, void **message, void **mask)
{
    return request(cookie, gencfg, operation, message, mask);
}

int rtslib_gencfg_add_and_get(struct rtslib_cookie *cookie, gencfg_t *gencfg, void **message, void **mask)
{
    return request(cookie, gencfg, RTM_OP_ADD_GET, message, mask);
}

int rtslib_gencfg_change_and_get(struct rtslib_cookie *cookie, gencfg_t *gencfg, void **message, void **mask)
{
    return request(cookie, gencfg, RTM_OP_CHG_GET, message, mask);
}

int rtslib_gencfg_bulk_delete(struct rtslib_cookie *cookie, gencfg_t *gencfg, void **message, void **mask)
{
    return request_flagged(cookie, gencfg, GENCFG_FLAG_BULK_DELETE, message, mask);
}

int rtslib_gencfg_delete_prefix_key(struct rtslib_cookie *cookie, gencfg_t *gencfg, void **message, void **mask)
{
    if (cookie == nullptr || gencfg == nullptr)
        return TARGET_EINVAL;
    if ((gencfg->flags & GENCFG_FLAG_OBJECT_ID) != 0)
        return TARGET_EOPNOTSUPP;
    return request_flagged(cookie, gencfg, GENCFG_FLAG_PREFIX_KEY, message, mask);
}
