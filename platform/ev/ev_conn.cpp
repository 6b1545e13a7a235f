/*
 * Connections: connect() without waiting, told to a callback at a later turn.
 *
 * The descriptor is watched for writing before connect() is called. A socket that connected at once is writable, and
 * one that failed at once hangs up, so the kernel reports every outcome by itself and no second road is needed. Only
 * an error that connect() has told already must be kept, since the socket does not tell it again.
 *
 * The callback gets a blocking descriptor, and owns it. After a failure nobody would close it: the caller may have
 * lost the number by then, so it is closed here, before the callback, which thus may open its next socket at once.
 */
#include "platform/ev/ev_private.h"

#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

/* Whether connect's error is about the arguments, and would come back with every try. */
static bool can_never_work(int error)
{
    static constexpr int errors[] = { EBADF, ENOTSOCK, EFAULT, EINVAL, EAFNOSUPPORT, EOPNOTSUPP, EISCONN, EALREADY };
    for (int never : errors) {
        if (never == error) return true;
    }
    return false;
}

static int socket_error(int fd)
{
    int error = 0;
    socklen_t length = sizeof error;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 ? error : errno;
}

static void conn_failed(evContext ctx, evConnFunc func, void *uap, int fd, int error)
{
    ev_debug(ctx, 2, "descriptor %d: not connected: %s", fd, strerror(error));
    (void)close(fd);   // nothing was sent, so nothing can be lost
    errno = error;
    func(ctx, uap, -1, nullptr, 0, nullptr, 0);
}

static void conn_ready(evContext ctx, void *uap, int fd, int)
{
    auto *conn = static_cast<struct ev_conn *>(uap);
    struct ev_conn done = *conn;
    ev_pool_put(&ctx->cx_conn_pool, conn);
    (void)evDeselectFD(ctx, done.cn_file);   // stands until now

    int error = done.cn_error ? done.cn_error : socket_error(fd);
    if (error) return conn_failed(ctx, done.cn_func, done.cn_uap, fd, error);
    struct sockaddr_storage local = {}, remote = {};
    socklen_t local_length = sizeof local, remote_length = sizeof remote;
    if (getsockname(fd, reinterpret_cast<struct sockaddr *>(&local), &local_length) != 0 ||
        getpeername(fd, reinterpret_cast<struct sockaddr *>(&remote), &remote_length) != 0 ||
        ev_fd_set_blocking(fd, true, nullptr) != 0) {
        return conn_failed(ctx, done.cn_func, done.cn_uap, fd, errno);
    }
    ev_debug(ctx, 2, "descriptor %d: connected", fd);
    done.cn_func(ctx, done.cn_uap, fd, &local, static_cast<int>(local_length), &remote,
                 static_cast<int>(remote_length));
}

static void conn_end(struct ev_context *ctx, struct ev_conn *conn)
{
    if (conn->cn_file) (void)evDeselectFD(ctx, conn->cn_file);
    ev_pool_put(&ctx->cx_conn_pool, conn);
}

/* Watches and connects. 0, also when the outcome is still open or an error is kept for the callback; or -1 with
 * errno. */
static int conn_start(struct ev_context *ctx, struct ev_conn *conn, int fd, const void *addr, int addr_len)
{
    conn->cn_file = ev_file_watch_connect(ctx, fd, conn_ready, conn);
    if (!conn->cn_file) return -1;
    bool was_blocking = false;
    if (ev_fd_set_blocking(fd, false, &was_blocking) != 0) return -1;
    if (connect(fd, static_cast<const struct sockaddr *>(addr), static_cast<socklen_t>(addr_len)) == 0) return 0;
    if (errno == EINPROGRESS || errno == EINTR) return 0;
    conn->cn_error = errno;
    if (!can_never_work(conn->cn_error)) return 0;
    if (was_blocking) (void)ev_fd_set_blocking(fd, true, nullptr);   // worked a moment ago
    errno = conn->cn_error;
    return -1;
}

/* True for the address that stands for none. The kernel would take it for this machine and connect to whoever
 * listens. */
static bool address_is_none(const void *addr, int addr_len)
{
    struct sockaddr_in in = {};
    if (addr_len < static_cast<int>(sizeof in)) return false;
    memcpy(&in, addr, sizeof in);
    return in.sin_family == AF_INET && in.sin_addr.s_addr == INADDR_ANY;
}

int evConnect(evContext ctx, int fd, const void *addr, int addr_len, evConnFunc func, void *uap, evConnID *id)
{
    if (!func || !addr || addr_len <= 0) {
        errno = EINVAL;
        return -1;
    }
    if (address_is_none(addr, addr_len)) {
        errno = EADDRNOTAVAIL;
        return -1;
    }
    auto *conn = static_cast<struct ev_conn *>(ev_pool_get(&ctx->cx_conn_pool));
    if (!conn) {
        errno = ENOMEM;
        return -1;
    }
    conn->cn_func = func;
    conn->cn_uap = uap;
    if (conn_start(ctx, conn, fd, addr, addr_len) != 0) {
        int error = errno;
        conn_end(ctx, conn);
        errno = error;
        return -1;
    }
    if (id) *id = conn;
    ev_debug(ctx, 1, "descriptor %d: connecting", fd);
    return 0;
}

int evCancelConn(evContext ctx, evConnID id)
{
    if (!ev_record_is_live(id)) {
        errno = EINVAL;
        return -1;
    }
    ev_debug(ctx, 1, "descriptor %d: connection forgotten", id->cn_file->fi_fd);
    conn_end(ctx, id);
    return 0;
}
