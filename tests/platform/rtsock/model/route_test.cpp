// Routes, next hops, matches, multicast groups and their statistics.
#include "tests/platform/rtsock/model/model_fixture.h"

#include <map>
#include <random>
#include <sys/time.h>

namespace {

const uint8_t ten[8] = { 10, 1, 2, 3 }, gateway[] = { 16, 2, 0, 0, 192, 0, 2, 1, 0, 0, 0, 0, 0, 0, 0, 0 };
const uint8_t group[12] = { 224, 1, 1, 1, 10, 0, 0, 1 };

}   // namespace

class RouteTest : public ModelTest {
protected:
    int add(const void *prefix, uint16_t bits, uint32_t nhidx, const void *via = nullptr, uint16_t *index = nullptr,
            uint16_t tid = 0, uint8_t type = 1)
    {
        return rtslib_rtm_add(asker, tid, 2, type, 0, 2, 0, 0, 0, 0, nhidx, 0, 0, prefix, bits, via, index);
    }
    std::string get(uint8_t op, const void *prefix, uint16_t bits, uint8_t type = 0)
    {
        return run([&](void **reply) {
            return rtslib_rtm_get(asker, 0, 2, prefix, bits, type, 0, 0, 0, op, reply, nullptr);
        });
    }
    std::string nexthop(uint8_t op, uint32_t index)
    {
        return run([&](void **reply) { return rtslib_rnhm_get_by_index(asker, index, 2, op, reply, nullptr); });
    }
    std::string match(const void *prefix, uint16_t bits)
    {
        return run([&](void **reply) {
            return rtslib_rtmatch_fwding_nh_ifindex(asker, 0, 2, 0, prefix, bits, reply, nullptr);
        });
    }
    std::string group_of(uint8_t op, const void *prefix, uint16_t bits)
    {
        return run([&](void **reply) { return rtslib_mgrm_get(asker, 0, 2, prefix, bits, op, reply, nullptr); });
    }
    std::string stats(uint8_t op, uint32_t ifidx, uint32_t index)
    {
        rtslib_nh_key key = { .key_type = 2, .word1 = ifidx, .word2 = index };
        return run([&](void **reply) { return rtslib_rnhsm_get(asker, 2, op, &key, reply, nullptr); });
    }
};

TEST_F(RouteTest, a_route_holds_its_next_hop_and_a_gateway_brings_one)
{
    const uint32_t ifl = 70;
    ASSERT_EQ(run([&](void **reply) { return rtslib_rnhm_subunit_nhadd(asker, &ifl, 2, reply, nullptr); }),
              "1 2 70 0");
    EXPECT_EQ(add(ten, 33, 1), 0);                       // a group with its source is longer than an address
    EXPECT_EQ(add(group, 65, 1), TARGET_EINVAL);
    EXPECT_EQ(add(ten, 8, 5), TARGET_ENOENT);            // no such next hop; nor such a table
    EXPECT_EQ(add(ten, 8, 1, nullptr, nullptr, 4), TARGET_ENOENT);
    uint16_t index = 0;
    EXPECT_EQ(add(ten, 8, 1, nullptr, &index), 0);
    EXPECT_EQ(index, 2);
    EXPECT_EQ(add(ten, 8, 1), TARGET_EEXIST);
    EXPECT_EQ(heard(), "add 0 2 10.1.2.3.0/33 1 1, add 0 2 10/8 1 1");
    EXPECT_EQ(nexthop(RTM_OP_GET, 1), "1 2 70 2");
    EXPECT_EQ(rtslib_rnhm_subunit_nhdelete_by_index(asker, 1, 2), TARGET_EBUSY);

    EXPECT_EQ(add(ten, 16, 0, gateway), 0);
    EXPECT_EQ(get(RTM_OP_GET, ten, 16), "0 2 10.1/16 1 2");
    EXPECT_EQ(nexthop(RTM_OP_GETNEXT, 1), "2 2 0 1");
    rt_msg change = {};
    change.af = 2;
    change.prefix_bits = 16;
    change.prefix = const_cast<uint8_t *>(ten);
    change.prefix_len = sizeof ten;
    change.nhidx = 1;
    EXPECT_EQ(ask(2, RTM_OP_CHG_GET, change), "0 2 10.1/16 1 1");
    EXPECT_EQ(nexthop(RTM_OP_GET, 2), "-2");             // the made one went with its last route
    EXPECT_EQ(nexthop(RTM_OP_GET, 1), "1 2 70 3");
    for (uint16_t bits : { 8, 16, 33 }) EXPECT_EQ(rtslib_rtm_delete_prefix(asker, 0, 2, 0, 0, ten, bits, 0), 0);
    EXPECT_EQ(rtslib_rnhm_subunit_nhdelete_by_index(asker, 1, 2), 0);
    EXPECT_EQ(nexthop(RTM_OP_GETNEXT, 0), "-2");
}

TEST_F(RouteTest, walks_go_by_table_prefix_and_length_and_types_are_passed_over)
{
    lines({ "nexthop 4 family inet type ucst", "table blue index 3 family inet",
            "route default inet 10.0.0.0/8 type intf nexthop 4", "route default inet 0.0.0.0/0 type user nexthop 4",
            "route default inet 10.0.0.0/16 type user nexthop 4", "route blue inet 1.0.0.0/8 type user nexthop 4" });
    EXPECT_EQ(get(RTM_OP_GET, nullptr, 0), "0 2 /0 1 4");
    EXPECT_EQ(get(RTM_OP_GETNEXT, nullptr, 0), "0 2 10/8 7 4");
    EXPECT_EQ(get(RTM_OP_GETNEXT, ten, 8), "0 2 10.0/16 1 4");
    EXPECT_EQ(get(RTM_OP_GETNEXT, ten, 17), "3 2 1/8 1 4");   // behind a prefix that is not there
    EXPECT_EQ(get(RTM_OP_GET, nullptr, 0, 7), "0 2 10/8 7 4");
    EXPECT_EQ(get(RTM_OP_GETNEXT, nullptr, 0, 1), "0 2 10.0/16 1 4");
    EXPECT_EQ(get(RTM_OP_GETNEXT, ten, 32, 7), "-2");
    heard();
    EXPECT_EQ(rtslib_rtbm_update(asker, 0, 2, 0, nullptr, 0, 0, RTM_OP_DELETE), 0);
    EXPECT_EQ(heard(), "delete 0 2 /0 1 4, delete 0 2 10/8 7 4, "
                       "delete 0 2 10.0/16 1 4, delete 0 2 default");
    EXPECT_EQ(nexthop(RTM_OP_GET, 4), "4 2 0 1");
}

TEST_F(RouteTest, matches_groups_and_what_they_count)
{
    lines({ "nexthop 4 family inet type ucst interface 70", "nexthop 5 family inet type mcst interface 71",
            "route default inet 10.0.0.0/8 type user nexthop 4",
            "route default inet 10.1.0.0/16 type user nexthop 5" });
    EXPECT_EQ(add(group, 64, 5), 0);
    EXPECT_EQ(match(ten, 32), "10.1/16 5 71");
    EXPECT_EQ(match(ten, 15), "10/8 4 70");
    EXPECT_EQ(match(group, 64), "224.1.1.1.10.0.0.1/64 5 71");
    EXPECT_EQ(group_of(RTM_OP_GET, group, 64), "224.1.1.1.10.0.0.1/64 5 1");
    EXPECT_EQ(group_of(RTM_OP_GETNEXT, ten, 0), "224.1.1.1.10.0.0.1/64 5 1");
    EXPECT_EQ(group_of(RTM_OP_GET, ten, 8), "-2");
    EXPECT_EQ(stats(RTM_OP_GET, 70, 0), "1 4 1");
    EXPECT_EQ(stats(RTM_OP_GET, 70, 5), "1 5 2");
    EXPECT_EQ(stats(RTM_OP_GETNEXT, 70, 4), "-2");      // the next one is of another type
    uint32_t words[RTSLIB_RTSTATS_WORDS] = { 7, 7 };
    const timeval limit = { 0, 1000 };
    EXPECT_EQ(rtslib_rtstats_get(asker, 2, 0, 0, 0, 16, ten, words, &limit), 0);
    EXPECT_EQ(words[0] + words[1], 1U);
    EXPECT_EQ(rtslib_rtstats_get(asker, 2, 0, 0, 0, 17, ten, words, &limit), TARGET_ENOENT);
}

// Against a map and a search that tries every route.
TEST_F(RouteTest, many_routes_match_and_walk_as_they_should)
{
    std::mt19937 random(7);
    lines({ "nexthop 1 family inet type ucst" });
    std::map<std::pair<octets, uint16_t>, std::string> expected;
    auto masked = [](octets prefix, uint16_t bits) {
        for (size_t i = bits; i < 32; i++) prefix[i / 8] = uint8_t(prefix[i / 8] & ~(0x80 >> i % 8));
        return prefix;
    };
    auto any = [&] {
        octets prefix(4);
        for (uint8_t &octet : prefix) octet = "\x0a\x0b\x80\xff"[random() % 4];
        return prefix;
    };
    for (int i = 0; i < 1500; i++) {
        auto bits = uint16_t(1 + random() % 32);
        octets prefix = any();
        bool there = expected.count({ masked(prefix, bits), bits }) != 0;
        if (there && random() % 2 == 0) {
            ASSERT_EQ(rtslib_rtm_delete_prefix(asker, 0, 2, 0, 0, prefix.data(), bits, 0), 0);
            expected.erase({ masked(prefix, bits), bits });
            continue;
        }
        ASSERT_EQ(add(prefix.data(), bits, 1), there ? TARGET_EEXIST : 0);
        octets stored = masked(prefix, bits);
        expected[{ stored, bits }] = prefix_text(stored.data(), bits);
    }
    std::pair<octets, uint16_t> at = { octets(4), 0 };
    for (const auto &[key, text] : expected) {
        ASSERT_EQ(get(RTM_OP_GETNEXT, at.first.data(), at.second), "0 2 " + text + " 1 1");
        at = key;
    }
    EXPECT_EQ(get(RTM_OP_GETNEXT, at.first.data(), at.second), "-2");
    for (int i = 0; i < 300; i++) {
        octets address = any();
        std::string best = "-2";
        for (uint16_t bits = 1; bits <= 32; bits++) {
            auto found = expected.find({ masked(address, bits), bits });
            if (found != expected.end()) best = found->second + " 1 0";
        }
        ASSERT_EQ(match(address.data(), 32), best);
    }
}
