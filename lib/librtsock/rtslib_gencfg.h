/*
 * Generic configuration blobs: message type 72, struct gencfg_msg.
 *
 * Daemons and the forwarding side exchange opaque configuration through the kernel, which stores and forwards it: a
 * blob with a key, of a major and a minor type, for some peers, tied to other objects by dependency records. A client
 * fills a gencfg_t and hands it to one of the operations; a get fills it again from the reply.
 *
 * Results of the operations are 0 or an error number: 22 for a request that cannot be, 12 without memory (nothing was
 * sent then), 28 for a blob that is too large, 45 for compression that was not set up, the error of writing or reading,
 * the kernel's, or what a compression function said. Peers and dependencies give 0 or -1, and what they report goes to
 * rtslib_lib_error, never to a cookie's sink.
 */
#pragma once

#include "lib/librtsock/rtslib_io.h"

#include <stddef.h>

extern "C" {

/* gencfg_t's flags, and the message's. */
enum {
    GENCFG_FLAG_OBJECT_ID = 0x1,          // object_id is sent
    GENCFG_FLAG_KEY = 0x2,                // a key is sent
    GENCFG_FLAG_DEPEND = 0x4,             // dependency records are sent
    GENCFG_FLAG_COMPRESSED = 0x20000,     // compress the blob; in a message: the blob is compressed
    GENCFG_FLAG_BULK_DELETE = 0x400000,
    GENCFG_FLAG_PREFIX_KEY = 0x800000,    // delete all whose key begins with this one
};

enum {
    GENCFG_KEY_MAX = 250,
    GENCFG_PEERS_MAX = 64,
    GENCFG_BLOB_LIMIT = 0x80000,          // a blob that is sent stays below this
    GENCFG_BLOB_DECOMPRESSED = 0x300000,  // octets that a received blob may take
};

/* --- peers ----------------------------------------------------------------------------------------------------- */

/* Classes, bits of peer_type; of these two the mask form knows. */
enum {
    GENCFG_PEER_CLASS_SLOT = 1,
    GENCFG_PEER_CLASS_GROUP = 16,
};
enum gencfg_peer_choice : uint32_t {
    GENCFG_PEER_UNDECIDED = 0,   // an index, or a peer that joins the mask where the major type has one
    GENCFG_PEER_INDEX = 1,
    GENCFG_PEER_MASK = 2,
};
enum { GENCFG_MASK_WORDS = 8 };

/* One entry. The mask has 48 groups of 5 bits, six to a word, from bit 0 upward: bit 0 of a group for the class GROUP,
 * bit 1 + s for slot s, 0 to 7, of the class SLOT. Slots above 3 are bits of the next group; past bit 31 they are
 * lost. Peer i is group i of the class GROUP, and slot i mod 8 of group i / 8 of the class SLOT. */
typedef struct gencfg_peer {
    uint16_t zero1;
    uint8_t peer_type;
    uint8_t zero2;
    uint32_t peer_choice;
    union {
        uint16_t peer_index;                     // choices 0 and 1
        uint32_t peer_mask[GENCFG_MASK_WORDS];   // choice 2
    };
} gencfg_peerinfo_t;
static_assert(sizeof(gencfg_peerinfo_t) == 40 && offsetof(gencfg_peerinfo_t, peer_type) == 2 &&
              offsetof(gencfg_peerinfo_t, peer_choice) == 4 && offsetof(gencfg_peerinfo_t, peer_index) == 8);

/* --- dependencies ---------------------------------------------------------------------------------------------- */

enum {
    GENCFG_DEPEND_MAX = 72,
    GENCFG_DEPEND_TYPE_MAX = 54,
    GENCFG_DEPEND_DATA = 6462,   // octets of data, each item rounded up to 4
    GENCFG_DEPEND_STORAGE = 8192,
};

/* What dep leads to while a request is filled: records, and behind them the data that they point to. Not to be moved
 * once there are records in it. */
typedef struct gencfg_depend_storage {
    struct gencfg_depinfo records[GENCFG_DEPEND_MAX];   // dep_count of them
    uint16_t used;                                      // octets of data
    uint8_t data[GENCFG_DEPEND_DATA];
} gencfg_depinfo_t;
static_assert(sizeof(gencfg_depinfo_t) == GENCFG_DEPEND_STORAGE && offsetof(gencfg_depinfo_t, used) == 1728 &&
              offsetof(gencfg_depinfo_t, data) == 1730);

/* --- the request ----------------------------------------------------------------------------------------------- */

/* All zero, then filled. After a get the pointers lead into the reply and hold while that lives: the client keeps its
 * own storage apart, and sets it again before it adds peers or dependencies or deletes them. */
typedef struct gencfg {
    uint16_t major;
    uint16_t minor;
    uint32_t blob_len;
    uint16_t dep_count;
    uint16_t key_len;              // at most GENCFG_KEY_MAX
    uint8_t extra;
    uint16_t aux;
    uint8_t peer_count;
    uint8_t peer_max;              // room in peers; after a get what the reply has, so that nothing is added there
    void *blob;
    void *key;
    uint32_t object_id;
    uint32_t flags;                // GENCFG_FLAG_...
    void *dep;                     // a gencfg_depinfo_t; after a get an array of struct gencfg_depinfo
    gencfg_peerinfo_t *peers;
    uint16_t seq_hint;
} gencfg_t;

/* No reply. 22 for a structure whose flags are 0. */
int rtslib_gencfg_add(struct rtslib_cookie *cookie, gencfg_t *gencfg);
int rtslib_gencfg_change(struct rtslib_cookie *cookie, gencfg_t *gencfg);
int rtslib_gencfg_delete(struct rtslib_cookie *cookie, gencfg_t *gencfg);

/* With a reply. *message, the caller's until rtslib_msg_idl_release, is set on success and also where a reply came
 * whose blob could not be decompressed: its blob_len is 0 then. It is null otherwise. *mask, if asked for, is its
 * presence mask or null. With GENCFG_FLAG_COMPRESSED in the reply, the blob is handed over decompressed, the flag
 * staying set. 22 for a null message.
 *
 * A get (RTM_OP_GET, RTM_OP_GETNEXT) refills gencfg from the reply, and so does a bulk delete; the others leave it
 * alone. A walk is given the previous structure with blob and blob_len cleared, as a get sends a blob that is there and
 * is refused for one that is too large, and begins with GENCFG_FLAG_KEY and no key. Its result is 0 even for a blob
 * that could not be decompressed, so that the walk can go on. */
int rtslib_gencfg_get(struct rtslib_cookie *cookie, gencfg_t *gencfg, uint8_t operation, void **message, void **mask);
int rtslib_gencfg_add_and_get(struct rtslib_cookie *cookie, gencfg_t *gencfg, void **message, void **mask);
int rtslib_gencfg_change_and_get(struct rtslib_cookie *cookie, gencfg_t *gencfg, void **message, void **mask);
/* These two set their flag in gencfg; it stays set. Prefix deletion refuses GENCFG_FLAG_OBJECT_ID with 45. */
int rtslib_gencfg_bulk_delete(struct rtslib_cookie *cookie, gencfg_t *gencfg, void **message, void **mask);
int rtslib_gencfg_delete_prefix_key(struct rtslib_cookie *cookie, gencfg_t *gencfg, void **message, void **mask);

/* A road other than the cookie's socket. Each hook may be null: the cookie's own way is taken. */
typedef void *(*rtslib_gencfg_alloc_func)(size_t size);   // null: no memory. Need not be zeroed
typedef void (*rtslib_gencfg_free_func)(void *message);   // what alloc gave
typedef int (*rtslib_gencfg_write_func)(uintptr_t context, void *message);   // lends a struct gencfg_msg
/* The reply, a struct gencfg_msg, in a block of rtslib_size_alloc: decompression replaces and frees it. */
typedef int (*rtslib_gencfg_read_func)(uintptr_t context, void **message, void **mask);

/* What all of the above are, with the operation of the caller's choice (RTM_OP_...; 4, 5, 8 and 9 have a reply; flags
 * of 0 are taken for 4 and 5 only). seq, if not null, is the counter in place of the cookie's. cookie may be
 * null if seq and the hooks leave nothing to it; without one, a blob can be neither compressed nor decompressed. */
int rtslib_gencfg_op_export(struct rtslib_cookie *cookie, gencfg_t *gencfg, uint8_t operation, void **message,
                            void **mask, uint32_t *seq, uintptr_t context, rtslib_gencfg_alloc_func alloc,
                            rtslib_gencfg_free_func free, rtslib_gencfg_write_func write, rtslib_gencfg_read_func read);

/* For a decoded message that has just arrived as an event: decompresses its blob if its flags say so. 0, also for a
 * message that is left as it is. Otherwise *message is still the old one, its blob_len 0, and still the caller's. */
int rtslib_gencfg_async(struct rtslib_cookie *cookie, void **message);
/* Both are kept in the cookie for its life. Nothing happens if any argument is null. Both are also called for a blob
 * that is not there: its pointer may be null, its length is 0. One that says 0 and more octets than it had room for has
 * failed with 22. */
void rtslib_init_blob_compression(struct rtslib_cookie *cookie, rtslib_compress_func compress,
                                  rtslib_compress_func decompress);

/* --- filling peers ---------------------------------------------------------------------------------------------- */

/* Room for so many peers, at most GENCFG_PEERS_MAX: allocated, or the caller's buffer of size octets, aligned for
 * gencfg_peerinfo_t, which gencfg borrows. Room that was there before is forgotten, not freed. */
int rtslib_gencfg_create_peerinfo(gencfg_t *gencfg, uint32_t capacity);
int rtslib_gencfg_add_peerinfo_storage(gencfg_t *gencfg, uint32_t capacity, void *buffer, size_t size);
/* Adds peer's peer_index under its peer_type. Choice 1 makes an entry by index. Choice 0 does so too, but in a major
 * type that has the mask form it is one more bit in the one mask entry, the type being that of the peer that came last.
 * All entries have one choice. -1: no room, no storage, another choice than the first entry's, an index beyond the mask
 * (whose peer leaves its type in a mask that was there before). */
int rtslib_gencfg_add_peerinfo(gencfg_t *gencfg, const gencfg_peerinfo_t *peer);
/* Frees the room of rtslib_gencfg_create_peerinfo. A borrowed buffer must not be given here: set peers to null. */
void rtslib_gencfg_delete_peerinfo(gencfg_t *gencfg);

/* --- reading peers ---------------------------------------------------------------------------------------------- */

/* Non-zero if an entry by index has that index and all classes of peer_class, or a mask entry has the bits. */
int rtslib_gencfg_is_peer_present_in_peerinfo(const gencfg_t *gencfg, uint8_t peer_class, uint16_t index);
/* The eight words of a struct gencfg_msg's first mask entry, or null. They live as long as the message. */
const uint32_t *rtslib_gencfg_get_peer_info(const void *message);
/* The index of an entry of a struct gencfg_msg, in a mask the first one; -1 if there is none. */
int32_t rtslib_gencfg_get_peer_index(const void *message, uint32_t entry);
/* The index that the bit of that group (and, for the class SLOT, slot) stands for, or -1 if it is not set. */
int32_t rtslib_gencfg_get_peer_index_from_peer_mask(const uint32_t *mask, uint8_t peer_class, uint32_t group,
                                                    uint32_t slot);
/* 0 if both have the same masks in the same order, or no entries at all; 1 otherwise, and for entries by index. */
int rtslib_gencfg_peer_info_compare(const gencfg_peerinfo_t *first, uint32_t first_count,
                                    const gencfg_peerinfo_t *second, uint32_t second_count);

/* --- filling dependencies --------------------------------------------------------------------------------------- */

/* A storage, allocated or the caller's, which gencfg borrows: at least GENCFG_DEPEND_STORAGE octets, aligned for
 * gencfg_depinfo_t. Sets GENCFG_FLAG_DEPEND. */
int rtslib_gencfg_create_depend(gencfg_t *gencfg);
int rtslib_gencfg_add_depend_storage(gencfg_t *gencfg, void *buffer, size_t size);
/* Copies data into the storage and adds a record of it. -1 for no data, a type above GENCFG_DEPEND_TYPE_MAX, no
 * storage, or no room. */
int rtslib_gencfg_add_depinfo(gencfg_t *gencfg, uint8_t type, uint16_t value1, uint16_t value2, uint32_t length,
                              const void *data, uint8_t flag);
/* Frees the storage of rtslib_gencfg_create_depend; not for a borrowed one. The flag stays. */
void rtslib_gencfg_delete_depend(gencfg_t *gencfg);

}   // extern "C"
