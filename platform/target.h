/*
 * Numbers of the target system: what stands in messages and results of the library, whatever the host calls it.
 *
 * errno and host calls always use the host's numbers. Only platform/ converts, and code that hands a value to a host
 * call.
 */
#pragma once

#include <stdint.h>

extern "C" {

enum target_errno {
    TARGET_ENOENT = 2,
    TARGET_EIO = 5,
    TARGET_ENXIO = 6,
    TARGET_ENOMEM = 12,
    TARGET_EBUSY = 16,
    TARGET_EEXIST = 17,
    TARGET_EINVAL = 22,
    TARGET_ENOSPC = 28,
    TARGET_EAGAIN = 35,
    TARGET_EMSGSIZE = 40,
    TARGET_EPROTONOSUPPORT = 43,
    TARGET_EOPNOTSUPP = 45,
    TARGET_EADDRNOTAVAIL = 49,
    TARGET_ENOBUFS = 55,
    TARGET_ECONNREFUSED = 61,
};

enum target_family {
    TARGET_AF_UNSPEC = 0,
    TARGET_AF_UNIX = 1,
    TARGET_AF_INET = 2,
    TARGET_AF_ISO = 7,
    TARGET_AF_ROUTE = 17,
    TARGET_AF_LINK = 18,
    TARGET_AF_INET6 = 28,
};

/* A number without a row is given back as it is. */
int target_errno_from_host(int host);
int target_errno_to_host(int target);
/* -1 for a family that the other side does not have. */
int target_family_from_host(int host);
int target_family_to_host(int target);

}   // extern "C"
