/*
 * Management socket: buffered output.
 *
 * What is taken is copied, so that the caller may forget it. It leaves when the caller flushes; a buffer that has
 * grown past a piece is tried early, without waiting, so that a large message does not stand in memory whole when the
 * peer reads along. An error of the descriptor is for good: it is remembered, what waits is dropped, and all that
 * follows fails.
 */
#include "platform/mgmt/mgmt_sock.h"

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

static constexpr size_t fwbuf_min = 4 << 10, fwbuf_early = 16 << 10, fwbuf_keep = 64 << 10;
enum { wait_forever = -1 };

static void fwbuf_drop(struct fwbuf *fwb)
{
    fwb->fw_start = fwb->fw_end = 0;
    if (fwb->fw_size <= fwbuf_keep) return;
    free(fwb->fw_data);
    fwb->fw_data = nullptr;
    fwb->fw_size = 0;
}

int fwbuf_flush(struct fwbuf *fwb, int flags)
{
    if (!fwb || fwb->fw_errno != 0) {
        errno = fwb ? fwb->fw_errno : EINVAL;
        return -1;
    }
    while (fwb->fw_start < fwb->fw_end) {
        ssize_t sent = send(fwb->fw_fd, fwb->fw_data + fwb->fw_start, fwb->fw_end - fwb->fw_start, MSG_NOSIGNAL);
        if (sent >= 0) {
            fwb->fw_start += static_cast<size_t>(sent);
        } else if (errno == EAGAIN) {
            if (flags & FWBUF_NOWAIT) return 1;
            struct pollfd ready = { fwb->fw_fd, POLLOUT, 0 };
            (void)poll(&ready, 1, wait_forever);   // whatever ends it, send tells
        } else if (errno != EINTR) {
            fwb->fw_errno = errno;
            fwbuf_drop(fwb);
            return -1;
        }
    }
    fwbuf_drop(fwb);
    return 0;
}

/* Room for length octets behind fw_end. False with errno, and nothing lost. */
static bool fwbuf_make_room(struct fwbuf *fwb, size_t length)
{
    size_t held = fwb->fw_end - fwb->fw_start;
    if (length > FWBUF_MAX - held) {
        errno = ENOBUFS;
        return false;
    }
    if (length <= fwb->fw_size - fwb->fw_end) return true;
    if (fwb->fw_start > 0) memmove(fwb->fw_data, fwb->fw_data + fwb->fw_start, held);
    fwb->fw_start = 0;
    fwb->fw_end = held;
    if (length <= fwb->fw_size - held) return true;

    size_t size = fwb->fw_size == 0 ? fwbuf_min : fwb->fw_size;
    while (size < held + length) size *= 2;
    auto *data = static_cast<char *>(realloc(fwb->fw_data, size));
    if (!data) return false;
    fwb->fw_data = data;
    fwb->fw_size = size;
    return true;
}

ssize_t mgmt_sock_write(struct mgmt_sock *msp, const void *data, size_t length, int)
{
    if (!msp || (!data && length > 0)) {
        errno = EINVAL;
        return -1;
    }
    struct fwbuf *fwb = &msp->ms_fwb;
    if (fwb->fw_errno != 0) {
        errno = fwb->fw_errno;
        return -1;
    }
    if (fwb->fw_end - fwb->fw_start >= fwbuf_early && fwbuf_flush(fwb, FWBUF_NOWAIT) < 0) return -1;
    if (length == 0) return 0;
    if (!fwbuf_make_room(fwb, length)) return -1;
    memcpy(fwb->fw_data + fwb->fw_end, data, length);
    fwb->fw_end += length;
    return static_cast<ssize_t>(length);
}
