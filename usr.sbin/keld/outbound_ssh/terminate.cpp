/*
 * The end of the daemon, from a signal handler.
 *
 * SIGTERM ends the daemon at once, wherever it stands: in the middle of malloc, of a trace line, of a change of a tree.
 * All that the handler does here is to read the tree and to call kill and unlink. It frees nothing and traces
 * nothing, since the interrupted code may hold the allocator's lock; and the records go with the process.
 *
 * So the tree must be whole whenever a handler can run. The few places that change it, or that have a process whose pid
 * is not in it yet, hold all signals back meanwhile; a SIGTERM that comes then is delivered behind them.
 */
#include "usr.sbin/keld/outbound_ssh/obssh_private.h"

#include "platform/process/process.h"

#include <string.h>
#include <unistd.h>

static char files_prefix[PLATFORM_PATH_MAX];   // resolved; empty if it could not be

obssh_hold::obssh_hold()
{
    sigset_t all;
    (void)sigfillset(&all);
    (void)sigprocmask(SIG_SETMASK, &all, &oh_former);
}

obssh_hold::~obssh_hold()
{
    (void)sigprocmask(SIG_SETMASK, &oh_former, nullptr);
}

void obssh_note_files(void)
{
    if (!platform_path(files_prefix, sizeof files_prefix, obssh_file_prefix)) files_prefix[0] = '\0';
}

static void unlink_file(const char *client_id)
{
    char path[sizeof files_prefix + OBSSH_NAME_SIZE];
    if (files_prefix[0] == '\0') return;   // the name alone would be some file in the current folder
    (void)stpcpy(stpcpy(path, files_prefix), client_id);
    (void)unlink(path);
}

void keld_obssh_end_all(void)
{
    if (!ob_ssh_patroot) return;
    struct patricia_node *node = nullptr;
    while ((node = patricia_find_next(ob_ssh_patroot, node))) {
        const struct obssh_app_config *app = keld_obssh_patnode_to_app_config(node);
        if (obssh_is_process_running(app->ac_pid)) (void)obssh_kill_group(app);
        unlink_file(app->ac_client_id);
    }
}
