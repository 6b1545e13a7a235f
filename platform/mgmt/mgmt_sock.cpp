/*
 * Management socket: handles and line input.
 *
 * The event loop asks the kernel whether the descriptor is readable, and the user takes as many lines as he likes
 * before he goes back to the loop. A line that waits in our buffer while the kernel has nothing left would then wait
 * for ever. So a read never takes the last octet that the kernel has, unless it is the only one:
 *
 *   - While a whole line stands in the buffer, the kernel holds at least one octet, and the descriptor is readable.
 *   - Only when no whole line is left is that octet taken. It can complete one line, which the caller gets at once.
 *
 * Lines are given out where they stand, their line feed overwritten. The buffer moves its rest to the front or grows
 * only when it is full, so a line of n octets costs n copied octets, whatever pieces it comes in; it shrinks when it
 * is empty.
 */
#include "platform/mgmt/mgmt_sock.h"

#include "platform/ev/ev.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

static constexpr size_t fbuf_min = 64 << 10, fbuf_max = MGMT_LINE_MAX + 1;   // sizes of the read buffer
enum { us_per_s = 1000000, ns_per_us = 1000, us_per_ms = 1000, wait_forever = -1 };

/* --- the read buffer --------------------------------------------------------------------------------------------- */

/* Nothing more will come. */
static void fbuf_end(struct fbuf *fbp, int error)
{
    fbp->fb_flags |= FBUF_EOF;
    fbp->fb_errno = error;
}

/* The next whole line, or null. */
static char *fbuf_take_line(struct fbuf *fbp)
{
    if (fbp->fb_scanned == fbp->fb_end) return nullptr;
    char *end = static_cast<char *>(memchr(fbp->fb_data + fbp->fb_scanned, '\n', fbp->fb_end - fbp->fb_scanned));
    if (!end) {
        fbp->fb_scanned = fbp->fb_end;
        return nullptr;
    }
    *end = '\0';
    char *line = fbp->fb_data + fbp->fb_start;
    fbp->fb_start = fbp->fb_scanned = static_cast<size_t>(end + 1 - fbp->fb_data);
    return line;
}

static bool fbuf_resize(struct fbuf *fbp, size_t size)
{
    auto *data = static_cast<char *>(realloc(fbp->fb_data, size));
    if (!data) return false;
    fbp->fb_data = data;
    fbp->fb_size = size;
    return true;
}

/* Sees to it that octets can be added behind fb_end. False with the stream given up, if that cannot be. */
static bool fbuf_make_room(struct fbuf *fbp)
{
    size_t held = fbp->fb_end - fbp->fb_start;
    if (held == 0) {
        fbp->fb_start = fbp->fb_scanned = fbp->fb_end = 0;
        if (fbp->fb_size > fbuf_min) (void)fbuf_resize(fbp, fbuf_min);   // a long line has been through
    }
    if (fbp->fb_end < fbp->fb_size) return true;
    if (held > MGMT_LINE_MAX) {
        fbuf_end(fbp, EMSGSIZE);
        return false;
    }
    if (fbp->fb_start > 0 && (held <= fbp->fb_size / 2 || fbp->fb_size == fbuf_max)) {
        memmove(fbp->fb_data, fbp->fb_data + fbp->fb_start, held);
        fbp->fb_scanned -= fbp->fb_start;
        fbp->fb_start = 0;
        fbp->fb_end = held;
        return true;
    }
    size_t size = fbp->fb_size == 0 ? fbuf_min : fbp->fb_size * 2;
    if (fbuf_resize(fbp, size < fbuf_max ? size : fbuf_max)) return true;
    fbuf_end(fbp, ENOMEM);
    return false;
}

/* Drops what an unfinished line has above fb_line_max. True if there was any. What comes behind it goes in its
 * place, so that the line, when its end comes, has at least fb_line_max octets. */
static bool fbuf_cut_line(struct fbuf *fbp)
{
    size_t held = fbp->fb_end - fbp->fb_start;
    if (fbp->fb_line_max == 0 || held <= fbp->fb_line_max) return false;
    fbp->fb_end = fbp->fb_scanned = fbp->fb_start + fbp->fb_line_max;
    return true;
}

/* Reads once. True if octets came, or the stream is over; false if there is nothing to read now. */
static bool fbuf_fill(struct fbuf *fbp, int fd)
{
    if (!fbuf_make_room(fbp)) return true;

    int waiting = 0;
    (void)ioctl(fd, FIONREAD, &waiting);   // a descriptor that cannot tell is read octet by octet
    size_t want = waiting > 1 ? static_cast<size_t>(waiting) - 1 : 1;
    size_t room = fbp->fb_size - fbp->fb_end;
    ssize_t got = read(fd, fbp->fb_data + fbp->fb_end, want < room ? want : room);
    if (got > 0) fbp->fb_end += static_cast<size_t>(got);
    else if (got == 0) fbuf_end(fbp, ECONNRESET);
    else if (errno == EAGAIN) return false;
    else if (errno != EINTR) fbuf_end(fbp, errno);
    return true;
}

/* --- input ------------------------------------------------------------------------------------------------------- */

static int64_t now_us(void)
{
    struct ev_timespec now = evNowTime();
    return static_cast<int64_t>(now.tv_sec) * us_per_s + now.tv_nsec / ns_per_us;
}

/* Microseconds that input may wait now; wait_forever for no limit. */
static int64_t wait_left_us(struct mgmt_sock *msp)
{
    int64_t limit_us = static_cast<int64_t>(msp->ms_wait.mw_sec) * us_per_s + msp->ms_wait.mw_usec;
    if (limit_us <= 0) {
        msp->ms_deadline_us = 0;
        return msp->ms_flags & MGMT_SOCK_NOWAIT ? 0 : wait_forever;
    }
    int64_t now = now_us();
    if (msp->ms_deadline_us == 0) msp->ms_deadline_us = now + limit_us;
    return msp->ms_deadline_us > now ? msp->ms_deadline_us - now : 0;
}

/* Waits for input. True if there is some; else errno is EAGAIN, the time being over, or EINTR. */
static bool wait_for_input(int fd, int64_t left_us)
{
    struct pollfd ready = { fd, POLLIN, 0 };
    int timeout_ms = left_us == wait_forever ? -1 : static_cast<int>((left_us + us_per_ms - 1) / us_per_ms);
    int count = timeout_ms == 0 ? 0 : poll(&ready, 1, timeout_ms);
    if (count == 0) errno = EAGAIN;
    return count > 0;
}

char *mgmt_sock_input(struct mgmt_sock *msp, uint32_t)
{
    if (!msp || !msp->ms_fbp) {
        errno = EINVAL;
        return nullptr;
    }
    struct fbuf *fbp = msp->ms_fbp;
    for (;;) {
        int64_t left_us = wait_left_us(msp);
        if (left_us == 0 && msp->ms_deadline_us != 0) {   // a peer that never stops talking is cut short as well
            errno = EAGAIN;
            return nullptr;
        }
        if (char *line = fbuf_take_line(fbp)) return line;
        if (fbp->fb_flags & FBUF_EOF) {
            errno = fbp->fb_errno;
            return nullptr;
        }
        if (fbuf_cut_line(fbp)) {   // whoever sends without line ends is read a piece a turn
            errno = EAGAIN;
            return nullptr;
        }
        if (!fbuf_fill(fbp, msp->ms_fd) && !wait_for_input(msp->ms_fd, left_us)) return nullptr;
    }
}

char *mgmt_sock_get_xml(struct mgmt_sock *msp, uint32_t flags)
{
    return mgmt_sock_input(msp, flags);
}

/* --- handles ----------------------------------------------------------------------------------------------------- */

struct mgmt_sock *mgmt_sock_open_fd(int fd)
{
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) return nullptr;

    auto *msp = static_cast<struct mgmt_sock *>(calloc(1, sizeof(struct mgmt_sock)));
    auto *fbp = static_cast<struct fbuf *>(calloc(1, sizeof(struct fbuf)));
    if (!msp || !fbp) {
        free(msp);
        free(fbp);
        errno = ENOMEM;
        return nullptr;
    }
    msp->ms_fd = msp->ms_fwb.fw_fd = fd;
    msp->ms_flags = MGMT_SOCK_NOWAIT;
    msp->ms_fbp = fbp;
    return msp;
}

void mgmt_sock_close(struct mgmt_sock *msp, int)
{
    if (!msp) return;
    (void)close(msp->ms_fd);   // the descriptor is gone, whatever the result
    if (msp->ms_fbp) free(msp->ms_fbp->fb_data);
    free(msp->ms_fbp);
    free(msp->ms_fwb.fw_data);
    free(msp);
}
