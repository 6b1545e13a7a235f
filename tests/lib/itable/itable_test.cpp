/*
 * Both forms against models that have the same oddities, driven by random operations, and with hooks that fail.
 */
#include "lib/itable/itable.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <map>
#include <memory>
#include <random>
#include <set>

namespace {

/* Hooks that count what is out, and fail when their allowance is used up. */
struct heap {
    int out = 0;
    int left = -1;
    static void *take(uintptr_t opaque, size_t size)
    {
        auto *h = reinterpret_cast<heap *>(opaque);
        if (h->left == 0)
            return nullptr;
        h->left -= h->left > 0 ? 1 : 0;
        h->out++;
        return malloc(size);
    }
    static void give(uintptr_t opaque, void *memory)
    {
        reinterpret_cast<heap *>(opaque)->out--;
        free(memory);
    }
    uintptr_t word() { return reinterpret_cast<uintptr_t>(this); }
};

struct model16 {
    std::map<uint32_t, uintptr_t> values;
    std::set<uint32_t> leaves;   // number of each leaf there is
    uint32_t next = 0, max = 0x10000;
    bool packed = false;

    void put(uint32_t index, uintptr_t value)
    {
        leaves.insert(index / 64);
        if (value != 0)
            values[index] = value;
        else
            values.erase(index);
    }
    int insert(uint32_t index, uintptr_t value)
    {
        if (index >= max)
            return 1;
        put(index, value);
        next = std::max(next, index + 1);
        return 0;
    }
    bool append(uintptr_t value, uint32_t *index)
    {
        if (next >= max)
            return false;
        put(*index = next, value);
        next++;
        return true;
    }
    bool scan(uintptr_t value, uint32_t *index, bool growing)
    {
        for (uint32_t at = 0; at < next; at++) {
            if (growing)
                leaves.insert(at / 64);
            if (values.count(at) == 0 && leaves.count(at / 64) != 0) {
                put(*index = at, value);
                return true;
            }
        }
        return false;
    }
    int alloc(uintptr_t value, uint32_t *index)
    {
        bool done = packed ? scan(value, index, false) || append(value, index)
                           : append(value, index) || scan(value, index, true);
        return done ? 0 : 12;
    }
    uintptr_t lookup(uint32_t index) const { return values.count(index) != 0 ? values.at(index) : 0; }
    uintptr_t replace(uint32_t index, uintptr_t value)
    {
        uintptr_t old = lookup(index);
        if (index < next && leaves.count(index / 64) != 0)
            put(index, value);
        return old;
    }
    void remove(uint32_t index)
    {
        if (values.erase(index) == 0)
            return;
        auto first = values.lower_bound(index & ~0xfffU);
        if (first == values.end() || first->first >> 12 != index >> 12)
            std::erase_if(leaves, [&](uint32_t leaf) { return leaf >> 6 == index >> 12; });
        if (index + 1 == next) {
            // Down from this block: what is stored above the mark's block cannot be.
            auto above = values.lower_bound((index | 0xfff) + 1);
            next = above == values.begin() ? 0 : std::prev(above)->first + 1;
        }
    }
};

struct model32 {
    std::map<uint16_t, model16> subs;
    model16 top;
    uint32_t next = 0, max = UINT32_MAX;
    bool packed = false;

    model16 *add(uint16_t high)
    {
        if (high > max >> 16)
            return nullptr;
        model16 &sub = subs[high];
        top.insert(high, 1);
        sub.packed = packed;
        sub.max = high == max >> 16 ? (max & 0xffff) + 1 : 0x10000;
        return &sub;
    }
    model16 *find(uint16_t high) { return subs.count(high) != 0 ? &subs[high] : nullptr; }
    model16 *find_or_add(uint16_t high) { return find(high) != nullptr ? find(high) : add(high); }
    void mark(uint32_t index) { next = index > next ? index + 1 : next; }
    int insert(uint32_t index, uintptr_t value)
    {
        if (index > max)
            return 1;
        int result = find_or_add(uint16_t(index >> 16))->insert(index & 0xffff, value);
        if (result == 0)
            mark(index);
        return result;
    }
    int alloc(uintptr_t value, uint32_t *index)
    {
        uint16_t start = packed ? 0 : uint16_t(next >> 16), high = start;
        uint32_t low = 0;
        do {
            model16 *sub = find(high);
            bool made = sub == nullptr;
            sub = made ? add(high) : sub;
            if (sub == nullptr)
                return 12;
            if (sub->alloc(value, &low) == 0) {
                *index = uint32_t(high) << 16 | low;
                mark(*index);
                return 0;
            }
            if (made)
                return 12;
        } while (++high != start);
        return 12;
    }
    uintptr_t replace(uint32_t index, uintptr_t value)
    {
        model16 *sub = find_or_add(uint16_t(index >> 16));
        return sub != nullptr ? sub->replace(index & 0xffff, value) : 0;
    }
    void remove(uint32_t index)
    {
        uint16_t high = uint16_t(index >> 16);
        model16 *sub = find(high);
        if (sub == nullptr)
            return;
        sub->remove(index & 0xffff);
        if (sub->next == 0) {
            subs.erase(high);
            top.remove(high);
        }
        if (index + 1 != next)
            return;
        uint32_t end = top.next & 0xffff;
        next = end == 0 ? 0 : (end - 1) << 16 | (subs[uint16_t(end - 1)].next & 0xffff);
    }
    uintptr_t lookup(uint32_t index)
    {
        model16 *sub = find(uint16_t(index >> 16));
        return sub != nullptr ? sub->lookup(index & 0xffff) : 0;
    }
    void set_max(uint32_t limit)
    {
        if (model16 *sub = find(uint16_t(max >> 16)))
            sub->max = (limit & 0xffff) + 1;
        max = limit;
    }
    void set_packed(bool on)
    {
        packed = on;
        for (auto &[high, sub] : subs)
            sub.packed = on;
    }
};

}   // namespace

TEST(itable16, agrees_with_its_model)
{
    std::mt19937 random(3);
    for (uint32_t round = 0; round < 8; round++) {
        heap memory;
        struct itable16 *table = itable16_create_ext(heap::take, heap::give, memory.word());
        model16 model;
        model.packed = round % 2 != 0;
        itable16_set_packed(table, model.packed);
        uint32_t spread = round < 4 ? 300 : 0x10000;
        if (round >= 6)
            itable16_set_maxindex(table, model.max = 250);
        for (int i = 0; i < 4000; i++) {
            uint16_t index = uint16_t(random() % spread), got = 0;
            uint32_t expected = 0;
            uintptr_t value = random() % 4;
            switch (random() % 5) {
            case 0:
                ASSERT_EQ(itable16_insert(table, value, &index), model.insert(index, value));
                break;
            case 1:
                ASSERT_EQ(itable16_alloc(table, value + 1, &got), model.alloc(value + 1, &expected));
                ASSERT_EQ(got, expected);
                break;
            case 2:
                ASSERT_EQ(itable16_replace(table, &index, value), model.replace(index, value));
                break;
            default:
                itable16_remove(table, &index);
                model.remove(index);
                break;
            }
            ASSERT_EQ(table->it_next, model.next);
            ASSERT_EQ(itable16_lookup(table, &index), model.lookup(index));
            auto behind = model.values.upper_bound(index);
            bool at_end = behind == model.values.end() || index + 1U >= model.next;
            ASSERT_EQ(itable16_getnext(table, &index, &index), at_end ? 0 : behind->second);
            if (!at_end) {
                ASSERT_EQ(index, behind->first);
            }
        }
        ASSERT_EQ(itable16_destroy(table), model.values.size());
        ASSERT_EQ(memory.out, 0);
    }
}

TEST(itable32, agrees_with_its_model)
{
    std::mt19937 random(4);
    for (uint32_t round = 0; round < 6; round++) {
        heap memory;
        struct itable32 *table = itable32_create_ext(heap::take, heap::give, memory.word());
        model32 model;
        for (int i = 0; i < 3000; i++) {
            // Few indexes, around the borders of sub-tables.
            static const uint32_t bases[] = { 0, 0xfff0, 0x1fff0, 0x2fff8, 0xfffffff0 };
            uint32_t index = bases[random() % 5] + random() % 16, got = 0, expected = 0;
            uintptr_t value = random() % 4;
            switch (random() % 8) {
            case 0:
            case 1:
                ASSERT_EQ(itable32_insert(table, value, &index), model.insert(index, value));
                break;
            case 2:
                ASSERT_EQ(itable32_alloc(table, value + 1, &got), model.alloc(value + 1, &expected));
                ASSERT_EQ(got, expected);
                break;
            case 3:
                ASSERT_EQ(itable32_replace(table, &index, value), model.replace(index, value));
                break;
            case 4:
                model.set_packed(random() % 2 != 0);
                itable32_set_packed(table, model.packed);
                break;
            case 5:
                if (random() % 8 == 0) {
                    model.set_max(random() % 3 == 0 ? UINT32_MAX : 0x2fffb);
                    itable32_set_maxindex(table, model.max);
                }
                break;
            default:
                itable32_remove(table, &index);
                model.remove(index);
                break;
            }
            ASSERT_EQ(table->it_next, model.next) << i;
            ASSERT_EQ(itable32_lookup(table, &index), model.lookup(index));
        }
        std::map<uint32_t, uintptr_t> all;
        for (auto &[high, sub] : model.subs) {
            for (auto &[low, value] : sub.values)
                all[uint32_t(high) << 16 | low] = value;
        }
        uint32_t at = 0;
        uintptr_t value = itable32_getnext(table, nullptr, &at);
        for (auto &[index, expected] : all) {
            ASSERT_EQ(value, expected);
            ASSERT_EQ(at, index);
            value = itable32_getnext(table, &at, &at);
        }
        ASSERT_EQ(value, 0U);
        ASSERT_EQ(itable32_destroy(table), all.size());
        ASSERT_EQ(memory.out, 0);
    }
}

TEST(itable, hooks_may_fail)
{
    const uint32_t indexes[] = { 7, 0x12345, 0xffffffff };
    for (int left = 0;; left++) {
        heap memory;
        memory.left = left;
        struct itable32 *table = itable32_create_ext(heap::take, heap::give, memory.word());
        uint32_t stored = 0;
        for (uint32_t index : indexes) {
            int result = table != nullptr ? itable32_insert(table, 1, &index) : ITABLE_NO_ROOM;
            ASSERT_TRUE(result == ITABLE_DONE || result == ITABLE_NO_ROOM);
            ASSERT_EQ(itable32_lookup(table, &index), result == ITABLE_DONE ? 1U : 0U);
            stored += result == ITABLE_DONE ? 1 : 0;
        }
        EXPECT_EQ(itable32_destroy(table), stored);
        ASSERT_EQ(memory.out, 0);
        if (stored == 3)
            break;
    }
    EXPECT_EQ(itable32_lookup(nullptr, indexes), 0U);
    struct itable16 *table = itable16_create();
    uint16_t index = 5, got;
    itable16_insert(table, 1, &index);
    EXPECT_EQ(itable16_alloc(table, 0, &got), ITABLE_DONE);   // told of an index; nothing is stored
    EXPECT_EQ(got, 6);
    EXPECT_EQ(itable16_destroy(table), 1U);
}
