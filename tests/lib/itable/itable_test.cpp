/*
 * Both forms against models that have the same oddities, driven by random operations in both modes, and with hooks that
 * fail. The models also know what memory a table holds.
 */
#include "lib/itable/itable.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <map>
#include <random>
#include <set>
#include <vector>

namespace {

/* Hooks that count what is out. Number fails fails, and with from_then_on all behind it. */
struct heap {
    size_t out = 0;
    int calls = 0, fails = -1;
    bool from_then_on = false;
    static void *take(uintptr_t opaque, size_t size)
    {
        auto *h = reinterpret_cast<heap *>(opaque);
        int call = h->calls++;
        if (call == h->fails || (h->from_then_on && call > h->fails))
            return nullptr;
        h->out++;
        return malloc(size);
    }
    static void give(uintptr_t opaque, void *memory)
    {
        reinterpret_cast<heap *>(opaque)->out--;
        free(memory);
    }
};

struct model16 {
    std::map<uint32_t, uintptr_t> values;
    std::set<uint32_t> leaves;   // by number
    uint32_t next = 0, max = 0x10000;
    bool packed = false;

    bool put(uint32_t index, uintptr_t value)
    {
        leaves.insert(index / 64);
        values[index] = value;
        if (value == 0)
            values.erase(index);
        return true;
    }
    int insert(uintptr_t value, uint32_t index)
    {
        if (index >= max)
            return ITABLE_BEYOND;
        put(index, value);
        next = std::max(next, index + 1);
        return ITABLE_DONE;
    }
    int alloc(uintptr_t value, uint32_t *index)
    {
        auto append = [&] { return next < max && put(*index = next++, value); };
        auto scan = [&](bool growing) {
            for (uint32_t at = 0; at < next; at++)
                if (values.count(at) == 0 && (growing || leaves.count(at / 64) != 0))
                    return put(*index = at, value);
            return false;
        };
        return (packed ? scan(false) || append() : append() || scan(true)) ? ITABLE_DONE : ITABLE_NO_ROOM;
    }
    uintptr_t replace(uint32_t index, uintptr_t value)
    {
        uintptr_t old = values.count(index) != 0 ? values[index] : 0;
        if (index < next && leaves.count(index / 64) != 0)
            put(index, value);
        return old;
    }
    void remove(uint32_t index)
    {
        if (values.erase(index) == 0)
            return;
        auto left = values.lower_bound(index & ~0xfffU);
        if (left == values.end() || left->first >> 12 != index >> 12)
            std::erase_if(leaves, [&](uint32_t leaf) { return leaf >> 6 == index >> 12; });
        if (index + 1 == next)
            next = values.empty() ? 0 : values.rbegin()->first + 1;
    }
    size_t memory() const
    {
        std::set<uint32_t> blocks;
        for (uint32_t leaf : leaves)
            blocks.insert(leaf >> 6);
        return 1 + blocks.size() + leaves.size();
    }
    const std::map<uint32_t, uintptr_t> &all() const { return values; }
    void set_max(uint32_t limit) { max = limit == 0 || limit > 0x10000 ? max : limit; }
    void set_packed(bool on) { packed = on; }
};

struct model32 {
    std::map<uint16_t, model16> subs;
    model16 top;
    uint32_t next = 0, max = UINT32_MAX;
    bool packed = false;

    /* The sub-table, which is made if it is missing and may be. */
    model16 *sub_of(uint32_t high)
    {
        auto [sub, made] = subs.try_emplace(uint16_t(high));
        if (made && high > max >> 16) {
            subs.erase(sub);
            return nullptr;
        }
        if (made) {
            top.insert(1, high);
            sub->second.packed = packed;
            sub->second.max = high == max >> 16 ? (max & 0xffff) + 1 : 0x10000;
        }
        return &sub->second;
    }
    int moved(int result, uint32_t index)
    {
        if (result == ITABLE_DONE && index > next)
            next = index + 1;
        return result;
    }
    int insert(uintptr_t value, uint32_t index)
    {
        return index > max ? ITABLE_BEYOND : moved(sub_of(index >> 16)->insert(value, index & 0xffff), index);
    }
    int alloc(uintptr_t value, uint32_t *index)
    {
        uint16_t start = packed ? 0 : uint16_t(next >> 16), high = start;
        uint32_t low = 0;
        bool made;
        do {
            made = subs.count(high) == 0;
            model16 *sub = sub_of(high);
            if (sub != nullptr && sub->alloc(value, &low) == ITABLE_DONE)
                return moved(ITABLE_DONE, *index = uint32_t(high) << 16 | low);
        } while (!made && ++high != start);
        return ITABLE_NO_ROOM;
    }
    uintptr_t replace(uint32_t index, uintptr_t value)
    {
        model16 *sub = sub_of(index >> 16);
        return sub != nullptr ? sub->replace(index & 0xffff, value) : 0;
    }
    void remove(uint32_t index)
    {
        auto sub = subs.find(uint16_t(index >> 16));
        if (sub == subs.end())
            return;
        sub->second.remove(index & 0xffff);
        if (sub->second.next == 0) {
            top.remove(sub->first);
            subs.erase(sub);
        }
        if (index + 1 == next)
            next = uint16_t(top.next) == 0 ? 0 : (top.next - 1) << 16 | uint16_t(subs.rbegin()->second.next);
    }
    size_t memory() const
    {
        size_t held = 1 + top.memory();
        for (auto &[high, sub] : subs)
            held += sub.memory();
        return held;
    }
    std::map<uint32_t, uintptr_t> all() const
    {
        std::map<uint32_t, uintptr_t> values;
        for (auto &[high, sub] : subs)
            for (auto &[low, value] : sub.values)
                values[uint32_t(high) << 16 | low] = value;
        return values;
    }
    void set_max(uint32_t limit)
    {
        if (auto sub = subs.find(uint16_t(max >> 16)); limit != 0 && sub != subs.end())
            sub->second.max = (limit & 0xffff) + 1;
        max = limit != 0 ? limit : max;
    }
    void set_packed(bool on)
    {
        packed = on;
        for (auto &[high, sub] : subs)
            sub.packed = on;
    }
};

#define FORM(bits)                                                                                                    \
    struct form##bits {                                                                                               \
        using index = uint##bits##_t;                                                                                 \
        using model = model##bits;                                                                                    \
        static constexpr auto create = itable##bits##_create_ext;                                                     \
        static constexpr auto destroy = itable##bits##_destroy;                                                       \
        static constexpr auto insert = itable##bits##_insert;                                                         \
        static constexpr auto alloc = itable##bits##_alloc;                                                           \
        static constexpr auto replace = itable##bits##_replace;                                                       \
        static constexpr auto remove = itable##bits##_remove;                                                         \
        static constexpr auto lookup = itable##bits##_lookup;                                                         \
        static constexpr auto getnext = itable##bits##_getnext;                                                       \
        static constexpr auto set_max = itable##bits##_set_maxindex;                                                  \
        static constexpr auto set_packed = itable##bits##_set_packed;                                                 \
    }
FORM(16);
FORM(32);

/* What a walk finds. */
template <typename form> std::map<uint32_t, uintptr_t> walk(auto *table)
{
    std::map<uint32_t, uintptr_t> found;
    typename form::index at = 0;
    for (uintptr_t value = form::getnext(table, nullptr, &at); value != 0; value = form::getnext(table, &at, &at))
        found[at] = form::lookup(table, &at) == value ? value : 0;
    return found;
}

/* Operations on indexes of up to spread above one of the bases. */
template <typename form> void drive(uint32_t seed, const std::vector<uint32_t> &bases, uint32_t spread)
{
    std::mt19937 random(seed);
    heap memory;
    auto *table = form::create(heap::take, heap::give, reinterpret_cast<uintptr_t>(&memory));
    typename form::model model;
    for (int i = 0; i < 2000; i++) {
        auto index = typename form::index(bases[random() % bases.size()] + random() % spread);
        typename form::index got = 0;
        uint32_t expected = 0, limits[] = { 0, index, 0x10000, 0x10001, UINT32_MAX }, limit = limits[random() % 5];
        uintptr_t value = random() % 4;
        switch (random() % 8) {
        case 0:
        case 1:
            ASSERT_EQ(form::insert(table, value, &index), model.insert(value, index));
            break;
        case 2:
        case 3:
            ASSERT_EQ(form::alloc(table, value, &got), model.alloc(value, &expected));
            ASSERT_EQ(got, expected);
            break;
        case 4:
            ASSERT_EQ(form::replace(table, &index, value), model.replace(index, value));
            break;
        case 5:
            model.set_packed(value % 2 != 0);
            form::set_packed(table, value % 2 != 0);
            if (i % 8 == 0) {
                model.set_max(limit);
                form::set_max(table, limit);
            }
            break;
        default:
            form::remove(table, &index);
            model.remove(index);
        }
        ASSERT_EQ(table->it_next, model.next) << i;
        ASSERT_EQ(table->it_maxindex, model.max);
        if (i % 64 != 0)
            continue;
        const std::map<uint32_t, uintptr_t> all = model.all();
        auto above = all.upper_bound(index);
        ASSERT_EQ(form::getnext(table, &index, nullptr), above != all.end() ? above->second : 0);
        ASSERT_EQ(walk<form>(table), all);
        ASSERT_EQ(memory.out, model.memory());
    }
    ASSERT_EQ(form::destroy(table), model.all().size());
    ASSERT_EQ(memory.out, 0U);
}

/* A round of everything while one allocation, or all from one on, fail. Whether none did. */
template <typename form> bool survive(int fails, bool from_then_on)
{
    heap memory = { .out = 0, .calls = 0, .fails = fails, .from_then_on = from_then_on };
    auto *table = form::create(heap::take, heap::give, reinterpret_cast<uintptr_t>(&memory));
    EXPECT_EQ(table == nullptr, memory.out == 0);
    if (table == nullptr)
        return false;
    std::map<uint32_t, uintptr_t> stored;
    for (uint32_t wide : { 7U, 0x1ffffU, 0x12345U, UINT32_MAX }) {
        typename form::index index = typename form::index(wide), got = 0;
        form::replace(table, &index, 3);
        if (form::insert(table, 1, &index) == ITABLE_DONE)
            stored[index] = 1;
        if (form::alloc(table, 2, &got) == ITABLE_DONE)
            stored[got] = 2;
        EXPECT_EQ(walk<form>(table), stored);
        form::remove(table, &got);
        stored.erase(got);
    }
    EXPECT_EQ(form::destroy(table), stored.size());
    EXPECT_EQ(memory.out, 0U);
    return memory.calls <= fails;
}

}   // namespace

TEST(itable, agrees_with_its_model)
{
    for (uint32_t seed = 0; seed < 4; seed++) {
        ASSERT_NO_FATAL_FAILURE(drive<form16>(seed, { 0 }, 300));
        ASSERT_NO_FATAL_FAILURE(drive<form16>(seed, { 0 }, 0x10000));
        ASSERT_NO_FATAL_FAILURE(drive<form16>(seed, { 0, 0x1000, 0x3000, 0xf000 }, 4));
        ASSERT_NO_FATAL_FAILURE(drive<form32>(seed, { 0, 0xfff0, 0x1fff0, 0x2fff8, 0xfffffff0 }, 16));
        ASSERT_NO_FATAL_FAILURE(drive<form32>(seed, { 0xfffe, 0x1fffe }, 4));
        ASSERT_NO_FATAL_FAILURE(drive<form32>(seed, { 0x1fffe, 0xfffffffe }, 2));
    }
}

TEST(itable, hooks_may_fail)
{
    for (bool from_then_on : { false, true }) {
        for (int fails = 0; !survive<form16>(fails, from_then_on); fails++)
            ASSERT_LT(fails, 100);
        for (int fails = 0; !survive<form32>(fails, from_then_on); fails++)
            ASSERT_LT(fails, 100);
    }
}

TEST(itable, a_full_table_has_room_again_where_one_is_removed)
{
    struct itable16 *table = itable16_create();
    uint16_t index = 0x5001, got;
    for (uint32_t i = 0; i < ITABLE16_LIMIT; i++)
        ASSERT_EQ(itable16_alloc(table, 1, &got) == ITABLE_DONE ? got : UINT32_MAX, i);
    EXPECT_EQ(itable16_alloc(table, 1, &got), ITABLE_NO_ROOM);
    itable16_remove(table, &index);
    EXPECT_EQ(itable16_alloc(table, 1, &got), ITABLE_DONE);
    EXPECT_EQ(got, index);
    EXPECT_EQ(itable16_destroy(table), uint32_t(ITABLE16_LIMIT));
}

/* Once round all sub-tables that there can be, and no further. */
TEST(itable, alloc_goes_round_and_ends)
{
    heap memory;
    struct itable32 *table = itable32_create_ext(heap::take, heap::give, reinterpret_cast<uintptr_t>(&memory));
    uint32_t index = 0xffff, got;
    for (int high = 0; high < 0x10000; high++, index += 0x10000)
        ASSERT_EQ(itable32_insert(table, 1, &index), ITABLE_DONE);
    EXPECT_EQ(table->it_next, 0U);   // one above the last index
    for (uint32_t more : { 0x7fffeU, 0x30000U })   // the walk starts at the first of them and has room at the second
        ASSERT_EQ(itable32_insert(table, 1, &more), ITABLE_DONE);
    memory.fails = memory.calls;
    memory.from_then_on = true;
    for (uint32_t low = 1; low < ITABLE_ENTRIES; low++)
        ASSERT_EQ(itable32_alloc(table, 1, &got) == ITABLE_DONE ? got : 0, 0x30000 + low);
    EXPECT_EQ(itable32_alloc(table, 1, &got), ITABLE_NO_ROOM);
    itable32_destroy(table);
    EXPECT_EQ(memory.out, 0U);
}
