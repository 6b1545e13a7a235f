/*
 * Descriptors: what is called when, what it costs, and that nothing out of date reaches a handler. Connections: every
 * outcome comes through the callback, at a later turn, with the descriptor as promised.
 */
#include "tests/platform/ev/loop_fixture.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/un.h>
#include <unistd.h>

static const char job_tag = 0;

static void say_events(evContext, void *uap, int, int events)
{
    *static_cast<std::string *>(uap) += std::to_string(events);
}

TEST_F(loop, a_new_writer_is_called_without_asking_the_kernel)
{
    int left = stream().first;
    evFileID writer = nullptr;
    file(left, EV_READ, saying("read"));
    EXPECT_TRUE(fcntl(left, F_GETFL) & O_NONBLOCK);
    counted = {};
    writer = file(left, EV_WRITE, saying("done", [&] { EXPECT_EQ(evDeselectFD(ctx, writer), 0); }));
    EXPECT_EQ(turn(3), "done");
    EXPECT_EQ(evDeselectFD(ctx, file(left, EV_WRITE, saying("unused"))), 0);
    EXPECT_EQ(turn(), "");
    EXPECT_EQ(counted.controls, 0);

    writer = file(left, EV_WRITE, saying("stays"));
    EXPECT_EQ(turn(), "stays stays");            // unasked once, then the kernel says so
    EXPECT_EQ(turn(), "stays");
    while (send(left, "full", 4, MSG_DONTWAIT) > 0) continue;
    EXPECT_EQ(turn(), "");
    EXPECT_EQ(counted.controls, 1);
    EXPECT_EQ(evDeselectFD(ctx, writer), 0);
    EXPECT_EQ(counted.controls, 2);
}

/* The road of a message: read, job, write, job. One epoll_wait for each, and nothing is allocated. */
TEST_F(loop, an_exchange_costs_one_wait)
{
    auto ends = stream();
    int left = ends.first, right = ends.second, exchanges = 0;
    evFileID writer = nullptr;
    job stand, reply = [&] {
        stand();
        writer = file(left, EV_WRITE, &jobs.front());
    };
    keep([&] {
        EXPECT_EQ(send(left, "y", 1, 0), 1);
        EXPECT_EQ(evDeselectFD(ctx, writer), 0);
        evDo(ctx, &log);                          // a job that only stands up again
    });
    job again = [&] { waiter(&log, &again); };
    stand = [&] { waiter(&job_tag, &reply); };
    stand();
    again();
    timer(1000, saying("timer"));
    file(left, EV_READ, keep([&] {
        char octet;
        EXPECT_EQ(recv(left, &octet, 1, 0), 1);
        evDo(ctx, &job_tag);
    }));
    on_wait = [&](int timeout_ms) {
        EXPECT_EQ(timeout_ms, 1000);
        char octet;
        EXPECT_EQ(recv(right, &octet, 1, MSG_DONTWAIT), exchanges > 0 ? 1 : -1);
        if (exchanges == 2) counted = {};
        return ++exchanges < 100 && send(right, "x", 1, 0) == 1;
    };
    EXPECT_EQ(evMainLoop(ctx), -1);
    EXPECT_EQ(exchanges, 100);
    EXPECT_EQ(counted.waits, 97);
    EXPECT_EQ(counted.allocations + counted.controls, 0);
}

TEST_F(loop, a_second_registration_of_a_kind_leaves_the_first)
{
    auto [left, right] = stream();
    evFileID reader = file(left, EV_READ, saying("reader")), both = nullptr;
    EXPECT_EQ(file(left, EV_READ, saying("second")), reader);
    evFileID writer = file(left, EV_READ | EV_WRITE, saying("writer"));   // only the missing part
    EXPECT_EQ(file(left, EV_WRITE, saying("second")), writer);
    ASSERT_EQ(write(right, "x", 1), 1);
    EXPECT_EQ(turn(), "writer reader writer");
    EXPECT_EQ(evDeselectFD(ctx, reader), 0);
    EXPECT_EQ(turn(), "writer");
    EXPECT_EQ(evDeselectFD(ctx, writer), 0);
    EXPECT_EQ(evDeselectFD(ctx, writer), -1);

    ASSERT_EQ(evSelectFD(ctx, left, EV_READ | EV_WRITE, say_events, &log, &both), 0);
    EXPECT_EQ(turn(2), "233");
    EXPECT_EQ(evDeselectFD(ctx, both), 0);
    EXPECT_EQ(turn(2), "");
}

TEST_F(loop, what_was_found_ready_reaches_no_wrong_handler)
{
    std::pair<int, int> streams[] = { stream(), stream(), stream() };
    evFileID ids[2] = {};
    int calls = 0;
    for (auto &ends : streams) ASSERT_EQ(write(ends.second, "x", 1), 1);
    // Whichever of two ready descriptors comes first removes the other; its number then gets a ready stranger.
    for (int i = 0; i < 2; i++) {
        ids[i] = file(streams[i].first, EV_READ, keep([&, i] {
            int other = streams[1 - i].first;
            if (calls++ > 0) return;
            EXPECT_EQ(evDeselectFD(ctx, ids[1 - i]), 0);
            ASSERT_EQ(dup2(streams[2].first, other), other);
            file(other, EV_READ, saying("stranger"));
        }));
    }
    EXPECT_EQ(turn(), "");
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(turn(), "stranger");
}

TEST_F(loop, a_descriptor_closed_too_early_does_no_harm)
{
    auto old = stream(), fresh = stream(), lost = stream();
    evFileID id = file(old.first, EV_READ, saying("old"));
    ASSERT_EQ(write(old.second, "x", 1), 1);
    descriptors.push_back(dup(old.first));       // keeps the kernel's registration, which cannot be reached any more
    ASSERT_EQ(dup2(fresh.first, old.first), old.first);
    EXPECT_EQ(evDeselectFD(ctx, id), 0);
    file(old.first, EV_READ, saying("fresh"));
    EXPECT_EQ(turn(2), "");

    file(lost.first, EV_READ, saying("lost"));
    ASSERT_EQ(dup2(fresh.second, lost.first), lost.first);   // the kernel forgets the number
    file(lost.first, EV_WRITE, saying("write"));
    ASSERT_EQ(write(fresh.second, "x", 1), 1);
    EXPECT_EQ(turn(), "write fresh write");
}

TEST_F(loop, a_hangup_reaches_whoever_is_registered)
{
    for (int events = EV_READ; events <= (EV_READ | EV_WRITE); events++) {
        auto ends = stream();
        evFileID id = nullptr;
        ASSERT_EQ(evSelectFD(ctx, ends.first, events, say_events, &log, &id), 0);
        while (send(ends.first, "full", 4, MSG_DONTWAIT) > 0) continue;
        turn();
        shutdown(ends.second, SHUT_RDWR);
        EXPECT_EQ(turn(), std::to_string(events));
        EXPECT_EQ(evDeselectFD(ctx, id), 0);
    }
}

/* Every call that registers, with each of its allocations failing in turn. */
TEST_F(loop, out_of_memory_leaves_everything_usable)
{
    int left = stream().first, unconnected = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un nowhere = { AF_UNIX, "/nowhere/at/all" };
    auto connected = [](evContext, void *uap, int, const void *, int, const void *, int) {
        (*static_cast<job *>(uap))();
    };
    std::function<int(void **)> calls[] = {
        [&](void **id) { return evSetTimer(ctx, call_timer, saying("timer"), {}, {}, (evTimerID *)id); },
        [&](void **id) { return evSelectFD(ctx, left, EV_WRITE, call_file, saying("write"), (evFileID *)id); },
        [&](void **id) { return evWaitFor(ctx, &job_tag, call_wait, saying("wait"), (evWaitID *)id); },
        [&](void **id) {
            return evConnect(ctx, unconnected, &nowhere, sizeof nowhere, connected, saying("connect"), (evConnID *)id);
        },
        [&](void **id) { return evCreate((evContext *)id); },
    };
    for (auto &call : calls) {
        SCOPED_TRACE(&call - calls);
        void *id = &call;
        int failures = 0;
        for (; allocation_to_fail = failures + 1, call(&id) != 0; failures++) {
            ASSERT_EQ(errno, ENOMEM);
            ASSERT_EQ(id, &call);
        }
        allocation_to_fail = 0;
        EXPECT_GT(failures, 0);
        EXPECT_NE(id, &call);
        if (&call == std::end(calls) - 1) evDestroy(static_cast<evContext>(id));
    }
    evDo(ctx, &job_tag);
    EXPECT_EQ(turn(), "wait write timer connect write");
}

/* --- connections ------------------------------------------------------------------------------------------------ */

struct outcome {
    int calls, fd, error;
    struct sockaddr_in local, remote;
};

static void connected(evContext, void *uap, int fd, const void *local, int local_len, const void *remote,
                      int remote_len)
{
    auto *seen = static_cast<struct outcome *>(uap);
    *seen = { seen->calls + 1, fd, errno, {}, {} };
    EXPECT_EQ(local_len, fd < 0 ? 0 : static_cast<int>(sizeof seen->local));
    EXPECT_EQ(remote_len, local_len);
    if (fd < 0) return;
    memcpy(&seen->local, local, sizeof seen->local);
    memcpy(&seen->remote, remote, sizeof seen->remote);
}

/* A TCP socket, and the address that it is bound to. */
static int bound_socket(struct sockaddr_in *address)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    *address = { AF_INET, 0, { htonl(INADDR_LOOPBACK) }, {} };
    socklen_t length = sizeof *address;
    EXPECT_EQ(bind(fd, reinterpret_cast<struct sockaddr *>(address), length), 0);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<struct sockaddr *>(address), &length), 0);
    return fd;
}

TEST_F(loop, a_connection_is_handed_over_blocking_with_its_addresses)
{
    struct sockaddr_in here, there;
    int fd = bound_socket(&here), listener = bound_socket(&there);
    descriptors.insert(descriptors.end(), { listener, fd });
    ASSERT_EQ(listen(listener, 1), 0);
    struct outcome seen = {};
    // Begun by a timer, so that the same turn's descriptor step finds it done already.
    timer(0, keep([&] { EXPECT_EQ(evConnect(ctx, fd, &there, sizeof there, connected, &seen, nullptr), 0); }));
    EXPECT_EQ(evTurn(ctx, 0), 1);
    EXPECT_EQ(seen.calls, 0);
    for (int i = 0; i < 5 && !seen.calls; i++) evTurn(ctx, 1000);
    turn(2);
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(seen.fd, fd);
    EXPECT_FALSE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(memcmp(&seen.local, &here, sizeof here), 0);
    EXPECT_EQ(memcmp(&seen.remote, &there, sizeof there), 0);
    file(fd, EV_WRITE, saying("its number is free for registrations"));
}

TEST_F(loop, a_failure_is_told_by_the_callback_and_closes)
{
    struct sockaddr_in refusing, nobody;
    descriptors.push_back(bound_socket(&refusing));
    nobody = refusing;
    nobody.sin_addr.s_addr = htonl(INADDR_BROADCAST);
    const struct { const struct sockaddr_in *address; int error; } rows[] = {
        { &refusing, ECONNREFUSED }, { &nobody, ENETUNREACH },   // the second is told by connect itself
    };
    for (const auto &row : rows) {
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct outcome seen = {};
        ASSERT_EQ(evConnect(ctx, fd, row.address, sizeof *row.address, connected, &seen, nullptr), 0);
        for (int i = 0; i < 5 && !seen.calls; i++) evTurn(ctx, 1000);
        turn(2);
        EXPECT_EQ(seen.calls, 1);
        EXPECT_EQ(seen.fd, -1);
        EXPECT_EQ(seen.error, row.error);
        EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    }
}

TEST_F(loop, what_can_never_work_is_refused_and_left_alone)
{
    struct sockaddr_in own, good;
    int fd = bound_socket(&own), busy = bound_socket(&good);
    descriptors.insert(descriptors.end(), { fd, busy });
    ASSERT_EQ(listen(busy, 1), 0);
    file(busy, EV_READ, saying("read"));
    const struct { int fd, length, error; } rows[] = {
        { -1, sizeof good, EBADF }, { fd, 1, EINVAL }, { busy, sizeof good, EBUSY },
    };
    for (const auto &row : rows) {
        EXPECT_EQ(evConnect(ctx, row.fd, &good, row.length, connected, nullptr, nullptr), -1);
        EXPECT_EQ(errno, row.error);
    }
    EXPECT_FALSE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(evSelectFD(ctx, -1, EV_READ, call_file, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EBADF);

    struct outcome seen = {};
    evConnID id = nullptr;
    ASSERT_EQ(evConnect(ctx, fd, &good, sizeof good, connected, &seen, &id), 0);
    EXPECT_EQ(evCancelConn(ctx, id), 0);
    EXPECT_EQ(evCancelConn(ctx, id), -1);
    turn(3);
    EXPECT_EQ(seen.calls, 0);
    EXPECT_GE(fcntl(fd, F_GETFD), 0);
}
