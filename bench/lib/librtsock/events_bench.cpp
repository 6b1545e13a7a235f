/*
 * Benchmark of events: 100,000 changes of addresses of Linux dispatched to a handler, beside `ip monitor` reading the
 * same (in a network namespace of its own; left out where that is not permitted), with the allocations for each event;
 * and a storm of 1,000,000 events from the model, during which another descriptor of the loop must be served.
 */
#include "lib/librtsock/rtslib.h"
#include "lib/librtsock/rtslib_async.h"
#include "platform/ev/ev.h"
#include "platform/rtsock/linux/rtsock_linux.h"
#include "platform/rtsock/model/rtsock_model.h"

#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

namespace {

constexpr int ADDRESSES = 1000, TIMES = 50, CHANGES = 2 * ADDRESSES * TIMES, STORM = 1000000, BOTH_FLAGS = 5;

double now_us()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) * 1e6 + double(now.tv_nsec) / 1e3;
}

void must(bool right, const char *what)
{
    if (right) return;
    fprintf(stderr, "events_bench: %s\n", what);
    exit(EXIT_FAILURE);
}

uint64_t heard, blocks, served;

void count_event(struct rtslib_cookie *cookie, uintptr_t, void *message, void *)
{
    heard++;
    rtslib_msg_idl_release(cookie, message);
}

void *counted_calloc(uint16_t, size_t count, size_t size)
{
    blocks++;
    return calloc(count, size);
}

void *counted_malloc(uint16_t, size_t size)
{
    blocks++;
    return malloc(size);
}

struct rtslib_cookie *listener(evContext loop)
{
    struct rtslib_cookie *cookie = rtslib_open(3);
    must(cookie != nullptr && rtslib_set_async_context(cookie, loop) == 0 &&
         rtslib_set_async_mode(cookie, RTSLIB_ASYNC_ON) == 0 &&
         rtslib_ifam_async_register(cookie, BOTH_FLAGS, 0, count_event) == 0, "no connection");
    return cookie;
}

/* Adds and deletes addresses on lo, over and over, in a process of its own. */
pid_t change_addresses()
{
    pid_t pid = fork();
    if (pid != 0) return pid;
    FILE *batch = popen("ip -batch -", "w");
    if (batch == nullptr) _exit(1);
    for (int i = 0; i < CHANGES; i++)
        fprintf(batch, "address %s 10.0.%d.%d/32 dev lo\n", i / ADDRESSES % 2 == 0 ? "add" : "del",
                i % ADDRESSES / 250, i % 250 + 1);
    _exit(pclose(batch) == 0 ? 0 : 1);
}

double cpu_us()
{
    struct timespec spent;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &spent);
    return double(spent.tv_sec) * 1e6 + double(spent.tv_nsec) / 1e3;
}

/* Processor time of the listener for each change. */
double listen_us()
{
    evContext loop;
    must(evCreate(&loop) == 0, "no loop");
    struct rtslib_cookie *cookie = listener(loop);
    heard = blocks = 0;
    pid_t pid = change_addresses();
    double start = cpu_us(), last = now_us();
    for (uint64_t before = 0; heard < uint64_t(CHANGES) && now_us() - last < 5e6;) {
        evTurn(loop, 1000);
        if (heard != before) last = now_us();
        before = heard;
    }
    double took = cpu_us() - start;
    int status = 0;
    waitpid(pid, &status, 0);
    rtslib_close(cookie);
    evDestroy(loop);
    must(heard >= uint64_t(CHANGES), "changes were lost");
    return took / double(heard);
}

/* The same of `ip monitor`. */
double monitor_us()
{
    pid_t monitor = fork();
    if (monitor == 0) {
        must(freopen("/dev/null", "w", stdout) != nullptr, "/dev/null");
        execlp("ip", "ip", "monitor", "address", static_cast<char *>(nullptr));
        _exit(127);
    }
    usleep(200000);
    pid_t pid = change_addresses();
    int status = 0;
    waitpid(pid, &status, 0);
    usleep(500000);
    char path[64], line[512] = "";
    snprintf(path, sizeof path, "/proc/%d/stat", int(monitor));
    FILE *stat = fopen(path, "r");
    must(stat != nullptr && fgets(line, sizeof line, stat) != nullptr, "ip monitor has ended");
    fclose(stat);
    unsigned long user = 0, system = 0;
    const char *rest = strrchr(line, ')');
    must(rest != nullptr && sscanf(rest + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user, &system) == 2,
         "stat");
    kill(monitor, SIGTERM);
    waitpid(monitor, nullptr, 0);
    return double(user + system) * 1e6 / double(sysconf(_SC_CLK_TCK)) / CHANGES;
}

void other_readable(evContext, void *, int, int)
{
    served++;
}

/* Turns of the loop and turns in which the other descriptor was served, during a storm. */
void storm()
{
    evContext loop;
    char error[128];
    must(evCreate(&loop) == 0, "no loop");
    rtsock_set_kernel(&rtsock_model);
    must(rtsock_model_line("device ge-0 index 1", error, sizeof error) == 0 &&
         rtsock_model_line("unit ge-0.0 index 1", error, sizeof error) == 0 &&
         rtsock_model_line("family 1 inet", error, sizeof error) == 0, error);
    struct rtslib_cookie *cookie = listener(loop);
    int other = eventfd(1, EFD_NONBLOCK);
    must(evSelectFD(loop, other, EV_READ, other_readable, nullptr, nullptr) == 0, "other descriptor");
    struct ifa_msg record = {};
    record.ifl_idx = 1;
    record.af = 2;
    heard = served = 0;
    double start = now_us();
    uint64_t turns = 0, most = 0, before;
    for (int sent = 0; heard < STORM; turns++) {
        for (int i = 0; i < 50000 && sent < STORM; i++, sent++)
            rk_event_all(rtsock_model_kernel(), nullptr, 0x28, 0, 8, RTM_OP_ADD, &record);
        do {
            before = heard;
            evTurn(loop, 0);
            most = std::max(most, heard - before);
            turns += heard != before;
        } while (heard != before);
    }
    printf("%-42s %10.2f   most events in a turn %llu, other descriptor served in %llu of %llu turns\n",
           "storm of 1,000,000 events [us each]", (now_us() - start) / STORM, static_cast<unsigned long long>(most),
           static_cast<unsigned long long>(std::min(served, turns)), static_cast<unsigned long long>(turns));
    rtslib_close(cookie);
    evDestroy(loop);
    close(other);
}

}   // namespace

int main()
{
    rtslib_malloc = counted_malloc;
    rtslib_calloc = counted_calloc;
    rtsock_set_kernel(&rtsock_linux);
    if (unshare(CLONE_NEWNET) == 0 && system("ip link set lo up") == 0) {
        double figure = listen_us(), each = double(blocks) / double(heard), base = monitor_us();
        printf("%-42s %10.2f %10.2f %7.2f   at least 1%s\n", "100,000 address events, base ip [us cpu]", figure, base,
               base / figure, base < figure ? "   MISSED" : "");
        printf("%-42s %10.2f %10.2f %7.2f   at most 1%s\n", "allocations for each event", each, 1.0, each,
               each > 1.01 ? "   MISSED" : "");
    } else {
        printf("%-42s left out: no network namespace, or no `ip`\n", "address events");
    }
    storm();
    return EXIT_SUCCESS;
}
