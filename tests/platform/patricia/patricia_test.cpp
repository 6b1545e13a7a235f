/*
 * Patricia trees against std::map. The sequences are random, but the same in every run.
 */
#include "platform/patricia/patricia.h"

#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <random>
#include <string>

static constexpr uint16_t LENGTH = 255;
static constexpr uint16_t OFFSET = 8;

struct record {
    struct patricia_node node;
    char before_key[OFFSET];
    char key[LENGTH];
};

using tree = std::unique_ptr<struct patricia_root, void (*)(struct patricia_root *)>;

static tree tree_new(uint16_t length = LENGTH, uint16_t offset = OFFSET)
{
    return { patricia_root_init(nullptr, 0, length, offset), patricia_root_delete };
}

/* memcmp order: octets above 127 stand last. */
struct octet_order {
    bool operator()(const std::string &a, const std::string &b) const { return memcmp(a.data(), b.data(), LENGTH) < 0; }
};

static std::string padded(std::string key)
{
    key.resize(LENGTH, '\0');
    return key;
}

static std::string random_key(std::mt19937 &random)
{
    // Few letters, so that keys share long beginnings and meet again; some differ only in the last octets.
    std::string key;
    for (unsigned left = random() % 5; left > 0; left--) key += "\x01\x02\x03\x80\xff"[random() % 5];
    key = padded(key);
    if (random() % 4 == 0) key[LENGTH - 1 - random() % 2] = static_cast<char>(1 << random() % 8);
    return key;
}

using model = std::map<std::string, std::unique_ptr<struct record>, octet_order>;

static void check_walk(const struct patricia_root *root, const model &expected)
{
    const struct patricia_node *node = nullptr;
    for (const auto &entry : expected) {
        node = patricia_find_next(root, node);
        ASSERT_EQ(node, &entry.second->node);
    }
    ASSERT_EQ(patricia_find_next(root, node), nullptr);
    ASSERT_EQ(root->pr_count, expected.size());
}

TEST(patricia, behaves_as_an_ordered_map)
{
    std::mt19937 random(7);
    tree root = tree_new();
    model expected;
    for (int step = 0; step < 6000; step++) {
        std::string key = random_key(random);
        auto found = expected.find(key);
        struct patricia_node *node = patricia_lookup(root.get(), key.data());
        ASSERT_EQ(node, found == expected.end() ? nullptr : &found->second->node);
        bool growing = step / 1500 % 2 == 0;      // fills, empties, fills, empties
        if (node && random() % 4 >= (growing ? 3U : 0U)) {
            ASSERT_TRUE(patricia_delete(root.get(), node));
            ASSERT_FALSE(patricia_delete(root.get(), node));
            expected.erase(found);
        } else if (growing) {
            auto fresh = std::make_unique<struct record>();
            memcpy(fresh->key, key.data(), LENGTH);
            patricia_node_init_length(&fresh->node, 0);
            ASSERT_EQ(patricia_add(root.get(), &fresh->node), !node);
            if (!node) expected.emplace(key, std::move(fresh));
        }
        if (step % 50 == 0) check_walk(root.get(), expected);
    }
}

TEST(patricia, a_walk_may_delete_the_node_before)
{
    tree root = tree_new(2, 0);
    struct small { struct patricia_node node; uint8_t key[2]; } records[200];
    for (unsigned i = 0; i < std::size(records); i++) {
        records[i].key[0] = static_cast<uint8_t>(i * 77 % 200);
        records[i].key[1] = 0;
        patricia_node_init_length(&records[i].node, 2);
        EXPECT_TRUE(patricia_add(root.get(), &records[i].node));
    }
    int expected = 0;
    for (struct patricia_node *node = patricia_find_next(root.get(), nullptr); node; expected++) {
        EXPECT_EQ(reinterpret_cast<struct small *>(node)->key[0], expected);
        struct patricia_node *next = patricia_find_next(root.get(), node);
        EXPECT_TRUE(patricia_delete(root.get(), node));
        node = next;
    }
    EXPECT_EQ(expected, 200);
    EXPECT_EQ(patricia_find_next(root.get(), nullptr), nullptr);
}

TEST(patricia, refusals)
{
    struct patricia_root own;
    EXPECT_EQ(patricia_root_init(&own, 0, 4, 0), &own);
    struct { struct patricia_node node; char key[4]; } record = { {}, "abc" };
    patricia_node_init_length(&record.node, 3);
    EXPECT_FALSE(patricia_add(&own, &record.node));
    EXPECT_FALSE(patricia_delete(&own, &record.node));
    EXPECT_EQ(patricia_lookup(&own, "abc"), nullptr);
    patricia_root_delete(&own);                   // not the tree's to free
    patricia_root_delete(nullptr);
    EXPECT_EQ(patricia_root_init(&own, 0, 0, 0), nullptr);
    EXPECT_EQ(patricia_root_init(&own, 0, 8192, 0), nullptr);
}
