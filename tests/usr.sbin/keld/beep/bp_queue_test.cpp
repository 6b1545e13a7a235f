// Pointer queue, as scripts of calls: put, get, growth, and what a stored zero does to them.
#include "tests/usr.sbin/keld/beep/beep_fixture.h"

#include <sstream>

/* Words of a script: pN put, fN refused put, PN put that may grow, FN the same refused, gN get, kN peek, nN length, cN
 * capacity, tV=N entries removed up to V, ?V=N search. N is what the call must give. */
static void play(struct bp_queue *queue, const std::string &script)
{
    std::istringstream words(script);
    std::string word;
    while (words >> word) {
        uintptr_t value = strtoul(word.c_str() + 1, nullptr, 10);
        size_t equals = word.find('=');
        int wanted = equals == std::string::npos ? 0 : atoi(word.c_str() + equals + 1);
        switch (word[0]) {
        case 'p': EXPECT_EQ(bp_queue_put(queue, value), 0) << word << " of " << script; break;
        case 'f': EXPECT_EQ(bp_queue_put(queue, value), 1) << word << " of " << script; break;
        case 'P': EXPECT_EQ(bp_queue_put_and_grow(queue, value), 0) << word << " of " << script; break;
        case 'F': EXPECT_NE(bp_queue_put_and_grow(queue, value), 0) << word << " of " << script; break;
        case 'g': EXPECT_EQ(bp_queue_get(queue), value) << word << " of " << script; break;
        case 'k': EXPECT_EQ(bp_queue_peek(queue), value) << word << " of " << script; break;
        case 'n': EXPECT_EQ(bp_queue_len(queue), static_cast<int32_t>(value)) << word << " of " << script; break;
        case 'c': EXPECT_EQ(queue->capacity, static_cast<int32_t>(value)) << word << " of " << script; break;
        case 't': EXPECT_EQ(bp_queue_get_till(queue, value), wanted) << word << " of " << script; break;
        case '?': EXPECT_EQ(bp_queue_find(queue, value), wanted) << word << " of " << script; break;
        default: FAIL() << word;
        }
    }
}

TEST(bp_queue, keeps_order_through_full_rings_and_growth)
{
    static const struct {
        int32_t size;
        const char *script;
    } rows[] = {
        { 2, "n0 k0 g0 p1 p2 f3 n2 k1 g1 p3 f4 g2 g3 g0 n0 p4 k4" },
        { 2, "p1 p2 g1 p3 P4 c4 n3 P5 f6 P6 c8 g2 g3 g4 g5 g6 g0" },       // grown with the oldest entry in mid-ring
        { 4, "p5 ?5=1 ?6=0 n1 k5" },
        { 4, "p1 p2 p3 t2=2 k3 n1" },
        { 4, "p1 p2 t9=2 n0 t9=0" },
        { 4, "p0 p1 ?0=1 n2 t1=0 n1 k1" },                                  // a zero reads as the end, and goes
        { 4, "p1 p0 p2 t2=1 n1 k2" },
        { 4, "p0 n1 k0 g0 n0" },
    };
    for (const auto &row : rows) {
        struct bp_queue *queue = bp_queue_new(row.size);
        ASSERT_TRUE(queue);
        play(queue, row.script);
        bp_queue_free(queue);
    }
}

TEST(bp_queue, sizes_below_two_and_null_queues)
{
    memory = { true, false, 0, 0 };
    for (int32_t size : { 1, 0, -1 }) EXPECT_FALSE(bp_queue_new(size)) << size;
    EXPECT_EQ(memory.count, 0);
    play(nullptr, "g0 k0 ?0=0 t1=0");
    EXPECT_EQ(bp_queue_len(nullptr), -1);
    bp_queue_free(nullptr);
    memory = {};
}

TEST(bp_queue, allocates_only_to_grow)
{
    struct bp_queue *queue = bp_queue_new(64);
    memory = { true, false, 0, 0 };
    for (uintptr_t i = 1; i <= 1000; i++)
        if (bp_queue_put_and_grow(queue, i) != 0 || bp_queue_get(queue) != i) ADD_FAILURE() << i;
    EXPECT_EQ(memory.count, 0);
    for (uintptr_t i = 1; i <= 65; i++) ASSERT_EQ(bp_queue_put_and_grow(queue, i), 0);
    EXPECT_EQ(memory.count, 64);
    EXPECT_EQ(queue->capacity, 128);
    for (uintptr_t i = 1; i <= 65; i++) EXPECT_EQ(bp_queue_get(queue), i);
    bp_queue_free(queue);
    memory = {};
}

TEST(bp_queue, growth_that_fails_half_way_leaves_a_closed_ring)
{
    struct bp_queue *queue = bp_queue_new(4);
    play(queue, "p1 p2 p3 p4");
    memory = { true, false, 0, 3 };
    play(queue, "F5 n4 c6");
    memory = {};
    play(queue, "k1 p5 p6 f7 P7 c12 g1 g2 g3 g4 g5 g6 g7 g0");
    bp_queue_free(queue);

    for (long fail_at = 1; fail_at <= 5; fail_at++) {
        memory = { true, false, 0, fail_at };
        EXPECT_FALSE(bp_queue_new(4)) << fail_at;
    }
    memory = {};
}
