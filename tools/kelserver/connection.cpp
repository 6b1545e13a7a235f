/*
 * Connection: from accept to close, and the transport between.
 *
 *   accepted -> TLS being set up (with a limit) -> session -> end decided -> freed
 *
 * Nothing here blocks. The TLS handshake is a step function that the loop calls whenever the socket is ready, so that a
 * client that connects and says nothing costs the others nothing; it is hung up on after HANDSHAKE_LIMIT_S.
 *
 * The end is always decided first (connection_end) and done a turn later from a timer: the decision mostly falls in a
 * callback of the engine, which must not have its session freed under it, and a reply that was just queued gets its
 * chance to leave.
 *
 * The engine is given read and write functions of ours on plain TCP as well: they know why a stream ended, which the
 * engine does not tell, and they see the answer to a <close> go by. The engine never reports that answer: an <ok/>
 * lacks the code that it wants of the element.
 */
#include "tools/kelserver/kelserver.h"

#include <errno.h>
#include <openssl/err.h>
#include <string.h>
#include <unistd.h>

enum { HANDSHAKE_LIMIT_S = 10 };

static constexpr char ok_element[] = "<ok/>";

/* --- end --------------------------------------------------------------------------------------------------------- */

static void connection_free(struct connection *connection)
{
    say(connection, "%s ended: %s", connection->session ? "session" : "connection", connection->end_reason.c_str());
    std::erase(server.connections, connection);
    session_forget(connection);
    if (connection->handshake_id) evDeselectFD(server.ev, connection->handshake_id);
    if (connection->handshake_limit) evClearTimer(server.ev, connection->handshake_limit);
    if (connection->session) beep_session_delete(connection->session);
    if (connection->tls) SSL_free(connection->tls);
    close(connection->fd);
    delete connection;
}

static void end_due(evContext, void *uap, struct ev_timespec, struct ev_timespec)
{
    connection_free(static_cast<struct connection *>(uap));
}

void connection_end(struct connection *connection, const std::string &reason)
{
    if (connection->end_timer) return;
    connection->end_reason = reason;
    if (evSetTimer(server.ev, end_due, connection, evNowTime(), evConsTime(0, 0), &connection->end_timer) < 0)
        say(connection, "cannot end the connection: %s", strerror(errno));
}

void connections_free(void)
{
    while (!server.connections.empty()) {
        struct connection *connection = server.connections.back();
        if (connection->end_timer) evClearTimer(server.ev, connection->end_timer);
        else connection->end_reason = "kelserver stops";
        connection_free(connection);
    }
}

struct connection *connection_of(const struct beep_session *session)
{
    for (struct connection *connection : server.connections)
        if (connection->session == session) return connection;
    return nullptr;
}

/* --- transport --------------------------------------------------------------------------------------------------- */

static void watch_for_ok(struct connection *connection, const char *octets, int count)
{
    for (int i = 0; i < count && connection->close_channel >= 0; i++) {
        if (octets[i] == ok_element[connection->ok_matched]) connection->ok_matched++;
        else connection->ok_matched = octets[i] == ok_element[0];
        if (connection->ok_matched == sizeof ok_element - 1) session_close_answered(connection);
    }
}

/* The engine's read convention for what an SSL call gave: octets, 0 at the end, -1 with errno. */
static int tls_result(struct connection *connection, int result)
{
    int system_error = errno;
    switch (SSL_get_error(connection->tls, result)) {
    case SSL_ERROR_NONE:
        return result;
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
        errno = EAGAIN;
        return -1;
    case SSL_ERROR_ZERO_RETURN:
        return 0;
    case SSL_ERROR_SYSCALL:
        errno = system_error;
        return system_error ? -1 : 0;
    default:
        // A router that goes away does not say goodbye in TLS, which newer libraries call a protocol error.
        bool plain_end = ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING;
        errno = EPROTO;
        return plain_end ? 0 : -1;
    }
}

static int transport_read(void *transport, void *buffer, int length)
{
    struct connection *connection = static_cast<struct connection *>(transport);
    ERR_clear_error();
    errno = 0;
    int result = connection->tls ? tls_result(connection, SSL_read(connection->tls, buffer, length))
                                 : static_cast<int>(read(connection->fd, buffer, static_cast<size_t>(length)));
    if (result > 0) watch_for_ok(connection, static_cast<const char *>(buffer), result);
    else if (result == 0) connection_end(connection, "the router closed the connection");
    else if (errno != EAGAIN) connection_end(connection, std::string("cannot read: ") + strerror(errno));
    return result;
}

static int transport_write(void *transport, const void *buffer, int length)
{
    struct connection *connection = static_cast<struct connection *>(transport);
    ERR_clear_error();
    errno = 0;
    int result = connection->tls ? tls_result(connection, SSL_write(connection->tls, buffer, length))
                                 : static_cast<int>(write(connection->fd, buffer, static_cast<size_t>(length)));
    if (result <= 0 && errno != EAGAIN) {
        int error = errno ? errno : EPIPE;
        connection_end(connection, std::string("cannot write: ") + strerror(error));
        errno = error;
    }
    return result;
}

/* --- TLS ---------------------------------------------------------------------------------------------------------- */

static void handshake_step(struct connection *connection);

static void handshake_ready(evContext, void *uap, int, int)
{
    handshake_step(static_cast<struct connection *>(uap));
}

static void handshake_late(evContext, void *uap, struct ev_timespec, struct ev_timespec)
{
    struct connection *connection = static_cast<struct connection *>(uap);
    connection->handshake_limit = nullptr;
    connection_end(connection, "TLS was not set up in " + std::to_string(HANDSHAKE_LIMIT_S) + " s");
}

static void handshake_wait(struct connection *connection, int events)
{
    if (evSelectFD(server.ev, connection->fd, events, handshake_ready, connection, &connection->handshake_id) < 0)
        connection_end(connection, std::string("cannot wait for TLS: ") + strerror(errno));
}

static void say_tls(struct connection *connection)
{
    X509 *certificate = SSL_get_peer_certificate(connection->tls);
    char subject[256] = "";
    if (certificate) {
        X509_NAME_oneline(X509_get_subject_name(certificate), subject, sizeof subject);
        X509_free(certificate);
    }
    say(connection, "TLS is up: %s, %s, the router showed %s%s", SSL_get_version(connection->tls),
        SSL_get_cipher_name(connection->tls), certificate ? "the certificate " : "no certificate",
        printable(subject).c_str());
}

static std::string tls_fault(void)
{
    char text[256];
    unsigned long error = ERR_get_error();
    if (!error) return "the router hung up";
    ERR_error_string_n(error, text, sizeof text);
    return text;
}

static void handshake_step(struct connection *connection)
{
    if (connection->end_timer) return;
    if (connection->handshake_id) evDeselectFD(server.ev, connection->handshake_id);
    connection->handshake_id = nullptr;

    ERR_clear_error();
    int result = SSL_accept(connection->tls);
    int error = SSL_get_error(connection->tls, result);
    if (result == 1) {
        evClearTimer(server.ev, connection->handshake_limit);
        connection->handshake_limit = nullptr;
        say_tls(connection);
        session_start(connection, transport_read, transport_write);
    } else if (error == SSL_ERROR_WANT_READ) {
        handshake_wait(connection, EV_READ);
    } else if (error == SSL_ERROR_WANT_WRITE) {
        handshake_wait(connection, EV_WRITE);
    } else {
        connection_end(connection, "TLS failed: " + tls_fault());
    }
}

static void tls_start(struct connection *connection)
{
    connection->tls = SSL_new(server.tls);
    struct ev_timespec limit = evAddTime(evNowTime(), evConsTime(HANDSHAKE_LIMIT_S, 0));
    if (!connection->tls || !SSL_set_fd(connection->tls, connection->fd) ||
        evSetTimer(server.ev, handshake_late, connection, limit, evConsTime(0, 0), &connection->handshake_limit) < 0) {
        connection_end(connection, "cannot set up TLS: no memory");
        return;
    }
    handshake_wait(connection, EV_READ);
}

void connection_accept(int fd, const std::string &peer)
{
    auto *made = new connection{ .number = ++server.accepted, .peer = peer, .fd = fd };
    server.connections.push_back(made);
    say(made, "connection from %s", peer.c_str());
    if (server.tls) tls_start(made);
    else session_start(made, transport_read, transport_write);
}
