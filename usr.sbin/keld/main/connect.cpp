/*
 * Connection: from no connection to a running BEEP session.
 *
 * An attempt is a chain of two callbacks. retry_cb takes the next server, makes the socket and hands it to the event
 * library; connect_cb gets it back connected, adds TLS where the server's entry asks for it, and gives it to the
 * engine. From there on the greeting and the channels are the engine's and the profiles' work.
 *
 * Servers are tried in the order of the configuration, one step of the ring for each attempt, round and round, whether
 * the last attempt worked or not: a session that ended moves on as well. A redirect is followed only to a server that
 * is configured, and is used up either way.
 *
 * What is retried and what stalls (see keld.h) follows from who can put it right. A refused connection, or a refusal of
 * the event library to connect, is tried again in 60 seconds. A socket that cannot be made or bound, TLS, a keepalive
 * timer or a session that cannot be made wait for a reload that brings servers where there were none.
 */
#include "usr.sbin/keld/main/interfaces.h"
#include "usr.sbin/keld/main/tags.h"
#include "usr.sbin/keld/main/tls.h"
#include "usr.sbin/keld/tarnescript-profile.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

static const char insist_unit[] = "usr.sbin/keld/main";
enum { INSIST_RETRY_LINE = 343 };

/* --- which server ----------------------------------------------------------------------------------------------- */

struct keld_server *find_server(const struct keld_server *server, const struct keld_config_data *config)
{
    if (!server || !config->kc_servers) return nullptr;
    struct keld_server *candidate = config->kc_servers;
    do {
        if (candidate->ks_addr == server->ks_addr) return candidate;
        candidate = candidate->ks_next;
    } while (candidate && candidate != config->kc_servers);
    return nullptr;
}

/* True if a redirect was pending and leads to a configured server, which *server then holds. */
static bool choose_redirect(struct keld_server *server)
{
    struct keld_server redirect = {};
    if (!redirect_get_and_reset(&redirect)) return false;
    const struct keld_server *known = find_server(&redirect, &current_config);
    if (!known) {
        keld_trace("redirect server not known, ignored");
        return false;
    }
    // A redirect names address and port only. User and security are those of the server's own entry, so that a redirect
    // never takes TLS off a connection.
    *server = *known;
    server->ks_port = redirect.ks_port;
    return true;
}

int choose_server(struct keld_server *server)
{
    const struct keld_server *head = current_config.kc_servers;
    if (!head) return 0;
    if (choose_redirect(server)) return 1;
    // Kept on purpose: an entry whose address could not be read stands in the ring with address 0, which also says that
    // nothing was tried yet. After it the ring starts over, and the entries behind it are not reached.
    const struct keld_server *former = server->ks_addr != 0 ? find_server(server, &current_config) : nullptr;
    const struct keld_server *next = former ? former->ks_next : head;
    *server = next ? *next : *head;
    return 1;
}

/* --- the attempt ------------------------------------------------------------------------------------------------ */

void keld_arm_retry(evContext ctx, int32_t delay_s)
{
    if (keld_retry_id) (void)evClearTimer(ctx, keld_retry_id);   // two retries would make two sessions
    keld_retry_id = nullptr;
    struct ev_timespec interval = evConsTime(0, 0);
    struct ev_timespec due = evAddTime(evNowTime(), evConsTime(delay_s, 0));
    if (evSetTimer(ctx, retry_cb, nullptr, due, interval, &keld_retry_id) < 0)
        keld_event<KELD_EVLIB_FAILURE>("evSetTimer(retry)", strerror(errno));
}

void keld_close_socket(void)
{
    (void)close(keld_fd);
    keld_fd = -1;
}

/* address and port in network order */
static struct sockaddr_in socket_address(uint32_t address, uint16_t port)
{
    struct sockaddr_in result = {};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = address;
    result.sin_port = port;
    return result;
}

/* True if the socket may go on: bound to the configured source address, or none is configured. */
static bool bind_source(void)
{
    if (current_config.kc_source_addr == 0) return true;
    struct sockaddr_in source = socket_address(current_config.kc_source_addr, 0);
    if (bind(keld_fd, reinterpret_cast<const struct sockaddr *>(&source), sizeof source) == 0) return true;
    // The address is not on the router (yet): a connection from another address beats none.
    return errno == EADDRNOTAVAIL;
}

/* Makes keld_fd, ready to connect. True on success; the failure is logged and stalls the daemon. */
static bool make_socket(void)
{
    // Kept on purpose: no retry is armed when a socket cannot be made or bound. A reload starts anew only if it brings
    // servers where there were none.
    keld_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (keld_fd < 0) {
        keld_event<KELD_SOCKET_FAILURE>("socket()", strerror(errno));
        return false;
    }
    keld_trace("socket %d created", keld_fd);
    // Each frame goes out in three writes, which must not wait for one another's acknowledgement.
    int on = 1;
    (void)setsockopt(keld_fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);   // refused: the session is only slower
    if (bind_source()) return true;
    keld_event<KELD_SOCKET_FAILURE>("bind()", strerror(errno));
    keld_close_socket();
    return false;
}

void retry_cb(evContext ctx, void *, struct ev_timespec, struct ev_timespec interval)
{
    if (interval.tv_sec != 0) logging_insist(insist_unit, "retry_cb", INSIST_RETRY_LINE, "interval.tv_sec == 0");
    keld_retry_id = nullptr;
    if (!choose_server(&current_server)) {
        current_server.ks_addr = 0;
        return;
    }
    if (!make_socket()) return;

    struct sockaddr_in address = socket_address(current_server.ks_addr, htons(current_server.ks_port));
    if (evConnect(ctx, keld_fd, &address, sizeof address, connect_cb, nullptr, &keld_conn_id) < 0) {
        keld_event<KELD_EVLIB_FAILURE>("evConnect", strerror(errno));
        keld_close_socket();
        keld_trace("retry_cb: evConnect failed");
        keld_arm_retry(ctx, KELD_RETRY_DELAY_S);
    }
}

/* Hands the connected socket to the engine. True if a session runs on it. */
static bool start_session(void)
{
    tkel_pro_init(&keld_profiles[0]);
    ts_pro_init(&keld_profiles[1]);
    keld_sp = keld_use_tls
                  ? beep_session_new(keld_fd, keld_evctx, BEEP_ROLE_INITIATOR, keld_profiles, KELD_PROFILES,
                                     keld_tls_read, keld_tls_write, keld_ssl)
                  : beep_session_new(keld_fd, keld_evctx, BEEP_ROLE_INITIATOR, keld_profiles, KELD_PROFILES, nullptr,
                                     nullptr, nullptr);
    if (!keld_sp) return false;
    beep_set_session_close_cb(keld_sp, session_close_cb);
    // What is configured now is where notifications start from; nothing of it is announced.
    keld_config_interfaces(true);
    for (struct str_array *list : { ifl_added, ifl_deleted, ifl_changed }) str_array_clean(list);
    (void)time(&last_conn_time);
    (void)time(&last_rcvd_time);
    return true;
}

void connect_cb(evContext ctx, void *, int fd, const void *, int, const void *, int)
{
    keld_conn_id = nullptr;
    if (fd == -1) {
        // Kept on purpose: keld_fd keeps the number of a socket that the event library has closed, until the next
        // attempt.
        keld_event<KELD_CONNECT_FAIL>(strerror(errno));
        keld_arm_retry(ctx, KELD_RETRY_DELAY_S);
        return;
    }
    keepalive = TKEL_DEFAULT_KEEPALIVE_S;
    if (keld_arm_keepalive(keepalive) < 0) {
        keld_event<KELD_EVLIB_FAILURE>("evSetTimer(keepalive)", strerror(errno));
        keld_close_socket();
        return;
    }
    // Kept on purpose: after a failed handshake nothing is retried, and the keepalive timer goes on firing; it finds no
    // session and does nothing.
    keld_use_tls = 0;
    if (current_server.ks_security != 0 && keld_tls_start() < 0) {
        keld_close_socket();
        return;
    }
    if (start_session()) return;
    keld_event<KELD_BEEP_INIT_FAIL>();
    (void)evClearTimer(keld_evctx, keld_keepalive_id);
    keld_keepalive_id = nullptr;
    keld_tls_free();
    keld_close_socket();
}
