/*
 * Routing-instance binding: one short-lived connection to the kernel for each question, and one socket option that
 * carries the answer.
 */
#include "lib/librtsock/vrf.h"
#include "lib/librtsock/request.h"
#include "lib/librtsock/rtslib_table.h"
#include "lib/librtsock/socket_option.h"
#include "platform/target.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace {

enum { SENDER_ID = 3 };

/* What binds a socket of each family. */
constexpr struct rtslib_family_option families[] = {
    { TARGET_AF_INET, 0, 109 },
    { TARGET_AF_INET6, 41, 67 },
    { TARGET_AF_ISO, 255, 3 },
};

/* "LOGICAL/INSTANCE" or the instance alone; to be freed. */
char *table_name(const char *instance, const char *logical_system)
{
    char *name = nullptr;
    int length = logical_system != nullptr ? asprintf(&name, "%s/%s", logical_system, instance)
                                           : asprintf(&name, "%s", instance);
    return length >= 0 ? name : nullptr;
}

/* The table's message, to be released with the cookie; both are closed on failure, with errno. */
struct rtb_msg *ask(const char *instance, const char *logical_system, int family, struct rtslib_cookie **cookie)
{
    char *name = table_name(instance, logical_system);
    if (name == nullptr)
        return nullptr;
    *cookie = rtslib_open(SENDER_ID);
    void *message = nullptr;
    void *mask = nullptr;
    int error = 0;
    if (*cookie != nullptr)
        error = rtslib_rtbm_get_by_name(*cookie, uint8_t(family), name, &message, &mask);
    int saved = errno;
    free(name);
    errno = saved;
    if (*cookie == nullptr)
        return nullptr;
    if (error == 0 && rtslib_reply_is(message, RTSLIB_TYPE_TABLE))
        return static_cast<struct rtb_msg *>(message);
    rtslib_msg_idl_release(*cookie, message);
    rtslib_close(*cookie);
    errno = error > 0 ? target_errno_to_host(error) : EIO;
    return nullptr;
}

int32_t read_field(const char *instance, const char *logical_system, int family, uint16_t rtb_msg::*field)
{
    if (rtslib_find_family(families, family) == nullptr) {
        errno = EPROTONOSUPPORT;
        return -1;
    }
    if (instance == nullptr) {
        errno = EINVAL;
        return -1;
    }
    struct rtslib_cookie *cookie = nullptr;
    struct rtb_msg *message = ask(instance, logical_system, family, &cookie);
    if (message == nullptr)
        return -1;
    int32_t value = message->*field;
    rtslib_msg_idl_release(cookie, message);
    rtslib_close(cookie);
    return value;
}

}   // namespace

int32_t vrf_getindexbyvrfname(const char *instance, const char *logical_system, int family)
{
    return read_field(instance, logical_system, family, &rtb_msg::tid);
}

int32_t vrf_gettenantidbyvrfname(const char *instance, const char *logical_system, int family)
{
    return read_field(instance, logical_system, family, &rtb_msg::tenant);
}

int vrf_setsocketbyvrfname(int fd, const char *instance, const char *logical_system)
{
    int32_t table = vrf_getindexbyvrfname(instance, logical_system, rtslib_socket_family(fd));
    return table != -1 ? _vrf_setsocket(fd, table) : -1;
}

int _vrf_setsocket(int fd, int32_t table)
{
    if (table == -1) {
        errno = EINVAL;
        return -1;
    }
    return rtslib_set_family_option(fd, families, uint32_t(table));
}
