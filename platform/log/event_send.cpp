/*
 * The road to the system log.
 *
 * On a router it is a datagram to /dev/log: one RFC 5424 line each, sent without waiting, because an event that is lost
 * under load costs less than a daemon that stands still. The socket is opened with the first line and once more when
 * the other end has been restarted; a line that finds no one is lost.
 *
 * Under a root nobody listens. The text itself is then appended to var/log/messages, and the file is opened for each
 * line: events are rare, and whoever moves the file away loses nothing. The root is looked up for each line too.
 */
#include "platform/log/log.h"
#include "platform/log/log_private.h"

#include "platform/process/process.h"
#include "platform/text/text.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

static constexpr char LOG_SOCKET[] = "/dev/log";
static constexpr char LOG_FILE[] = "/var/log/messages";
static constexpr mode_t LOG_FILE_MODE = 0640;
static constexpr size_t IDENT_SIZE = 49;   // what a line has room for, and the terminator

static struct {
    char es_ident[IDENT_SIZE];   // empty: the program's name
    int es_option;               // LOG_PID is heeded
    int es_facility;
    int es_fd;                   // -1: not connected
} event_state = { "", 0, LOG_USER, -1 };

void event_disconnect(void)
{
    if (event_state.es_fd >= 0) close(event_state.es_fd);
    event_state.es_fd = -1;
}

void event_open(const char *ident, int option, int facility)
{
    (void)snprintf_safe(event_state.es_ident, IDENT_SIZE, "%s", ident ? ident : "");
    event_state.es_option = option;
    event_state.es_facility = facility;
}

void event_close(void)
{
    event_disconnect();
    event_open(nullptr, 0, LOG_USER);
}

static bool connected(void)
{
    if (event_state.es_fd >= 0) return true;

    struct sockaddr_un address{};
    address.sun_family = AF_UNIX;
    static_assert(sizeof LOG_SOCKET <= sizeof address.sun_path);
    memcpy(address.sun_path, LOG_SOCKET, sizeof LOG_SOCKET);

    event_state.es_fd = platform_lift_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (event_state.es_fd < 0) return false;
    if (connect(event_state.es_fd, (const struct sockaddr *)&address, sizeof address) == 0) return true;
    event_disconnect();
    return false;
}

static void send_line(const char *line, size_t length)
{
    enum { TRIES = 2 };   // the second one for a socket whose other end is gone

    for (int i = 0; i < TRIES && connected(); i++) {
        if (send(event_state.es_fd, line, length, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) return;
        if (errno == EAGAIN || errno == ENOBUFS || errno == EMSGSIZE) return;
        event_disconnect();
    }
}

static void append_line(const char *line, size_t length)
{
    int fd = platform_open(LOG_FILE, O_WRONLY | O_APPEND | O_CREAT, LOG_FILE_MODE);
    if (fd < 0) return;
    ssize_t written = write(fd, line, length);
    (void)written;   // what was not written is lost, and there is no one to tell
    close(fd);
}

static struct event_head head_now(int severity)
{
    struct event_head head{};
    head.eh_priority = LOG_PRI(severity) | event_state.es_facility;
    (void)clock_gettime(CLOCK_REALTIME, &head.eh_time);
    head.eh_host = system_name();
    head.eh_ident = event_state.es_ident[0] ? event_state.es_ident : program_invocation_short_name;
    head.eh_pid = event_state.es_option & LOG_PID ? getpid() : 0;
    return head;
}

void event_send_vsyslog(int severity, const char *tag, const char *const *attributes, const char *format, va_list args)
{
    int error = errno;
    char line[LOG_LINE_SIZE + 1];
    const char *root = getenv("KELD_ROOT");

    if (root && *root) {
        size_t length = log_text(line, LOG_LINE_SIZE, LOG_SHOW_PRINTED, format, args);
        line[length++] = '\n';
        append_line(line, length);
    } else {
        struct event_head head = head_now(severity);
        errno = error;   // a format may show it
        send_line(line, event_line(line, LOG_LINE_SIZE, &head, tag, attributes, format, args));
    }
    errno = error;
}
