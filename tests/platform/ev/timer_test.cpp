/*
 * Timers and times. The clock is the test's own, so a turn that waits nowhere tells the whole story.
 */
#include "tests/platform/ev/loop_fixture.h"

#include <errno.h>

static bool same(struct ev_timespec a, int64_t sec, int64_t nsec)
{
    return a.tv_sec == sec && a.tv_nsec == nsec;
}

TEST(ev_time, stays_in_range)
{
    static const struct { struct ev_timespec a, b, sum, difference; } rows[] = {
        { { 1, 600000000 }, { 2, 700000000 }, { 4, 300000000 }, { -2, 900000000 } },
        { { 5, 0 }, { 5, 0 }, { 10, 0 }, { 0, 0 } },
        { { INT32_MAX, 999999999 }, { 0, 1 }, { INT32_MAX, 999999999 }, { INT32_MAX, 999999998 } },
        { { INT32_MIN, 0 }, { 1, 0 }, { INT32_MIN + 1, 0 }, { INT32_MIN, 0 } },
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        EXPECT_TRUE(same(evAddTime(row.a, row.b), row.sum.tv_sec, row.sum.tv_nsec));
        EXPECT_TRUE(same(evSubTime(row.a, row.b), row.difference.tv_sec, row.difference.tv_nsec));
        EXPECT_EQ(evCmpTime(row.a, row.b), row.a.tv_sec == row.b.tv_sec ? 0 : row.a.tv_sec < row.b.tv_sec ? -1 : 1);
    }
    EXPECT_TRUE(same(evConsTime(1, -1), 0, 999999999));
}

TEST_F(loop, timers_fire_in_order_of_due_and_setting)
{
    for (int i = 0; i < 40; i++) timer(30 + 7 * i % 40, 0, saying(std::to_string(7 * i % 40)));
    timer(10, 0, saying("c"));
    timer(5, 0, saying("a"));
    evTimerID gone = timer(7, 0, saying("gone"));
    timer(5, 0, saying("b"));
    EXPECT_EQ(evClearTimer(ctx, gone), 0);
    EXPECT_EQ(turn(), "");
    now_ns = 10 * MS;
    EXPECT_EQ(turn(), "a b c");
    now_ns = 33 * MS;
    EXPECT_EQ(turn(2), "0 1 2 3");
    now_ns = 36 * MS;
    EXPECT_EQ(turn(), "4 5 6");
}

TEST_F(loop, repeating_timer_does_not_drift_and_catches_up_once_a_turn)
{
    auto func = [](evContext, void *uap, struct ev_timespec due, struct ev_timespec inter) {
        EXPECT_TRUE(same(inter, 0, 10 * MS));
        static_cast<std::string *>(uap)->append(std::to_string(due.tv_nsec / MS) + " ");
    };
    ASSERT_EQ(evSetTimer(ctx, func, &log, time_at(10), time_at(10), nullptr), 0);
    now_ns = 35 * MS;
    EXPECT_EQ(turn(), "10 ");
    EXPECT_EQ(turn(5), "20 30 ");
    now_ns = 41 * MS;
    EXPECT_EQ(turn(2), "40 ");
}

TEST_F(loop, timer_callbacks_may_clear_and_reset_any_timer)
{
    evTimerID self = nullptr, victim = nullptr, again = nullptr;
    self = timer(1, 1, keep([&] { say("self"); EXPECT_EQ(evClearTimer(ctx, self), 0); }));
    again = timer(1, 0, keep([&] {
        say("again");
        EXPECT_EQ(evResetTimer(ctx, again, call_timer, saying("later"), time_at(20), time_at(0)), 0);
        timer(0, 0, saying("past"));   // waits for the next turn, though it is due
        EXPECT_EQ(evClearTimer(ctx, victim), 0);
    }));
    victim = timer(2, 0, saying("victim"));
    evTimerID one_shot = timer(3, 0, keep([&] { say("once"); EXPECT_EQ(evClearTimer(ctx, one_shot), 0); }));
    now_ns = 5 * MS;
    EXPECT_EQ(turn(), "self again once");
    EXPECT_EQ(turn(3), "past");
    now_ns = 20 * MS;
    EXPECT_EQ(turn(3), "later");
}

TEST_F(loop, sleeps_to_the_first_timer_rounded_up)
{
    static const struct { int64_t left_ns; int limit_ms, timeout_ms; } rows[] = {
        { 1, -1, 1 }, { MS, -1, 1 }, { MS + 1, -1, 2 }, { 900 * MS, 50, 50 }, { 900 * MS, 0, 0 },
        { int64_t(INT32_MAX) * 1000 * MS, -1, INT32_MAX },
    };
    on_wait = [](int) { return true; };
    for (const auto &row : rows) {
        evTimerID id = nullptr;
        ASSERT_EQ(evSetTimer(ctx, call_timer, saying("t"), evConsTime(static_cast<int32_t>(row.left_ns / (1000 * MS)),
                             static_cast<int32_t>(row.left_ns % (1000 * MS))), time_at(0), &id), 0);
        EXPECT_EQ(evTurn(ctx, row.limit_ms), 0);
        EXPECT_EQ(counted.last_timeout_ms, row.timeout_ms) << row.left_ns;
        EXPECT_EQ(evClearTimer(ctx, id), 0);
    }
    EXPECT_EQ(evTurn(ctx, -1), 0);
    EXPECT_EQ(counted.last_timeout_ms, -1);
}

TEST_F(loop, bad_times_and_dead_ids_are_refused)
{
    static const struct { struct ev_timespec due, inter; } rows[] = {
        { { 1, -1 }, { 0, 0 } }, { { 1, 1000000000 }, { 0, 0 } }, { { 1, 0 }, { -1, 0 } }, { { 1, 0 }, { 0, -1 } },
    };
    evTimerID id = timer(1, 0, saying("stands"));
    for (const auto &row : rows) {
        EXPECT_EQ(evSetTimer(ctx, call_timer, nullptr, row.due, row.inter, nullptr), -1);
        EXPECT_EQ(evResetTimer(ctx, id, call_timer, nullptr, row.due, row.inter), -1);
    }
    now_ns = 1 * MS;
    EXPECT_EQ(turn(), "stands");
    EXPECT_EQ(evResetTimer(ctx, id, call_timer, nullptr, time_at(0), time_at(0)), -1);
    EXPECT_EQ(evClearTimer(ctx, id), -1);
    EXPECT_EQ(evClearTimer(ctx, nullptr) + evDeselectFD(ctx, nullptr) + evUnwait(ctx, nullptr), -3);
    EXPECT_EQ(errno, EINVAL);
}
