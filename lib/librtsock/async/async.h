/*
 * Steps that the modules of the asynchronous events share. Internal.
 */
#pragma once

#include "lib/librtsock/rtslib_async.h"

extern "C" {

/* One run of the read loop, on its stack; a cookie's async_pass leads to the innermost. Since handlers may destroy the
 * cookie, whoever called one looks here before touching it again. */
struct rtslib_async_pass {
    struct rtslib_async_pass *outer;   // a run that a handler of which started this one, or null
    bool cookie_gone;
};
/* The cookie is about to be freed. */
void rtslib_async_pass_end(struct rtslib_cookie *cookie);

/* Decodes one message, of length octets at least RTSLIB_HDR_SIZE, and hands it to its handler. octets stay the
 * caller's. 0, or an error number, which errno then tells too. */
int rtslib_async_dispatch(struct rtslib_cookie *cookie, const uint8_t *octets, uint32_t length);

/* Ends the registration of type, with its subtype table if it has one. */
void rtslib_async_slot_clear(struct rtslib_cookie *cookie, uint32_t type);

}   // extern "C"
