/*
 * Descriptors: what is called when, what it costs, and that nothing out of date reaches a handler.
 */
#include "tests/platform/ev/loop_fixture.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static const char job_tag = 0;

static void say_events(evContext, void *uap, int, int events)
{
    *static_cast<std::string *>(uap) += std::to_string(events);
}

TEST_F(loop, a_new_writer_is_called_without_asking_the_kernel)
{
    int left, right;
    std::tie(left, right) = stream();
    evFileID writer = nullptr;
    file(left, EV_READ, saying("read"));
    EXPECT_TRUE(fcntl(left, F_GETFL) & O_NONBLOCK);
    counted = {};
    writer = file(left, EV_WRITE, keep([&] { say("done"); EXPECT_EQ(evDeselectFD(ctx, writer), 0); }));
    EXPECT_EQ(turn(3), "done");
    evFileID unused = file(left, EV_WRITE, saying("unused"));
    EXPECT_EQ(evDeselectFD(ctx, unused), 0);
    EXPECT_EQ(turn(), "");
    EXPECT_EQ(counted.controls + counted.fcntls, 0);

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
    int left, right, exchanges = 0;
    std::tie(left, right) = stream();
    evFileID writer = nullptr;
    job stand, reply = [&] {
        stand();
        (void)evSelectFD(ctx, left, EV_WRITE, call_file, &jobs.front(), &writer);
    };
    jobs.push_back([&] {
        EXPECT_EQ(send(left, "y", 1, 0), 1);
        EXPECT_EQ(evDeselectFD(ctx, writer), 0);
        evDo(ctx, &log);                          // a job that only stands up again
    });
    job again = [&] { (void)evWaitFor(ctx, &log, call_wait, &again, nullptr); };
    stand = [&] { (void)evWaitFor(ctx, &job_tag, call_wait, &reply, nullptr); };
    stand();
    again();
    timer(1000, 0, saying("timer"));
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
    EXPECT_EQ(counted.allocations + counted.controls + counted.fcntls, 0);
}

TEST_F(loop, a_second_registration_of_a_kind_leaves_the_first)
{
    int left, right;
    std::tie(left, right) = stream();
    evFileID reader = file(left, EV_READ, saying("reader"));
    EXPECT_EQ(file(left, EV_READ, saying("second")), reader);
    evFileID writer = file(left, EV_READ | EV_WRITE, saying("writer"));   // only the missing part
    EXPECT_NE(writer, reader);
    EXPECT_EQ(file(left, EV_WRITE, saying("second")), writer);
    ASSERT_EQ(write(right, "x", 1), 1);
    EXPECT_EQ(turn(), "writer reader writer");
    EXPECT_EQ(evDeselectFD(ctx, reader), 0);
    EXPECT_EQ(turn(), "writer");
    EXPECT_EQ(evDeselectFD(ctx, writer), 0);
    EXPECT_EQ(evDeselectFD(ctx, writer), -1);

    evFileID both = nullptr;
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
    // Whichever of two ready descriptors comes first removes the other; its number then gets a ready stranger.
    for (int i = 0; i < 2; i++) {
        ASSERT_EQ(write(streams[i].second, "x", 1), 1);
        ids[i] = file(streams[i].first, EV_READ, keep([&, i] {
            calls++;
            int other = streams[1 - i].first;
            if (calls > 1) return;
            EXPECT_EQ(evDeselectFD(ctx, ids[1 - i]), 0);
            ASSERT_EQ(dup2(streams[2].first, other), other);
            file(other, EV_READ, saying("stranger"));
        }));
    }
    ASSERT_EQ(write(streams[2].second, "x", 1), 1);
    EXPECT_EQ(turn(), "");
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(turn(), "stranger");
    EXPECT_EQ(calls, 2);
}

TEST_F(loop, a_descriptor_closed_too_early_does_no_harm)
{
    auto old = stream(), fresh = stream();
    evFileID id = file(old.first, EV_READ, saying("old"));
    ASSERT_EQ(write(old.second, "x", 1), 1);
    int still_open = dup(old.first);             // keeps the kernel's registration, which cannot be reached any more
    ASSERT_EQ(dup2(fresh.first, old.first), old.first);
    EXPECT_EQ(evDeselectFD(ctx, id), 0);
    id = file(old.first, EV_READ, saying("fresh"));
    EXPECT_EQ(turn(2), "");
    ASSERT_EQ(write(fresh.second, "x", 1), 1);
    EXPECT_EQ(turn(), "fresh");
    close(still_open);

    auto lost = stream();
    id = file(lost.first, EV_READ, saying("lost"));
    ASSERT_EQ(dup2(fresh.second, lost.first), lost.first);          // the kernel forgets the number
    evFileID writer = file(lost.first, EV_WRITE, saying("write"));
    EXPECT_EQ(turn(), "write fresh write");
    close(lost.first);
    descriptors.remove(lost.first);
    EXPECT_EQ(evDeselectFD(ctx, id), 0);
    EXPECT_EQ(evDeselectFD(ctx, writer), 0);
}

TEST_F(loop, a_hangup_reaches_whoever_is_registered)
{
    static const struct { int events; const char *said; } rows[] = {
        { EV_READ, "1" }, { EV_WRITE, "2" }, { EV_READ | EV_WRITE, "3" },
    };
    for (const auto &row : rows) {
        auto ends = stream();
        evFileID id = nullptr;
        ASSERT_EQ(evSelectFD(ctx, ends.first, row.events, say_events, &log, &id), 0);
        while (send(ends.first, "full", 4, MSG_DONTWAIT) > 0) continue;
        turn();
        close(ends.second);
        descriptors.remove(ends.second);
        EXPECT_EQ(turn(), row.said);
        EXPECT_EQ(evDeselectFD(ctx, id), 0);
    }
}

TEST_F(loop, descriptors_that_cannot_be_watched)
{
    int plain = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    descriptors.push_back(plain);
    static const struct { int fd_offset, events, error; } rows[] = {
        { 0, EV_READ, EPERM }, { 1000, EV_READ, EBADF }, { 1000, EV_WRITE, EBADF }, { -1000, EV_READ, EBADF },
        { 0, 0, EINVAL }, { 0, 4, EINVAL },
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        evFileID id = nullptr;
        EXPECT_EQ(evSelectFD(ctx, plain + row.fd_offset, row.events, call_file, nullptr, &id), -1);
        EXPECT_EQ(errno, row.error);
        EXPECT_EQ(id, nullptr);
    }
    file(plain, EV_WRITE, saying("write"));
    EXPECT_EQ(turn(3), "write write write");
}

/* Every call that registers, with each of its allocations failing in turn. */
TEST_F(loop, out_of_memory_leaves_everything_usable)
{
    int left, right, unconnected = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::tie(left, right) = stream();
    descriptors.push_back(unconnected);
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
    descriptors.remove(unconnected);              // the failed connection closes it
    evDo(ctx, &job_tag);
    EXPECT_EQ(turn(), "wait write timer connect write");
}
