/*
 * Routing sockets: descriptors of this process that a kernel stands behind.
 *
 * A socket is one end of a SOCK_SEQPACKET pair; its kernel has the other, into which it puts replies and events. What
 * is written does not travel through the pair: it is handed to the kernel in the call, so that the reply stands in the
 * pair when the call returns. Open sockets are a short list by descriptor.
 *
 * A kernel that hears of changes from elsewhere has a descriptor of its own for that, its source. The client then gets
 * an epoll descriptor over the source and its end of the pair; the kernel turns what the source holds into messages
 * when the client reads.
 */
#include "platform/rtsock/rtsock.h"

#include "platform/process/process.h"
#include "platform/target.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <unistd.h>

namespace {

enum { BUFFER_DEFAULT = 0x10000 };   // octets, until a size is set

struct rtsock {
    struct rtsock *next;
    int fd;                        // what the client knows
    int end, peer;                 // the client's end of the pair, often fd itself, and the kernel's
    const struct rtsock_kernel *kernel;
    void *state;                   // the kernel's
    int32_t send_size, receive_size;
};

struct rtsock *sockets;
const struct rtsock_kernel *kernel_in_force;

/* The kernel in force, or null with ENODEV. */
const struct rtsock_kernel *kernel_now(void)
{
    if (kernel_in_force == nullptr)
        errno = ENODEV;
    return kernel_in_force;
}

struct rtsock *find(int fd)
{
    for (struct rtsock *s = sockets; s != nullptr; s = s->next) {
        if (s->fd == fd)
            return s;
    }
    errno = EBADF;
    return nullptr;
}

void discard(struct rtsock *s)
{
    int saved = errno;
    if (s->fd >= 0 && s->fd != s->end)
        close(s->fd);
    if (s->end >= 0)
        close(s->end);
    if (s->peer >= 0)
        close(s->peer);
    free(s);
    errno = saved;
}

/* SO_SNDBUF and SO_RCVBUF: where the size given is kept, or null. */
int32_t *size_of(struct rtsock *s, int option)
{
    if (option == SO_SNDBUF)
        return &s->send_size;
    return option == SO_RCVBUF ? &s->receive_size : nullptr;
}

int set_size(struct rtsock *s, int option, const void *value, socklen_t length)
{
    int32_t *size = size_of(s, option);
    if (size == nullptr || length != sizeof *size)
        return setsockopt(s->end, SOL_SOCKET, option, value, length);
    int32_t given;
    memcpy(&given, value, sizeof given);
    // Datagrams to the client are charged to the kernel's end. The host may cap both; that is no error of the caller's.
    (void)setsockopt(option == SO_SNDBUF ? s->end : s->peer, SOL_SOCKET, SO_SNDBUF, &given, sizeof given);
    *size = given;
    return 0;
}

/* The descriptor that the client waits on. 0, or -1. */
int join_source(struct rtsock *s)
{
    int source = s->kernel->rk_source != nullptr ? s->kernel->rk_source(s->state) : -1;
    if (source < 0) {
        s->fd = s->end;
        return 0;
    }
    int fd = epoll_create1(EPOLL_CLOEXEC);
    if (fd < 0)
        return -1;
    s->fd = platform_lift_fd(fd);
    struct epoll_event interest = {};
    interest.events = EPOLLIN;
    if (s->fd < 0 || epoll_ctl(s->fd, EPOLL_CTL_ADD, s->end, &interest) < 0)
        return -1;
    return epoll_ctl(s->fd, EPOLL_CTL_ADD, source, &interest);
}

/* The pair of a new socket, and what the kernel keeps for it. 0, or -1. */
int connect_kernel(struct rtsock *s)
{
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) < 0)
        return -1;
    s->end = platform_lift_fd(pair[0]);
    s->peer = platform_lift_fd(pair[1]);
    // The kernel never waits for a client that does not read.
    if (s->end < 0 || s->peer < 0 || fcntl(s->peer, F_SETFL, O_NONBLOCK) < 0 ||
        s->kernel->rk_open(s->peer, &s->state) < 0)
        return -1;
    if (join_source(s) == 0)
        return 0;
    int saved = errno;
    s->kernel->rk_close(s->state);
    errno = saved;
    return -1;
}

void pump(struct rtsock *s)
{
    if (s->kernel->rk_pump != nullptr)
        s->kernel->rk_pump(s->state);
}

}   // namespace

void rtsock_set_kernel(const struct rtsock_kernel *kernel)
{
    kernel_in_force = kernel;
}

int rtsock_open(void)
{
    const struct rtsock_kernel *kernel = kernel_now();
    if (kernel == nullptr)
        return -1;
    auto *s = static_cast<struct rtsock *>(calloc(1, sizeof(struct rtsock)));
    if (s == nullptr)
        return -1;
    s->fd = s->end = s->peer = -1;
    s->kernel = kernel;
    s->send_size = s->receive_size = BUFFER_DEFAULT;
    if (connect_kernel(s) < 0) {
        discard(s);
        return -1;
    }
    s->next = sockets;
    sockets = s;
    return s->fd;
}

int rtsock_close(int fd)
{
    struct rtsock *s = find(fd);
    if (s == nullptr)
        return -1;
    struct rtsock **link = &sockets;
    while (*link != s)
        link = &(*link)->next;
    *link = s->next;
    s->kernel->rk_close(s->state);
    discard(s);
    return 0;
}

ssize_t rtsock_write(int fd, const void *octets, size_t length)
{
    struct rtsock *s = find(fd);
    return s != nullptr ? s->kernel->rk_write(s->state, octets, length) : -1;
}

ssize_t rtsock_read(int fd, void *buffer, size_t size)
{
    return rtsock_recv(fd, buffer, size, 0);
}

ssize_t rtsock_recv(int fd, void *buffer, size_t size, int flags)
{
    struct rtsock *s = find(fd);
    if (s == nullptr)
        return -1;
    pump(s);
    ssize_t count = recv(s->end, buffer, size, flags);
    int saved = errno;
    // What the kernel still holds must make the socket readable again.
    pump(s);
    errno = saved;
    return count;
}

int rtsock_fcntl(int fd, int command, int value)
{
    struct rtsock *s = find(fd);
    if (s == nullptr)
        return -1;
    // Flags of the descriptor belong to what the client holds, flags of the file to what is read.
    return fcntl(command == F_SETFD || command == F_GETFD ? s->fd : s->end, command, value);
}

int rtsock_getsockopt(int fd, int level, int option, void *value, socklen_t *length)
{
    struct rtsock *s = find(fd);
    if (s == nullptr)
        return -1;
    if (level == RTSOCK_LEVEL)
        return s->kernel->rk_getsockopt(s->state, option, value, length);
    const int32_t *size = level == SOL_SOCKET ? size_of(s, option) : nullptr;
    if (size == nullptr || *length < sizeof *size)
        return getsockopt(s->end, level, option, value, length);
    memcpy(value, size, sizeof *size);
    *length = sizeof *size;
    return 0;
}

int rtsock_setsockopt(int fd, int level, int option, const void *value, socklen_t length)
{
    struct rtsock *s = find(fd);
    if (s == nullptr)
        return -1;
    if (level == RTSOCK_LEVEL)
        return s->kernel->rk_setsockopt(s->state, option, value, length);
    if (level == SOL_SOCKET)
        return set_size(s, option, value, length);
    errno = ENOPROTOOPT;
    return -1;
}

int rtsock_sysctl(const int *name, unsigned count, void *value, size_t *length)
{
    const struct rtsock_kernel *kernel = kernel_now();
    return kernel != nullptr ? kernel->rk_sysctl(name, count, value, length) : -1;
}

int rtsock_sysctlbyname(const char *name, void *value, size_t *length, const void *set, size_t set_length)
{
    const struct rtsock_kernel *kernel = kernel_now();
    return kernel != nullptr ? kernel->rk_sysctlbyname(name, value, length, set, set_length) : -1;
}

int rtsock_socket_option(int socket, int level, int option, uint32_t value)
{
    // The target's pairs of level and option.
    static constexpr struct {
        int level, option;
        int (*rtsock_kernel::*bind)(int, uint32_t);
    } rows[] = {
        { 0, 109, &rtsock_kernel::rk_bind_table },      { 41, 67, &rtsock_kernel::rk_bind_table },
        { 255, 3, &rtsock_kernel::rk_bind_table },      { 0, 107, &rtsock_kernel::rk_bind_interface },
        { 41, 64, &rtsock_kernel::rk_bind_interface },
    };
    const struct rtsock_kernel *kernel = kernel_now();
    if (kernel == nullptr)
        return -1;
    for (const auto &row : rows) {
        if (row.level == level && row.option == option)
            return (kernel->*row.bind)(socket, value);
    }
    errno = ENOPROTOOPT;
    return -1;
}
