/*
 * Times of the event library: seconds in 32 bits and nanoseconds, on the monotonic clock.
 *
 * All arithmetic goes through 64-bit nanoseconds, which hold the sum of any two times. A result beyond the range of the
 * seconds stays at the end of the range instead of wrapping: a timer set for the far future must not fire at once.
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

struct ev_timespec evConsTime(int32_t sec, int32_t nsec)
{
    return ev_time_from_ns(ev_time_to_ns({ sec, nsec }));
}

struct ev_timespec evNowTime(void)
{
    return ev_time_from_ns(ev_now_ns());
}

struct ev_timespec evAddTime(struct ev_timespec a, struct ev_timespec b)
{
    return ev_time_from_ns(ev_time_to_ns(a) + ev_time_to_ns(b));
}

struct ev_timespec evSubTime(struct ev_timespec a, struct ev_timespec b)
{
    return ev_time_from_ns(ev_time_to_ns(a) - ev_time_to_ns(b));
}

int evCmpTime(struct ev_timespec a, struct ev_timespec b)
{
    int64_t left = ev_time_to_ns(a), right = ev_time_to_ns(b);
    return (left > right) - (left < right);
}

struct ev_timespec __evConsTime(int32_t sec, int32_t nsec)                        { return evConsTime(sec, nsec); }
struct ev_timespec __evNowTime(void)                                              { return evNowTime(); }
struct ev_timespec __evAddTime(struct ev_timespec a, struct ev_timespec b)        { return evAddTime(a, b); }
struct ev_timespec __evSubTime(struct ev_timespec a, struct ev_timespec b)        { return evSubTime(a, b); }
int __evCmpTime(struct ev_timespec a, struct ev_timespec b)                       { return evCmpTime(a, b); }
