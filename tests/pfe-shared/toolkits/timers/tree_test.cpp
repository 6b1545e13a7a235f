#include "tests/lib/libtarne-timers/clock.h"

#include <gtest/gtest.h>
#include <map>
#include <random>

#include <algorithm>
#include <numeric>
#include <stdlib.h>

namespace {

/* Two levels: a root, groups, leaves; the model holds the running leaves of each group by expiry. */
struct model_tree : testing::Test {
    enum { GROUPS = 5, LEAVES = 60 };
    struct htimer root = {}, groups[GROUPS] = {}, leaves[LEAVES] = {};
    bool attached[GROUPS];
    std::multimap<int64_t, struct htimer *> running[GROUPS];
    std::mt19937 random { 1 };

    model_tree()
    {
        htimer_init_parent(&root, nullptr, 0);
        for (auto &group : groups)
            htimer_init_parent(&group, &root, 0);
        for (int i = 0; i < LEAVES; i++)
            htimer_init_leaf(&leaves[i], &groups[i % GROUPS], 0);
        std::fill(std::begin(attached), std::end(attached), true);
    }
    void forget(int leaf)
    {
        std::erase_if(running[leaf % GROUPS], [&](const auto &entry) { return entry.second == &leaves[leaf]; });
    }
    /* Behind all of its expiry; but a running one that still fits where it is stays there. */
    void remember(int leaf, int64_t due)
    {
        auto &group = running[leaf % GROUPS];
        auto at = std::find_if(group.begin(), group.end(), [&](const auto &e) { return e.second == &leaves[leaf]; });
        bool stays = at != group.end();
        if (stays) {
            stays = at == group.begin() || std::prev(at)->first <= due;
            at = group.erase(at);
            stays = stays && (at == group.end() || due <= at->first);
        }
        if (stays)
            group.emplace_hint(at, due, &leaves[leaf]);
        else
            group.emplace(due, &leaves[leaf]);
    }
    void step();
    void check();
};

void model_tree::step()
{
    int leaf = int(random() % LEAVES);
    int group = int(random() % GROUPS);
    struct htimer *timer = &leaves[leaf];
    int64_t interval = int64_t(random() % 40) * (clock_s / 4);   // few enough for many equal ones
    int64_t due = clock_ns + interval;
    clock_ns += int64_t(random() % 3) * (clock_s / 4);
    switch (random() % 8) {
    case 0:
        htimer_stop(timer);
        forget(leaf);
        return;
    case 1:
        htimer_stop(&groups[group]);
        running[group].clear();
        return;
    case 2:
        if (attached[group])
            htimer_prune_subtree(&groups[group]);
        else
            htimer_graft_subtree(&groups[group], &root);
        attached[group] = !attached[group];
        return;
    case 3:
        due = (htimer_running(timer) ? ns_of(timer->ht_exptime) : clock_ns) + interval;
        htimer_update(timer, time_of(interval));
        break;
    case 4:
        htimer_set_exptime(timer, time_of(due));
        break;
    default:
        due = clock_ns + interval;
        htimer_start(timer, time_of(interval));
        break;
    }
    remember(leaf, due);
}

void model_tree::check()
{
    int64_t earliest = INT64_MAX;
    for (int g = 0; g < GROUPS; g++) {
        const struct htimer *group = &groups[g];
        ASSERT_EQ(htimer_running(group), !running[g].empty());
        const struct htimer *timer = group->ht_first_child;
        for (const auto &[due, leaf] : running[g]) {
            ASSERT_EQ(timer, leaf);
            ASSERT_EQ(ns_of(timer->ht_exptime), due);
            ASSERT_EQ(timer->ht_next->ht_prev, timer);
            timer = htimer_next_sibling(timer);
        }
        ASSERT_EQ(timer, group->ht_first_child);   // round, and no more than the model has
        if (running[g].empty())
            continue;
        ASSERT_EQ(ns_of(group->ht_exptime), running[g].begin()->first);
        if (attached[g])
            earliest = std::min(earliest, running[g].begin()->first);
    }
    ASSERT_EQ(htimer_running(&root), earliest != INT64_MAX);
    struct htimer *expired = htimer_first_expired(&root);
    ASSERT_EQ(expired != nullptr, earliest <= clock_ns);
    if (expired != nullptr) {
        ASSERT_EQ(ns_of(expired->ht_exptime), earliest);
    }
}

/* Leaves below one parent. */
struct siblings : testing::Test {
    struct htimer root = {}, leaves[6] = {};
    siblings()
    {
        clock_ns = 1000 * clock_s;
        free(qtimer_init(nullptr, note_assert));   // where asserts go; the context itself is of no use here
        reported.clear();
        htimer_init_parent(&root, nullptr, 0);
        for (auto &leaf : leaves)
            htimer_init_leaf(&leaf, &root, 0);
    }
    std::vector<int64_t> seconds_left()
    {
        std::vector<int64_t> left;
        for (auto &leaf : leaves)
            left.push_back(htimer_running(&leaf) ? (ns_of(leaf.ht_exptime) - clock_ns) / clock_s : -1);
        return left;
    }
};

}   // namespace

TEST_F(model_tree, agrees_with_an_ordered_multimap)
{
    for (int i = 0; i < 100000; i++) {
        step();
        check();
        if (HasFatalFailure())
            FAIL() << "after " << i << " operations";
    }
}

TEST_F(siblings, equal_timers_keep_the_order_of_their_setting)
{
    for (int i : { 3, 1, 2 })
        htimer_start(&leaves[i], { 5, 0 });
    EXPECT_EQ(root.ht_first_child, &leaves[3]);
    EXPECT_EQ(leaves[3].ht_next, &leaves[1]);
    EXPECT_EQ(leaves[1].ht_next, &leaves[2]);
    htimer_set_exptime(&leaves[1], leaves[1].ht_exptime);   // as it is: stays
    EXPECT_EQ(leaves[3].ht_next, &leaves[1]);
}

TEST_F(siblings, jitter_is_drawn_in_the_finest_unit_that_fits)
{
    const struct {
        struct ev_timespec interval;
        uint32_t percent;
        int64_t unit, bound;   // ns; units that may be drawn
    } rows[] = {
        { { 41, 999999999 }, 100, 1000, 41999999 }, { { 42, 500000000 }, 150, 1000000, 42500 },
        { { 42949, 999999999 }, 100, clock_s, 42949 }, { { 10, 0 }, 1, 1000, 100000 },
    };
    for (const auto &row : rows) {
        for (unsigned seed = 0; seed < 50; seed++) {
            srandom(seed);
            struct ev_timespec base = { 5, 0 }, out;
            htimer_calculate_exptime(&out, &base, row.interval, row.percent);
            srandom(seed);
            int64_t drawn = random() % row.bound;
            ASSERT_EQ(ns_of(out), 5 * clock_s + ns_of(row.interval) - drawn * row.unit);
        }
    }
}

TEST_F(siblings, smearing_spreads_them_evenly)
{
    auto start = [&](std::initializer_list<int> seconds) {
        htimer_stop(&root);
        int i = 0;
        for (int s : seconds)
            htimer_start(&leaves[i++], { s, 0 });
        htimer_smear_children(&root);
        return seconds_left();
    };
    EXPECT_EQ(start({ 10, 10, 10, 10, 10 }), (std::vector<int64_t>{ 2, 4, 6, 8, 10, -1 }));
    EXPECT_EQ(ns_of(root.ht_exptime), clock_ns + 2 * clock_s);
    EXPECT_EQ(start({ 10, 10 }), (std::vector<int64_t>{ 10, 10, -1, -1, -1, -1 }));
    EXPECT_EQ(start({ 1, 3, 5, 10 }), (std::vector<int64_t>{ 1, 3, 5, 10, -1, -1 }));   // spread enough already
    EXPECT_EQ(start({ 10, 39, 100, 100 }), (std::vector<int64_t>{ 10, 39, 69, 100, -1, -1 }));
    EXPECT_EQ(start({ 1, 9, 10, 10 }), (std::vector<int64_t>{ 1, 4, 7, 10, -1, -1 }));  // anew from the early one
}

TEST_F(siblings, a_start_behind_the_latest_walks_no_list)
{
    htimer_start(&leaves[0], { 8, 0 });
    srandom(1);   // lands before the latest: goes behind it
    htimer_start_jittered_latest(&leaves[1], { 10, 0 }, 90, { 1, 0 }, false);
    EXPECT_GE(ns_of(leaves[1].ht_exptime), clock_ns + 8 * clock_s);
    EXPECT_LE(ns_of(leaves[1].ht_exptime), clock_ns + 10 * clock_s);
    htimer_start(&leaves[0], { 10, 0 });
    htimer_start_jittered_latest(&leaves[2], { 10, 0 }, 50, { 1, 0 }, false);   // behind would be late
    EXPECT_EQ(ns_of(leaves[2].ht_exptime), clock_ns + 10 * clock_s);
    htimer_start_jittered_latest(&leaves[3], { 10, 0 }, 50, { 1, 0 }, true);
    EXPECT_EQ(ns_of(leaves[3].ht_exptime), clock_ns + 11 * clock_s);
}

TEST_F(siblings, misuse_is_reported_by_its_expression)
{
    struct htimer other = {}, blank = {};
    htimer_init_parent(&other, nullptr, 0);
    htimer_start(&other, { 1, 0 });
    htimer_set_exptime(&other, { 1, 0 });
    htimer_stop(&blank);
    htimer_start(&leaves[0], { 5, 0 });
    htimer_init_leaf(&blank, &leaves[0], 0);
    htimer_graft_subtree(&blank, &root);
    htimer_start_jittered_latest(&other, { 1, 0 }, 0, { 0, 0 }, false);
    EXPECT_EQ(reported, (std::vector<std::string>{
        "htimer_is_leaf(timer)", "htimer_is_leaf(timer)", "htimer_initialized(timer)",
        "htimer_initialized(parent) && !htimer_is_leaf(parent)", "root->ht_parent == NULL",
        "htimer_is_leaf(timer)", "timer->ht_parent", "htimer_is_leaf(timer)" }));
    reported.clear();
    htimer_graft_subtree(&leaves[1], &root);      // there already
    htimer_init_leaf(&blank, &other, 0);
    htimer_prune_subtree(&blank);
    htimer_graft_subtree(&blank, &leaves[2]);
    htimer_start(&blank, { 1, 0 });               // below a leaf
    for (int i = 3; i < 6; i++)
        htimer_start(&leaves[i], { i, 0 });
    leaves[3].ht_flags = HTIMER_RUNNING;          // as if a group were among the children
    htimer_smear_children(&root);
    struct htimer hollow = {};
    htimer_init_parent(&hollow, nullptr, 0);
    hollow.ht_flags |= HTIMER_RUNNING;            // no child: nothing can have done that
    EXPECT_EQ(htimer_first_expired(&hollow), nullptr);
    htimer_init_leaf(&leaves[0], nullptr, 0);
    EXPECT_EQ(reported, (std::vector<std::string>{
        "!htimer_is_leaf(parent) && htimer_initialized(parent)", "!htimer_is_leaf(timer) && htimer_initialized(timer)",
        "htimer_is_leaf(cur_timer)", "cur_timer", "!htimer_running(timer)" }));
}

TEST_F(siblings, times_left_and_divided)
{
    struct ev_timespec out = { 9, 9 };
    htimer_start(&leaves[0], { 5, 0 });
    htimer_stop(&leaves[0]);
    htimer_time_left(&leaves[0], &out);
    EXPECT_EQ(ns_of(out), 0);   // stopped, though its expiry is still to come
    htimer_start(&leaves[0], { 5, 0 });
    htimer_time_left(&leaves[0], &out);
    EXPECT_EQ(ns_of(out), 5 * clock_s);
    clock_ns += 7 * clock_s;
    htimer_time_left(&leaves[0], &out);
    EXPECT_EQ(ns_of(out), 0);   // past
    out = { 11, 8 };
    htimer_divn_timestamp(&out, 3);
    EXPECT_EQ(ns_of(out), 3 * clock_s + 2 * 333333333 + 2);   // less than a third: each part is cut
}
