/*
 * Process entry: options, becoming a daemon, the event context, signals, the first configuration, and the loop.
 *
 * The order of the start is deliberate. Logging comes first, so that even the options can be reported. The pid file is
 * locked before the process leaves the foreground, so that a second instance fails where its caller sees it, and
 * written afterwards, so that it holds the daemon's pid. The reload job waits before the configuration is read, so that
 * no SIGHUP is lost between the two.
 *
 * SIGHUP is turned into an event. SIGTERM ends the process from its handler. The pid file stays: its lock, not the
 * file, tells whether a daemon runs.
 */
#include "usr.sbin/keld/main/keld.h"
#include "usr.sbin/keld/keld_ui.h"
#include "usr.sbin/keld/main/tags.h"

#include "platform/process/process.h"
#include "platform/rtsock/linux/rtsock_linux.h"

#include <algorithm>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sysexits.h>
#include <syslog.h>
#include <unistd.h>

static const char pid_file[] = "/var/run/keld.pid";
enum {
    EV_DEBUG_FROM = 2,             // -d options that turn on the event library's own output
    EXIT_STATUS_MAX = 255,
};

struct options {
    int o_check, o_version, o_extended, o_no_daemon;   // how often -C, -v, -X and -N were given
};

static const char *short_name(const char *path)
{
    const char *slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

static void parse_options(int argc, char **argv, const char *name, struct options *options)
{
    opterr = 0;   // the usage line is the one message
    int option;
    while ((option = getopt(argc, argv, "CdNvX")) != -1) {
        switch (option) {
        case 'C': options->o_check++; break;
        case 'd': keld_debug++; break;
        case 'N': options->o_no_daemon++; break;
        case 'v': options->o_version++; break;
        case 'X': options->o_extended++; break;
        default:
            // Kept on purpose: -v and -X are not in the usage text.
            (void)fprintf(stderr, "usage: %s [-d] [-C] [-N]\n", name);
            exit(EX_USAGE);
        }
    }
}

/* The exit status of a check. A stanza that is not configured is no error. */
static int check_configuration(void)
{
    int errors = keld_config(1, nullptr);
    return std::clamp(errors, 0, static_cast<int>(EXIT_STATUS_MAX));   // 256 errors would read as none
}

static void sighup_handler(int)
{
    (void)evDo(keld_evctx, reinterpret_cast<const void *>(sighup_job));
}

static void sigterm_handler(int)
{
    // Kept on purpose: ends the process from signal context, at once. Nothing is sent to the server, no session
    // closed. Outbound SSH sessions go with the daemon, as far as a handler can see to it. Not exit: what it would
    // run, OpenSSL's clean-up among it, waits for ever for a lock that the interrupted code may hold.
    keld_obssh_end_all();
    _exit(0);
}

/* Holds SIGHUP back, or lets it through again. */
static void hold_sighup(bool hold)
{
    sigset_t set;
    (void)sigemptyset(&set);
    (void)sigaddset(&set, SIGHUP);
    (void)sigprocmask(hold ? SIG_BLOCK : SIG_UNBLOCK, &set, nullptr);
}

/* Sees to it that no socket of ours gets the number of a standard stream, into which messages would then be printed. */
static void occupy_standard_streams(void)
{
    int fd = 0;
    while (fd >= 0 && fd <= STDERR_FILENO) fd = open("/dev/null", O_RDWR);
    if (fd >= 0) (void)close(fd);
}

/* Locks the pid file, leaves the foreground unless told not to, and writes the pid. Exits if any of it fails. */
static void become_daemon(bool stay)
{
    int pid_fd = pid_lock(pid_file);
    if (pid_fd < 0) exit(1);   // most likely a second instance, which says nothing
    if (!stay && daemon(0, 0) < 0) {
        keld_event<KELD_DAEMONIZE_FAIL>(strerror(errno));
        exit(1);
    }
    if (pid_update(pid_fd) < 0) {
        keld_event<KELD_PID_FILE_UPDATE>(strerror(errno));
        exit(1);
    }
}

/* Makes the event context and what hangs on it. Exits if there is no context. */
static void build_context(void)
{
    if (evCreate(&keld_evctx) < 0) {
        keld_event<KELD_EVLIB_FAILURE>("evCreate", strerror(errno));
        exit(EX_CANTCREAT);
    }
    if (keld_debug >= EV_DEBUG_FROM) evSetDebug(keld_evctx, keld_debug, stdout);
    ob_ssh_patroot = patricia_root_init(nullptr, 0, OBSSH_NAME_SIZE, 0);
    obssh_timer_context = qtimer_init(keld_evctx, keld_obssh_qtimer_assert);
}

static void install_handlers(void)
{
    (void)signal(SIGHUP, sighup_handler);
    (void)signal(SIGTERM, sigterm_handler);
    (void)signal(SIGPIPE, SIG_IGN);   // a failed write says so itself
    const void *tag = reinterpret_cast<const void *>(sighup_job);
    if (evWaitFor(keld_evctx, tag, sighup_job, nullptr, nullptr) < 0)
        keld_event<KELD_EVLIB_FAILURE>("evWaitFor", strerror(errno));
}

int main(int argc, char **argv)
{
    logging_register_logfunc(event_send_vsyslog);
    rtsock_set_kernel(&rtsock_linux);
    const char *name = argc > 0 ? short_name(argv[0]) : "keld";
    struct options options = {};
    parse_options(argc, argv, name, &options);
    if (options.o_version > 0) {
        show_daemon_version(nullptr, options.o_version, options.o_extended > 0);
        exit(0);
    }
    if (options.o_check > 0) return check_configuration();

    if (keld_debug == 0) logging_set_mode(LOGGING_MODE_DAEMON);
    event_open(name, LOG_PID, LOG_DAEMON);
    occupy_standard_streams();
    hold_sighup(true);   // from when the pid can be read until there is a handler, it would end the process
    become_daemon(options.o_no_daemon > 0);
    keld_trace_init();
    build_context();
    install_handlers();
    hold_sighup(false);

    // Errors in the configuration stop nothing: what could be read is used. Without the stanza no server is tried.
    int errors = keld_config(0, &current_config);
    (void)keld_outbound_ssh_config(0);
    (void)keld_ui_init(keld_evctx);   // without the command socket the router is attached all the same
    if (errors >= 0) keld_arm_retry(keld_evctx, KELD_FIRST_DELAY_S);
    keld_trace("start logging");
    (void)evMainLoop(keld_evctx);
    keld_event<KELD_EVLIB_FAILURE>("evMainLoop", strerror(errno));
    event_close();
    return 0;
}
