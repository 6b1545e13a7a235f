// Pointer queue, as scripts of calls: put, get, growth, and what a stored zero does to them.
#include "tests/usr.sbin/keld/beep/beep_fixture.h"

#include <sstream>

/* Words: pN put, fN refused put, PN put that may grow, FN the same refused, and, with what the call must give, gN get, kN
 * peek, nN length, cN capacity, tV=N entries removed up to V, ?V=N search. */
static void play(struct bp_queue *queue, const std::string &script)
{
    std::istringstream words(script);
    for (std::string word; words >> word;) {
        size_t equals = word.find('=');
        uintptr_t value = strtoul(word.c_str() + 1, nullptr, 10), wanted = value, got = ~0u;
        if (equals != std::string::npos) wanted = strtoul(word.c_str() + equals + 1, nullptr, 10);
        switch (word[0]) {
        case 'p': case 'f': wanted = word[0] == 'f', got = bp_queue_put(queue, value); break;
        case 'P': case 'F': wanted = word[0] == 'F', got = bp_queue_put_and_grow(queue, value) != 0; break;
        case 'g': got = bp_queue_get(queue); break;
        case 'k': got = bp_queue_peek(queue); break;
        case 'n': got = static_cast<uintptr_t>(bp_queue_len(queue)); break;
        case 'c': got = static_cast<uintptr_t>(queue->capacity); break;
        case 't': got = static_cast<uintptr_t>(bp_queue_get_till(queue, value)); break;
        case '?': got = static_cast<uintptr_t>(bp_queue_find(queue, value)); break;
        }
        EXPECT_EQ(got, wanted) << word << " of " << script;
    }
}

TEST(bp_queue, keeps_order_through_full_rings_and_growth)
{
    static const struct {
        int32_t size;
        const char *script;
        long fail_at;   // allocation after the making that fails, 0 for none
    } rows[] = {
        { 2, "n0 k0 g0 p1 p2 f3 n2 k1 g1 p3 f4 g2 g3 g0 n0 p4 k4", 0 },
        { 2, "p1 p2 g1 p3 P4 c4 n3 P5 f6 P6 c8 g2 g3 g4 g5 g6 g0", 0 },      // grown with the oldest entry in mid-ring
        { 4, "p5 ?5=1 ?6=0 p2 p3 t2=2 k3 n1 t9=1 n0 t9=0", 0 },
        { 4, "p0 p1 ?0=1 n2 t1=0 n1 k1", 0 },                                // a zero reads as the end, and goes
        { 4, "p1 p0 p2 t2=1 n1 k2", 0 },
        { 4, "p1 p2 p3 p4 F5 n4 c6 k1 p5 p6 f7 P7 c12 g1 g2 g3 g4 g5 g6 g7 g0", 3 },   // growth fails half-way
    };
    for (const auto &row : rows) {
        struct bp_queue *queue = bp_queue_new(row.size);
        memory = { true, false, 0, row.fail_at };
        play(queue, row.script);
        memory = {};
        bp_queue_free(queue);
    }
    play(nullptr, "g0 k0 ?0=0 t1=0");
    EXPECT_EQ(bp_queue_len(nullptr), -1);
    bp_queue_free(nullptr);
}

TEST(bp_queue, allocates_only_to_grow)
{
    EXPECT_FALSE(bp_queue_new(1));
    struct bp_queue *queue = bp_queue_new(64);
    memory = { true, false, 0, 0 };
    for (uintptr_t i = 1; i <= 1000; i++)
        if (bp_queue_put_and_grow(queue, i) != 0 || bp_queue_get(queue) != i) ADD_FAILURE() << i;
    EXPECT_EQ(memory.count, 0);
    for (uintptr_t i = 1; i <= 65; i++) ASSERT_EQ(bp_queue_put_and_grow(queue, i), 0);
    EXPECT_EQ(memory.count, 64);
    memory = {};
    for (uintptr_t i = 1; i <= 65; i++) EXPECT_EQ(bp_queue_get(queue), i);
    bp_queue_free(queue);
}
