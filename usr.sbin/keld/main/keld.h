/*
 * Daemon core: the state of the one connection to a service-deployment server, and the callbacks that move it.
 *
 * Everything here belongs to the event loop's thread. The connection is in one of five phases, told by these globals:
 *
 *   idle           current_server.ks_addr 0, no timer                   left by a reload that brings servers
 *   waiting        keld_retry_id set                                    left when the timer fires (retry_cb)
 *   connecting     keld_conn_id set, keld_fd open                       left by connect_cb
 *   in session     keld_sp and keld_keepalive_id set                    left by keepalive_cb
 *   stalled        keld_sp null, at most keld_keepalive_id set          left by a reload from no servers to some
 *
 * The stalled phase is no accident: a refused connection is retried for ever, but what an operator has to put right (no
 * sockets, a source address that cannot be bound, certificates) is tried once and reported. Times are what time()
 * gives, in seconds; 0 means that it has not happened in this session.
 */
#pragma once

#include "platform/ev/ev.h"
#include "usr.sbin/keld/beep/beep.h"
#include "usr.sbin/keld/beep/bp_queue.h"
#include "usr.sbin/keld/config.h"
#include "usr.sbin/keld/notification-profile.h"
#include "usr.sbin/keld/outbound_ssh/outbound_ssh.h"
#include "usr.sbin/keld/str_array.h"

#include <openssl/ssl.h>
#include <stdint.h>
#include <time.h>

extern "C" {

enum {
    KELD_FIRST_DELAY_S = 0,       // start-up, and a reload that brings the first servers
    KELD_RETRY_DELAY_S = 60,      // after a failure that is retried, and after a session
    KELD_SILENT_INTERVALS = 3,    // keepalive intervals without a word from the server that end a session
    KELD_PROFILES = 2,
};

/* --- configuration in force; that of outbound SSH is declared in outbound_ssh.h ---------------------------------- */

extern struct keld_config_data current_config;
/* A copy of the server in use, or last tried; its links are stale and never followed. ks_addr 0: none is selected. */
extern struct keld_server current_server;

/* --- the session; keepalive and last_rcvd_time are declared in notification-profile.h, which writes them too ------ */

extern struct beep_session *keld_sp;   // null while there is none; owned
extern time_t last_conn_time;          // session came up
extern time_t last_ka_time;            // keepalive last sent
extern time_t last_notifi_time;        // notification last sent
extern int32_t keepalive_count;        // keepalives sent in this session
extern int32_t notification_count;     // notification messages sent in this session
extern uint8_t keld_close_pending;     // a <close-connection/> could not be sent and is owed

/* --- interface changes; interfaces.h tells more. All are owned, and null until first needed ---------------------- */

extern struct str_array *ifl_added, *ifl_changed, *ifl_deleted;   // names that wait to be sent
extern struct str_array *ifl_current;                             // units as of the last scan
extern struct bp_queue *keld_notify_queue;                        // texts that could not be sent in this session

/* --- private to the core --------------------------------------------------------------------------------------- */

extern evContext keld_evctx;
extern int32_t keld_debug;             // number of -d options
extern int32_t keld_fd;                // server socket, owned; -1 when there is none. After a failed connect the number
                                       // of the socket that was, until retry_cb makes the next
extern evConnID keld_conn_id;          // these three are null when nothing is registered
extern evTimerID keld_retry_id;
extern evTimerID keld_keepalive_id;
extern uint32_t keld_use_tls;          // 1 if this connection runs TLS
extern SSL_CTX *keld_ssl_ctx;          // both owned, null when there is none
extern SSL *keld_ssl;
extern struct beep_profile keld_profiles[KELD_PROFILES];   // row 0: notification, row 1: management script

/* A line of the core's class in the trace file, if that is wanted. */
[[gnu::format(printf, 1, 2)]] void keld_trace(const char *format, ...);

/* --- connection ------------------------------------------------------------------------------------------------ */

/* The record with server's address in config's ring, or null; also if server is null or the ring empty. */
struct keld_server *find_server(const struct keld_server *server, const struct keld_config_data *config);
/* Puts the server to try next into *server, which holds the one tried last: a redirect's target if it is configured,
 * and otherwise the next of the ring. Uses up a pending redirect. 1, or 0 with *server as it was if no server is
 * configured. */
int choose_server(struct keld_server *server);

/* Arms retry_cb, in place of a retry that is already armed. A failure is logged and leaves nothing armed. */
void keld_arm_retry(evContext ctx, int32_t delay_s);
/* Closes keld_fd. */
void keld_close_socket(void);
/* Timer function, one-shot, id in keld_retry_id: starts the next attempt. */
void retry_cb(evContext ctx, void *uap, struct ev_timespec due, struct ev_timespec interval);
/* evConnect function: makes the session, or gives the attempt up. */
void connect_cb(evContext ctx, void *uap, int fd, const void *local, int local_len, const void *remote,
                int remote_len);

/* --- keepalive and session end ---------------------------------------------------------------------------------- */

/* Has keepalive_cb called in delay_s seconds and then each `keepalive` seconds: sets keld_keepalive_id, or resets the
 * timer that stands there. 0, or -1 with errno and nothing changed. */
[[nodiscard]] int keld_arm_keepalive(int32_t delay_s);
/* Timer function, repeating, id in keld_keepalive_id: sends keepalives, watches for silence, ends dead sessions. */
void keepalive_cb(evContext ctx, void *uap, struct ev_timespec due, struct ev_timespec interval);
/* The engine's close callback: has keepalive_cb run at once. Frees nothing. session may be null. */
void session_close_cb(struct beep_session *session);
/* Frees all of one connection and zeroes the session's counters. There must be a session. */
void clean_up_session(void);
/* Asks the server to end the session, now or, if that cannot be sent, at a later tick. There must be a session. */
void keld_request_close(void);

/* --- reload ----------------------------------------------------------------------------------------------------- */

/* Wait function, its own tag: applies the committed configuration. Registers itself again. */
void sighup_job(evContext ctx, void *uap, const void *tag);

}   // extern "C"
