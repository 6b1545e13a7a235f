/*
 * Whole tables of interfaces, read as one system value: what the sockets are not used for.
 */
#include "lib/librtsock/rtslib_interface.h"
#include "platform/rtsock/rtsock.h"
#include "platform/target.h"

#include <errno.h>

#include <algorithm>
#include <iterator>

namespace {

constexpr int interface_tables[] = { 4, TARGET_AF_ROUTE, 0, 0, 3, 0 };   // network, routes; the kind goes last

/* Reads the table of that name into a buffer that is the caller's, also on failure. 0 or an error number. */
int read_table(struct rtslib_cookie *cookie, const int *name, void **buffer, size_t *size)
{
    constexpr unsigned parts = std::size(interface_tables);
    if (rtsock_sysctl(name, parts, nullptr, size) < 0)
        return target_errno_from_host(errno);
    *buffer = rtslib_size_alloc(cookie, *size);
    if (*buffer == nullptr)
        return TARGET_ENOMEM;
    return rtsock_sysctl(name, parts, *buffer, size) < 0 ? target_errno_from_host(errno) : 0;
}

int fill(struct rtslib_cookie *cookie, struct rtslib_msg_list *list, const void *buffer, size_t size)
{
    if (size > UINT32_MAX)
        return TARGET_ENOMEM;
    int error = rtslib_msg_list_fillin(cookie, list, uint32_t(size), const_cast<void *>(buffer));
    // The buffer does not outlive this, so its messages must be decoded.
    return error == 0 && list->lent != 0 ? int(TARGET_EOPNOTSUPP) : error;
}

}   // namespace

int rtslib_ifxm_get_all(struct rtslib_cookie *cookie, int kind, struct rtslib_msg_list **list)
{
    if (cookie == nullptr || list == nullptr)
        return TARGET_EINVAL;
    *list = nullptr;
    int name[std::size(interface_tables)];
    std::copy(std::begin(interface_tables), std::end(interface_tables), name);
    name[std::size(name) - 1] = kind;
    void *buffer = nullptr;
    size_t size = 0;
    struct rtslib_msg_list *filled = nullptr;
    int error = read_table(cookie, name, &buffer, &size);
    if (error == 0) {
        filled = rtslib_msg_list_alloc(cookie);
        error = filled != nullptr ? fill(cookie, filled, buffer, size) : int(TARGET_ENOMEM);
    }
    rtslib_msg_free(cookie, buffer);
    if (error == 0)
        *list = filled;
    else
        rtslib_msg_list_free(cookie, filled);
    return error;
}

int rtslib_ifdm_get_all(struct rtslib_cookie *cookie, struct rtslib_msg_list **list)
{
    return rtslib_ifxm_get_all(cookie, RTSLIB_IFXM_DEVICES, list);
}

int rtslib_iflm_get_all(struct rtslib_cookie *cookie, struct rtslib_msg_list **list)
{
    return rtslib_ifxm_get_all(cookie, RTSLIB_IFXM_UNITS, list);
}
