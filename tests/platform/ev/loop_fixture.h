/*
 * A loop under test: the clock stands unless the test moves it, the loop's system calls and allocations are counted,
 * and callbacks are lambdas that say a word each into one log.
 */
#pragma once

#include "platform/ev/ev.h"

#include <functional>
#include <gtest/gtest.h>
#include <list>
#include <stdio.h>
#include <string>

extern struct counters {
    int waits, allocations;
    int controls;                                // epoll_ctl and fcntl
    int last_timeout_ms, last_events;            // of epoll_wait
} counted;
extern int64_t now_ns;                           // what the loop's clock shows
extern int allocation_to_fail;                   // 1 fails the next one; 0 none
/* Runs before every epoll_wait, which then does not sleep, or fails with the errno at hand if this says false. */
extern std::function<bool(int timeout_ms)> on_wait;

static constexpr int64_t MS = 1000000, SECOND = 1000 * MS;
static inline struct ev_timespec time_at(int64_t ns)
{
    return { static_cast<int32_t>(ns / SECOND), static_cast<int32_t>(ns % SECOND) };
}

using job = std::function<void()>;

class loop : public testing::Test {
protected:
    loop();
    ~loop() override;

    void *keep(job work) { return &jobs.emplace_back(std::move(work)); }
    void *saying(const std::string &word, const job &then = [] {});
    std::string turn(int times = 1);             // what so many turns said; nothing is waited for
    evTimerID timer(int64_t due_ms, void *uap);
    evWaitID waiter(const void *tag, void *uap);
    evFileID file(int fd, int events, void *uap);
    std::pair<int, int> stream();                // two ends, closed with the test

    evContext ctx = nullptr;
    FILE *debug_out = fopen("/dev/null", "w");
    std::string log;
    std::list<job> jobs;
    std::list<int> descriptors;
};

/* Callbacks that run the job behind uap. */
void call_timer(evContext, void *uap, struct ev_timespec, struct ev_timespec);
void call_wait(evContext, void *uap, const void *);
void call_file(evContext, void *uap, int, int);
