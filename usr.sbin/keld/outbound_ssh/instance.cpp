/*
 * Routing instances for outbound connections.
 *
 * This platform has none to bind a socket to. A client under a configured instance must not go out through the default
 * one instead, so an attempt there ends.
 */
#include "usr.sbin/keld/outbound_ssh/obssh_private.h"

#include <errno.h>

int obssh_bind_to_instance(int, const char *)
{
    errno = EOPNOTSUPP;
    return -1;
}
