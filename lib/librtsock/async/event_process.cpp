/*
 * The read loop: what one wake-up of the event loop brings, split into messages.
 *
 * Every read fills rbuf_data, which bulk mode uses too, and may bring many messages. Reads are bounded by num_read_msg,
 * so that a storm of events leaves the event loop room for other work; what is left is the next wake-up's.
 *
 * Handlers run inside the walk over the buffer. Afterwards the cookie may be gone, or its block, or the buffer may
 * stand elsewhere and be shorter: nothing that was looked up before a handler ran is used behind it.
 */
#include "lib/librtsock/async/async.h"
#include "lib/librtsock/io_private.h"
#include "lib/librtsock/rtslib_envelope.h"
#include "lib/librtsock/rtslib_raw.h"
#include "platform/log/log.h"
#include "platform/rtsock/rtsock.h"
#include "platform/target.h"

#include <errno.h>
#include <string.h>
#include <syslog.h>

#include <algorithm>

uint32_t rtslib_async_io_debug;

namespace {

const char name[] = "rtslib_async_event_process";

enum { LINE_READ = 125 };   // line of this unit that people search for

/* One wake-up. */
struct event_loop {
    struct rtslib_cookie *cookie;
    struct rtslib_async_pass pass;
    bool one_message;         // the mode says that a read brings one
    int error;                // the target's number; 0: none
    int32_t reads, messages;
};

/* One read. */
struct event_read {
    uint32_t count;    // octets
    uint32_t offset;   // of the next message
    int32_t messages;  // dispatched
};

bool is_over(const struct event_loop *loop)
{
    return loop->pass.cookie_gone || loop->cookie->async_info == nullptr;
}

/* False after the report. */
bool make_buffer(struct event_loop *loop)
{
    struct rtslib_cookie *cookie = loop->cookie;
    if (cookie->rbuf_data != nullptr)
        return true;
    socklen_t length = sizeof cookie->rbuf_sz;
    if (cookie->rbuf_sz == 0 &&
        rtsock_getsockopt(cookie->socket, SOL_SOCKET, SO_RCVBUF, &cookie->rbuf_sz, &length) < 0) {
        rtslib_err(cookie, RTSLIB_ERROR, "%s: Failed to get SO_RCVBUF %s", name, strerror(errno));
        loop->error = TARGET_EINVAL;
        return false;
    }
    cookie->rbuf_data = static_cast<uint8_t *>(rtslib_size_alloc(cookie, cookie->rbuf_sz));
    if (cookie->rbuf_data == nullptr) {
        rtslib_err(cookie, RTSLIB_ERROR, "rtslib_size_alloc failed!\n");
        loop->error = TARGET_ENOMEM;
        return false;
    }
    return true;
}

/* False if there is nothing to walk. */
bool read_some(struct event_loop *loop, struct event_read *r)
{
    struct rtslib_cookie *cookie = loop->cookie;
    ssize_t count = rtsock_read(cookie->socket, cookie->rbuf_data, cookie->rbuf_sz);
    if (count < 0) {
        if (errno == EMSGSIZE)
            rtslib_assert_failed("lib/librtsock/async/rtslib_async_event_process", name, LINE_READ,
                                 "errno != EMSGSIZE");
        loop->error = target_errno_from_host(errno);
        if (loop->error != TARGET_EAGAIN)
            rtslib_err(cookie, RTSLIB_FATAL, "read failed: (%d) %s", loop->error, strerror(errno));
        return false;
    }
    if (count < RTSLIB_HDR_SIZE) {
        rtslib_err(cookie, RTSLIB_FATAL, "msg read too small for header: %d\n", int(count));
        loop->error = TARGET_EIO;
        return false;
    }
    *r = { uint32_t(count), 0, 0 };
    if (rtslib_async_io_debug != 0)
        logging(LOG_DEBUG, "%s, %s read %d bytes\n", name, program_invocation_short_name, int(count));
    return true;
}

/* What the message at octets says that it measures, of which left are here; 0 if too few are here to say. */
int32_t message_length(const uint8_t *octets, uint32_t left)
{
    if (left < IDL_ENVELOPE_SIZE)   // where both kinds of message have said it
        return 0;
    uint32_t length;
    if (rtslib_is_enveloped(octets))
        rtslib_idl_peek_length(&length, octets, left);
    else
        memcpy(&length, octets + offsetof(struct rts_raw_hdr, msglen), sizeof length);
    return int32_t(length);
}

/* Hands over the next message. False when the walk is to end. */
bool walk_one(struct event_loop *loop, struct event_read *r)
{
    struct rtslib_cookie *cookie = loop->cookie;
    const uint8_t *octets = cookie->rbuf_data + r->offset;
    uint32_t left = r->count - r->offset;
    int32_t length = message_length(octets, left);
    if (length < RTSLIB_HDR_SIZE || uint32_t(length) > left) {
        rtslib_err(cookie, RTSLIB_FATAL, "corrupted msg_len (%d) (%d bytes left)", length, int(left));
        // Kept on purpose: what the read brought behind this is dropped, and when a later read of the wake-up finds
        // nothing its error takes this one's place: 0 is the result, where one would expect the damage to be told.
        loop->error = TARGET_EINVAL;
        return false;
    }
    // A mismatch has been reported, and the stream follows it. Whoever heard of it may have ended or resized things.
    if (rtslib_check_read_seq(cookie, octets) != 0) {
        if (is_over(loop) || r->count > cookie->rbuf_sz)
            return false;
        octets = cookie->rbuf_data + r->offset;
    }
    if (rtslib_async_dispatch(cookie, octets, uint32_t(length)) == 0)
        r->messages++;
    if (is_over(loop))
        return false;
    if (loop->one_message) {
        // Kept on purpose: a second message of the read is dropped behind the report, where one would expect the walk
        // to go on.
        if (uint32_t(length) != r->count)
            rtslib_err(cookie, RTSLIB_FATAL, "Incorrect message length. %d != %d", length, int(r->count));
        if (rtslib_async_io_debug != 0)
            logging(LOG_DEBUG, "%s, %s read one msg with bulk disabled.\n", name, program_invocation_short_name);
        return false;
    }
    r->offset += uint32_t(length);
    // The handler may have resized the buffer.
    r->count = std::min(r->count, cookie->rbuf_sz);
    return r->offset < r->count;
}

/* One read with all that it brings. False when the loop is to end. */
bool run_once(struct event_loop *loop)
{
    struct event_read r;
    if (!make_buffer(loop) || !read_some(loop, &r))
        return false;
    while (walk_one(loop, &r))
        continue;
    loop->messages += r.messages;
    loop->reads++;
    if (rtslib_async_io_debug != 0)
        logging(LOG_DEBUG, "%s, %s read and processed %d msgs\n", name, program_invocation_short_name, r.messages);
    if (is_over(loop))
        return false;
    if (loop->reads < loop->cookie->num_read_msg)
        return true;
    if (rtslib_async_io_debug != 0)
        logging(LOG_DEBUG, "%s, %s read %d msgs with %d read calls before return to select\n", name,
                program_invocation_short_name, loop->messages, loop->reads);
    return false;
}

/* A run's record on its stack is reached from the cookie as long as the run lasts. Not in line, where g++ takes the
 * stored address for one that outlives the record. */
[[gnu::noinline]] void enter(struct rtslib_cookie *cookie, struct rtslib_async_pass *pass)
{
    pass->outer = cookie->async_pass;
    cookie->async_pass = pass;
}

}   // namespace

void rtslib_async_pass_end(struct rtslib_cookie *cookie)
{
    for (struct rtslib_async_pass *pass = cookie->async_pass; pass != nullptr; pass = pass->outer)
        pass->cookie_gone = true;
}

int rtslib_async_event_process(struct rtslib_cookie *cookie)
{
    if (cookie == nullptr || cookie->async_info == nullptr) {
        rtslib_err(cookie, RTSLIB_FATAL, "async event callback with invalid cookie!\n");
        errno = EINVAL;
        return -1;
    }
    bool one_message = (cookie->async_info->async_mode & RTSLIB_ASYNC_ONE_MESSAGE) != 0;
    struct event_loop loop = { cookie, { nullptr, false }, one_message, 0, 0, 0 };
    enter(cookie, &loop.pass);
    while (run_once(&loop))
        continue;
    if (!loop.pass.cookie_gone)
        cookie->async_pass = loop.pass.outer;
    if (loop.error == 0 || (loop.error == TARGET_EAGAIN && loop.reads > 0))
        return 0;
    errno = target_errno_to_host(loop.error);
    return -1;
}

int rtslib_async_event_callback(evContext, struct rtslib_cookie *cookie)
{
    return rtslib_async_event_process(cookie);
}

void rtslib_async_set_num_read_msg(struct rtslib_cookie *cookie, int32_t count)
{
    if (cookie != nullptr)
        cookie->num_read_msg = count;
}

void rtslib_async_set_io_debug(uint32_t flag)
{
    rtslib_async_io_debug = flag;
}
