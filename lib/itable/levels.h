/*
 * The levels of an index table, and the way down them. Inline for both forms, since a look-up is little else. Internal.
 */
#pragma once

#include "lib/itable/itable.h"

enum { ENTRY_BITS = 6, BLOCK_BITS = 12 };

constexpr uint32_t block_of(uint32_t index)
{
    return index >> BLOCK_BITS;
}

constexpr uint32_t entry_of(uint32_t index)
{
    return index >> ENTRY_BITS & (ITABLE_ENTRIES - 1);
}

constexpr uint32_t slot_of(uint32_t index)
{
    return index & (ITABLE_ENTRIES - 1);
}

/* The leaf that the index falls into, or null. */
inline struct itable_leaf *find_leaf(const struct itable16 *table, uint32_t index)
{
    const struct itable_middle *middle = table->it_block[block_of(index)];
    return middle != nullptr ? middle->im_leaf[entry_of(index)] : nullptr;
}

inline uintptr_t itable_find(const struct itable16 *table, uint32_t index)
{
    const struct itable_leaf *leaf = find_leaf(table, index);
    return leaf != nullptr ? leaf->il_value[slot_of(index)] : 0;
}
