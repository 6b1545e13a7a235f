#include "tests/platform/ev/loop_fixture.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

struct counters counted;
int64_t now_ns;
int allocation_to_fail;
std::function<bool(int)> on_wait;

#pragma GCC diagnostic ignored "-Wmissing-declarations"   // of what is called by the linker's hand only
extern "C" {

decltype(epoll_wait) __real_epoll_wait;
decltype(epoll_ctl) __real_epoll_ctl;
decltype(malloc) __real_malloc;
decltype(calloc) __real_calloc;
decltype(realloc) __real_realloc;
decltype(fcntl) __real_fcntl;

int clock_gettime(clockid_t clock, struct timespec *out)
{
    if (clock != CLOCK_MONOTONIC) return static_cast<int>(syscall(SYS_clock_gettime, clock, out));
    *out = { now_ns / 1000000000, now_ns % 1000000000 };
    return 0;
}

int __wrap_epoll_wait(int set, struct epoll_event *events, int count, int timeout_ms)
{
    counted.waits++;
    counted.last_timeout_ms = timeout_ms;
    if (on_wait && !on_wait(timeout_ms)) return -1;
    return counted.last_events = __real_epoll_wait(set, events, count, on_wait ? 0 : timeout_ms);
}

int __wrap_epoll_ctl(int set, int operation, int fd, struct epoll_event *event)
{
    counted.controls++;
    return __real_epoll_ctl(set, operation, fd, event);
}

int __wrap_fcntl(int fd, int command, int value)
{
    counted.controls++;
    return __real_fcntl(fd, command, value);
}

static bool allocation_fails()
{
    counted.allocations++;
    return allocation_to_fail > 0 && --allocation_to_fail == 0;
}

void *__wrap_malloc(size_t octets)               { return allocation_fails() ? nullptr : __real_malloc(octets); }
void *__wrap_calloc(size_t count, size_t octets) { return allocation_fails() ? nullptr : __real_calloc(count, octets); }
void *__wrap_realloc(void *old, size_t octets)   { return allocation_fails() ? nullptr : __real_realloc(old, octets); }

}   // extern "C"

void call_timer(evContext, void *uap, struct ev_timespec, struct ev_timespec) { (*static_cast<job *>(uap))(); }
void call_wait(evContext, void *uap, const void *)                            { (*static_cast<job *>(uap))(); }
void call_file(evContext, void *uap, int, int)                                { (*static_cast<job *>(uap))(); }

loop::loop()
{
    now_ns = 0;
    EXPECT_EQ(evCreate(&ctx), 0);
    evSetDebug(ctx, 2, debug_out);
}

loop::~loop()
{
    on_wait = nullptr;
    EXPECT_EQ(evDestroy(ctx), 0);
    fclose(debug_out);
    for (int fd : descriptors) close(fd);
}

void *loop::saying(const std::string &word, const job &then)
{
    return keep([=, this] {
        log += (log.empty() ? "" : " ") + word;
        then();
    });
}

std::string loop::turn(int times)
{
    log.clear();
    while (times-- > 0) EXPECT_GE(evTurn(ctx, 0), 0);
    return log;
}

evTimerID loop::timer(int64_t due_ms, void *uap)
{
    evTimerID id = nullptr;
    EXPECT_EQ(evSetTimer(ctx, call_timer, uap, time_at(due_ms * MS), time_at(0), &id), 0);
    return id;
}

evWaitID loop::waiter(const void *tag, void *uap)
{
    evWaitID id = nullptr;
    EXPECT_EQ(evWaitFor(ctx, tag, call_wait, uap, &id), 0);
    return id;
}

evFileID loop::file(int fd, int events, void *uap)
{
    evFileID id = nullptr;
    EXPECT_EQ(evSelectFD(ctx, fd, events, call_file, uap, &id), 0);
    return id;
}

std::pair<int, int> loop::stream()
{
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    descriptors.insert(descriptors.end(), { ends[0], ends[1] });
    return { ends[0], ends[1] };
}
