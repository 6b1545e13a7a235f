/*
 * Daemon timers against libevent's, in one run: what 100,000 timers cost to start, to start again and to stop, per
 * operation. Best of some rounds.
 *
 * "in order" is what the tree is made for: timers of one interval, started one after the other. "random" starts timers
 * of random intervals below one parent, whose list is then searched from the tail: the cost grows with the number of
 * timers, so it is shown for several. "few intervals" is the way out: each interval has its own shared parent. A
 * restart in these two gives a timer another interval than it had, so that it really moves.
 *
 * Every start reads the clock, on both sides; a first row tells what part of each figure that is.
 */
#include "lib/libtarne-timers/qtimers.h"

#include <event2/event.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <vector>

namespace {

enum { TIMERS = 100000, ROUNDS = 5, SECONDS = 1000, CLOCK_READS = 1000000 };

double now_ns()
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return double(time.tv_sec) * 1e9 + double(time.tv_nsec);
}

struct figures {
    double start = 1e18, restart = 1e18, stop = 1e18;   // ns for each timer
};

struct workload {
    size_t count;
    std::vector<uint32_t> seconds, new_seconds;   // interval of each timer at its start and at its restart
    std::vector<size_t> restarts, stops;          // orders
};

/* One interval is in order; of more, each timer takes any, and the restarts come in any order. */
workload make_workload(size_t count, uint32_t intervals)
{
    std::mt19937 random(7);
    workload w = { count, std::vector<uint32_t>(count), {}, std::vector<size_t>(count), {} };
    for (uint32_t &seconds : w.seconds)
        seconds = SECONDS + random() % intervals;
    w.new_seconds = w.seconds;
    std::iota(w.restarts.begin(), w.restarts.end(), 0);
    if (intervals > 1) {
        std::shuffle(w.new_seconds.begin(), w.new_seconds.end(), random);
        std::shuffle(w.restarts.begin(), w.restarts.end(), random);
    }
    w.stops = w.restarts;
    std::shuffle(w.stops.begin(), w.stops.end(), random);
    return w;
}

template <typename body> double timed(size_t count, body run)
{
    double begin = now_ns();
    run();
    return (now_ns() - begin) / double(count);
}

template <typename starter, typename stopper>
void run_round(const workload &w, figures &best, starter start, stopper stop)
{
    best.start = std::min(best.start, timed(w.count, [&] {
                              for (size_t i = 0; i < w.count; i++)
                                  start(i, w.seconds[i]);
                          }));
    best.restart = std::min(best.restart, timed(w.count, [&] {
                                for (size_t i : w.restarts)
                                    start(i, w.new_seconds[i]);
                            }));
    best.stop = std::min(best.stop, timed(w.count, [&] {
                             for (size_t i : w.stops)
                                 stop(i);
                         }));
}

void ignore(struct qtimer *, uintptr_t)
{
}

void ignore_event(evutil_socket_t, short, void *)
{
}

figures run_ours(const workload &w, bool autoparent)
{
    evContext evctx;
    figures best;
    if (evCreate(&evctx) < 0)
        return best;
    struct qtimer_ctx *ctx = qtimer_init(evctx, nullptr);
    std::vector<struct qtimer *> timers(w.count);
    for (auto &timer : timers)
        timer = qtimer_create_leaf(ctx, nullptr, ignore, 0);
    for (int round = 0; round < ROUNDS; round++) {
        run_round(
            w, best,
            [&](size_t i, uint32_t seconds) {
                if (autoparent)
                    qtimer_start_autoparent_oneshot(timers[i], seconds, 0);
                else
                    qtimer_start_oneshot(timers[i], seconds, 0);
            },
            [&](size_t i) { qtimer_stop(timers[i]); });
    }
    for (struct qtimer *timer : timers)
        qtimer_destroy(timer);
    evDestroy(evctx);
    free(ctx);
    return best;
}

figures run_theirs(const workload &w)
{
    // On the same clock: without the flag it reads one that ticks every few milliseconds.
    struct event_config *config = event_config_new();
    event_config_set_flag(config, EVENT_BASE_FLAG_PRECISE_TIMER);
    struct event_base *base = event_base_new_with_config(config);
    event_config_free(config);
    std::vector<struct event *> timers(w.count);
    figures best;
    for (auto &timer : timers)
        timer = evtimer_new(base, ignore_event, nullptr);
    for (int round = 0; round < ROUNDS; round++) {
        run_round(
            w, best,
            [&](size_t i, uint32_t seconds) {
                const struct timeval interval = { time_t(seconds), 0 };
                evtimer_add(timers[i], &interval);
            },
            [&](size_t i) { evtimer_del(timers[i]); });
    }
    for (struct event *timer : timers)
        event_free(timer);
    event_base_free(base);
    return best;
}

void print_row(const char *what, size_t count, double ours, double theirs, const char *goal)
{
    printf("timers %-34s %7zu  %10.1f ns  libevent %10.1f ns  ratio %.3f%s\n", what, count, ours, theirs, theirs / ours,
           goal);
}

void print_rows(const char *name, size_t count, const figures &ours, const figures &theirs, const char *goal)
{
    char what[64];
    snprintf(what, sizeof what, "%s start", name);
    print_row(what, count, ours.start, theirs.start, goal);
    snprintf(what, sizeof what, "%s restart", name);
    print_row(what, count, ours.restart, theirs.restart, "");
    snprintf(what, sizeof what, "%s stop", name);
    print_row(what, count, ours.stop, theirs.stop, "");
}

}   // namespace

int main()
{
    printf("timers %-34s %7d  %10.1f ns\n", "one clock read", CLOCK_READS, timed(CLOCK_READS, [] {
               for (int i = 0; i < CLOCK_READS; i++)
                   now_ns();
           }));
    workload in_order = make_workload(TIMERS, 1);
    print_rows("in order, autoparent", TIMERS, run_ours(in_order, true), run_theirs(in_order), "  goal 1.5");
    workload few = make_workload(TIMERS, 100);
    print_rows("few intervals, autoparent", TIMERS, run_ours(few, true), run_theirs(few), "  goal 0.33");
    for (size_t count : { 10UL, 100UL, 1000UL, 10000UL }) {
        workload random = make_workload(count, 100000);
        print_rows("random, one parent", count, run_ours(random, false), run_theirs(random), "  goal 0.33");
    }
    return 0;
}
