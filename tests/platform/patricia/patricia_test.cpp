// Patricia trees against std::map. The sequences are random, but the same in every run.
#include "platform/patricia/patricia.h"

#include <gtest/gtest.h>
#include <map>
#include <random>
#include <string.h>
#include <string>

static constexpr uint16_t LENGTH = 255, OFFSET = 8;

struct record {
    struct patricia_node node;
    char before_key[OFFSET];
    char key[LENGTH];
};

using model = std::map<std::string, struct record>;   // orders as memcmp does

static std::string random_key(std::mt19937 &random)
{
    // Few letters, so that keys share long beginnings and meet again; some differ only in the last octets.
    std::string key;
    for (unsigned left = random() % 5; left > 0; left--) key += "\x01\x02\x03\x80\xff"[random() % 5];
    key.resize(LENGTH, '\0');
    if (random() % 4 == 0) key[LENGTH - 1 - random() % 2] = static_cast<char>(1 << random() % 8);
    return key;
}

TEST(patricia, behaves_as_an_ordered_map)
{
    std::mt19937 random(7);
    struct patricia_root *root = patricia_root_init(nullptr, 0, LENGTH, OFFSET);
    model expected;
    for (int step = 0; step < 6000; step++) {
        bool growing = step / 1500 % 2 == 0;          // fills, empties, fills, empties
        std::string key = random_key(random);
        auto found = expected.find(key);
        struct patricia_node *node = patricia_lookup(root, key.data());
        ASSERT_EQ(node, found == expected.end() ? nullptr : &found->second.node);
        struct record fresh = {};
        memcpy(fresh.key, key.data(), LENGTH);
        if (node) {
            ASSERT_FALSE(patricia_add(root, &fresh.node));
            ASSERT_FALSE(patricia_delete(root, &fresh.node));
            if (growing && random() % 4 > 0) continue;
            ASSERT_TRUE(patricia_delete(root, node));
            expected.erase(found);
        } else if (growing) {
            struct record &added = expected.emplace(key, fresh).first->second;
            patricia_node_init_length(&added.node, step % 2 ? 0 : LENGTH);
            ASSERT_TRUE(patricia_add(root, &added.node));
        }
        if (step % 50 > 0) continue;
        struct patricia_node *walk = nullptr;
        for (const auto &entry : expected) ASSERT_EQ(walk = patricia_find_next(root, walk), &entry.second.node);
        ASSERT_EQ(patricia_find_next(root, walk), nullptr);
        ASSERT_EQ(root->pr_count, expected.size());
    }
    while (struct patricia_node *first = patricia_find_next(root, nullptr)) ASSERT_TRUE(patricia_delete(root, first));
    patricia_root_delete(root);
}

TEST(patricia, refusals)
{
    struct patricia_root own;
    EXPECT_EQ(patricia_root_init(&own, 0, 4, 0), &own);
    struct { struct patricia_node node; char key[4]; } record = { {}, "abc" };
    patricia_node_init_length(&record.node, 3);
    EXPECT_FALSE(patricia_add(&own, &record.node));
    patricia_root_delete(&own);                       // not the tree's to free
    for (uint16_t length : { 0, 8192 }) EXPECT_EQ(patricia_root_init(&own, 0, length, 0), nullptr);
}
