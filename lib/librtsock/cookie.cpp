/*
 * The connection of a cookie: socket, version exchange, options, and the end of all that the cookie owns.
 *
 * Message versions are compared and reported, never negotiated: the library goes on speaking its own. Only a kernel of
 * another interface version is refused.
 */
#include "lib/librtsock/rtslib_cookie.h"
#include "lib/librtsock/async/async.h"
#include "lib/librtsock/rtslib_unnum.h"
#include "platform/rtsock/rtsock.h"
#include "platform/target.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>

namespace {

int fail_to(struct rtslib_cookie *cookie, const char *what)
{
    rtslib_err(cookie, RTSLIB_ERROR, "%s(): Failed to %s with errno %u\n", "rtslib_connect", what,
               unsigned(target_errno_from_host(errno)));
    return -1;
}

void compare_type_count(struct rtslib_cookie *cookie, uint8_t kernel)
{
    if (kernel > RTSLIB_TYPES)
        rtslib_err(cookie, RTSLIB_WARNING,
                   "kernel has new unknown messages: expected %d got %d,a reboot or software upgrade may be required\n",
                   RTSLIB_TYPES, kernel);
    else if (kernel < RTSLIB_TYPES)
        rtslib_err(cookie, RTSLIB_ERROR,
                   "kernel does not support all messages: expected %d got %d,"
                   "a reboot or software upgrade may be required\n",
                   RTSLIB_TYPES, kernel);
}

void compare_types(struct rtslib_cookie *cookie, const uint8_t *kernel)
{
    for (int type = 1; type < RTSLIB_TYPES; type++) {
        if (kernel[1 + type] != rtslib_versions[1 + type])
            rtslib_err(cookie, RTSLIB_WARNING,
                       "version mismatch for msg %s (%d): expected %d got %d,"
                       "a reboot or software upgrade may be required\n",
                       rtm_types[type], type, rtslib_versions[1 + type], kernel[1 + type]);
    }
}

int rtslib_version_check(struct rtslib_cookie *cookie)
{
    if (cookie == nullptr || cookie->version_info != nullptr)
        return TARGET_EINVAL;
    uint8_t kernel[RTSOCK_VERSIONS_MAX] = {};
    socklen_t length = sizeof kernel;
    if (rtsock_getsockopt(cookie->socket, RTSOCK_LEVEL, RTSOCK_VERSIONS, kernel, &length) < 0) {
        rtslib_err(cookie, RTSLIB_FATAL, "version sockopt failed: %s", strerror(errno));
        return -1;
    }
    if (kernel[1] != RTSLIB_INTERFACE_VERSION) {
        rtslib_err(cookie, RTSLIB_FATAL,
                   "interface version mismatch: kernel=%d library=%d,a reboot or software upgrade may be required\n",
                   kernel[1], RTSLIB_INTERFACE_VERSION);
        errno = ECONNREFUSED;
        return -1;
    }
    compare_type_count(cookie, kernel[0]);
    compare_types(cookie, kernel);
    cookie->version_info = static_cast<uint8_t *>(rtslib_size_alloc(cookie, length));
    if (cookie->version_info == nullptr) {
        rtslib_err(cookie, RTSLIB_WARNING, "Malloc failure for version_info");
        return -1;
    }
    memcpy(cookie->version_info, kernel, length);
    return 0;
}

int rtslib_connect(struct rtslib_cookie *cookie)
{
    if (cookie == nullptr || cookie->socket != -1)
        return TARGET_EINVAL;
    int fd = rtsock_open();
    if (fd < 0)
        return fail_to(cookie, "open a new routing socket");
    cookie->socket = fd;
    if (rtsock_fcntl(fd, F_SETFL, O_NONBLOCK) < 0)
        return fail_to(cookie, "set nonblocking behaviour on the socket");
    if (rtsock_fcntl(fd, F_SETFD, FD_CLOEXEC) < 0)
        return fail_to(cookie, "set close-on-exec flag on the socket");
    return rtslib_version_check(cookie);
}

/* The asynchronous mode wants room for a storm of events. */
bool too_small_for_mode(const struct rtslib_cookie *cookie, int32_t send_size, int32_t receive_size)
{
    return cookie->async_info != nullptr && (cookie->async_info->async_mode & RTSLIB_ASYNC_ON) != 0 &&
           (send_size < RTSLIB_BUFFER_SIZE || receive_size < RTSLIB_BUFFER_SIZE);
}

bool wants_receive_buffer(const struct rtslib_cookie *cookie)
{
    return (cookie->sync_mode & RTS_SYNC_BULK_ENABLE) != 0 ||
           (cookie->async_info != nullptr && cookie->rbuf_data != nullptr);
}

int resize_receive_buffer(struct rtslib_cookie *cookie, uint32_t size)
{
    auto *buffer = static_cast<uint8_t *>(rtslib_realloc(MEMID_RTSLIB_MSG, cookie->rbuf_data, size));
    if (buffer == nullptr) {
        rtslib_err(cookie, RTSLIB_ERROR, "%s: Failed to re-allocate rbuf %s", "rtslib_set_buffers", strerror(errno));
        return TARGET_ENOMEM;
    }
    cookie->rbuf_data = buffer;
    cookie->rbuf_sz = size;
    return 0;
}

}   // namespace

struct rtslib_cookie *rtslib_cookie_create(void)
{
    auto *cookie = static_cast<rtslib_cookie *>(rtslib_calloc(MEMID_RTSLIB_COOKIE, 1, sizeof(rtslib_cookie)));
    if (cookie == nullptr) {
        rtslib_err(nullptr, RTSLIB_ERROR, "Failed to allocate memory for rtslib_cookie\n");
        return nullptr;
    }
    cookie->socket = -1;
    cookie->seq = 1;
    cookie->err_fn = rtslib_lib_error;
    cookie->read_buffer = static_cast<uint8_t *>(rtslib_malloc(MEMID_RTSLIB_READ_BUFFER, RTSLIB_READ_BUFFER_SIZE));
    if (cookie->read_buffer == nullptr) {
        rtslib_err(nullptr, RTSLIB_ERROR, "Failed to allocate memory for rtslib cookie read_buffer\n");
        rtslib_free(MEMID_RTSLIB_COOKIE, cookie);
        return nullptr;
    }
    return cookie;
}

struct rtslib_cookie *rtslib_set_defaults(struct rtslib_cookie *cookie, uint8_t sender)
{
    if (rtslib_connect(cookie) != 0) {
        // Kept on purpose: the read buffer and an open socket stay behind, where one would expect the whole cookie to
        // be destroyed as below.
        rtslib_free(MEMID_RTSLIB_COOKIE, cookie);
        return nullptr;
    }
    rtslib_set_sender_id(cookie, sender);
    if (rtslib_set_buffers(cookie, RTSLIB_BUFFER_SIZE, RTSLIB_BUFFER_SIZE) != 0) {
        rtslib_cookie_destroy(cookie);
        return nullptr;
    }
    return cookie;
}

struct rtslib_cookie *rtslib_open(uint8_t sender)
{
    struct rtslib_cookie *cookie = rtslib_cookie_create();
    return cookie != nullptr ? rtslib_set_defaults(cookie, sender) : nullptr;
}

void rtslib_cookie_destroy(struct rtslib_cookie *cookie)
{
    if (cookie == nullptr)
        return;
    if (cookie->socket != -1)
        rtsock_close(cookie->socket);
    cookie->socket = -1;
    rtslib_free(MEMID_RTSLIB_MSG, cookie->version_info);
    rtslib_free(MEMID_RTSLIB_READ_BUFFER, cookie->read_buffer);
    rtslib_async_pass_end(cookie);
    if (cookie->async_info != nullptr)
        (void)rtslib_destroy_async_context(cookie);   // a block whose event context will not end stays behind
    if (cookie->unnum != nullptr)
        rtslib_unnum_ifa_cleanup(cookie);
    rtslib_free(MEMID_RTSLIB_MSG, cookie->wbuf);
    rtslib_free(MEMID_RTSLIB_MSG, cookie->rbuf_data);
    rtslib_free(MEMID_RTSLIB_COOKIE, cookie);
}

void rtslib_close(struct rtslib_cookie *cookie)
{
    rtslib_cookie_destroy(cookie);
}

int rtslib_set_sender_id(struct rtslib_cookie *cookie, uint8_t sender)
{
    if (cookie == nullptr)
        return TARGET_EINVAL;
    if (rtsock_setsockopt(cookie->socket, RTSOCK_LEVEL, RTSOCK_SENDER_ID, &sender, sizeof sender) < 0)
        rtslib_err(cookie, RTSLIB_WARNING, "setsockopt(ROUTE_SENDER_ID) failed, %s", strerror(errno));
    return 0;
}

int rtslib_set_buffers(struct rtslib_cookie *cookie, int32_t send_size, int32_t receive_size)
{
    if (cookie == nullptr)
        return TARGET_EINVAL;
    if (send_size <= 0) {
        rtslib_err(cookie, RTSLIB_ERROR, "Attempted to set an invalid send buffer size %d\n", send_size);
        return TARGET_EINVAL;
    }
    if (receive_size <= 0) {
        rtslib_err(cookie, RTSLIB_ERROR, "Attempted  to set an invalid receive buffer size %d\n", receive_size);
        return TARGET_EINVAL;
    }
    if (too_small_for_mode(cookie, send_size, receive_size)) {
        rtslib_err(cookie, RTSLIB_ERROR, "Attempted to set an invalid buffer size(send size: %d, recv size: %d)\n",
                   send_size, receive_size);
        return TARGET_EINVAL;
    }
    if (rtsock_setsockopt(cookie->socket, SOL_SOCKET, SO_SNDBUF, &send_size, sizeof send_size) < 0 ||
        rtsock_setsockopt(cookie->socket, SOL_SOCKET, SO_RCVBUF, &receive_size, sizeof receive_size) < 0)
        return target_errno_from_host(errno);
    return wants_receive_buffer(cookie) ? resize_receive_buffer(cookie, uint32_t(receive_size)) : 0;
}
