/*
 * Pair: two processes, pinned to one processor, at the two ends of a TCP connection over loopback.
 *
 * On one processor nothing runs in parallel, so a time is the work of both ends and of the kernel between them. It does
 * not depend on how many processors a machine has or how fast one wakes another.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

/* What both ends are to do. */
struct load {
    int32_t messages;       // to send from the measuring end
    int32_t octets;         // payload of each
    int32_t reply_octets;   // payload of each answer
    int32_t outstanding;    // messages sent and not answered at one time
};

/* One end. fd is connected, blocking, with TCP_NODELAY. The end lives in a process of its own, and may leave it. */
typedef void (*pair_end)(int fd, const struct load &load);

enum { PAIR_LIMIT_S = 30 };   // no end may take longer

/* Runs both ends until both processes are gone. The seconds that the measuring end reported. A failure of either ends
 * the program with a message. */
double pair_run(pair_end measuring, pair_end other, const struct load &load);

/* Called by the measuring end as it begins and ends its work; the latter ends its process. */
void pair_begin();
[[noreturn]] void pair_finish();

/* Connects two descriptors of this process over loopback TCP. */
void pair_connect(int ends[2]);

/* Leaves the process with a message about what failed and errno. */
[[noreturn]] void fail(const char *what);
