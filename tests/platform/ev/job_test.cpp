/*
 * Timers, waiters, evDo from callbacks and from signal handlers, and the order within a turn. The clock is the test's
 * own, so a turn that waits nowhere tells the whole story.
 */
#include "tests/platform/ev/loop_fixture.h"

#include <errno.h>
#include <signal.h>
#include <unistd.h>

TEST(ev_time, stays_in_range)
{
    static const struct { struct ev_timespec a, b, sum, difference; } rows[] = {
        { { 1, 600000000 }, { 2, 700000000 }, { 4, 300000000 }, { -2, 900000000 } },
        { { 5, 0 }, { 5, 0 }, { 10, 0 }, { 0, 0 } },
        { { INT32_MAX, 999999999 }, { 0, 1 }, { INT32_MAX, 999999999 }, { INT32_MAX, 999999998 } },
        { { INT32_MIN, 0 }, { 1, 0 }, { INT32_MIN + 1, 0 }, { INT32_MIN, 0 } },
    };
    auto same = [](auto x, struct ev_timespec y) { return x.tv_sec == y.tv_sec && x.tv_nsec == y.tv_nsec; };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        EXPECT_TRUE(same(evAddTime(row.a, row.b), row.sum));
        EXPECT_TRUE(same(evSubTime(row.a, row.b), row.difference));
        EXPECT_EQ(evCmpTime(row.a, row.b), row.a.tv_sec == row.b.tv_sec ? 0 : row.a.tv_sec < row.b.tv_sec ? -1 : 1);
    }
    EXPECT_TRUE(same(evConsTime(1, -1), { 0, 999999999 }));
}

TEST_F(loop, timers_fire_in_order_of_due_and_setting)
{
    for (int i = 0; i < 40; i++) timer(30 + 7 * i % 40, saying(std::to_string(7 * i % 40)));
    timer(10, saying("c"));
    timer(5, saying("a"));
    evTimerID gone = timer(7, saying("gone"));
    timer(5, saying("b"));
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
        EXPECT_EQ(inter.tv_nsec, 10 * MS);
        static_cast<std::string *>(uap)->append(std::to_string(due.tv_nsec / MS) + " ");
    };
    ASSERT_EQ(evSetTimer(ctx, func, &log, time_at(10 * MS), time_at(10 * MS), nullptr), 0);
    now_ns = 35 * MS;
    EXPECT_EQ(turn(), "10 ");
    EXPECT_EQ(turn(5), "20 30 ");
    now_ns = 41 * MS;
    EXPECT_EQ(turn(2), "40 ");
}

TEST_F(loop, timer_callbacks_may_clear_and_reset_any_timer)
{
    evTimerID victim = nullptr, again = nullptr, one_shot = nullptr;
    again = timer(1, saying("again", [&] {
        EXPECT_EQ(evResetTimer(ctx, again, call_timer, saying("later"), time_at(20 * MS), time_at(0)), 0);
        timer(0, saying("past"));      // waits for the next turn, though it is due
        EXPECT_EQ(evClearTimer(ctx, victim), 0);
    }));
    victim = timer(2, saying("victim"));
    one_shot = timer(3, saying("once", [&] { EXPECT_EQ(evClearTimer(ctx, one_shot), 0); }));
    now_ns = 5 * MS;
    EXPECT_EQ(turn(), "again once");
    EXPECT_EQ(turn(3), "past");
    now_ns = 20 * MS;
    EXPECT_EQ(turn(3), "later");
}

TEST_F(loop, sleeps_to_the_first_timer_rounded_up)
{
    static const struct { int64_t left_ns; int limit_ms, timeout_ms; } rows[] = {
        { 1, -1, 1 }, { MS, -1, 1 }, { MS + 1, -1, 2 }, { 900 * MS, 50, 50 }, { 900 * MS, 0, 0 },
        { INT32_MAX * SECOND, -1, INT32_MAX },
    };
    on_wait = [](int) { return true; };
    for (const auto &row : rows) {
        evTimerID id = nullptr;
        ASSERT_EQ(evSetTimer(ctx, call_timer, nullptr, time_at(row.left_ns), time_at(0), &id), 0);
        EXPECT_EQ(evTurn(ctx, row.limit_ms), 0);
        EXPECT_EQ(counted.last_timeout_ms, row.timeout_ms) << row.left_ns;
        EXPECT_EQ(evClearTimer(ctx, id), 0);
    }
    EXPECT_EQ(evTurn(ctx, -1), 0);
    EXPECT_EQ(counted.last_timeout_ms, -1);
}

TEST_F(loop, bad_times_and_dead_ids_are_refused)
{
    evTimerID id = timer(1, saying("stands"));
    EXPECT_EQ(evResetTimer(ctx, id, call_timer, nullptr, { 1, 1000000000 }, { 0, 0 }), -1);
    EXPECT_EQ(evResetTimer(ctx, id, call_timer, nullptr, { 1, 0 }, { -1, 0 }), -1);
    now_ns = 1 * MS;
    EXPECT_EQ(turn(), "stands");
    EXPECT_EQ(evClearTimer(ctx, id), -1);
    EXPECT_EQ(evClearTimer(ctx, nullptr) + evDeselectFD(ctx, nullptr) + evUnwait(ctx, nullptr), -3);
    EXPECT_EQ(errno, EINVAL);
}

/* --- waiters ---------------------------------------------------------------------------------------------------- */

static const char a = 0, b = 0;   // tags
static evContext signal_ctx;

TEST_F(loop, evdo_releases_exactly_those_that_stand)
{
    waiter(&b, saying("b1"));
    evWaitID unwanted = waiter(&a, saying("unwanted")), third = nullptr;
    waiter(&a, saying("a1", [&] {
        waiter(&a, saying("a4"));
        evDo(ctx, &a);
        EXPECT_EQ(evUnwait(ctx, third), 0);
        EXPECT_EQ(evTurn(ctx, 0) + evMainLoop(ctx) + evDestroy(ctx), -3);
        EXPECT_EQ(errno, EDEADLK);
    }));
    third = waiter(&a, saying("third"));
    waiter(&a, saying("a2"));
    EXPECT_EQ(evDo(ctx, &a), 0);
    waiter(&a, saying("a3"));
    EXPECT_EQ(evDo(ctx, &b) + evDo(ctx, &log), 0);   // nobody ever stood at the second
    EXPECT_EQ(evUnwait(ctx, unwanted), 0);           // released, not run
    EXPECT_EQ(turn(), "a1 a2 b1");
    EXPECT_EQ(turn(), "a3 a4");                      // what a waiter releases runs a turn later
    EXPECT_EQ(evDo(ctx, &a), 0);                     // an early one is not saved up
    waiter(&a, saying("a5"));
    EXPECT_EQ(turn(2), "");
}

TEST_F(loop, no_evdo_of_a_signal_handler_is_lost)
{
    signal_ctx = ctx;
    signal(SIGUSR1, [](int) { evDo(signal_ctx, &a); });
    waiter(&a, saying("between"));
    raise(SIGUSR1);
    EXPECT_EQ(turn(2), "between");

    waiter(&a, saying("inside"));
    timer(0, keep([] { raise(SIGUSR1); }));
    EXPECT_EQ(turn(), "");
    EXPECT_EQ(turn(), "inside");

    // Behind the loop's last look and before the kernel sleeps: only the eventfd can tell.
    waiter(&a, saying("asleep"));
    on_wait = [](int timeout_ms) { return timeout_ms == 0 || raise(SIGUSR1) == 0; };
    EXPECT_EQ(evTurn(ctx, -1), 0);
    EXPECT_EQ(counted.last_events, 1);
    EXPECT_EQ(turn(), "asleep");
    EXPECT_EQ(counted.last_events, 0);               // and it wakes only once

    waiter(&a, saying("interrupted"));
    on_wait = [](int) {
        raise(SIGUSR1);
        errno = EINTR;
        return false;
    };
    EXPECT_EQ(evTurn(ctx, -1), 0);
    on_wait = nullptr;
    EXPECT_EQ(turn(), "interrupted");
    signal(SIGUSR1, SIG_DFL);
}

TEST_F(loop, order_within_a_turn)
{
    auto [left, right] = stream();
    ASSERT_EQ(write(right, "x", 1), 1);
    evFileID writer = nullptr, late_writer = nullptr;
    file(left, EV_READ, saying("descriptor"));
    timer(0, saying("timer"));
    writer = file(right, EV_WRITE, saying("write", [&] { evDeselectFD(ctx, writer); }));
    void *late = saying("waiter's-write", [&] { evDeselectFD(ctx, late_writer); });
    waiter(&a, saying("waiter", [&, fd = left] { late_writer = file(fd, EV_WRITE, late); }));
    evDo(ctx, &a);
    EXPECT_EQ(turn(), "waiter write waiter's-write timer descriptor");
}

TEST_F(loop, main_loop_serves_descriptors_beside_endless_jobs)
{
    auto [left, right] = stream();
    ASSERT_EQ(write(right, "x", 1), 1);
    job work = [&] {
        waiter(&a, &work);
        evDo(ctx, &a);
    };
    work();
    file(left, EV_READ, saying("read"));
    on_wait = [&](int timeout_ms) {
        EXPECT_EQ(timeout_ms, 0);
        errno = EBADF;
        return log.empty();
    };
    EXPECT_EQ(evMainLoop(ctx), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(log, "read");
}
