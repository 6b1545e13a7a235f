/*
 * One option of ordinary sockets that goes by another number in each family. Internal.
 */
#pragma once

#include <stdint.h>

#include <span>

extern "C" {

/* In the target's numbers. */
struct rtslib_family_option {
    int family, level, option;
};

/* The target's number of the socket's family; -1 with EPROTONOSUPPORT without one. */
int rtslib_socket_family(int fd);
/* The row of the family, or null. */
const struct rtslib_family_option *rtslib_find_family(std::span<const struct rtslib_family_option> rows, int family);
/* Sets the option that the socket's family has. 0, or -1 with errno: EPROTONOSUPPORT without a row. */
int rtslib_set_family_option(int fd, std::span<const struct rtslib_family_option> rows, uint32_t value);

}   // extern "C"
