/*
 * Management socket: the way to the management daemon.
 *
 * A client connects, says in one line who he is (login), greets, and is greeted. From then on both sides send text
 * lines: the client calls, the daemon answers each call with lines that end with "</rpc-reply>".
 *
 * The caller's loop stands still meanwhile. Connecting never waits; the greeting may take MGMT_HANDSHAKE_S in all,
 * however many octets a slow daemon sends in that time.
 */
#include "platform/mgmt/mgmt_sock.h"

#include "platform/process/process.h"
#include "platform/text/text.h"

#include <ctype.h>
#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

enum { HOST_MAX = 256 };
static const char hello_word[] = "<hello";

int mgmt_sock_address(struct sockaddr_un *address, const char *path)
{
    struct sockaddr_un result = {};
    result.sun_family = AF_UNIX;
    if (!platform_path(result.sun_path, sizeof result.sun_path, path)) return -1;
    *address = result;
    return 0;
}

/* True if all of text was taken and is on its way. */
static bool send_now(struct mgmt_sock *msp, const char *text)
{
    if (mgmt_sock_write(msp, text, strlen(text), 0) < 1) return false;
    int left = fwbuf_flush(&msp->ms_fwb, FWBUF_NOWAIT);
    if (left > 0) errno = ETIMEDOUT;   // not even the first lines fit: nobody reads
    return left == 0;
}

static int connect_to_vrd(void)
{
    struct sockaddr_un address;
    if (mgmt_sock_address(&address, MGMT_VRD_SOCKET) < 0) return -1;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<const struct sockaddr *>(&address), sizeof address) == 0) return fd;
    int error = errno;
    (void)close(fd);
    errno = error;
    return -1;
}

struct mgmt_sock *mgmt_sock_vrd(const char *login)
{
    char line[MGMT_LOGIN_MAX + 1];
    if (!login || strchr(login, '\n') || strlen(login) >= MGMT_LOGIN_MAX) {
        errno = EINVAL;
        return nullptr;
    }
    (void)snprintf_safe(line, sizeof line, "%s\n", login);
    int fd = connect_to_vrd();
    if (fd < 0) return nullptr;

    struct mgmt_sock *msp = mgmt_sock_open_fd(fd);
    if (!msp) {
        (void)close(fd);
        return nullptr;
    }
    if (!send_now(msp, line)) {
        int error = errno;
        mgmt_sock_close(msp, 0);
        errno = error;
        return nullptr;
    }
    msp->ms_flags = 0;
    return msp;
}

static bool say_hello(struct mgmt_sock *msp, const char *host)
{
    char name[HOST_MAX], text[MGMT_LOGIN_MAX];
    (void)snprintf_safe(name, sizeof name, "%s", host ? host : "");
    for (char *at = name; *at; at++)
        if (!isalnum(static_cast<unsigned char>(*at)) && !strchr(".-_:", *at)) *at = '?';   // would not be safe in XML
    (void)snprintf_safe(text, sizeof text,
                        "<?xml version=\"1.0\" encoding=\"us-ascii\"?>\n<hello client=\"keld\" host=\"%s\"/>\n", name);
    return send_now(msp, text);
}

int xml_initial_handshake(struct mgmt_sock *msp, const char *host, int *answer_due, int)
{
    if (!msp) {
        errno = EINVAL;
        return -1;
    }
    if (!say_hello(msp, host)) return -1;
    if (!answer_due || *answer_due == 0) return 0;

    msp->ms_wait = { MGMT_HANDSHAKE_S, 0 };
    msp->ms_deadline_us = 0;
    const char *line;
    do line = mgmt_sock_input(msp, MGMT_INPUT_LINE);
    while (!line && errno == EINTR);
    msp->ms_wait = {};
    msp->ms_deadline_us = 0;

    if (line && strncmp(line, hello_word, strlen(hello_word)) == 0) {
        *answer_due = 0;
        return 0;
    }
    if (line) errno = EPROTO;
    else if (errno == EAGAIN) errno = ETIMEDOUT;
    return -1;
}
