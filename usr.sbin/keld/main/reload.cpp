/*
 * Reload: applies the committed configuration to the running daemon, at SIGHUP.
 *
 * The job runs from the loop, never from the signal handler, so that it may touch session and configuration. It is
 * all or nothing, outbound SSH apart: unless the reader says 0 nothing changes but what is traced. Kept on purpose:
 * that goes for a stanza that was removed, too, which is not the same as removing all servers. A good configuration
 * is moved in, and takes effect with the next connection; the running session is ended only if its server's address
 * has left the ring, and otherwise told what changed among the interfaces.
 *
 * Closing is a request. The server is asked to end the session, and keepalive_cb cleans up once it has done so, or has
 * been silent for too long.
 */
#include "usr.sbin/keld/main/interfaces.h"
#include "usr.sbin/keld/main/tags.h"

#include <errno.h>
#include <string.h>

/* The first servers appeared. */
static void begin_connecting(evContext ctx)
{
    if (keld_sp) {   // one that was told to close; its end arms the retry
        keld_trace("cannot start session now, previous session still open");
        return;
    }
    keld_arm_retry(ctx, KELD_FIRST_DELAY_S);
}

/* The last server went. */
static void stop_connecting(evContext ctx)
{
    if (keld_sp) {
        keld_request_close();
        return;
    }
    // Kept on purpose: the socket of a connection that is called off stays open for the life of the process; keld_fd
    // keeps its number until the next attempt.
    if (keld_conn_id) (void)evCancelConn(ctx, keld_conn_id);
    keld_conn_id = nullptr;
    if (keld_retry_id) (void)evClearTimer(ctx, keld_retry_id);
    keld_retry_id = nullptr;
    current_server.ks_addr = 0;
}

/* There were servers and there are. An attempt under way goes on, even to a server that went. */
static void follow_servers(evContext)
{
    if (!keld_sp) return;
    if (!find_server(&current_server, &current_config)) {
        keld_request_close();
        return;
    }
    keld_config_interfaces(false);
    send_notifications(ifl_added, ifl_deleted, ifl_changed);
}

static void stay_idle(evContext)
{
}

/* What to do once the new configuration is in force, by whether there are servers and whether there were. */
static constexpr struct reload_row {
    bool rr_now, rr_before;
    void (*rr_action)(evContext ctx);
} reload_rows[] = {
    { true, false, begin_connecting },
    { false, true, stop_connecting },
    { false, false, stay_idle },
    { true, true, follow_servers },
};

void sighup_job(evContext ctx, void *, const void *)
{
    const void *tag = reinterpret_cast<const void *>(sighup_job);
    if (evWaitFor(ctx, tag, sighup_job, nullptr, nullptr) < 0)
        keld_event<KELD_EVLIB_FAILURE>("evWaitFor", strerror(errno));
    keld_trace("re-reading configuration");

    (void)keld_outbound_ssh_config(0);   // whatever becomes of it, the rest is read

    struct keld_config_data fresh = {};
    if (keld_config(0, &fresh) != 0) {
        keld_config_free(&fresh);
        return;
    }
    bool now = fresh.kc_servers != nullptr;
    bool before = current_config.kc_servers != nullptr;
    keld_config_mv(&fresh, &current_config);
    for (const reload_row &row : reload_rows)
        if (row.rr_now == now && row.rr_before == before) row.rr_action(ctx);
}
