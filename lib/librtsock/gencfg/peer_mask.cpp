/*
 * The mask form of peers: 256 bits in which many peers travel as one entry.
 *
 * 48 groups of 5 bits, six to a word, so that two bits of each word are spare. The shift for a slot is applied as
 * written, and there are more slots than a group has bits: slots 4 to 7 are bits of the next group, and in the last
 * group of a word some of them are no bits at all. Both ends agree on this, so a peer is looked for exactly where it
 * was put, and whoever reads a mask may find peers in it that nobody put there.
 */
#include "lib/librtsock/gencfg/gencfg.h"

namespace {

constexpr uint32_t GROUP_BITS = 5, WORD_GROUP_BITS = 30, WORD_BITS = 32;
enum { INDEX_NONE_FROM = 65532 };   // indices that stand for no single peer
enum { CLASSES = GENCFG_PEER_CLASS_GROUP | GENCFG_PEER_CLASS_SLOT };
enum { BIT_GROUP = 0, BIT_SLOT_0 = 1 };
static_assert(GENCFG_MASK_GROUPS * GROUP_BITS == GENCFG_MASK_WORDS * WORD_GROUP_BITS);

uint32_t word_of(uint32_t group)
{
    return group * GROUP_BITS / WORD_GROUP_BITS;
}

/* The bit in that word. Kept on purpose: 0 for a bit behind the word's last, which is lost. */
uint32_t bit_of(uint32_t group, uint32_t bit)
{
    uint32_t shift = group * GROUP_BITS % WORD_GROUP_BITS + bit;
    return shift < WORD_BITS ? uint32_t(1) << shift : 0;
}

bool has(const uint32_t *mask, uint32_t group, uint32_t bit)
{
    return group < GENCFG_MASK_GROUPS && (mask[word_of(group)] & bit_of(group, bit)) != 0;
}

/* Kept on purpose: a peer of both classes is in the group that its slot has, for both. */
uint32_t group_of(uint8_t peer_class, uint16_t index)
{
    return (peer_class & GENCFG_PEER_CLASS_SLOT) != 0 ? index / GENCFG_MASK_SLOTS : index;
}

}   // namespace

bool gencfg_mask_has(const uint32_t *mask, uint8_t peer_class, uint16_t index)
{
    uint32_t group = group_of(peer_class, index);
    if ((peer_class & CLASSES) == 0)
        return false;
    if ((peer_class & GENCFG_PEER_CLASS_GROUP) != 0 && !has(mask, group, BIT_GROUP))
        return false;
    return (peer_class & GENCFG_PEER_CLASS_SLOT) == 0 || has(mask, group, BIT_SLOT_0 + index % GENCFG_MASK_SLOTS);
}

bool gencfg_mask_set(uint32_t *mask, uint8_t peer_class, uint16_t index)
{
    uint32_t group = group_of(peer_class, index);
    // Kept on purpose: neither is in the mask, and neither is a failure.
    if (index >= INDEX_NONE_FROM || (peer_class & CLASSES) == 0)
        return true;
    if (group >= GENCFG_MASK_GROUPS)
        return false;
    if ((peer_class & GENCFG_PEER_CLASS_GROUP) != 0)
        mask[word_of(group)] |= bit_of(group, BIT_GROUP);
    if ((peer_class & GENCFG_PEER_CLASS_SLOT) != 0)
        mask[word_of(group)] |= bit_of(group, BIT_SLOT_0 + index % GENCFG_MASK_SLOTS);
    return true;
}

int32_t rtslib_gencfg_get_peer_index_from_peer_mask(const uint32_t *mask, uint8_t peer_class, uint32_t group,
                                                    uint32_t slot)
{
    if (mask == nullptr)
        return -1;
    if (peer_class == GENCFG_PEER_CLASS_GROUP)
        return has(mask, group, BIT_GROUP) ? int32_t(group) : -1;
    if ((peer_class & GENCFG_PEER_CLASS_SLOT) == 0 || slot >= GENCFG_MASK_SLOTS)
        return -1;
    return has(mask, group, BIT_SLOT_0 + slot) ? int32_t(group * GENCFG_MASK_SLOTS + slot) : -1;
}
