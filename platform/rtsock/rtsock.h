/*
 * The routing socket: one datagram-like local socket between a process and what keeps its interfaces, routes and next
 * hops.
 *
 * Behind the operations stands a kernel, a table of functions. The one in force belongs to the process; sockets keep
 * the kernel that they were opened with. The descriptor is a real one, so that event loops can wait on it: one end of a
 * SOCK_SEQPACKET pair, the other being the kernel's, or, for a kernel with a source of events of its own, an epoll
 * descriptor that waits on both. It is for waiting only; octets go through the calls below. A reply is readable when
 * rtsock_write returns. A read gives one datagram, cut to the buffer without an error if it is longer.
 *
 * errno is the host's in every operation. Not for signal handlers or threads.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/types.h>

extern "C" {

/* Route-level options. Values are in host byte order. */
enum rtsock_option {
    RTSOCK_LISTEN_BITS = 1,         // set, two uint32_t, low word first: classes of asynchronous messages
    RTSOCK_SENDER_ID = 4,           // set, one octet
    RTSOCK_VERSIONS = 5,            // get, up to 131 octets: count of types, interface version, a version for each type
    RTSOCK_ASYNC_MODE = 7,          // set, uint32_t
    RTSOCK_FILTERS = 10,            // set, 756 octets: listen words and a filter block
    RTSOCK_SEND_PACING = 22,        // set, uint32_t
    RTSOCK_RECEIVE_PACING = 23,     // set, uint32_t
    RTSOCK_SYNC_MODE = 24,          // set, uint32_t
    RTSOCK_BULK_STATUS = 25,        // get, struct rtsock_bulk_status
};
enum {
    RTSOCK_LEVEL = 17,              // level of the options above, the protocol family's own number
    RTSOCK_VERSIONS_MAX = 131,
    RTSOCK_FILTERS_SIZE = 756,
};

struct rtsock_bulk_status {
    uint32_t error;   // the target's number for the message that the last bulk write stopped at; 0 if it did not
    uint32_t count;   // messages taken before
    uint32_t detail;
};
static_assert(sizeof(struct rtsock_bulk_status) == 12);

/* What a kernel must do. state is what rk_open stored; the other end of the pair is the kernel's, to send replies and
 * events into. Results and errno as for the operations below. */
struct rtsock_kernel {
    const char *rk_name;
    /* 0 and *state, or -1. peer is the kernel's end of the pair, closed by the socket layer after rk_close. */
    int (*rk_open)(int peer, void **state);
    void (*rk_close)(void *state);
    /* One encoded message, or several in bulk mode. Octets taken, or -1. */
    ssize_t (*rk_write)(void *state, const void *octets, size_t length);
    int (*rk_getsockopt)(void *state, int option, void *value, socklen_t *length);
    int (*rk_setsockopt)(void *state, int option, const void *value, socklen_t length);
    int (*rk_sysctl)(const int *name, unsigned count, void *value, size_t *length);
    int (*rk_sysctlbyname)(const char *name, void *value, size_t *length, const void *set, size_t set_length);
    /* Makes the look-ups of an ordinary socket use the table of that index. */
    int (*rk_bind_table)(int socket, uint32_t table);
    /* Pins what an ordinary socket sends to a logical interface. */
    int (*rk_bind_interface)(int socket, uint32_t ifl_index);
    /* Both may be null. rk_source: a descriptor of the kernel's, asked for once after rk_open, that makes the socket
     * readable too; -1 if this client has none. rk_pump: called around every read; moves what waits in the kernel into
     * the pair. */
    int (*rk_source)(void *state);
    void (*rk_pump)(void *state);
};

/* Chooses the kernel of sockets opened from now on. At start there is none (null), and opening fails with ENODEV. */
void rtsock_set_kernel(const struct rtsock_kernel *kernel);

/* A new routing socket, blocking, or -1. */
[[nodiscard]] int rtsock_open(void);
/* 0, or -1 with EBADF for what is no open routing socket. */
int rtsock_close(int fd);
/* The calls of the same names without the prefix, on a routing socket. A blocking read waits for replies and not for a
 * kernel's source: clients that want events make the socket non-blocking and wait on the descriptor. */
ssize_t rtsock_write(int fd, const void *octets, size_t length);
ssize_t rtsock_read(int fd, void *buffer, size_t size);
ssize_t rtsock_recv(int fd, void *buffer, size_t size, int flags);
int rtsock_fcntl(int fd, int command, int value);
/* level is RTSOCK_LEVEL, or SOL_SOCKET with SO_SNDBUF or SO_RCVBUF: the sizes given are kept and read back as given,
 * whatever the host makes of them. */
int rtsock_getsockopt(int fd, int level, int option, void *value, socklen_t *length);
int rtsock_setsockopt(int fd, int level, int option, const void *value, socklen_t length);

/* System values by number or name, through the kernel in force. *length is the room and then what is there; value null
 * asks for the size alone. 0, or -1: ENOENT for what is unknown, ENOMEM if it does not fit. */
int rtsock_sysctl(const int *name, unsigned count, void *value, size_t *length);
int rtsock_sysctlbyname(const char *name, void *value, size_t *length, const void *set, size_t set_length);

/* Options of ordinary sockets, by the target's level and option number: tables 0/109, 41/67, 255/3; interfaces 0/107,
 * 41/64. value is a uint32_t. 0, or -1: ENOPROTOOPT for another pair. */
int rtsock_socket_option(int socket, int level, int option, uint32_t value);

}   // extern "C"
