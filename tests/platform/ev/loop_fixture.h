/*
 * A loop under test: the clock stands unless the test moves it, the loop's system calls and allocations are counted,
 * and callbacks are lambdas that say a word each into one log.
 */
#pragma once

#include <functional>
#include <gtest/gtest.h>
#include <list>
#include <stdio.h>
#include <string>
#include <tuple>
#include "platform/ev/ev.h"

struct counters {
    int waits, controls, fcntls, allocations;
    int last_timeout_ms, last_events;            // of epoll_wait
};
extern struct counters counted;
extern int64_t now_ns;                           // what the loop's clock shows
extern int allocation_to_fail;                   // 1 fails the next one; 0 none
/* Runs before every epoll_wait, which then does not sleep, or fails with the errno at hand if this says false. */
extern std::function<bool(int timeout_ms)> on_wait;

static constexpr int64_t MS = 1000000;

using job = std::function<void()>;

class loop : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    void *keep(job work) { return &jobs.emplace_back(std::move(work)); }
    void say(const std::string &word) { log += (log.empty() ? "" : " ") + word; }
    void *saying(const std::string &word) { return keep([=, this] { say(word); }); }
    /* What one turn, or several, said; nothing is waited for. */
    std::string turn(int times = 1);
    evTimerID timer(int64_t due_ms, int64_t inter_ms, void *uap);
    evWaitID waiter(const void *tag, void *uap);
    evFileID file(int fd, int events, void *uap);
    /* Two ends of a stream, closed with the test. */
    std::pair<int, int> stream();

    evContext ctx = nullptr;
    FILE *debug_out = nullptr;
    std::string log;
    std::list<job> jobs;
    std::list<int> descriptors;
};

/* Callbacks that run the job behind uap. */
void call_timer(evContext, void *uap, struct ev_timespec, struct ev_timespec);
void call_wait(evContext, void *uap, const void *);
void call_file(evContext, void *uap, int, int);

struct ev_timespec time_at(int64_t ms);
