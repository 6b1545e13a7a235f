/*
 * Connections: every outcome comes through the callback, at a later turn, with the descriptor as promised.
 */
#include "tests/platform/ev/loop_fixture.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

struct outcome {
    int calls, fd, error;
    struct sockaddr_storage local, remote;
    int local_len, remote_len;
};

static void connected(evContext, void *uap, int fd, const void *local, int local_len, const void *remote, int remote_len)
{
    auto *seen = static_cast<struct outcome *>(uap);
    seen->error = errno;
    seen->calls++;
    seen->fd = fd;
    seen->local_len = local_len;
    seen->remote_len = remote_len;
    if (local) memcpy(&seen->local, local, static_cast<size_t>(local_len));
    if (remote) memcpy(&seen->remote, remote, static_cast<size_t>(remote_len));
}

static struct sockaddr_in loopback(in_port_t port_be)
{
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = port_be;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

static int tcp_socket()
{
    return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

/* A port of the kernel's choice, as it is in network order; listening if asked. */
static in_port_t take_port(int fd, bool listening)
{
    struct sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    EXPECT_EQ(bind(fd, reinterpret_cast<struct sockaddr *>(&address), length), 0);
    EXPECT_TRUE(!listening || listen(fd, 1) == 0);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<struct sockaddr *>(&address), &length), 0);
    return address.sin_port;
}

TEST_F(loop, a_connection_is_handed_over_blocking_with_its_addresses)
{
    int listener = tcp_socket(), fd = tcp_socket();
    descriptors.insert(descriptors.end(), { listener, fd });
    struct sockaddr_in address = loopback(take_port(listener, true));
    struct outcome seen = {};
    // Begun by a timer, so that the same turn's descriptor step finds it done already.
    timer(0, 0, keep([&] {
        evConnID id = nullptr;
        EXPECT_EQ(evConnect(ctx, fd, &address, sizeof address, connected, &seen, &id), 0);
        EXPECT_NE(id, nullptr);
        EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    }));
    EXPECT_EQ(evTurn(ctx, 0), 1);
    EXPECT_EQ(seen.calls, 0);
    for (int i = 0; i < 5 && !seen.calls; i++) evTurn(ctx, 1000);
    turn(2);
    ASSERT_EQ(seen.calls, 1);
    EXPECT_EQ(seen.fd, fd);
    EXPECT_FALSE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(seen.remote_len, static_cast<int>(sizeof address));
    EXPECT_EQ(memcmp(&seen.remote, &address, sizeof address), 0);
    EXPECT_EQ(seen.local.ss_family, AF_INET);
    file(fd, EV_WRITE, saying("its number is free for registrations"));
}

TEST_F(loop, a_failure_is_told_by_the_callback_and_closes)
{
    int reserved = tcp_socket();
    descriptors.push_back(reserved);
    struct sockaddr_in refusing = loopback(take_port(reserved, false)), nobody = loopback(refusing.sin_port);
    nobody.sin_addr.s_addr = htonl(INADDR_BROADCAST);
    struct sockaddr_un missing = {};
    missing.sun_family = AF_UNIX;
    strcpy(missing.sun_path, "/nowhere/at/all");
    const struct { const void *address; socklen_t length; int error; } rows[] = {
        { &refusing, sizeof refusing, ECONNREFUSED },
        { &missing, sizeof missing, ENOENT },               // told by connect itself
        { &nobody, sizeof nobody, ENETUNREACH },
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        int fd = socket(static_cast<const struct sockaddr *>(row.address)->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct outcome seen = {};
        ASSERT_EQ(evConnect(ctx, fd, row.address, static_cast<int>(row.length), connected, &seen, nullptr), 0);
        EXPECT_EQ(seen.calls, 0);
        for (int i = 0; i < 5 && !seen.calls; i++) evTurn(ctx, 1000);
        turn(2);
        EXPECT_EQ(seen.calls, 1);
        EXPECT_EQ(seen.fd, -1);
        EXPECT_EQ(seen.error, row.error);
        EXPECT_EQ(seen.local_len + seen.remote_len, 0);
        EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    }
}

TEST_F(loop, what_can_never_work_is_refused_and_left_alone)
{
    int fd = tcp_socket(), listener = tcp_socket();
    auto ends = stream();
    descriptors.insert(descriptors.end(), { fd, listener });
    struct sockaddr_in good = loopback(take_port(listener, true)), odd = good;
    odd.sin_family = AF_MAX;
    file(ends.second, EV_READ, saying("read"));
    struct sockaddr_un path = {};
    path.sun_family = AF_UNIX;
    const struct { int fd; const void *address; int length, error; } rows[] = {
        { -1, &good, sizeof good, EBADF },   { fd, &odd, sizeof odd, EAFNOSUPPORT }, { fd, nullptr, sizeof good, EINVAL },
        { fd, &good, 1, EINVAL },            { fd, &good, 0, EINVAL },               { ends.second, &path, sizeof path, EBUSY },
        { STDIN_FILENO + 1000, &good, sizeof good, EBADF },
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
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
