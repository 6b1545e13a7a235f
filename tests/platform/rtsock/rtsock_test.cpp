/*
 * The socket layer above a kernel that answers each write with its own octets, and the target's numbers.
 */
#include "platform/rtsock/rtsock.h"
#include "platform/target.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <sys/eventfd.h>

static bool kernel_refuses;
static int peer, closed, source = -1;
static std::string called;

static const rtsock_kernel echo = {
    "echo",
    [](int fd, void **state) { return peer = fd, *state = &peer, errno = EPERM, kernel_refuses ? -1 : 0; },
    [](void *state) { closed += state == &peer; },
    [](void *, const void *octets, size_t length) { return send(peer, octets, length, 0); },
    [](void *, int option, void *, socklen_t *) { return called = "get " + std::to_string(option), 0; },
    [](void *, int option, const void *, socklen_t) { return called = "set " + std::to_string(option), 0; },
    [](const int *, unsigned count, void *, size_t *) { return called = "sysctl " + std::to_string(count), 0; },
    [](const char *name, void *, size_t *, const void *, size_t) { return called = name, 0; },
    [](int fd, uint32_t table) { return called = "table " + std::to_string(table), fd; },
    [](int fd, uint32_t ifl) { return called = "interface " + std::to_string(ifl), fd; },
    [](void *) { return source; },
    [](void *) {
        uint64_t count;
        if (source >= 0 && read(source, &count, sizeof count) > 0) { EXPECT_EQ(send(peer, "event", 5, 0), 5); }
    },
};

TEST(RoutingSocket, WaitsForTheKernelsSourceToo)
{
    rtsock_set_kernel(&echo);
    source = eventfd(0, EFD_NONBLOCK);
    int fd = rtsock_open();
    const auto readable = [fd] { pollfd p = { fd, POLLIN, 0 }; return poll(&p, 1, 0) == 1; };
    EXPECT_EQ(rtsock_fcntl(fd, F_SETFL, O_NONBLOCK), 0);
    EXPECT_FALSE(readable());
    char got[8] = {};
    EXPECT_EQ(eventfd_write(source, 1), 0);
    EXPECT_TRUE(readable());
    EXPECT_EQ(rtsock_read(fd, got, sizeof got), 5);
    EXPECT_STREQ(got, "event");
    EXPECT_FALSE(readable());
    EXPECT_EQ(rtsock_write(fd, "reply", 5), 5);
    EXPECT_TRUE(readable());
    EXPECT_EQ(rtsock_close(fd), 0);
    EXPECT_EQ(rtsock_close(fd), -1);
    close(source);
    source = -1;
    closed = 0;
}

TEST(RoutingSocket, CarriesMessagesAndOptions)
{
    rtsock_set_kernel(&echo);
    int first = rtsock_open(), fd = rtsock_open();
    EXPECT_EQ(rtsock_close(first), 0);
    rtsock_set_kernel(nullptr);   // the socket keeps its own
    EXPECT_EQ(rtsock_fcntl(fd, F_SETFL, O_NONBLOCK), 0);
    char got[8] = {};
    EXPECT_EQ(rtsock_write(fd, "message", 7), 7);
    EXPECT_EQ(rtsock_recv(fd, got, 3, MSG_PEEK), 3);
    EXPECT_EQ(rtsock_read(fd, got, 4), 4);   // cut, without an error
    EXPECT_STREQ(got, "mess");
    EXPECT_EQ(rtsock_read(fd, got, sizeof got), -1);
    EXPECT_EQ(errno, EAGAIN);
    int32_t size = 0x7fff0000, back = 0;
    socklen_t length = sizeof back;
    for (int option : { SO_SNDBUF, SO_RCVBUF }) {
        size += option;
        EXPECT_EQ(rtsock_setsockopt(fd, SOL_SOCKET, option, &size, sizeof size), 0);
        EXPECT_EQ(rtsock_getsockopt(fd, SOL_SOCKET, option, &back, &length), 0);
        EXPECT_EQ(back, size);
    }
    EXPECT_EQ(rtsock_getsockopt(fd, RTSOCK_LEVEL, RTSOCK_VERSIONS, &back, &length), 0);
    EXPECT_EQ(called, "get 5");
    EXPECT_EQ(rtsock_setsockopt(fd, RTSOCK_LEVEL, RTSOCK_SENDER_ID, &size, 1), 0);
    EXPECT_EQ(called, "set 4");
    EXPECT_EQ(rtsock_close(fd), 0);
    EXPECT_EQ(closed, 2);
    EXPECT_EQ(rtsock_close(fd) + rtsock_read(fd, got, 1), -2);
    EXPECT_EQ(errno, EBADF);
}

TEST(RoutingSocket, WithoutAKernelAndRefused)
{
    rtsock_set_kernel(nullptr);
    EXPECT_EQ(rtsock_open() + rtsock_sysctlbyname("a", nullptr, nullptr, nullptr, 0) +
              rtsock_socket_option(5, 0, 109, 8), -3);
    EXPECT_EQ(errno, ENODEV);
    rtsock_set_kernel(&echo);
    kernel_refuses = true;
    EXPECT_EQ(rtsock_open(), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(fcntl(peer, F_GETFD), -1);   // no descriptor is left
}

TEST(RoutingSocket, SystemValuesAndOrdinarySockets)
{
    const struct {
        int level, option;
        const char *called;
    } rows[] = { { 0, 109, "table 8" }, { 41, 67, "table 8" }, { 255, 3, "table 8" }, { 0, 107, "interface 8" },
                 { 41, 64, "interface 8" }, { 0, 3, "" } };
    rtsock_set_kernel(&echo);
    for (const auto &row : rows) {
        called = "";
        EXPECT_EQ(rtsock_socket_option(5, row.level, row.option, 8), *row.called != '\0' ? 5 : -1);
        EXPECT_EQ(called, row.called);
    }
    EXPECT_EQ(errno, ENOPROTOOPT);
    int name[] = { 1, 2 };
    EXPECT_EQ(rtsock_sysctl(name, 2, nullptr, nullptr), 0);
    EXPECT_EQ(called, "sysctl 2");
}

TEST(Target, Numbers)
{
    const struct {
        int target, host;
    } errors[] = { { 2, ENOENT }, { 11, EDEADLK }, { 22, EINVAL }, { 35, EAGAIN }, { 40, EMSGSIZE },
                   { 43, EPROTONOSUPPORT }, { 45, EOPNOTSUPP }, { 49, EADDRNOTAVAIL }, { 55, ENOBUFS },
                   { 61, ECONNREFUSED }, { 9999, 9999 }, { 0, 0 } },
      families[] = { { 2, AF_INET }, { 17, AF_NETLINK }, { 18, AF_PACKET }, { 28, AF_INET6 } };
    for (const auto &row : errors) {
        EXPECT_EQ(target_errno_from_host(row.host), row.target);
        EXPECT_EQ(target_errno_to_host(row.target), row.host);
    }
    for (const auto &row : families) {
        EXPECT_EQ(target_family_from_host(row.host), row.target);
        EXPECT_EQ(target_family_to_host(row.target), row.host);
    }
    EXPECT_EQ(target_family_from_host(28) + target_family_to_host(TARGET_AF_ISO), -2);
}
