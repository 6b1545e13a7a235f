/*
 * Replies of a batch. One read may hold many; they come in the order of the entries that asked for them.
 */
#include "lib/librtsock/bulk.h"
#include "platform/rtsock/rtsock.h"
#include "platform/target.h"

#include <errno.h>

namespace {

const char name[] = "rtslib_read_and_decode_bulk_iov";

struct bulk_read {
    struct rtslib_cookie *cookie;
    const struct rtslib_batch *batch;
    void **masks;
    uint32_t expected, decoded;
    uint32_t next;      // entry to look at next
    int error;          // of the last read
};

enum buffer_end { BUFFER_USED_UP, ENTRIES_PASSED, READ_ENDED };

bool arguments_good(struct rtslib_cookie *cookie, const struct rtslib_batch *b)
{
    if (b->start >= b->count || b->end >= b->count || b->start > b->end) {
        rtslib_err(cookie, RTSLIB_FATAL, "%s: Invalid input: start = %d, end = %d, range = %d\n", name, int(b->start),
                   int(b->end), int(b->count));
        return false;
    }
    if (cookie->wbuf == nullptr || cookie->rbuf_data == nullptr) {
        rtslib_err(cookie, RTSLIB_FATAL, "%s: iobuf not initialized for bulk write!\n", name);
        return false;
    }
    return true;
}

void fill_buffer(bulk_read *r)
{
    struct rtslib_cookie *cookie = r->cookie;
    cookie->rbuf_pos = cookie->rbuf_data;
    ssize_t count = rtsock_read(cookie->socket, cookie->rbuf_data, cookie->rbuf_sz);
    if (count > 0) {
        r->error = 0;
        cookie->rbuf_last = cookie->rbuf_data + count - 1;
        return;
    }
    r->error = errno != 0 ? target_errno_from_host(errno) : int(TARGET_EINVAL);
    rtslib_err(cookie, RTSLIB_ERROR, "%s: read() errno %d, fd %d, rbuf_data %p, rbuf_sz %u\n", name, r->error,
               cookie->socket, static_cast<void *>(cookie->rbuf_data), cookie->rbuf_sz);
}

bool decode_entry(bulk_read *r, uint32_t index)
{
    struct rtslib_cookie *cookie = r->cookie;
    uint32_t length = 0;
    int error = rtslib_bulkmsg_idl_decode(cookie, &length, &r->batch->iov[index].reply,
                                          r->masks != nullptr ? &r->masks[index] : nullptr);
    if (error != 0) {
        rtslib_err(cookie, RTSLIB_FATAL, "%s: IDL decoding error(%d) for msg %d\n", name, error, int(index));
        rtslib_set_iov_err(cookie, r->batch->iov, r->batch->count, index, error, RTSLIB_IOV_READ);
        return false;
    }
    cookie->rbuf_pos += length;
    r->decoded++;
    return true;
}

void report_surplus(bulk_read *r, uint32_t first)
{
    const struct rtslib_batch *b = r->batch;
    rtslib_set_iov_err(r->cookie, b->iov, b->count, first, TARGET_EINVAL, RTSLIB_IOV_READ);
    rtslib_err(r->cookie, RTSLIB_ERROR, "%s: %d bytes to read and %d of %d msgs were read while end of iov(%d-%d)\n",
               name, int(r->cookie->rbuf_last + 1 - r->cookie->rbuf_pos), int(r->decoded), int(r->expected),
               int(b->start), int(b->end));
}

/* Hands the replies of one buffer to the entries from r->next on. */
buffer_end walk_entries(bulk_read *r)
{
    const struct rtslib_batch *b = r->batch;
    uint32_t first = UINT32_MAX;   // the buffer's first entry
    for (uint32_t i = r->next; i <= b->end; i++) {
        if (!rtslib_iov_asks(&b->iov[i]))
            continue;
        if (r->error != 0) {
            rtslib_set_iov_err(r->cookie, b->iov, b->count, i, r->error, RTSLIB_IOV_READ);
            rtslib_err(r->cookie, RTSLIB_ERROR, "%s: read error, return failure on msg %d\n", name, int(i));
            return READ_ENDED;
        }
        first = first == UINT32_MAX ? i : first;
        if (!decode_entry(r, i))
            return READ_ENDED;
        if (r->cookie->rbuf_pos > r->cookie->rbuf_last) {
            r->next = i + 1;
            return BUFFER_USED_UP;
        }
        if (i == b->end) {
            report_surplus(r, first);
            return READ_ENDED;
        }
    }
    r->next = b->end + 1;
    return ENTRIES_PASSED;
}

}   // namespace

void rtslib_read_and_decode_bulk_iov(struct rtslib_cookie *cookie, const struct rtslib_batch *batch, void **masks,
                                     uint32_t expected, bool *ended)
{
    if (!arguments_good(cookie, batch))
        return;
    bulk_read r = { cookie, batch, masks, expected, 0, batch->start, 0 };
    // Kept on purpose: no other way out. When the entries have been passed and more replies are expected than came,
    // this goes on reading for ever.
    for (;;) {
        fill_buffer(&r);
        buffer_end end = walk_entries(&r);
        if (end == READ_ENDED) {
            *ended = true;
            return;
        }
        if (end == BUFFER_USED_UP && r.decoded >= r.expected)
            return;
    }
}
