/*
 * Waiters, evDo from callbacks and from signal handlers, and the order within a turn.
 */
#include "tests/platform/ev/loop_fixture.h"

#include <errno.h>
#include <signal.h>
#include <unistd.h>

static const char a = 0, b = 0;   // tags
static evContext signal_ctx;

static void do_a(int)
{
    evDo(signal_ctx, &a);
}

TEST_F(loop, evdo_releases_exactly_those_that_stand)
{
    waiter(&b, saying("b1"));
    waiter(&a, saying("a1"));
    evWaitID unwanted = waiter(&a, saying("unwanted"));
    waiter(&a, saying("a2"));
    EXPECT_EQ(evDo(ctx, &a), 0);
    waiter(&a, saying("a3"));
    EXPECT_EQ(evDo(ctx, &b), 0);
    EXPECT_EQ(evDo(ctx, &log), 0);               // nobody ever stood there
    EXPECT_EQ(evUnwait(ctx, unwanted), 0);       // released, not run
    EXPECT_EQ(turn(3), "a1 a2 b1");
    EXPECT_EQ(evDo(ctx, &a), 0);
    EXPECT_EQ(turn(2), "a3");
    EXPECT_EQ(evDo(ctx, &a), 0);                 // an early one is not saved up
    waiter(&a, saying("a4"));
    EXPECT_EQ(turn(2), "");
}

TEST_F(loop, waiters_released_by_a_waiter_run_a_turn_later)
{
    evWaitID third = nullptr;
    job first = [&] {
        say("first");
        waiter(&a, saying("second"));
        evDo(ctx, &a);
        EXPECT_EQ(evUnwait(ctx, third), 0);
        EXPECT_EQ(evTurn(ctx, 0) + evMainLoop(ctx) + evDestroy(ctx), -3);
        EXPECT_EQ(errno, EDEADLK);
    };
    waiter(&a, &first);
    third = waiter(&a, saying("third"));
    evDo(ctx, &a);
    EXPECT_EQ(turn(), "first");
    EXPECT_EQ(turn(), "second");
}

TEST_F(loop, no_evdo_of_a_signal_handler_is_lost)
{
    signal_ctx = ctx;
    signal(SIGUSR1, do_a);
    waiter(&a, saying("between"));
    raise(SIGUSR1);
    EXPECT_EQ(turn(2), "between");

    waiter(&a, saying("inside"));
    timer(0, 0, keep([] { raise(SIGUSR1); }));
    EXPECT_EQ(turn(), "");
    EXPECT_EQ(turn(), "inside");

    // Behind the loop's last look and before the kernel sleeps: only the eventfd can tell.
    waiter(&a, saying("asleep"));
    on_wait = [](int timeout_ms) { return timeout_ms == 0 || raise(SIGUSR1) == 0; };
    EXPECT_EQ(evTurn(ctx, -1), 0);
    EXPECT_EQ(counted.last_events, 1);
    EXPECT_EQ(turn(), "asleep");
    EXPECT_EQ(counted.last_events, 0);           // and it wakes only once

    waiter(&a, saying("interrupted"));
    on_wait = [](int) { raise(SIGUSR1); errno = EINTR; return false; };
    EXPECT_EQ(evTurn(ctx, -1), 0);
    on_wait = nullptr;
    EXPECT_EQ(turn(), "interrupted");
    signal(SIGUSR1, SIG_DFL);
}

TEST_F(loop, order_within_a_turn)
{
    int left, right;
    std::tie(left, right) = stream();
    ASSERT_EQ(write(right, "x", 1), 1);
    evFileID writer = nullptr, late_writer = nullptr;
    file(left, EV_READ, saying("descriptor"));
    timer(0, 0, saying("timer"));
    writer = file(right, EV_WRITE, keep([&] { say("write"); evDeselectFD(ctx, writer); }));
    void *late = keep([&] { say("waiter's-write"); evDeselectFD(ctx, late_writer); });
    waiter(&a, keep([&] { say("waiter"); late_writer = file(left, EV_WRITE, late); }));
    evDo(ctx, &a);
    EXPECT_EQ(turn(), "waiter write waiter's-write timer descriptor");
}

TEST_F(loop, main_loop_serves_descriptors_beside_endless_jobs)
{
    int left, right;
    std::tie(left, right) = stream();
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

TEST_F(loop, idle_tags_are_used_again)
{
    static const char tags[2000] = {};
    for (int round = 0; round < 2; round++) {
        counted.allocations = 0;
        for (const char &tag : tags) EXPECT_EQ(evUnwait(ctx, waiter(&tag, nullptr)), 0);
    }
    EXPECT_EQ(counted.allocations, 0);
    std::list<evWaitID> all;
    for (const char &tag : tags) all.push_back(waiter(&tag, saying(std::to_string(&tag - tags))));
    evDo(ctx, &tags[1999]);
    evDo(ctx, &tags[3]);
    EXPECT_EQ(turn(), "1999 3");
}
