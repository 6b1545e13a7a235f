/*
 * Numbers of the target system and of this host, by rows. Errors up to 34 have the same numbers on both, 11 apart; of
 * the others there is a row for each that both have and that can come here. One without a row is given back as it is.
 */
#include "platform/target.h"

#include <errno.h>
#include <sys/socket.h>

namespace {

struct number_pair {
    int target, host;
};

constexpr number_pair errors[] = {
    { 11, EDEADLK },
    { TARGET_EAGAIN, EAGAIN },
    { 36, EINPROGRESS },
    { 37, EALREADY },
    { 38, ENOTSOCK },
    { 39, EDESTADDRREQ },
    { TARGET_EMSGSIZE, EMSGSIZE },
    { 41, EPROTOTYPE },
    { 42, ENOPROTOOPT },
    { TARGET_EPROTONOSUPPORT, EPROTONOSUPPORT },
    { 44, ESOCKTNOSUPPORT },
    { TARGET_EOPNOTSUPP, EOPNOTSUPP },
    { 46, EPFNOSUPPORT },
    { 47, EAFNOSUPPORT },
    { 48, EADDRINUSE },
    { TARGET_EADDRNOTAVAIL, EADDRNOTAVAIL },
    { 50, ENETDOWN },
    { 51, ENETUNREACH },
    { 52, ENETRESET },
    { 53, ECONNABORTED },
    { 54, ECONNRESET },
    { TARGET_ENOBUFS, ENOBUFS },
    { 56, EISCONN },
    { 57, ENOTCONN },
    { 58, ESHUTDOWN },
    { 60, ETIMEDOUT },
    { TARGET_ECONNREFUSED, ECONNREFUSED },
    { 62, ELOOP },
    { 63, ENAMETOOLONG },
    { 64, EHOSTDOWN },
    { 65, EHOSTUNREACH },
    { 66, ENOTEMPTY },
    { 78, ENOSYS },
    { 84, EOVERFLOW },
    { 85, ECANCELED },
    { 86, EILSEQ },
    { 92, EPROTO },
};

constexpr number_pair families[] = {
    { TARGET_AF_UNSPEC, AF_UNSPEC },
    { TARGET_AF_UNIX, AF_UNIX },
    { TARGET_AF_INET, AF_INET },
    { TARGET_AF_ROUTE, AF_NETLINK },
    { TARGET_AF_LINK, AF_PACKET },
    { TARGET_AF_INET6, AF_INET6 },
};

}   // namespace

int target_errno_from_host(int host)
{
    for (const number_pair &row : errors) {
        if (row.host == host)
            return row.target;
    }
    return host;
}

int target_errno_to_host(int target)
{
    for (const number_pair &row : errors) {
        if (row.target == target)
            return row.host;
    }
    return target;
}

int target_family_from_host(int host)
{
    for (const number_pair &row : families) {
        if (row.host == host)
            return row.target;
    }
    return -1;
}

int target_family_to_host(int target)
{
    for (const number_pair &row : families) {
        if (row.target == target)
            return row.host;
    }
    return -1;
}
