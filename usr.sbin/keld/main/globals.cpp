/*
 * Globals: the state of the daemon core in one place, each with its value at process start.
 *
 * They are plain variables because there is one connection, one loop and one thread; keld.h tells which of them are set
 * in which phase. The trace state, keld_dtf_options, is the engine's. Nothing here runs before main: every initialiser
 * is a constant, and a table that has to be filled (the profiles) is filled on each connection.
 */
#include "usr.sbin/keld/main/keld.h"

#include <stdarg.h>

struct keld_config_data current_config;
struct keld_server current_server;

char ri_name[OBSSH_INSTANCE_SIZE];
struct patricia_root *ob_ssh_patroot;
struct qtimer_ctx *obssh_timer_context;

struct beep_session *keld_sp;
int32_t keepalive;
time_t last_rcvd_time;
time_t last_conn_time;
time_t last_ka_time;
time_t last_notifi_time;
int32_t keepalive_count;
int32_t notification_count;
uint8_t keld_close_pending;

struct str_array *ifl_added, *ifl_changed, *ifl_deleted;
struct str_array *ifl_current;
struct bp_queue *keld_notify_queue;

evContext keld_evctx;
int32_t keld_debug;
int32_t keld_fd = -1;
evConnID keld_conn_id;
evTimerID keld_retry_id;
evTimerID keld_keepalive_id;
uint32_t keld_use_tls;
SSL_CTX *keld_ssl_ctx;
SSL *keld_ssl;
struct beep_profile keld_profiles[KELD_PROFILES];

void keld_trace(const char *format, ...)
{
    if (!daemon_trace_wants(&keld_dtf_options, DTF_CORE)) return;
    va_list args;
    va_start(args, format);
    daemon_vtrace(&keld_dtf_options, DTF_CORE, 0, format, args);
    va_end(args);
}
