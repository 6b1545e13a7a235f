/*
 * Patricia tree: a binary trie in which every node is both a branch and the holder of one key.
 *
 * A branch tests one bit of the key: 0 goes left, 1 goes right. Bits that all keys below agree on are not tested at
 * all, so n keys need n - 1 branches. The n-th node is the top: it tests nothing (bit 0, real bits count from 1), and
 * its left link is the tree. pn_right of the top is not used.
 *
 * There are no leaves. A link that leads to a node with a larger bit goes down to a branch; any other link goes up
 * (or back to the same node) and names the node that holds the key. A descent therefore ends at the first link that
 * goes up, and only there is a key compared: the bits in between were skipped.
 *
 * True between calls:
 *   - bits grow strictly on every way down, and all keys below a branch agree in the bits before the branch's own;
 *   - exactly one link goes up to each node, from the node itself or from somewhere below it;
 *   - left of a branch stand the keys that are smaller in memcmp order, since the first octet's highest bit is bit 1.
 */
#include "platform/patricia/patricia.h"

#include <stdlib.h>
#include <string.h>

static constexpr uint16_t KEY_LENGTH_MAX = 8191;
static constexpr uint32_t OCTET_BITS = 8;

/* Where a descent ended. */
struct descent {
    struct patricia_node *de_node;     // holder of the only key that can be equal, unless the way was cut short
    struct patricia_node *de_last;     // branch whose link went up to de_node
    struct patricia_node *de_above;    // branch above de_last; the top itself if de_last is the top
    struct patricia_node *de_left;     // last branch that was left leftwards, or null
    struct patricia_node *de_parent;   // above the wanted node as a branch; null if it was not passed as one
};

static const uint8_t *key_of(const struct patricia_root *root, const struct patricia_node *node)
{
    return reinterpret_cast<const uint8_t *>(node + 1) + root->pr_key_offset;
}

static bool bit_is_set(const uint8_t *key, uint32_t bit)
{
    return key[(bit - 1) / OCTET_BITS] & (0x80 >> (bit - 1) % OCTET_BITS);
}

/* The link that key takes out of a branch. */
static struct patricia_node **link_for(struct patricia_node *branch, const uint8_t *key)
{
    if (branch->pn_bit == 0) return &branch->pn_left;
    return bit_is_set(key, branch->pn_bit) ? &branch->pn_right : &branch->pn_left;
}

/* Goes down from the top as long as key's links do, and branches test bits before end. wanted is the node whose
 * parent the caller needs. The tree is not empty. */
static struct descent descend(const struct patricia_root *root, const uint8_t *key, uint32_t end,
                              const struct patricia_node *wanted)
{
    struct descent way = { nullptr, root->pr_top, root->pr_top, nullptr, nullptr };
    way.de_node = way.de_last->pn_left;
    while (way.de_node->pn_bit > way.de_last->pn_bit && way.de_node->pn_bit < end) {
        if (way.de_node == wanted) way.de_parent = way.de_last;
        way.de_above = way.de_last;
        way.de_last = way.de_node;
        struct patricia_node **link = link_for(way.de_node, key);
        if (link == &way.de_node->pn_left) way.de_left = way.de_node;
        way.de_node = *link;
    }
    return way;
}

/* The smallest key below a link of branch. */
static struct patricia_node *leftmost(struct patricia_node *branch, struct patricia_node *link)
{
    while (link->pn_bit > branch->pn_bit) {
        branch = link;
        link = link->pn_left;
    }
    return link;
}

/* The first bit in which two keys differ, or 0 if none does. */
static uint32_t first_difference(const uint8_t *a, const uint8_t *b, uint32_t octets)
{
    uint32_t at = 0;
    while (at < octets && a[at] == b[at]) at++;
    if (at == octets) return 0;
    uint32_t differing = a[at] ^ b[at];
    return at * OCTET_BITS + static_cast<uint32_t>(__builtin_clz(differing)) - 24 + 1;   // an octet in a 32-bit word
}

struct patricia_root *patricia_root_init(struct patricia_root *root, int is_pointer, uint16_t key_length,
                                         uint16_t key_offset)
{
    if (is_pointer || key_length == 0 || key_length > KEY_LENGTH_MAX) return nullptr;
    bool allocated = !root;
    if (allocated) root = static_cast<struct patricia_root *>(malloc(sizeof *root));
    if (!root) return nullptr;
    *root = { nullptr, key_length, key_offset, 0, allocated };
    return root;
}

void patricia_root_delete(struct patricia_root *root)
{
    if (root && root->pr_allocated) free(root);
}

void patricia_node_init_length(struct patricia_node *node, uint16_t key_length)
{
    *node = { nullptr, nullptr, 0, key_length, 0 };
}

bool patricia_add(struct patricia_root *root, struct patricia_node *node)
{
    if (node->pn_key_length != 0 && node->pn_key_length != root->pr_key_length) return false;
    if (!root->pr_top) {
        node->pn_bit = 0;
        node->pn_left = node->pn_right = node;
        root->pr_top = node;
        root->pr_count = 1;
        return true;
    }
    const uint8_t *key = key_of(root, node);
    const struct patricia_node *nearest = descend(root, key, UINT32_MAX, nullptr).de_node;
    uint32_t bit = first_difference(key, key_of(root, nearest), root->pr_key_length);
    if (bit == 0) return false;

    struct descent way = descend(root, key, bit, nullptr);
    node->pn_bit = bit;
    node->pn_left = node->pn_right = way.de_node;
    *link_for(node, key) = node;
    *link_for(way.de_last, key) = node;
    root->pr_count++;
    return true;
}

bool patricia_delete(struct patricia_root *root, struct patricia_node *node)
{
    if (!root->pr_top) return false;
    const uint8_t *key = key_of(root, node);
    struct descent way = descend(root, key, UINT32_MAX, node);
    if (way.de_node != node) return false;
    root->pr_count--;
    if (root->pr_count == 0) {
        root->pr_top = nullptr;
        return true;
    }

    // The branch that leads up to node's key is no longer needed: what stood on its other side takes its place.
    struct patricia_node *branch = way.de_last;
    struct patricia_node *other = link_for(branch, key) == &branch->pn_left ? branch->pn_right : branch->pn_left;
    *link_for(way.de_above, key) = other;
    if (branch == node) return true;

    // The branch still holds a key of its own, so it does node's branching from now on.
    branch->pn_bit = node->pn_bit;
    branch->pn_left = node->pn_left;
    branch->pn_right = node->pn_right;
    if (root->pr_top == node) root->pr_top = branch;
    else *link_for(way.de_parent, key) = branch;
    return true;
}

struct patricia_node *patricia_lookup(const struct patricia_root *root, const void *key)
{
    if (!root->pr_top) return nullptr;
    struct patricia_node *node = descend(root, static_cast<const uint8_t *>(key), UINT32_MAX, nullptr).de_node;
    return memcmp(key_of(root, node), key, root->pr_key_length) == 0 ? node : nullptr;
}

struct patricia_node *patricia_find_next(const struct patricia_root *root, const struct patricia_node *node)
{
    if (!root->pr_top) return nullptr;
    if (!node) return leftmost(root->pr_top, root->pr_top->pn_left);
    struct patricia_node *turn = descend(root, key_of(root, node), UINT32_MAX, nullptr).de_left;
    return turn ? leftmost(turn, turn->pn_right) : nullptr;
}
