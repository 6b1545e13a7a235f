/*
 * A clock that stands unless the test moves it, and the asserts that were reported.
 */
#pragma once

#include "lib/libtarne-timers/qtimers.h"

#include <string>
#include <vector>

extern int64_t clock_ns;                        // what all clocks show
extern std::vector<std::string> reported;       // expressions, by note_assert
void note_assert(const char *text);

static constexpr int64_t clock_s = 1000000000;

static inline struct ev_timespec time_of(int64_t ns)
{
    return { int32_t(ns / clock_s), int32_t(ns % clock_s) };
}

static inline int64_t ns_of(struct ev_timespec time)
{
    return time.tv_sec * clock_s + time.tv_nsec;
}
