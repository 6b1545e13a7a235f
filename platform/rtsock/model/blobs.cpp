/*
 * Blobs: one for each major and minor type, key and object id, in that order. A key counts if the flag 0x2 says so, an
 * object id if 0x1 does. Peers and dependencies are kept with the blob and go out with it.
 *
 * A blob with peers is told only to clients whose sender id is among them. Clients hear of blobs in the order of the
 * requests, so of what a blob depends on first, if it was added first. A walk stays within its major type. The two
 * deletions of many take all that has the request's types, its object id and its key, or begins with that, as far as it
 * gives these; they tell of each, and are answered with the request itself.
 */
#include "platform/rtsock/model/rm.h"

#include "lib/librtsock/rtslib_gencfg.h"
#include "lib/librtsock/rtslib_names.h"
#include "platform/target.h"

#include <string.h>

namespace {

enum {
    TYPES_OCTETS = 4,
    KEY_OCTETS = TYPES_OCTETS + GENCFG_KEY_MAX + 2 + 4,   // the key's length keeps "a" apart from "a" and a zero
    LISTEN_HIGH = 1,
    GROUP_SLOTS = 8,   // of a mask of peers
};

const struct gencfg_msg *blob(const void *record)
{
    return static_cast<const struct gencfg_msg *>(record);
}

uint32_t key_length(const struct gencfg_msg *b)
{
    return (b->flags & GENCFG_FLAG_KEY) != 0 && b->key != nullptr ? b->key_len : 0;
}

uint32_t object_id(const struct gencfg_msg *b)
{
    return (b->flags & GENCFG_FLAG_OBJECT_ID) != 0 ? b->object_id : 0;
}

/* A walk begins without flags, or with a key that is said and not given. */
bool walk_begins(const struct gencfg_msg *request)
{
    return request->flags == 0 || ((request->flags & GENCFG_FLAG_KEY) != 0 && key_length(request) == 0);
}

bool blob_key(const void *record, uint8_t *key)
{
    const struct gencfg_msg *b = blob(record);
    uint32_t length = key_length(b);
    if (length > GENCFG_KEY_MAX)
        return false;
    key = rm_put16(rm_put16(key, b->major), b->minor);
    memset(key, 0, GENCFG_KEY_MAX);
    if (length != 0)
        memcpy(key, b->key, length);
    rm_put32(rm_put16(key + GENCFG_KEY_MAX, length), object_id(b));
    return true;
}

bool blob_passes(const void *request, const struct rm_object *object)
{
    return blob(request)->major == blob(object->mo_record)->major;
}

/* Flags that tell of a part stay with the part: a change that gives none says nothing of the one that is there. */
uint32_t flags_of_old_parts(const struct gencfg_msg *draft, const struct gencfg_msg *old)
{
    uint32_t flags = 0;
    if (draft->blob == old->blob)
        flags |= GENCFG_FLAG_COMPRESSED;
    if (draft->dep == old->dep)
        flags |= GENCFG_FLAG_DEPEND;
    return flags;
}

int blob_check(void *draft, struct rm_object *, const struct rm_object *old)
{
    auto *record = static_cast<struct gencfg_msg *>(draft);
    if (old != nullptr) {
        uint32_t kept = flags_of_old_parts(record, blob(old->mo_record));
        record->flags = (record->flags & ~kept) | (blob(old->mo_record)->flags & kept);
    }
    // A walk that goes on from such a blob would begin again.
    if (walk_begins(record))
        return TARGET_EINVAL;
    return record->blob_len < GENCFG_BLOB_LIMIT ? 0 : TARGET_ENOSPC;
}

/* A client has no class, so a mask is read by its entry's, the one of the peer that was put in last: what the library
 * reads out of it (rtslib_gencfg_get_peer_index) are the peers that hear of it. */
bool is_peer(const struct gencfg_peerinfo *peer, uint32_t index)
{
    uint16_t only;
    uint32_t words[GENCFG_MASK_WORDS];
    memcpy(&only, peer->peer, sizeof only);
    memcpy(words, peer->peer, sizeof words);
    if (peer->peer_choice != GENCFG_PEER_MASK)
        return only == index;
    uint32_t group = peer->peer_type == GENCFG_PEER_CLASS_GROUP ? index : index / GROUP_SLOTS;
    return rtslib_gencfg_get_peer_index_from_peer_mask(words, peer->peer_type, group, index % GROUP_SLOTS) >= 0;
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
    if ((request->flags & GENCFG_FLAG_OBJECT_ID) != 0 && object_id(b) != request->object_id)
        return false;
    bool by_prefix = (request->flags & GENCFG_FLAG_PREFIX_KEY) != 0;
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

/* What stands at the beginning itself is not behind it: a blob without key and object id. Null if there is none. */
struct rm_object *at_beginning(const struct rk_request *request)
{
    uint8_t key[KEY_OCTETS];
    const struct gencfg_msg *record = blob(request->record);
    if (request->op != RTM_OP_GETNEXT || !walk_begins(record) || !blob_key(record, key))
        return nullptr;
    return rm_get(&rm_blobs, key);
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
    constexpr uint32_t many = GENCFG_FLAG_BULK_DELETE | GENCFG_FLAG_PREFIX_KEY;
    if (record != nullptr && request->op == RTM_OP_CHG_GET && (record->flags & many) != 0)
        return delete_many(client, request);
    const struct rm_object *first = record != nullptr ? at_beginning(request) : nullptr;
    if (first != nullptr)
        return rk_reply(client, request, request->type, first->mo_record);
    return rm_serve_kind(&rm_blobs, client, request);
}
