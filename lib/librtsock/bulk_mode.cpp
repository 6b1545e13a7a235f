/*
 * Modes and buffers of a cookie: bulk mode, its send buffer, and the pacing of the socket.
 *
 * Bulk mode is set once in the life of a cookie. Going back to single messages leaves the buffers where they are.
 */
#include "lib/librtsock/rtslib_io.h"
#include "platform/rtsock/rtsock.h"
#include "platform/target.h"

#include <errno.h>
#include <string.h>

namespace {

enum { SYNC_MODES = 2 };

int fail_mode(struct rtslib_cookie *cookie, const char *what, const char *why)
{
    rtslib_err(cookie, RTSLIB_ERROR, "%s: %s%s", "rtslib_set_sync_mode", what, why);
    return -1;
}

bool read_size(struct rtslib_cookie *cookie, int option, uint32_t *size)
{
    socklen_t length = sizeof *size;
    return rtsock_getsockopt(cookie->socket, SOL_SOCKET, option, size, &length) >= 0;
}

int make_bulk_buffers(struct rtslib_cookie *cookie)
{
    uint32_t send_size, receive_size;
    if (!read_size(cookie, SO_SNDBUF, &send_size))
        return fail_mode(cookie, "Failed to get SO_SNDBUF ", strerror(errno));
    if (!read_size(cookie, SO_RCVBUF, &receive_size))
        return fail_mode(cookie, "Failed to get SO_RCVBUF ", strerror(errno));
    if (cookie->wbuf != nullptr || cookie->rbuf_data != nullptr)
        return fail_mode(cookie, "RTS_SYNC_BULK_ENABLE has already been set!", "");
    cookie->wbuf = static_cast<uint8_t *>(rtslib_size_alloc(cookie, send_size));
    if (cookie->wbuf == nullptr)
        return fail_mode(cookie, "Failed to allocate wbuf", "");
    cookie->rbuf_data = static_cast<uint8_t *>(rtslib_size_alloc(cookie, receive_size));
    if (cookie->rbuf_data == nullptr)
        return fail_mode(cookie, "Failed to allocate rbuf", "");
    cookie->wbuf_pos = cookie->wbuf;
    cookie->wbuf_sz = send_size;
    cookie->rbuf_sz = receive_size;
    return 0;
}

struct pacing_row {
    int option;
    const char *name;
};
constexpr pacing_row pacings[] = { { RTSOCK_SEND_PACING, "sync snd" }, { RTSOCK_RECEIVE_PACING, "asnyc rcv" } };

}   // namespace

int rtslib_set_sync_mode(struct rtslib_cookie *cookie, uint32_t mode)
{
    if (cookie == nullptr)
        return -1;
    if (mode >= SYNC_MODES) {
        rtslib_err(cookie, RTSLIB_ERROR, "%s: Unsupported setting for sync mode %u", __func__, mode);
        return -1;
    }
    if (rtsock_setsockopt(cookie->socket, RTSOCK_LEVEL, RTSOCK_SYNC_MODE, &mode, sizeof mode) < 0)
        return fail_mode(cookie, "Failed to set sync mode ", strerror(errno));
    cookie->sync_mode = mode;
    return mode == RTS_SYNC_BULK_ENABLE ? make_bulk_buffers(cookie) : 0;
}

int rtslib_set_bulk_buffer(struct rtslib_cookie *cookie, uint32_t size)
{
    if (cookie == nullptr || (cookie->sync_mode & RTS_SYNC_BULK_ENABLE) == 0)
        return TARGET_EINVAL;
    void *buffer = rtslib_realloc(MEMID_RTSLIB_MSG, cookie->wbuf, size);
    if (buffer == nullptr) {
        rtslib_err(cookie, RTSLIB_ERROR, "%s: Failed to re-allocate wbuf %s", __func__, strerror(errno));
        return TARGET_ENOMEM;
    }
    cookie->wbuf = static_cast<uint8_t *>(buffer);
    cookie->wbuf_sz = size;
    return 0;
}

int rtslib_get_bulkw_info(struct rtslib_cookie *cookie, void *out)
{
    if (cookie == nullptr || out == nullptr)
        return TARGET_EINVAL;
    struct rtsock_bulk_status status = {};
    socklen_t length = sizeof status;
    int result = rtsock_getsockopt(cookie->socket, RTSOCK_LEVEL, RTSOCK_BULK_STATUS, &status, &length);
    if (result < 0) {
        rtslib_err(cookie, RTSLIB_ERROR, "Failed to get bulk write info %s", strerror(errno));
        return result;
    }
    memcpy(out, &status, sizeof status);
    return 0;
}

int rtslib_set_io_min_elapse(struct rtslib_cookie *cookie, uint32_t value, int which)
{
    if (cookie == nullptr)
        return -1;
    if (which != 0 && which != 1) {
        rtslib_err(cookie, RTSLIB_FATAL, "Illegal socket type: %d", which);
        return 0;
    }
    if (rtsock_setsockopt(cookie->socket, RTSOCK_LEVEL, pacings[which].option, &value, sizeof value) < 0) {
        rtslib_err(cookie, RTSLIB_ERROR, "failed to set %s min elapsed time %s", pacings[which].name,
                   strerror(errno));
        return -1;
    }
    return 0;
}
