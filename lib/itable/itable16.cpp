/*
 * Index tables of 16 bits.
 *
 * it_count tells when a block is empty; only then do its leaves and its middle table go back, all at once. it_next is a
 * high-water mark: removal of the highest value lowers it to the one below, storing a 0 does not.
 */
#include "lib/itable/levels.h"

#include <stdlib.h>
#include <string.h>

namespace {

void *take_zeroed(const struct itable16 *table, size_t size)
{
    void *memory = table->it_alloc(table->it_opaque, size);
    return memory != nullptr ? memset(memory, 0, size) : nullptr;
}

/* The leaf that the index falls into, made if missing; null without memory, and a middle table made before it stays. */
struct itable_leaf *make_leaf(struct itable16 *table, uint32_t index)
{
    struct itable_middle *&middle = table->it_block[block_of(index)];
    if (middle == nullptr)
        middle = static_cast<itable_middle *>(take_zeroed(table, sizeof(itable_middle)));
    if (middle == nullptr)
        return nullptr;
    struct itable_leaf *&leaf = middle->im_leaf[entry_of(index)];
    if (leaf == nullptr)
        leaf = static_cast<itable_leaf *>(take_zeroed(table, sizeof(itable_leaf)));
    return leaf;
}

/* Stores and keeps the block's count. The old value. */
uintptr_t store(struct itable16 *table, struct itable_leaf *leaf, uint32_t index, uintptr_t value)
{
    uintptr_t *slot = &leaf->il_value[slot_of(index)];
    uintptr_t old = *slot;
    uint16_t *count = &table->it_count[block_of(index)];
    *count = uint16_t(*count + (value != 0 ? 1 : 0) - (old != 0 ? 1 : 0));
    *slot = value;
    return old;
}

void release_block(struct itable16 *table, uint32_t block)
{
    struct itable_middle *middle = table->it_block[block];
    if (middle == nullptr)
        return;
    for (struct itable_leaf *leaf : middle->im_leaf) {
        if (leaf != nullptr)
            table->it_free(table->it_opaque, leaf);
    }
    table->it_free(table->it_opaque, middle);
    table->it_block[block] = nullptr;
}

/* One above the highest value in the blocks up to that of index; 0 without one. */
uint32_t highest_below(const struct itable16 *table, uint32_t index)
{
    for (uint32_t end = (block_of(index) + 1) << BLOCK_BITS; end > 0; end -= ITABLE_ENTRIES) {
        const struct itable_leaf *leaf = find_leaf(table, end - 1);
        for (uint32_t slot = ITABLE_ENTRIES; leaf != nullptr && slot-- > 0;) {
            if (leaf->il_value[slot] != 0)
                return end - ITABLE_ENTRIES + slot + 1;
        }
    }
    return 0;
}

int itable16_alloc_append(struct itable16 *table, uintptr_t value, uint16_t *index)
{
    if (table->it_next >= table->it_maxindex)
        return ITABLE_NO_ROOM;
    struct itable_leaf *leaf = make_leaf(table, table->it_next);
    if (leaf == nullptr)
        return ITABLE_NO_ROOM;
    store(table, leaf, table->it_next, value);
    *index = uint16_t(table->it_next++);
    return ITABLE_DONE;
}

/* Takes the first free slot below the mark of the leaf that begins at first; false without one. */
bool scan_leaf(struct itable16 *table, struct itable_leaf *leaf, uint32_t first, uintptr_t value, uint16_t *index)
{
    for (uint32_t at = first; at < first + ITABLE_ENTRIES && at < table->it_next; at++) {
        if (leaf->il_value[slot_of(at)] != 0)
            continue;
        store(table, leaf, at, value);
        *index = uint16_t(at);
        return true;
    }
    return false;
}

/* Whether the block that begins at first has nothing to give to a scan, so that it need not go through the leaves. */
bool block_is_idle(const struct itable16 *table, uint32_t first, bool growing)
{
    return table->it_count[block_of(first)] == 1U << BLOCK_BITS
           || (!growing && table->it_block[block_of(first)] == nullptr);
}

int itable16_alloc_scan(struct itable16 *table, uintptr_t value, uint16_t *index, bool growing)
{
    for (uint32_t at = 0; at < table->it_next; at += ITABLE_ENTRIES) {
        if (block_is_idle(table, at, growing)) {
            at |= (1U << BLOCK_BITS) - ITABLE_ENTRIES;   // its last leaf
            continue;
        }
        struct itable_leaf *leaf = growing ? make_leaf(table, at) : find_leaf(table, at);
        if (leaf == nullptr && growing)
            return ITABLE_NO_ROOM;
        if (leaf != nullptr && scan_leaf(table, leaf, at, value, index))
            return ITABLE_DONE;
    }
    return ITABLE_NO_ROOM;
}

}   // namespace

void *itable_def_alloc(uintptr_t, size_t size)
{
    return malloc(size);
}

void itable_def_free(uintptr_t, void *memory)
{
    free(memory);
}

struct itable16 *itable16_create_ext(itable_alloc_func alloc, itable_free_func release, uintptr_t opaque)
{
    auto *table = static_cast<itable16 *>(alloc(opaque, sizeof(itable16)));
    if (table == nullptr)
        return nullptr;
    memset(table, 0, sizeof *table);
    table->it_maxindex = ITABLE16_LIMIT;
    table->it_alloc = alloc;
    table->it_free = release;
    table->it_opaque = opaque;
    return table;
}

struct itable16 *itable16_create(void)
{
    return itable16_create_ext(itable_def_alloc, itable_def_free, 0);
}

uint32_t itable16_destroy(struct itable16 *table)
{
    if (table == nullptr)
        return 0;
    uint32_t values = 0;
    for (uint32_t block = 0; block < ITABLE_BLOCKS; block++) {
        values += table->it_count[block];
        release_block(table, block);
    }
    table->it_free(table->it_opaque, table);
    return values;
}

int itable16_insert(struct itable16 *table, uintptr_t value, const uint16_t *index)
{
    if (*index >= table->it_maxindex)
        return ITABLE_BEYOND;
    struct itable_leaf *leaf = make_leaf(table, *index);
    if (leaf == nullptr)
        return ITABLE_NO_ROOM;
    store(table, leaf, *index, value);
    if (*index >= table->it_next)
        table->it_next = *index + 1U;
    return ITABLE_DONE;
}

int itable16_alloc(struct itable16 *table, uintptr_t value, uint16_t *index)
{
    if (table->it_packed == 0) {
        int result = itable16_alloc_append(table, value, index);
        return result == ITABLE_DONE ? result : itable16_alloc_scan(table, value, index, true);
    }
    int result = itable16_alloc_scan(table, value, index, false);
    return result == ITABLE_DONE ? result : itable16_alloc_append(table, value, index);
}

uintptr_t itable16_replace(struct itable16 *table, const uint16_t *index, uintptr_t value)
{
    struct itable_leaf *leaf = *index < table->it_next ? find_leaf(table, *index) : nullptr;
    return leaf != nullptr ? store(table, leaf, *index, value) : 0;
}

void itable16_remove(struct itable16 *table, const uint16_t *index)
{
    struct itable_leaf *leaf = find_leaf(table, *index);
    if (leaf == nullptr || leaf->il_value[slot_of(*index)] == 0)
        return;
    const uint32_t removed = *index;
    store(table, leaf, removed, 0);
    if (table->it_count[block_of(removed)] == 0)
        release_block(table, block_of(removed));
    if (removed + 1 == table->it_next)
        table->it_next = highest_below(table, removed);
}

uintptr_t itable16_lookup(const struct itable16 *table, const uint16_t *index)
{
    return itable_find(table, *index);
}

uintptr_t itable16_getnext(const struct itable16 *table, const uint16_t *index, uint16_t *found)
{
    uint32_t at = index != nullptr ? *index + 1U : 0;
    while (at < table->it_next) {
        if (table->it_block[block_of(at)] == nullptr) {
            at = (block_of(at) + 1) << BLOCK_BITS;
            continue;
        }
        const struct itable_leaf *leaf = find_leaf(table, at);
        if (leaf == nullptr) {
            at = (at | (ITABLE_ENTRIES - 1)) + 1;
            continue;
        }
        uintptr_t value = leaf->il_value[slot_of(at)];
        if (value != 0) {
            if (found != nullptr)
                *found = uint16_t(at);
            return value;
        }
        at++;
    }
    return 0;
}

void itable16_set_maxindex(struct itable16 *table, uint32_t limit)
{
    if (table != nullptr && limit != 0 && limit <= ITABLE16_LIMIT)
        table->it_maxindex = limit;
}

void itable16_set_packed(struct itable16 *table, uint8_t packed)
{
    if (table != nullptr)
        table->it_packed = packed;
}
