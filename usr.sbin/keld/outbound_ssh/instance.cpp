/*
 * Routing instances for outbound connections.
 *
 * This platform has none to bind a socket to, so an attempt while an instance is known ends here. Which one is known is
 * config.cpp's: after a reading that failed it is none.
 */
#include "usr.sbin/keld/outbound_ssh/obssh_private.h"

#include <errno.h>

int obssh_bind_to_instance(int, const char *)
{
    errno = EOPNOTSUPP;
    return -1;
}
