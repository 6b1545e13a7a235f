/*
 * Steps that the I/O modules of the library share. Internal.
 */
#pragma once

#include "lib/librtsock/rtslib_cookie.h"

#include <sys/types.h>

extern "C" {

/* octets: at least 4. True for TLV and IDR. */
bool rtslib_is_enveloped(const void *octets);
/* write() between the two calls of the back-trace switch, if the cookie wants that. errno is the write's. */
ssize_t rtslib_write_bracketed(struct rtslib_cookie *cookie, const void *octets, size_t length);
/* One read of at most *length octets. 0 with *length, or an error number. */
int rtslib_raw_read(struct rtslib_cookie *cookie, void *buffer, uint32_t *length);

}   // extern "C"
