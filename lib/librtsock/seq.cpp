/*
 * Sequence numbers. A request carries the next number and its reply must echo it. An asynchronous cookie takes whatever
 * comes as the state of the stream and goes on from there, so that one lost message is reported once.
 */
#include "lib/librtsock/idl/idl.h"
#include "lib/librtsock/io_private.h"
#include "lib/librtsock/rtslib_cookie.h"
#include "platform/target.h"

#include <string.h>

extern "C" {

enum { SEQ_AT = 12, SEQ_MISMATCH = -2 };

/* Whoever hears of it may end the cookie. */
static void report_mismatch(struct rtslib_cookie *cookie, uint32_t expected, uint32_t received)
{
    if (cookie->seq_err_fn != nullptr) {
        cookie->seq_err_fn(cookie, cookie->seq_err_ctx, expected, received);
        return;
    }
    bool async = cookie->async_info != nullptr;
    rtslib_err(cookie, async ? RTSLIB_ERROR : RTSLIB_FATAL, "%s seq mismatch: (%u != %u)\n",
               async ? "async message" : "request/reply", expected, received);
}

int rtslib_check_read_seq(struct rtslib_cookie *cookie, const void *message)
{
    if (rtslib_is_enveloped(message))
        return 0;
    uint32_t received;
    memcpy(&received, static_cast<const uint8_t *>(message) + SEQ_AT, sizeof received);
    bool async = cookie->async_info != nullptr;
    if (async && cookie->used_by_stats != 0 && received == 0)
        return 0;
    uint32_t expected = cookie->seq;
    if (async)
        cookie->seq = received + 1;
    if (received == expected)
        return 0;
    report_mismatch(cookie, expected, received);
    return SEQ_MISMATCH;
}

int rtslib_seq_get_next(struct rtslib_cookie *cookie, uint32_t *seq)
{
    if (cookie == nullptr || seq == nullptr)
        return TARGET_EINVAL;
    *seq = ++cookie->seq;
    return 0;
}

int rtslib_seq_error_register(struct rtslib_cookie *cookie, uintptr_t context, rtslib_seq_err_func func)
{
    if (cookie == nullptr)
        return TARGET_EINVAL;
    cookie->seq_err_ctx = context;
    cookie->seq_err_fn = func;
    return 0;
}

void rtslib_set_used_by_stats(struct rtslib_cookie *cookie, uint8_t flag)
{
    cookie->used_by_stats = flag;
}

}   // extern "C"
