/*
 * Options by family: the host tells the family of a socket, the row of that family which option it is.
 */
#include "lib/librtsock/socket_option.h"
#include "platform/rtsock/rtsock.h"
#include "platform/target.h"

#include <errno.h>
#include <sys/socket.h>

int rtslib_socket_family(int fd)
{
    struct sockaddr_storage address = {};
    socklen_t length = sizeof address;
    if (getsockname(fd, reinterpret_cast<struct sockaddr *>(&address), &length) < 0 || length == 0) {
        errno = EPROTONOSUPPORT;
        return -1;
    }
    return target_family_from_host(address.ss_family);
}

const struct rtslib_family_option *rtslib_find_family(std::span<const struct rtslib_family_option> rows, int family)
{
    for (const struct rtslib_family_option &row : rows) {
        if (row.family == family)
            return &row;
    }
    return nullptr;
}

int rtslib_set_family_option(int fd, std::span<const struct rtslib_family_option> rows, uint32_t value)
{
    const struct rtslib_family_option *row = rtslib_find_family(rows, rtslib_socket_family(fd));
    if (row == nullptr) {
        errno = EPROTONOSUPPORT;
        return -1;
    }
    return rtsock_socket_option(fd, row->level, row->option, value) < 0 ? -1 : 0;
}
