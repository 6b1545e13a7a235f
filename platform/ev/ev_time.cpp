/*
 * Times of the event library: seconds in 32 bits and nanoseconds, on the monotonic clock.
 *
 * Sums are made in 64 bits, which hold any two times. A result beyond the range of the seconds stays at the end of the
 * range instead of wrapping: a timer set for the far future must not fire at once. Timers by the hundred thousand make
 * these functions count, so nanoseconds are only divided when they are out of their range.
 */
#include "platform/ev/ev_private.h"

#include <time.h>

static constexpr int64_t NS_PER_S = 1000000000;
static constexpr int64_t NS_MAX = INT32_MAX * NS_PER_S + (NS_PER_S - 1);
static constexpr int64_t NS_MIN = INT32_MIN * NS_PER_S;

int64_t ev_time_to_ns(struct ev_timespec time)
{
    return time.tv_sec * NS_PER_S + time.tv_nsec;
}

struct ev_timespec ev_time_from_ns(int64_t ns)
{
    if (ns > NS_MAX) ns = NS_MAX;
    if (ns < NS_MIN) ns = NS_MIN;
    int64_t seconds = ns / NS_PER_S - (ns % NS_PER_S < 0);
    return { static_cast<int32_t>(seconds), static_cast<int32_t>(ns - seconds * NS_PER_S) };
}

int64_t ev_now_ns(void)
{
    struct timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);   // cannot fail for this clock
    return now.tv_sec * NS_PER_S + now.tv_nsec;
}

/* Seconds and nanoseconds that each fit into 34 bits, brought into range. */
static struct ev_timespec in_range(int64_t seconds, int64_t nanoseconds)
{
    if (nanoseconds < 0 || nanoseconds >= NS_PER_S || seconds != static_cast<int32_t>(seconds))
        return ev_time_from_ns(seconds * NS_PER_S + nanoseconds);
    return { static_cast<int32_t>(seconds), static_cast<int32_t>(nanoseconds) };
}

struct ev_timespec evConsTime(int32_t sec, int32_t nsec)
{
    return in_range(sec, nsec);
}

struct ev_timespec evNowTime(void)
{
    struct timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);   // cannot fail for this clock
    return in_range(now.tv_sec, now.tv_nsec);
}

struct ev_timespec evAddTime(struct ev_timespec a, struct ev_timespec b)
{
    return in_range(int64_t{ a.tv_sec } + b.tv_sec, int64_t{ a.tv_nsec } + b.tv_nsec);
}

struct ev_timespec evSubTime(struct ev_timespec a, struct ev_timespec b)
{
    return in_range(int64_t{ a.tv_sec } - b.tv_sec, int64_t{ a.tv_nsec } - b.tv_nsec);
}

int evCmpTime(struct ev_timespec a, struct ev_timespec b)
{
    if (a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec) return 0;
    return ev_time_to_ns(a) < ev_time_to_ns(b) ? -1 : 1;
}

struct ev_timespec __evConsTime(int32_t sec, int32_t nsec)                        { return evConsTime(sec, nsec); }
struct ev_timespec __evNowTime(void)                                              { return evNowTime(); }
struct ev_timespec __evAddTime(struct ev_timespec a, struct ev_timespec b)        { return evAddTime(a, b); }
struct ev_timespec __evSubTime(struct ev_timespec a, struct ev_timespec b)        { return evSubTime(a, b); }
int __evCmpTime(struct ev_timespec a, struct ev_timespec b)                       { return evCmpTime(a, b); }
