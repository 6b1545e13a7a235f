/*
 * Keepalive: one repeating timer that sends keepalives, decides when a silent server is a dead one, and is the only
 * place where a session is freed and the next attempt armed.
 *
 * Three things end a session, and all end it here: the transport or the peer (the engine tears down, session_close_cb
 * has the timer fire at once, which finds the status 'E'), silence for more than three intervals, and a status 'E' that
 * an ordinary tick meets. The engine's close callback frees nothing because it runs on the engine's stack.
 *
 * True whenever the loop runs:
 *   - the timer is armed while there is a session. It may be armed without one (a stalled attempt) and then does
 *     nothing;
 *   - a tick sends one text at most: a close that is owed goes in place of the keepalive;
 *   - whether to reconnect is judged when the session is cleaned up, on the servers configured then.
 *
 * Kept on purpose: a new interval is taken up at the next tick, and the first tick comes 15 seconds after the
 * connection. A server that is content with less than 15 seconds has by then been silent for three of its intervals,
 * unless it spoke on the channel meanwhile, and loses the session at that tick.
 *
 * A server that asks for one or two seconds gives the interval 0, and a timer with interval 0 is a one-shot. A spent
 * timer is armed again a second ahead, so that such a session is watched neither never nor without pause.
 */
#include "usr.sbin/keld/main/interfaces.h"
#include "usr.sbin/keld/main/tags.h"
#include "usr.sbin/keld/main/tls.h"

#include <errno.h>
#include <string.h>

static const char keepalive_text[] = "<keepalive/>";
static const char close_text[] = "<close-connection/>";
enum { SHORTEST_TICK_S = 1 };

int keld_arm_keepalive(int32_t delay_s)
{
    struct ev_timespec interval = evConsTime(keepalive, 0);
    struct ev_timespec due = evAddTime(evNowTime(), evConsTime(delay_s, 0));
    if (keld_keepalive_id) return evResetTimer(keld_evctx, keld_keepalive_id, keepalive_cb, nullptr, due, interval);
    return evSetTimer(keld_evctx, keepalive_cb, nullptr, due, interval, &keld_keepalive_id);
}

void session_close_cb(struct beep_session *session)
{
    if (!session) return;
    if (keld_arm_keepalive(0) < 0) keld_event<KELD_EVLIB_FAILURE>("evResetTimer(keepalive)", strerror(errno));
}

/* --- one tick --------------------------------------------------------------------------------------------------- */

/* Brings the timer to the interval now in force; fired is the one it was armed with. */
static void adjust_timer(int32_t fired_s)
{
    // From inside its own callback a timer can be set anew without memory, also one that is spent; so neither call
    // fails.
    if (keepalive != fired_s) (void)keld_arm_keepalive(keepalive);
    else if (fired_s == 0) (void)keld_arm_keepalive(SHORTEST_TICK_S);
}

static bool server_is_silent(time_t now)
{
    return last_rcvd_time != 0 && last_rcvd_time + KELD_SILENT_INTERVALS * static_cast<time_t>(keepalive) < now;
}

static void send_keepalive(void)
{
    if (tkel_log(keld_sp, keepalive_text) < 0) {
        // A failure, as before the channel is confirmed, does not end the session; the silence test does.
        keld_event<KELD_KEEPALIVE_SEND_FAIL>();
        return;
    }
    keepalive_count++;
    last_ka_time = time(nullptr);
}

static void send_owed_close(void)
{
    if (tkel_log(keld_sp, close_text) < 0) {
        keld_trace("failed to send %s", close_text);
        return;
    }
    keld_close_pending = 0;
}

void keld_request_close(void)
{
    if (tkel_log(keld_sp, close_text) == 0) return;
    keld_event<KELD_BEEP_FIN_FAIL>();
    keld_close_pending = 1;   // Kept on purpose: owed until sent, also if the server has come back by then
}

static void end_session(evContext ctx)
{
    bool will_reconnect = current_config.kc_servers != nullptr;
    keld_trace("clean up session%s", will_reconnect ? ", will reconnect" : "");
    clean_up_session();
    if (keld_keepalive_id) (void)evClearTimer(ctx, keld_keepalive_id);
    keld_keepalive_id = nullptr;
    if (will_reconnect) keld_arm_retry(ctx, KELD_RETRY_DELAY_S);
}

void keepalive_cb(evContext ctx, void *, struct ev_timespec, struct ev_timespec interval)
{
    adjust_timer(interval.tv_sec);
    if (!keld_sp) return;
    if (server_is_silent(time(nullptr))) {
        keld_event<KELD_KEEPALIVES_MISSED>();
        end_session(ctx);
    } else if (beep_get_session_status(keld_sp) == BEEP_STATE_ENDED) {
        end_session(ctx);
    } else if (keld_close_pending) {
        send_owed_close();
    } else {
        send_keepalive();
    }
}

void clean_up_session(void)
{
    beep_session_delete(keld_sp);
    keld_sp = nullptr;
    last_conn_time = last_rcvd_time = last_ka_time = last_notifi_time = 0;
    keepalive_count = notification_count = 0;
    keld_close_pending = 0;
    if (!current_config.kc_servers) current_server.ks_addr = 0;   // otherwise the next attempt moves on from it
    keld_drop_notifications();
    if (keld_use_tls) keld_tls_free();
    if (keld_fd > 0) keld_close_socket();   // Kept on purpose: descriptor 0 would stay; main sees that it is taken
}
