/*
 * Monitoring: a one-shot timer for each client looks whether its process still lives and, if it has gone, makes a new
 * attempt.
 *
 * There is no SIGCHLD to wait for, since the process is not the daemon's child. Its name tells how far it got: until it
 * is sshd's, it looks up or connects. A session that was seen up gives the server its attempts back; what counts
 * then is how often sshd ended, so that a server that hangs up each time is left as well.
 *
 * The timer is set anew after each attempt and each look that found the process. Kept on purpose: whatever does not
 * set it ends the watching; and a pid that by now belongs to another process counts as one that still connects, for as
 * long as that process lives.
 */
#include "usr.sbin/keld/outbound_ssh/obssh_private.h"

#include "platform/log/log.h"
#include "platform/process/process.h"

#include <signal.h>
#include <string.h>

enum { COMMAND_SIZE = 64, FIRST_GROUP = 2 };   // room for a command's name; below the second stands no group of ours

void keld_obssh_qtimer_assert(const char *text)
{
    tarne_trace(0, "%s: Timer Assertion: %s", __func__, text);
}

bool obssh_is_process_running(int32_t pid)
{
    return kill(pid, 0) == 0;
}

/* A process that has ended is gone also where nobody takes note of its end, as in a container without an init. Its group
 * may live on, so this is for looking, not for killing. */
static bool is_gone(int32_t pid)
{
    return pid == 0 || !obssh_is_process_running(pid) || process_is_zombie(pid);
}

bool obssh_is_sshd_procname(int32_t pid)
{
    char name[COMMAND_SIZE];
    if (process_name(pid, name, sizeof name) < 0) {
        tarne_trace(1, "%s: Checking for process name of %d: failed", __func__, pid);
        return false;
    }
    return strstr(name, "sshd") != nullptr;
}

int obssh_kill_group(const struct obssh_app_config *app)
{
    if (app->ac_pid < FIRST_GROUP) return 0;
    return killpg(app->ac_pid, SIGKILL);
}

static void note_running(struct obssh_app_config *app, const char *caller)
{
    if (!obssh_is_sshd_procname(app->ac_pid)) {
        tarne_trace(1,
                    "%s: (%s:server %s) Child process running, but sshd still not running; "
                    "Starting oneshot timer...",
                    caller, app->ac_client_id, app->ac_server_name);
        return;
    }
    app->ac_sshd_seen = 1;
    app->ac_attempts = 0;
    tarne_trace(1, "%s: (%s:server %s) sshd(%d) Running...", caller, app->ac_client_id, app->ac_server_name,
                app->ac_pid);
    tarne_trace(1, "%s: (%s:server %s) Everything okay.Starting oneshot timer...", caller, app->ac_client_id,
                app->ac_server_name);
}

void keld_obssh_retry_timer_handler(struct qtimer *timer, uintptr_t user)
{
    struct obssh_app_config *app = reinterpret_cast<struct obssh_app_config *>(user);
    tarne_trace(1, "%s: (%s) Checking for pid: %d", __func__, app->ac_client_id, app->ac_pid);
    if (!is_gone(app->ac_pid)) {
        note_running(app, __func__);
        qtimer_start_oneshot(timer, app->ac_timeout, 0);
        return;
    }
    // Kept on purpose: this outlives a death, so that on a server that once had a session each failed attempt counts as a
    // death, too.
    if (app->ac_sshd_seen) {
        tarne_trace(1, "%s: (%s:server %s) Something wrong; sshd(%d) terminated..", __func__, app->ac_client_id,
                    app->ac_server_name, app->ac_pid);
        app->ac_deaths++;
        if (app->ac_deaths >= app->ac_retry) app->ac_attempts = app->ac_deaths;   // none are left on this server
    }
    (void)outbound_ssh_connect_to_server(app);
}
