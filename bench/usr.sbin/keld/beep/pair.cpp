/*
 * Pair: sets up the connection and the two processes, and brings the measured time back through a pipe.
 *
 * The processor is the last one that the program may use; the first is where machines like to put their interrupts.
 * Each process has an alarm, so a protocol that hangs is a failure and not a program that never ends.
 */
#include "bench/usr.sbin/keld/beep/pair.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static int report_fd = -1;
static struct timespec begun;

void fail(const char *what)
{
    fprintf(stderr, "beep_bench: %s: %s\n", what, strerror(errno));
    _exit(EXIT_FAILURE);
}

void pair_begin()
{
    clock_gettime(CLOCK_MONOTONIC, &begun);
}

void pair_finish()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    double seconds = static_cast<double>(now.tv_sec - begun.tv_sec);
    seconds += static_cast<double>(now.tv_nsec - begun.tv_nsec) / 1e9;
    if (write(report_fd, &seconds, sizeof seconds) != sizeof seconds) fail("reporting a time");
    _exit(EXIT_SUCCESS);
}

static void set_nodelay(int fd)
{
    int on = 1;
    if (setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) fail("TCP_NODELAY");
}

void pair_connect(int ends[2])
{
    struct sockaddr_in address = {};
    socklen_t length = sizeof address;
    auto *generic = reinterpret_cast<struct sockaddr *>(&address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);

    int listener = socket(AF_INET, SOCK_STREAM, 0);
    if (bind(listener, generic, length) != 0 || listen(listener, 1) != 0) fail("listening on loopback");
    if (getsockname(listener, generic, &length) != 0) fail("getsockname");
    ends[0] = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(ends[0], generic, length) != 0) fail("connecting over loopback");
    ends[1] = accept(listener, nullptr, nullptr);
    if (ends[1] < 0) fail("accepting over loopback");
    set_nodelay(ends[0]);
    set_nodelay(ends[1]);
    close(listener);
}

static void pin_to_last_processor()
{
    cpu_set_t allowed, chosen;
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) fail("sched_getaffinity");
    int last = CPU_SETSIZE - 1;
    while (last > 0 && !CPU_ISSET(last, &allowed)) last--;
    CPU_ZERO(&chosen);
    CPU_SET(last, &chosen);
    if (sched_setaffinity(0, sizeof chosen, &chosen) != 0) fail("sched_setaffinity");
}

static pid_t start_end(pair_end end, int fd, int other_fd, const struct load &load)
{
    pid_t pid = fork();
    if (pid < 0) fail("fork");
    if (pid > 0) return pid;
    alarm(PAIR_LIMIT_S);
    close(other_fd);
    pin_to_last_processor();
    end(fd, load);
    _exit(EXIT_SUCCESS);
}

static void await_end(pid_t pid, const char *which)
{
    int status;
    if (waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS) return;
    fprintf(stderr, "beep_bench: the %s end failed, status %#x\n", which, static_cast<unsigned>(status));
    exit(EXIT_FAILURE);
}

double pair_run(pair_end measuring, pair_end other, const struct load &load)
{
    int report[2], ends[2];
    if (pipe(report) != 0) fail("pipe");
    pair_connect(ends);
    report_fd = report[1];
    pid_t other_pid = start_end(other, ends[1], ends[0], load);
    pid_t measuring_pid = start_end(measuring, ends[0], ends[1], load);
    close(report[1]);
    close(ends[0]);
    close(ends[1]);

    double seconds = 0;
    ssize_t got = read(report[0], &seconds, sizeof seconds);
    close(report[0]);
    await_end(measuring_pid, "measuring");
    await_end(other_pid, "other");
    if (got != sizeof seconds || seconds <= 0) {
        fprintf(stderr, "beep_bench: no time was reported\n");
        exit(EXIT_FAILURE);
    }
    return seconds;
}
