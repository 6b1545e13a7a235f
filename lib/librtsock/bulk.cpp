/*
 * The bulk road: many messages in one write, many replies out of one read.
 *
 * The driver fills wbuf with as many messages as fit, sends the batch, reads the replies that the batch asked for, and
 * goes on behind it. When the kernel stops inside a batch the status read from it names the entry; what went through
 * before it still gets its replies, and the driver ends.
 */
#include "lib/librtsock/bulk.h"
#include "lib/librtsock/io_private.h"
#include "platform/rtsock/rtsock.h"
#include "platform/target.h"

#include <errno.h>

#include <algorithm>

namespace {

bool buffers_made(struct rtslib_cookie *cookie, const char *function)
{
    if (cookie->wbuf != nullptr && cookie->rbuf_data != nullptr)
        return true;
    rtslib_err(cookie, RTSLIB_FATAL, "%s: iobuf not initialized for bulk write!\n", function);
    return false;
}

ssize_t rtslib_write_sys(struct rtslib_cookie *cookie)
{
    size_t length = size_t(cookie->wbuf_pos - cookie->wbuf);
    if (cookie->wbuf == nullptr || cookie->wbuf > cookie->wbuf_pos || length > cookie->wbuf_sz) {
        rtslib_err(cookie, RTSLIB_FATAL, "%s: Invalid/Corrupted cookie\n", __func__);
        errno = EINVAL;
        return -1;
    }
    return rtslib_write_bracketed(cookie, cookie->wbuf, length);
}

/* The batch's entry that the kernel stopped at takes its error; the entry's index. */
uint32_t blame(struct rtslib_cookie *cookie, const struct rtslib_batch *b, const struct rtsock_bulk_status &status,
               int error)
{
    // Bounded, so that the entry that it names, real or not, cannot be taken for none.
    uint32_t index = b->start + std::min(status.count, INT32_MAX - b->start);
    rtslib_set_iov_err(cookie, b->iov, b->count, index, error, RTSLIB_IOV_WRITE);
    return index;
}

int32_t failed_write(struct rtslib_cookie *cookie, const struct rtslib_batch *b, int error)
{
    struct rtsock_bulk_status status = {};
    if (rtslib_get_bulkw_info(cookie, &status) != 0) {
        rtslib_err(cookie, RTSLIB_ERROR, "%s: get_bulkw_info failed (%d) when rtslib_write_sys returned errno(%d)",
                   "rtslib_write_bulk_iov", target_errno_from_host(errno), target_errno_from_host(error));
        status = {};
        return int32_t(blame(cookie, b, status, 0));
    }
    return int32_t(blame(cookie, b, status, status.error != 0 ? int(status.error) : target_errno_from_host(error)));
}

int32_t short_write(struct rtslib_cookie *cookie, const struct rtslib_batch *b, ssize_t count)
{
    struct rtsock_bulk_status status = {};
    if (b->start == b->end)
        return int32_t(blame(cookie, b, status, 0));
    if (rtslib_get_bulkw_info(cookie, &status) != 0) {
        rtslib_err(cookie, RTSLIB_ERROR, "%s: get_bulkw_info failed (%d) when rtslib_write_sys returned %d",
                   "rtslib_write_bulk_iov", target_errno_from_host(errno), int(count));
        status = {};
        return int32_t(blame(cookie, b, status, 0));
    }
    return int32_t(blame(cookie, b, status, int(status.error)));
}

/* Entries of the batch before end, which is the kernel's word and may lie past the array. */
uint32_t count_asking(const struct rtslib_batch *b, uint32_t end)
{
    uint32_t asking = 0;
    for (uint32_t i = b->start; i < std::min(end, b->count); i++)
        asking += rtslib_iov_asks(&b->iov[i]) ? 1 : 0;
    return asking;
}

/* Fills wbuf from entry start on. *expected: replies asked for. Gives the last entry of the batch. */
uint32_t fill_batch(struct rtslib_cookie *cookie, struct rtslib_batch *b, void **masks, uint32_t *expected)
{
    *expected = 0;
    cookie->wbuf_pos = cookie->wbuf;
    for (uint32_t i = b->start; i < b->count; i++) {
        uint32_t length = 0;
        *expected += rtslib_iov_asks(&b->iov[i]) ? 1 : 0;
        if (rtslib_bulkmsg_idl_encode(cookie, &length, b->iov[i].msg, masks != nullptr ? masks[i] : nullptr) == 0) {
            cookie->wbuf_pos += length;
            continue;
        }
        if (i > b->start)
            return i - 1;   // Kept on purpose: the entry that did not fit stays counted if it asks for a reply.
        rtslib_err(cookie, RTSLIB_FATAL, "%s: Cookie buffer(%u) not big enough for even one message(%u)\n",
                   "rtslib_msg_writev_idl", cookie->wbuf_sz, length);
        b->iov[i].write_err = TARGET_EMSGSIZE;
        return UINT32_MAX;
    }
    return b->count - 1;
}

/* Sends one batch and reads its replies. False when the driver is to end. */
bool run_batch(struct rtslib_cookie *cookie, struct rtslib_batch *b, void **masks, uint32_t expected)
{
    int32_t stop = -1;
    rtslib_write_bulk_iov(cookie, b, &stop);
    if (stop == int32_t(b->start))
        return false;
    bool ended = stop >= 0;
    if (ended) {
        b->end = uint32_t(stop) - 1;
        expected = count_asking(b, uint32_t(stop));
    }
    if (expected > 0)
        rtslib_read_and_decode_bulk_iov(cookie, b, masks, expected, &ended);
    return !ended;
}

}   // namespace

void rtslib_set_iov_err(struct rtslib_cookie *cookie, struct rtslib_iov *iov, uint32_t count, uint32_t index,
                        int error, enum rtslib_iov_side side)
{
    int current = errno;
    if (iov == nullptr || cookie == nullptr) {
        rtslib_err(cookie, RTSLIB_FATAL, "%s: NULL ptr: iov=%p, cookie=%p\n", __func__, static_cast<void *>(iov),
                   static_cast<void *>(cookie));
        return;
    }
    if (index >= count) {
        rtslib_err(cookie, RTSLIB_FATAL, "%s: attempt to write to idx %d when size of iov is %d\n", __func__,
                   int(index), int(count));
        return;
    }
    if (error == 0)
        error = target_errno_from_host(current);
    if (error == 0) {
        error = TARGET_EINVAL;
        rtslib_err(cookie, RTSLIB_ERROR, "%s: errno is 0 when non-zero is expected!\n", __func__);
    }
    (side == RTSLIB_IOV_WRITE ? iov[index].write_err : iov[index].read_err) = uint32_t(error);
}

void rtslib_write_bulk_iov(struct rtslib_cookie *cookie, const struct rtslib_batch *b, int32_t *stop)
{
    if (!buffers_made(cookie, __func__))
        return;
    size_t length = size_t(cookie->wbuf_pos - cookie->wbuf);
    ssize_t count = rtslib_write_sys(cookie);
    if (count < 0)
        *stop = failed_write(cookie, b, errno);
    else if (size_t(count) > length)
        rtslib_err(cookie, RTSLIB_FATAL, "%s: wrote %d bytes, got %d!", __func__, int(length), int(count));
    else if (size_t(count) < length)
        *stop = short_write(cookie, b, count);
}

int rtslib_msg_writev_idl(struct rtslib_cookie *cookie, uint32_t count, struct rtslib_iov *iov, void **masks)
{
    if (cookie == nullptr)
        return TARGET_EINVAL;
    if (count == 0 || iov == nullptr)
        rtslib_err(cookie, RTSLIB_FATAL, "%s: Invalid input from caller: %d entries, iov=%p\n", __func__, int(count),
                   static_cast<void *>(iov));
    // Without buffers it goes on, as far as the first entry: the encoder refuses.
    buffers_made(cookie, __func__);
    if (iov == nullptr)
        return 0;
    struct rtslib_batch b = { iov, count, 0, 0 };
    while (b.start < count) {
        uint32_t expected;
        b.end = fill_batch(cookie, &b, masks, &expected);
        if (b.end == UINT32_MAX || !run_batch(cookie, &b, masks, expected))
            break;
        b.start = b.end + 1;
    }
    return 0;
}
