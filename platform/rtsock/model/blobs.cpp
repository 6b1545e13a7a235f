/*
 * Blobs: one for each major and minor type, key and object id, in that order. A key counts if flag 2 is set, an object
 * id if flag 1 is.
 *
 * A blob with peers is told only to clients whose sender id is among them. A walk stays within its major type. The two
 * deletions of many take what the request's types, key and object id leave, tell of each, and are answered with the
 * request itself.
 */
#include "platform/rtsock/model/rm.h"

#include "lib/librtsock/rtslib_names.h"
#include "platform/target.h"

#include <string.h>

namespace {

enum {
    FLAG_OBJECT_ID = 0x1,
    FLAG_KEY = 0x2,
    FLAG_BULK = 0x400000,
    FLAG_PREFIX = 0x800000,
    TYPES_OCTETS = 4,
    BLOB_KEY_MAX = 250,
    KEY_OCTETS = TYPES_OCTETS + BLOB_KEY_MAX + 2 + 4,   // the key's length keeps "a" apart from "a" and a zero
    BLOB_MAX = 0x80000,
    LISTEN_HIGH = 1,
    PEER_BY_MASK = 2,
    PEER_CLASS_SLOT = 1,
    PEER_CLASS_GROUP = 16,
    GROUP_BITS = 5,
    GROUPS_IN_WORD = 6,
    GROUPS = 48,
    SLOTS = 8,
    WORD_BITS = 32,
};

const struct gencfg_msg *blob(const void *record)
{
    return static_cast<const struct gencfg_msg *>(record);
}

uint32_t key_length(const struct gencfg_msg *b)
{
    return (b->flags & FLAG_KEY) != 0 && b->key != nullptr ? b->key_len : 0;
}

uint32_t object_id(const struct gencfg_msg *b)
{
    return (b->flags & FLAG_OBJECT_ID) != 0 ? b->object_id : 0;
}

bool blob_key(const void *record, uint8_t *key)
{
    const struct gencfg_msg *b = blob(record);
    uint32_t length = key_length(b);
    if (length > BLOB_KEY_MAX)
        return false;
    key = rm_put16(rm_put16(key, b->major), b->minor);
    memset(key, 0, BLOB_KEY_MAX);
    if (length != 0)
        memcpy(key, b->key, length);
    rm_put32(rm_put16(key + BLOB_KEY_MAX, length), object_id(b));
    return true;
}

bool blob_passes(const void *request, const struct rm_object *object)
{
    return blob(request)->major == blob(object->mo_record)->major;
}

int blob_check(void *draft, struct rm_object *, const struct rm_object *)
{
    return blob(draft)->blob_len < BLOB_MAX ? 0 : TARGET_ENOSPC;
}

/* The bit that stands for an index in the mask of a class; a word's bits end at 32. */
bool mask_has(const uint32_t *words, uint32_t group, uint32_t bit)
{
    bit += group % GROUPS_IN_WORD * GROUP_BITS;
    return group < GROUPS && bit < WORD_BITS && (words[group / GROUPS_IN_WORD] >> bit & 1) != 0;
}

bool is_peer(const struct gencfg_peerinfo *peer, uint32_t index)
{
    uint16_t only;
    uint32_t words[GROUPS / GROUPS_IN_WORD];
    memcpy(&only, peer->peer, sizeof only);
    memcpy(words, peer->peer, sizeof words);
    if (peer->peer_choice != PEER_BY_MASK)
        return only == index;
    return ((peer->peer_type & PEER_CLASS_GROUP) != 0 && mask_has(words, index, 0)) ||
           ((peer->peer_type & PEER_CLASS_SLOT) != 0 && mask_has(words, index / SLOTS, 1 + index % SLOTS));
}

bool is_for(const struct gencfg_msg *b, uint32_t sender)
{
    bool among = b->peers_len == 0;
    for (uint32_t i = 0; i < b->peers_len && !among; i++)
        among = is_peer(&b->peers[i], sender);
    return among;
}

void blob_tell(struct rk_client *by, uint8_t op, struct rm_object *object)
{
    for (struct rk_client *client = rm_kernel.clients; client != nullptr; client = client->rc_next) {
        if (client != by && is_for(blob(object->mo_record), client->rc_sender))
            rk_event(client, 0, LISTEN_HIGH, rm_blobs.mk_type, op, object->mo_record);
    }
}

/* --- deletions of many ------------------------------------------------------------------------------------------ */

bool goes(const struct gencfg_msg *request, const struct rm_object *object)
{
    const struct gencfg_msg *b = blob(object->mo_record);
    uint32_t length = key_length(request);
    if (b->major != request->major || b->minor != request->minor)
        return false;
    if ((request->flags & FLAG_OBJECT_ID) != 0 && object_id(b) != request->object_id)
        return false;
    bool by_prefix = (request->flags & FLAG_PREFIX) != 0;
    bool length_fits = by_prefix ? key_length(b) >= length : key_length(b) == length;
    return length == 0 || (length_fits && memcmp(b->key, request->key, length) == 0);
}

struct rm_object *next_that_goes(const struct gencfg_msg *request, struct rm_object *object)
{
    do
        object = rm_following(&rm_blobs, object);
    while (object != nullptr && !goes(request, object));
    return object;
}

int delete_many(struct rk_client *client, const struct rk_request *request)
{
    const struct gencfg_msg *record = blob(request->record);
    struct rm_object *object = next_that_goes(record, nullptr);
    if (object == nullptr)
        return TARGET_ENOENT;
    int error = rk_reply(client, request, request->type, request->record);
    if (error != 0)
        return error;
    while (object != nullptr) {
        struct rm_object *next = next_that_goes(record, object);
        rm_remove(&rm_blobs, object, client);
        object = next;
    }
    return 0;
}

}   // namespace

struct rm_kind rm_blobs = {
    .mk_tree = rm_tree(KEY_OCTETS),
    .mk_record = &idl_type_gencfg_msg,
    .mk_type = 72,
    .mk_hdrlen = 108,
    .mk_key = blob_key,
    .mk_passes = blob_passes,
    .mk_check = blob_check,
    .mk_tell = blob_tell,
};
static_assert(int(KEY_OCTETS) <= int(RM_KEY_MAX));

int rm_serve_blob(struct rk_client *client, const struct rk_request *request)
{
    const struct gencfg_msg *record = blob(request->record);
    if (record != nullptr && request->op == RTM_OP_CHG_GET && (record->flags & (FLAG_BULK | FLAG_PREFIX)) != 0)
        return delete_many(client, request);
    return rm_serve_kind(&rm_blobs, client, request);
}
