// The test's own clock, in the whole program, and waiting that takes no time: a poll that would wait lets
// `while_waiting` act, or lets the time pass. Link with --wrap for poll.
#pragma once

#include <functional>
#include <poll.h>
#include <time.h>

#pragma GCC diagnostic ignored "-Wmissing-declarations"   // of what is called by the linker's hand only

static int64_t clock_ms = 5000;
static std::function<void()> while_waiting;

extern "C" {

int clock_gettime(clockid_t, struct timespec *now) noexcept
{
    *now = { clock_ms / 1000, clock_ms % 1000 * 1000000 };
    return 0;
}

decltype(poll) __real_poll;
int __wrap_poll(struct pollfd *fds, nfds_t count, int timeout_ms)
{
    if (while_waiting) while_waiting();
    int ready = __real_poll(fds, count, 0);
    if (ready == 0) clock_ms += timeout_ms;
    return ready;
}

}   // extern "C"
