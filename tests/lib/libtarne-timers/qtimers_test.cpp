#include "tests/lib/libtarne-timers/clock.h"
#include "tests/platform/confdb/alloc_faults.h"

#include <gtest/gtest.h>

#include <functional>

static int parents_made;
static std::string moves;   // of the event timer: Set, Reset, Clear

extern "C" {
decltype(qtimer_create_parent) __real_qtimer_create_parent, __wrap_qtimer_create_parent;
decltype(__evSetTimer) __real___evSetTimer, __wrap___evSetTimer;
decltype(__evResetTimer) __real___evResetTimer, __wrap___evResetTimer;
decltype(__evClearTimer) __real___evClearTimer, __wrap___evClearTimer;
}

struct qtimer *__wrap_qtimer_create_parent(struct qtimer_ctx *ctx, struct qtimer *parent)
{
    parents_made++;
    return __real_qtimer_create_parent(ctx, parent);
}
int __wrap___evSetTimer(evContext ctx, evTimerFunc func, void *uap, struct ev_timespec due, struct ev_timespec inter,
                        evTimerID *id)
{
    moves += 'S';
    EXPECT_TRUE(htimer_is_zero(inter));   // never a repeating one
    return __real___evSetTimer(ctx, func, uap, due, inter, id);
}
int __wrap___evResetTimer(evContext ctx, evTimerID id, evTimerFunc func, void *uap, struct ev_timespec due,
                          struct ev_timespec inter)
{
    moves += 'R';
    EXPECT_TRUE(htimer_is_zero(inter));
    return __real___evResetTimer(ctx, id, func, uap, due, inter);
}
int __wrap___evClearTimer(evContext ctx, evTimerID id)
{
    moves += 'C';
    return __real___evClearTimer(ctx, id);
}

namespace {

/* Timers on a real loop. A callback notes its number and does what it was told. */
struct loop : testing::Test {
    evContext evctx = nullptr;
    struct qtimer_ctx *ctx = nullptr;
    std::vector<int> fired;
    std::function<void(int, struct qtimer *)> in_callback;
    struct slot {
        loop *self;
        int number;
    };
    std::vector<std::unique_ptr<slot>> slots;
    std::vector<struct qtimer *> timers;

    loop()
    {
        reported.clear();
        EXPECT_EQ(evCreate(&evctx), 0);
        ctx = qtimer_init(evctx, note_assert);
    }
    ~loop() override
    {
        for (struct qtimer *timer : timers)
            qtimer_destroy(timer);
        free(ctx);
        evDestroy(evctx);
    }
    static void call(struct qtimer *timer, uintptr_t user)
    {
        auto *s = reinterpret_cast<slot *>(user);
        s->self->fired.push_back(s->number);
        if (s->self->in_callback)
            s->self->in_callback(s->number, timer);
    }
    struct qtimer *leaf(struct qtimer *parent = nullptr)
    {
        slots.push_back(std::make_unique<slot>(slot { this, int(slots.size()) }));
        timers.push_back(qtimer_create_leaf(ctx, parent, call, reinterpret_cast<uintptr_t>(slots.back().get())));
        return timers.back();
    }
    std::vector<int> pass(int seconds, int turns = 1)
    {
        clock_ns += seconds * clock_s;
        fired.clear();
        for (int i = 0; i < turns; i++)
            EXPECT_GE(evTurn(evctx, 0), 0);
        return fired;
    }
    using numbers = std::vector<int>;
};

}   // namespace

TEST_F(loop, oneshots_fire_once_and_periodic_timers_go_round)
{
    qtimer_start_oneshot(leaf(), 2, 0);
    qtimer_start_interval(leaf(), 3, 0);
    EXPECT_EQ(pass(1), numbers {});
    EXPECT_EQ(pass(1), numbers { 0 });
    EXPECT_FALSE(qtimer_running(timers[0]));
    EXPECT_EQ(pass(10, 4), (numbers { 1, 1, 1, 1 }));   // once for each interval that passed
    EXPECT_EQ(qtimer_time_remaining(timers[1]), 3U);
    clock_ns += 5 * clock_s;
    EXPECT_EQ(qtimer_time_remaining(timers[1]), 0U);   // past, and not seen by the loop yet
    qtimer_stop(timers[1]);
    EXPECT_EQ(ctx->qc_armed, 0);
    EXPECT_EQ(pass(100), numbers {});
    qtimer_start_oneshot(timers[0], 5, 150);
    EXPECT_EQ(timers[0]->qt_jitter, 99);
    EXPECT_EQ(pass(5), numbers { 0 });
    EXPECT_FALSE(qtimer_running(nullptr) || qtimer_expired(nullptr));
    EXPECT_EQ(qtimer_time_remaining(timers[0]), 0U);
    srandom(1);
    qtimer_start_interval(timers[0], 100, 99);
    int64_t before = ns_of(timers[0]->qt_timer.ht_exptime);
    size_t rounds = pass(100).size();
    EXPECT_LT(ns_of(timers[0]->qt_timer.ht_exptime) - before, int64_t(rounds) * 100 * clock_s);   // jitter each time
}

TEST_F(loop, the_event_timer_moves_with_the_root_only)
{
    moves.clear();
    qtimer_start_oneshot(leaf(), 5, 0);       // S
    qtimer_start_oneshot(leaf(), 9, 0);
    qtimer_start_oneshot(leaf(), 2, 0);       // R
    qtimer_stop(timers[1]);
    qtimer_stop(timers[2]);                   // R
    qtimer_stop(timers[0]);                   // C
    qtimer_start_oneshot(timers[0], 1, 0);    // S
    EXPECT_EQ(moves, "SRRCS");
}

TEST_F(loop, a_callback_may_do_anything_to_its_timer)
{
    in_callback = [&](int number, struct qtimer *timer) {
        if (number == 0)
            qtimer_start_oneshot(timer, 7, 0);      // runs again, with the new interval
        if (number == 1)
            qtimer_stop(timer);                     // periodic: does not go round
        if (number == 2)
            qtimer_start_oneshot(timer, 7, 0);      // periodic: fires once more
        if (number == 3) {
            qtimer_destroy(timer);
            EXPECT_TRUE(htimer_initialized(&timer->qt_timer));   // until the return
            timers[3] = nullptr;
        }
        if (number == 4)
            qtimer_start_interval(timer, 7, 0);     // counted from now, and not sent round on top of that
    };
    qtimer_start_oneshot(leaf(), 1, 0);
    for (int i = 0; i < 4; i++)
        qtimer_start_interval(leaf(), 1, 0);
    EXPECT_EQ(pass(1), (numbers { 0, 1, 2, 3, 4 }));
    EXPECT_EQ(pass(6), numbers {});
    in_callback = nullptr;
    EXPECT_EQ(pass(1), (numbers { 4, 0, 2 }));   // 4 never left its place, and still fits there
    qtimer_stop(timers[4]);
    EXPECT_EQ(pass(50), numbers {});
}

TEST_F(loop, a_turn_runs_ten_and_allocates_nothing)
{
    numbers order;
    for (int i = 0; i < 11; i++) {
        qtimer_start_oneshot(leaf(), 1, 0);
        order.push_back(i);
    }
    fired.reserve(16);
    clock_ns += clock_s;
    fired.clear();
    good_allocations = 0;   // the first allocation would fail, and the counter then be negative
    EXPECT_GE(evTurn(evctx, 0), 0);
    EXPECT_EQ(good_allocations, 0);
    good_allocations = -1;
    EXPECT_EQ(fired, numbers(order.begin(), order.end() - 1));
    EXPECT_EQ(pass(0), numbers { 10 });
}

TEST_F(loop, autoparents_are_shared_and_go_with_their_last_timer)
{
    struct qtimer *a = leaf(), *b = leaf();
    qtimer_start_autoparent_oneshot(a, 10, 0);
    qtimer_start_autoparent_interval(b, 10, 0);
    struct htimer *shared = a->qt_timer.ht_parent;
    EXPECT_EQ(shared, b->qt_timer.ht_parent);
    EXPECT_NE(shared, &ctx->qc_root);
    qtimer_start_autoparent_oneshot(a, 10, 0);
    EXPECT_EQ(shared, a->qt_timer.ht_parent);
    qtimer_start_autoparent_oneshot(a, 20, 0);
    EXPECT_NE(shared, a->qt_timer.ht_parent);
    EXPECT_EQ(pass(10), numbers { 1 });
    EXPECT_EQ(pass(10), (numbers { 1, 0 }));   // the user word has outlived the moves
    struct qtimer *parent = qtimer_create_parent(ctx, nullptr);
    qtimer_start_autoparent_oneshot(parent, 1, 0);
    EXPECT_EQ(reported.front(), "autoparenting non-leaf timer");
    qtimer_destroy(parent);

    parents_made = 0;
    qtimer_start_autoparent_oneshot(a, 10, 0);                 // there is the one of b
    qtimer_start_autoparent_oneshot(a, 10, 50);                // 1
    qtimer_start_autoparent_oneshot_precise(a, { 10, 5 }, 50); // 2
    qtimer_destroy(std::exchange(timers[0], nullptr));
    qtimer_destroy(std::exchange(timers[1], nullptr));
    qtimer_start_autoparent_oneshot(leaf(), 10, 0);            // 3: the first ones are gone
    qtimer_start_autoparent_oneshot(timers.back(), 10, 0);     // alone below its parent, and stays there
    EXPECT_EQ(parents_made, 3);
}

TEST_F(loop, memory_may_be_out)
{
    struct qtimer *timer = leaf();
    good_allocations = 0;
    EXPECT_EQ(qtimer_init(evctx, note_assert), nullptr);
    good_allocations = 0;
    EXPECT_EQ(qtimer_create_leaf(ctx, nullptr, call, 0), nullptr);
    qtimer_start_autoparent_oneshot(timer, 77, 0);   // makes the tree of parents, if this is the first
    for (int good : { 0, 1 }) {                      // no entry; no parent for the entry
        qtimer_efficient_jitter(timer, good == 0);   // which needs a parent
        good_allocations = good;
        qtimer_start_autoparent_oneshot(timer, uint32_t(5 + good), 0);
        good_allocations = -1;
        EXPECT_EQ(timer->qt_timer.ht_parent, nullptr);
        EXPECT_EQ(timer->qt_autoparent != nullptr, good == 1);
        EXPECT_EQ(pass(10), numbers {});
    }
    EXPECT_EQ(reported, std::vector<std::string> { "timer->ht_parent" });
    qtimer_start_autoparent_oneshot(timer, 9, 0);
    EXPECT_EQ(pass(9), numbers { 0 });
}

TEST_F(loop, smearing_leaves_the_event_timer_where_it_stood)
{
    struct qtimer *parent = qtimer_create_parent(ctx, nullptr);
    for (int i = 0; i < 4; i++)
        qtimer_start_oneshot(leaf(parent), 8, 0);
    qtimer_smear_children(parent);
    EXPECT_EQ(qtimer_time_remaining(timers[0]), 2U);
    EXPECT_EQ(pass(7), numbers {});   // though three are due
    EXPECT_EQ(pass(1), (numbers { 0, 1, 2, 3 }));
    for (auto &timer : timers)
        qtimer_destroy(std::exchange(timer, nullptr));
    qtimer_destroy(parent);
}

TEST(assert_text, is_cut_and_may_be_silenced)
{
    static std::string heard;
    free(qtimer_init(nullptr, [](const char *text) { heard = text; }));
    qtimer_assert("unit", 7, "x > 0");
    EXPECT_EQ(heard, "unit:7: assert 'x > 0' failed");
    qtimer_assert("unit", 7, std::string(200, 'x').c_str());
    EXPECT_EQ(heard, "unit:7: assert '" + std::string(103, 'x'));
    free(qtimer_init(nullptr, nullptr));
    qtimer_assert("unit", 7, "silence");
    EXPECT_EQ(heard.find("silence"), std::string::npos);
}
