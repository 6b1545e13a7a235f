/*
 * vrd: a small management daemon, for routers that have no other.
 *
 * It listens on a Unix socket below the root and serves any number of clients on one loop. It changes nothing on the
 * machine: every call is a question. The socket's mode keeps others than its owner out, so that the user in a login
 * line need not be proved; it is for the log.
 *
 * The lock of the pid file tells whether another one runs. Whoever holds it owns the socket, and may remove what a
 * crash has left.
 */
#include "tools/vrd/vrd.h"

#include "platform/mgmt/mgmt_sock.h"
#include "platform/process/process.h"

#include <errno.h>
#include <getopt.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

enum { EXIT_USAGE = 64, BACKLOG = 16, SHOWN_MAX = 100 };

struct vrd vrd;
static bool stopping;
static const char pid_path[] = "/var/run/vrd.pid";

static constexpr char usage_text[] =
    "usage: vrd [--help]\n"
    "\n"
    "A small management daemon: answers remote procedure calls about this router on the Unix socket\n"
    "/var/run/vrd.sock, below the folder in KELD_ROOT if that is set. Prints who called what.\n"
    "\n"
    "  --help   print this\n"
    "\n"
    "Calls: get-software-information, get-configuration, get-interface-information,\n"
    "get-system-uptime-information. SIGINT and SIGTERM end it.\n";

/* --- output ------------------------------------------------------------------------------------------------------ */

std::string printable(const std::string &text)
{
    std::string out = text.substr(0, SHOWN_MAX);
    for (char &octet : out)
        if (octet < ' ' || octet > '~') octet = '?';
    return out;
}

void say(const struct client *client, const char *format, ...)
{
    time_t now = time(nullptr);
    struct tm local;
    char clock[16] = "", text[1024];
    localtime_r(&now, &local);
    strftime(clock, sizeof clock, "%H:%M:%S", &local);
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    if (client) printf("%s #%u %s\n", clock, client->number, text);
    else printf("%s %s\n", clock, text);
    fflush(stdout);
}

[[noreturn]] static void fail(const char *what, const char *reason)
{
    fprintf(stderr, "vrd: %s: %s\n", what, reason);
    exit(1);
}

/* --- listening --------------------------------------------------------------------------------------------------- */

static void accept_ready(evContext, void *, int fd, int)
{
    int client = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) {
        if (errno != EAGAIN && errno != ECONNABORTED) say(nullptr, "cannot accept: %s", strerror(errno));
        return;
    }
    if (vrd.clients.size() < CLIENTS_MAX) return client_accept(client);
    say(nullptr, "a client was turned away: there are %d already", CLIENTS_MAX);
    close(client);
}

/* The listening socket, whose address is stored. */
static int listen_start(struct sockaddr_un *address)
{
    int lock = pid_lock(pid_path);
    if (lock < 0) fail(pid_path, errno == EWOULDBLOCK ? "another vrd runs" : strerror(errno));
    if (pid_update(lock) < 0) fail(pid_path, strerror(errno));

    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || mgmt_sock_address(address, MGMT_VRD_SOCKET) < 0) fail(MGMT_VRD_SOCKET, strerror(errno));
    (void)unlink(address->sun_path);   // left by a crash; if it cannot be removed, bind tells
    mode_t mask = umask(S_IXUSR | S_IRWXG | S_IRWXO);
    if (bind(fd, reinterpret_cast<const struct sockaddr *>(address), sizeof *address) < 0 || listen(fd, BACKLOG) < 0)
        fail(address->sun_path, strerror(errno));
    (void)umask(mask);
    return fd;
}

static void stop_now(evContext, void *, const void *)
{
    stopping = true;
}

static void stop_signal(int)
{
    (void)evDo(vrd.ev, reinterpret_cast<const void *>(stop_now));
}

static void read_options(int argc, char **argv)
{
    static const struct option names[] = { { "help", no_argument, nullptr, 'h' }, { nullptr, 0, nullptr, 0 } };
    int option = getopt_long(argc, argv, "h", names, nullptr);
    if (option == 'h') {
        fputs(usage_text, stdout);
        exit(0);
    }
    if (option != -1) exit(EXIT_USAGE);   // getopt_long has said why
    if (optind == argc) return;
    fprintf(stderr, "vrd: no such argument: '%s' (vrd --help tells more)\n", argv[optind]);
    exit(EXIT_USAGE);
}

int main(int argc, char **argv)
{
    read_options(argc, argv);
    if (evCreate(&vrd.ev) < 0 ||
        evWaitFor(vrd.ev, reinterpret_cast<const void *>(stop_now), stop_now, nullptr, nullptr) < 0)
        fail("event loop", strerror(errno));
    signal(SIGINT, stop_signal);
    signal(SIGTERM, stop_signal);

    struct sockaddr_un address;
    int fd = listen_start(&address);
    if (evSelectFD(vrd.ev, fd, EV_READ, accept_ready, nullptr, nullptr) < 0) fail("event loop", strerror(errno));
    say(nullptr, "listening on %s", address.sun_path);
    while (!stopping)
        if (evTurn(vrd.ev, -1) < 0) fail("event loop", strerror(errno));

    (void)unlink(address.sun_path);
    while (!vrd.clients.empty()) client_free(*vrd.clients.begin());
    evDestroy(vrd.ev);
    close(fd);
    say(nullptr, "stopped");
    return 0;
}
