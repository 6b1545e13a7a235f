/*
 * kelserver: records and functions that its parts share.
 *
 *   kelserver.cpp    options, listening, the loop
 *   connection.cpp   one connection: TLS, transport, end
 *   session.cpp      the two profiles: what arrives, what is asked of the router
 *   outbound.cpp     outbound SSH: a router's connection up to its SSH server, and what commands ask of it (outbound.h)
 *   ssh_client.cpp   the ssh program on such a connection (outbound.h)
 *   ssh_ident.cpp    what a router says in front of SSH (ssh_ident.h)
 *   commands.cpp     standard input
 *   print.cpp        standard output
 *
 * A connection is made by connection_accept and freed by the loop some time after connection_end; nobody else frees
 * one. Functions that a person's command reaches answer with null, or with one line that says what is wrong.
 */
#pragma once

#include "platform/ev/ev.h"
#include "usr.sbin/keld/beep/beep.h"

#include <openssl/ssl.h>
#include <stdint.h>
#include <string>
#include <vector>

enum { SERVICE_PORT = 3333, KEEPALIVE_S = 45 };

struct options {
    const char *address = "0.0.0.0";     // numeric, to listen on
    uint16_t port = SERVICE_PORT;        // 0: any free one
    const char *certificate = nullptr;   // PEM file with chain and key; null: plain TCP
    int32_t keepalive_s = KEEPALIVE_S;   // told to the router in the confirmation of its channel
    bool accept_ssh = false;             // outbound SSH is served as well, on ssh_port
    uint16_t ssh_port = 0;               // 0: any free one
    std::string ssh_secret = {};         // empty: HMACs are not checked
    const char *ssh_user = nullptr;      // null: the name of who runs this
    const char *ssh_key = nullptr;       // file of the private key; null: what ssh finds by itself
};

struct connection {
    unsigned number;    // from 1, in order of arrival; what a person sees
    std::string peer;   // "ADDRESS:PORT"
    int fd;
    SSL *tls = nullptr;                       // owned; null on plain TCP
    evFileID handshake_id = nullptr;          // while TLS is being set up
    evTimerID handshake_limit = nullptr;      // likewise
    struct beep_session *session = nullptr;   // owned; null until the transport is ready
    evTimerID end_timer = nullptr;            // set once the end is decided
    std::string end_reason = {};              // first one wins
    uint16_t notification_channel = 0;        // 0 while the router has not opened it
    bool redirect_sent = false;               // its reply ends the session
    uint16_t script_channel = 0;              // 0 while none is open
    std::string script_waiting = {};          // call that waits for the channel
    int32_t close_channel = -1;               // channel whose <close> waits for the answer, -1 for none
    bool close_answered = false;              // some <close> of this session was answered
    size_t ok_matched = 0;                    // octets of "<ok/>" just seen while close_channel is set
};

struct server {
    evContext ev;
    struct options options;
    SSL_CTX *tls;                                   // null on plain TCP
    std::vector<struct connection *> connections;   // oldest first
    std::vector<struct outbound *> outbound;        // likewise
    unsigned accepted;                              // of both kinds
    bool stopping;
};
extern struct server server;

/* --- connection.cpp ---------------------------------------------------------------------------------------------- */

/* Takes fd. Prints, and sets up TLS if the server has it; the session starts when that is done. */
void connection_accept(int fd, const std::string &peer);
/* Ends the connection soon: what is queued may still leave. Safe in every callback. */
void connection_end(struct connection *connection, const std::string &reason);
/* Ends all at once; not from a callback of the engine. */
void connections_free(void);
/* The connection that runs session; never null for a session that this program made. */
struct connection *connection_of(const struct beep_session *session);

/* --- session.cpp ------------------------------------------------------------------------------------------------- */

/* Starts BEEP on a connection whose transport is ready. transport and its functions as beep_session_new takes them. */
void session_start(struct connection *connection, beep_read_fn read_fn, beep_write_fn write_fn);
/* The answer to our <close> went by on the wire. */
void session_close_answered(struct connection *connection);
/* Tells what was left undone when the connection ends. */
void session_forget(struct connection *connection);

/* What commands ask of a session. Null, or why not. */
const char *session_rpc(struct connection *connection, const std::string &call);
const char *session_redirect(struct connection *connection, const std::string &address, uint16_t port);
const char *session_close(struct connection *connection, uint16_t channel);

/* --- commands.cpp ------------------------------------------------------------------------------------------------ */

/* Reads commands from standard input whenever there are any, until its end. */
void commands_start(void);

/* --- print.cpp --------------------------------------------------------------------------------------------------- */

/* One line with the time, and "#N" if connection is not null, written at once. */
[[gnu::format(printf, 2, 3)]] void say(const struct connection *connection, const char *format, ...);
/* The same for a connection that is known by its number. */
[[gnu::format(printf, 2, 3)]] void say_number(unsigned number, const char *format, ...);
/* Text from the peer, line by line, each set off by "  | ". */
void say_block(const std::string &text);
/* text with everything but printable ASCII replaced, so that a peer cannot write to the terminal. Line ends become
 * blanks. */
std::string printable(const std::string &text);
