/*
 * Patricia trees: ordered maps from fixed-length keys to records that hold the node themselves.
 *
 * A record begins its key at a fixed distance behind the node. All keys of a tree have one length, and the order is
 * that of memcmp. The tree owns no record: it links the nodes and reads the keys, which must not change while in the
 * tree. Look-ups cost one comparison of keys and at most one step for each bit of the key.
 */
#pragma once

#include <stdint.h>

extern "C" {

struct patricia_node {
    struct patricia_node *pn_left, *pn_right;
    uint32_t pn_bit;          // bit tested here, the key's first is 1; 0 in the top node, which tests none
    uint16_t pn_key_length;   // octets; 0 takes the tree's own
    uint16_t pn_reserved;
};

struct patricia_root {
    struct patricia_node *pr_top;   // null in an empty tree
    uint16_t pr_key_length;         // octets, 1 to 8191
    uint16_t pr_key_offset;         // from the node's end to the key
    uint32_t pr_count;              // nodes in the tree
    bool pr_allocated;              // by patricia_root_init, which then is freed by patricia_root_delete
};

/* Makes root, or a new one if root is null, an empty tree of keys of key_length octets that stand key_offset octets
 * behind the node's end. The tree; null if memory is out, the length is 0 or too large, or is_pointer is not 0 (a key
 * behind a pointer is not offered). */
struct patricia_root *patricia_root_init(struct patricia_root *root, int is_pointer, uint16_t key_length,
                                         uint16_t key_offset);
/* Frees the tree if patricia_root_init allocated it. Its nodes are left as they are. Null allowed. */
void patricia_root_delete(struct patricia_root *root);
/* Prepares a node. key_length 0 means the tree's. */
void patricia_node_init_length(struct patricia_node *node, uint16_t key_length);
/* True if added; false, and nothing changed, if the key is there already or the node was prepared for another
 * length. */
bool patricia_add(struct patricia_root *root, struct patricia_node *node);
/* True if the node was in the tree. The other nodes stay where they are, so a walk may take the next one first and
 * delete the one before. */
bool patricia_delete(struct patricia_root *root, struct patricia_node *node);
/* The node whose key equals the key at key, of the tree's length, or null. */
struct patricia_node *patricia_lookup(const struct patricia_root *root, const void *key);
/* The next node in key order; the first if node is null; null after the last. node must be in the tree. */
struct patricia_node *patricia_find_next(const struct patricia_root *root, const struct patricia_node *node);

}   // extern "C"
