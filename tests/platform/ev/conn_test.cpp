/*
 * Connections: every outcome comes through the callback, at a later turn, with the descriptor as promised.
 */
#include "tests/platform/ev/loop_fixture.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

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
    if (local) memcpy(&seen->local, local, sizeof seen->local);
    if (remote) memcpy(&seen->remote, remote, sizeof seen->remote);
}

/* A TCP socket, and the address that it is bound to. */
static int bound_socket(struct sockaddr_in *address)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    *address = {};
    address->sin_family = AF_INET;
    address->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
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
    timer(0, 0, keep([&] { EXPECT_EQ(evConnect(ctx, fd, &there, sizeof there, connected, &seen, nullptr), 0); }));
    EXPECT_EQ(evTurn(ctx, 0), 1);
    EXPECT_EQ(seen.calls, 0);
    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
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
    const struct sockaddr_un missing = { AF_UNIX, "/nowhere/at/all" };
    const struct { const void *address; int length, error; } rows[] = {
        { &refusing, sizeof refusing, ECONNREFUSED },
        { &missing, sizeof missing, ENOENT },               // told by connect itself
        { &nobody, sizeof nobody, ENETUNREACH },
    };
    for (const auto &row : rows) {
        int fd = socket(static_cast<const struct sockaddr *>(row.address)->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct outcome seen = {};
        ASSERT_EQ(evConnect(ctx, fd, row.address, row.length, connected, &seen, nullptr), 0);
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
    struct sockaddr_in odd = good;
    odd.sin_family = AF_MAX;
    const struct { int fd; const void *address; int length, error; } rows[] = {
        { -1, &good, sizeof good, EBADF }, { 1000, &good, sizeof good, EBADF }, { fd, &odd, sizeof odd, EAFNOSUPPORT },
        { fd, nullptr, sizeof good, EINVAL }, { fd, &good, 1, EINVAL }, { busy, &good, sizeof good, EBUSY },
    };
    for (const auto &row : rows) {
        EXPECT_EQ(evConnect(ctx, row.fd, row.address, row.length, connected, nullptr, nullptr), -1);
        EXPECT_EQ(errno, row.error);
    }
    EXPECT_FALSE(fcntl(fd, F_GETFL) & O_NONBLOCK);

    struct outcome seen = {};
    evConnID id = nullptr;
    ASSERT_EQ(evConnect(ctx, fd, &good, sizeof good, connected, &seen, &id), 0);
    EXPECT_EQ(evCancelConn(ctx, id), 0);
    EXPECT_EQ(evCancelConn(ctx, id), -1);
    turn(3);
    EXPECT_EQ(seen.calls, 0);
    EXPECT_GE(fcntl(fd, F_GETFD), 0);
}
