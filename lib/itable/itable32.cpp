/*
 * Index tables of 32 bits: a table of 16 bits whose values are tables of 16 bits.
 *
 * This form keeps its mark in ways of its own, which its users have come to rely on; each is marked below. A sub-table
 * lives from the first index that falls into it to the removal of its last value.
 */
#include "lib/itable/levels.h"

#include <string.h>

namespace {

enum : uint32_t { HALF_BITS = 16, NO_LIMIT = UINT32_MAX };

constexpr uint16_t high_half(uint32_t index)
{
    return uint16_t(index >> HALF_BITS);
}

constexpr uint16_t low_half(uint32_t index)
{
    return uint16_t(index);
}

constexpr uint32_t joined(uint32_t high, uint32_t low)
{
    return high << HALF_BITS | low;
}

struct itable16 *subtable(const struct itable32 *table, uint16_t high)
{
    return reinterpret_cast<struct itable16 *>(itable_find(table->it_top, high));
}

/* The next sub-table behind *high, or the first if high is null; *found becomes its high half. Null at the end. */
struct itable16 *next_subtable(const struct itable32 *table, const uint16_t *high, uint16_t *found)
{
    return reinterpret_cast<struct itable16 *>(itable16_getnext(table->it_top, high, found));
}

/* A new sub-table, or null: without memory, or beyond the limit. */
struct itable16 *itable32_add_subtable(struct itable32 *table, uint16_t high)
{
    if (high > high_half(table->it_maxindex))
        return nullptr;
    struct itable16 *sub = itable16_create_ext(table->it_alloc, table->it_free, table->it_opaque);
    if (sub == nullptr)
        return nullptr;
    if (itable16_insert(table->it_top, reinterpret_cast<uintptr_t>(sub), &high) != ITABLE_DONE) {
        itable16_destroy(sub);
        return nullptr;
    }
    sub->it_packed = table->it_packed;
    if (high == high_half(table->it_maxindex))
        sub->it_maxindex = low_half(table->it_maxindex) + 1U;
    return sub;
}

/* Kept on purpose: an index at the mark itself leaves the mark where it is. Behind the last index the mark is 0. */
void move_mark(struct itable32 *table, uint32_t index)
{
    if (index > table->it_next)
        table->it_next = index + 1;
}

/* Kept on purpose: 16 bits are read of both marks, so that a table filled to the end reads as empty. */
void rebuild_mark(struct itable32 *table)
{
    uint16_t end = low_half(table->it_top->it_next);
    if (end == 0) {
        table->it_next = 0;
        return;
    }
    uint16_t high = uint16_t(end - 1);   // the top's mark always stands behind a sub-table
    table->it_next = joined(high, low_half(subtable(table, high)->it_next));
}

/* The first value in sub at or behind low index 0; its low half in *low. */
uintptr_t first_in(const struct itable16 *sub, uint16_t *low)
{
    *low = 0;
    uintptr_t value = itable16_lookup(sub, low);
    return value != 0 ? value : itable16_getnext(sub, low, low);
}

}   // namespace

struct itable32 *itable32_create_ext(itable_alloc_func alloc, itable_free_func release, uintptr_t opaque)
{
    auto *table = static_cast<itable32 *>(alloc(opaque, sizeof(itable32)));
    if (table == nullptr)
        return nullptr;
    *table = { 0, NO_LIMIT, alloc, release, opaque, 0, itable16_create_ext(alloc, release, opaque) };
    if (table->it_top != nullptr)
        return table;
    release(opaque, table);
    return nullptr;
}

struct itable32 *itable32_create(void)
{
    return itable32_create_ext(itable_def_alloc, itable_def_free, 0);
}

uint32_t itable32_destroy(struct itable32 *table)
{
    if (table == nullptr)
        return 0;
    uint32_t values = 0;
    uint16_t high = 0;
    for (auto *sub = next_subtable(table, nullptr, &high); sub != nullptr; sub = next_subtable(table, &high, &high))
        values += itable16_destroy(sub);
    itable16_destroy(table->it_top);
    table->it_free(table->it_opaque, table);
    return values;
}

int itable32_insert(struct itable32 *table, uintptr_t value, const uint32_t *index)
{
    if (*index > table->it_maxindex)
        return ITABLE_BEYOND;
    struct itable16 *sub = subtable(table, high_half(*index));
    if (sub == nullptr)
        sub = itable32_add_subtable(table, high_half(*index));
    if (sub == nullptr)
        return ITABLE_NO_ROOM;
    uint16_t low = low_half(*index);
    int result = itable16_insert(sub, value, &low);
    if (result == ITABLE_DONE)
        move_mark(table, *index);
    return result;
}

int itable32_alloc(struct itable32 *table, uintptr_t value, uint32_t *index)
{
    uint16_t start = table->it_packed != 0 ? uint16_t(0) : high_half(table->it_next);
    uint16_t high = start;
    uint16_t low = 0;
    int result = ITABLE_NO_ROOM;
    struct itable16 *sub;
    do {
        sub = subtable(table, high);
        if (sub == nullptr)
            break;
        result = itable16_alloc(sub, value, &low);
        if (result == ITABLE_NO_ROOM)
            high++;   // and round from the last to the first
    } while (result == ITABLE_NO_ROOM && high != start);
    if (result == ITABLE_NO_ROOM && sub == nullptr) {
        sub = itable32_add_subtable(table, high);
        if (sub != nullptr)
            result = itable16_alloc(sub, value, &low);
    }
    if (result != ITABLE_DONE)
        return result;
    *index = joined(high, low);
    move_mark(table, *index);
    return ITABLE_DONE;
}

uintptr_t itable32_replace(struct itable32 *table, const uint32_t *index, uintptr_t value)
{
    struct itable16 *sub = subtable(table, high_half(*index));
    // Kept on purpose: a sub-table is made, in which nothing is then found to replace.
    if (sub == nullptr)
        sub = itable32_add_subtable(table, high_half(*index));
    uint16_t low = low_half(*index);
    return sub != nullptr ? itable16_replace(sub, &low, value) : 0;
}

void itable32_remove(struct itable32 *table, const uint32_t *index)
{
    uint16_t high = high_half(*index);
    uint16_t low = low_half(*index);
    struct itable16 *sub = subtable(table, high);
    if (sub == nullptr)
        return;
    itable16_remove(sub, &low);
    if (sub->it_next == 0) {
        itable16_destroy(sub);
        itable16_remove(table->it_top, &high);
    }
    if (*index == table->it_next - 1)
        rebuild_mark(table);
}

uintptr_t itable32_lookup(const struct itable32 *table, const uint32_t *index)
{
    if (table == nullptr || table->it_top == nullptr)
        return 0;
    const struct itable16 *sub = subtable(table, high_half(*index));
    return sub != nullptr ? itable_find(sub, low_half(*index)) : 0;
}

uintptr_t itable32_getnext(const struct itable32 *table, const uint32_t *index, uint32_t *found)
{
    uint16_t high = index != nullptr ? high_half(*index) : uint16_t(0);
    uint16_t low = index != nullptr ? low_half(*index) : uint16_t(0);
    const struct itable16 *sub = subtable(table, high);
    uintptr_t value = 0;
    if (sub != nullptr)
        value = index != nullptr ? itable16_getnext(sub, &low, &low) : first_in(sub, &low);
    while (value == 0) {
        sub = next_subtable(table, &high, &high);
        if (sub == nullptr)
            return 0;
        value = first_in(sub, &low);
    }
    if (found != nullptr)
        *found = joined(high, low);
    return value;
}

void itable32_set_maxindex(struct itable32 *table, uint32_t limit)
{
    if (table == nullptr || limit == 0)
        return;
    // Kept on purpose: the sub-table under the old limit is bounded by the new limit's low half. The one under the new
    // limit is bounded only when it is made; one that stands already keeps its room.
    struct itable16 *sub = subtable(table, high_half(table->it_maxindex));
    if (sub != nullptr)
        sub->it_maxindex = low_half(limit) + 1U;
    table->it_maxindex = limit;
}

void itable32_set_packed(struct itable32 *table, uint8_t packed)
{
    if (table == nullptr || table->it_packed == packed)
        return;
    table->it_packed = packed;
    uint16_t high = 0;
    for (auto *sub = next_subtable(table, nullptr, &high); sub != nullptr; sub = next_subtable(table, &high, &high))
        sub->it_packed = packed;
}
