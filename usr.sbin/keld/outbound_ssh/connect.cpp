/*
 * Attempt: the processes behind one connection.
 *
 *   daemon -- forks --> first child -- forks --> grandchild: looks up, connects, identifies, becomes sshd
 *     <----- pid, by a pipe ---- exits at once
 *
 * The daemon waits for the first child only, which does nothing that takes time. The grandchild is nobody's child any
 * more: the daemon gets no signal from it and need not reap it. It leads a process group, made before its pid is handed
 * over, so that from then on the pid is enough to end it with all that it starts.
 *
 * Nothing of the daemon may live on in the grandchild, which may take minutes to connect and hours to end: not its
 * descriptors (the pid file's lock would keep a new daemon from starting, the session with the server would never
 * close), nor its signal handlers (a SIGTERM would end all clients). Only the trace file stays, until sshd begins. The
 * children end with _exit: what exit would run is the daemon's. A fatal fault of the routing socket alone ends the child
 * by way of the library's sink, with exit; the daemon leaves nothing for that to run.
 */
#include "usr.sbin/keld/outbound_ssh/obssh_private.h"

#include "lib/librtsock/vrf.h"
#include "platform/log/log.h"
#include "platform/process/process.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

enum { ATTEMPT_FAILED = 255 };   // exit status

static const char sshd_path[] = "/usr/sbin/sshd";
static const char unit[] = "outbound_ssh_connect_to_server";   // what traces begin with

/* --- connection --------------------------------------------------------------------------------------------------- */

static bool connect_inet(int fd, struct addrinfo *to, const struct obssh_srv_config *server)
{
    struct sockaddr_in *address = reinterpret_cast<struct sockaddr_in *>(to->ai_addr);
    address->sin_port = htons(server->sc_port);
    if (connect(fd, to->ai_addr, to->ai_addrlen) == 0) return true;
    tarne_trace(1, "%s: ri_name = %s Connection to: %s port: %d failed: Error - %s", unit, ri_name, server->sc_address,
                server->sc_port, strerror(errno));
    return false;
}

static bool connect_inet6(int fd, struct addrinfo *to, const struct obssh_srv_config *server)
{
    struct sockaddr_in6 *address = reinterpret_cast<struct sockaddr_in6 *>(to->ai_addr);
    address->sin6_port = htons(server->sc_port);
    if (connect(fd, to->ai_addr, to->ai_addrlen) == 0) return true;
    tarne_trace(1, "%s: Connection to: %s port: %d failed", unit, server->sc_address, server->sc_port);
    return false;
}

static bool enter_instance(int fd)
{
    if (ri_name[0] == '\0') return true;
    if (vrf_setsocketbyvrfname(fd, ri_name, nullptr) < 0) {
        tarne_trace(1, "%s: Setting routing instance = %s failed", unit, ri_name);
        return false;
    }
    tarne_trace(1, "%s: Setting routing instance = %s successful", unit, ri_name);
    return true;
}

/* A socket that is connected to the address, or -1 with the reason traced. */
static int open_connection(struct addrinfo *to, const struct obssh_srv_config *server)
{
    int fd = socket(to->ai_family, to->ai_socktype, 0);   // stays open in sshd, too
    if (fd < 0) {
        tarne_trace(1, "%s: Socket call failed", unit);
        return -1;
    }
    if (!enter_instance(fd)) return -1;
    // Kept on purpose: an address of any other family is not connected to, and sshd gets the socket as it is.
    if (to->ai_family == AF_INET && !connect_inet(fd, to, server)) return -1;
    if (to->ai_family == AF_INET6 && !connect_inet6(fd, to, server)) return -1;
    return fd;
}

/* A connection to the server, or -1 with the reason traced. Kept on purpose: only the first address of a name is tried,
 * so a name that has an IPv6 address first is never reached by IPv4. */
static int connect_to_server(const struct obssh_srv_config *server)
{
    struct addrinfo hints = {}, *result = nullptr;
    hints.ai_socktype = SOCK_STREAM;
    if (getaddrinfo(server->sc_address, nullptr, &hints, &result) != 0) {
        tarne_trace(1, "%s: getaddrinfo() failed for: %s", unit, server->sc_address);
        return -1;
    }
    int fd = open_connection(result, server);
    freeaddrinfo(result);
    return fd;
}

/* --- grandchild --------------------------------------------------------------------------------------------------- */

/* Leaves the daemon's descriptors, signal handlers and process group. */
static void leave_daemon(void)
{
    (void)setpgid(0, 0);   // the first child does the same, whichever is first
    event_disconnect();   // a line of the library's must not go into whatever gets that number
    tarne_trace_keep_only(STDERR_FILENO + 1);
    for (int number = 1; number < NSIG; number++) (void)signal(number, SIG_DFL);
    (void)signal(SIGPIPE, SIG_IGN);   // a server that vanishes is noticed by sshd
    sigset_t none;
    (void)sigemptyset(&none);
    (void)sigprocmask(SIG_SETMASK, &none, nullptr);
}

/* Makes the connection sshd's standard streams, and the process sshd. Comes back if it cannot. */
static void become_sshd(int fd, const char *file_name)
{
    char program[PLATFORM_PATH_MAX], file[PLATFORM_PATH_MAX];
    char inetd[] = "-i", configuration[] = "-f";
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; stream++) (void)dup2(fd, stream);
    if (platform_path(program, sizeof program, sshd_path) && platform_path(file, sizeof file, file_name)) {
        char *arguments[] = { program, inetd, configuration, file, nullptr };
        (void)signal(SIGPIPE, SIG_DFL);
        (void)execv(program, arguments);
    }
    tarne_trace(1, "%s: %s Failed to exec sshd. exiting...", unit, file_name);
}

[[noreturn]] static void run_attempt(const struct obssh_app_config *app, const struct obssh_srv_config *server,
                                     const char *file_name)
{
    leave_daemon();
    int fd = connect_to_server(server);
    if (fd < 0) _exit(ATTEMPT_FAILED);
    (void)obssh_send_device_conn_info(fd, app->ac_device_id);
    if (app->ac_secret[0] != '\0') (void)obssh_send_pub_host_key(fd, app->ac_secret);
    obssh_end_identification(fd);
    become_sshd(fd, file_name);
    _exit(ATTEMPT_FAILED);
}

/* --- hand-over ---------------------------------------------------------------------------------------------------- */

[[noreturn]] static void run_first_child(int pipe_end, const struct obssh_app_config *app,
                                         const struct obssh_srv_config *server, const char *file_name)
{
    int32_t pid = fork();
    if (pid == 0) run_attempt(app, server, file_name);
    if (pid > 0) (void)setpgid(pid, pid);
    if (pid < 0) pid = 0;   // which is handed over as well: there is no process
    bool handed_over = write(pipe_end, &pid, sizeof pid) == sizeof pid;
    _exit(handed_over ? 0 : ATTEMPT_FAILED);
}

/* Starts a grandchild for the attempt. True with its pid in *pid, which is 0 if the system gave no process; false with 0
 * if the pid did not come across. Signals must be held: the children leave the daemon's handlers before any can run. */
static bool start_attempt(const struct obssh_app_config *app, const struct obssh_srv_config *server,
                          const char *file_name, int32_t *pid)
{
    *pid = 0;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0) return false;
    pid_t child = fork();
    if (child == 0) run_first_child(ends[1], app, server, file_name);
    (void)close(ends[1]);   // or the end of the pipe would never be seen
    bool handed_over = child < 0;   // without a child there is nothing to hand over
    if (child > 0) {
        (void)waitpid(child, nullptr, 0);
        handed_over = read(ends[0], pid, sizeof *pid) == sizeof *pid;
        if (!handed_over) *pid = 0;
    }
    (void)close(ends[0]);
    return handed_over;
}

int outbound_ssh_connect_to_server(struct obssh_app_config *app)
{
    if (!app->ac_servers) return 1;
    char file_name[OBSSH_FILE_SIZE];
    (void)obssh_file_name(file_name, app->ac_client_id);
    const struct obssh_srv_config *server = obssh_select_server(app);
    if (!server) {
        tarne_trace(1, "%s: (%s) failed to lookup server", __func__, app->ac_client_id);
        return 1;
    }
    app->ac_attempts++;
    bool handed_over = false;
    {
        obssh_hold held;   // until the process can be ended by its pid
        handed_over = start_attempt(app, server, file_name, &app->ac_pid);
    }
    // Kept on purpose: where the pid did not come across the timer is not started, and the client rests until it is
    // changed. Where there was no process to be had, the next look finds it gone and tries again.
    if (!handed_over) return 1;
    if (app->ac_pid == 0) tarne_trace(1, "%s: (%s) no process for an attempt", __func__, app->ac_client_id);
    qtimer_start_oneshot(app->ac_timer, app->ac_timeout, 0);
    return 1;
}
