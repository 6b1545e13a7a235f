/*
 * Outbound SSH: a router connects to us as a TCP client, says who it is, and serves SSH on that connection.
 *
 *   accepted -> identification being read (with a limit) -> checked -> ssh runs on the connection -> freed
 *
 * A connection that fails on the way is closed with one line that says why. It is freed in the callback that ends it.
 */
#pragma once

#include "platform/ev/ev.h"
#include "tools/kelserver/ssh_ident.h"

#include <string>
#include <sys/types.h>

/* The one argument that makes a kelserver the proxy command of an ssh that another kelserver has started. */
#define SSH_PROXY_OPTION "--ssh-proxy"

struct ssh_stream {
    int fd = -1;
    evFileID id = nullptr;
    std::string line = {};   // what came of the line so far
};

struct outbound {
    unsigned number;                   // from 1, counted together with service-deployment connections
    int fd = -1;                       // the router's; -1 once ssh has it
    evFileID ident_id = nullptr;       // while the identification is read
    evTimerID ident_limit = nullptr;   // likewise
    struct ident_reader reader = {};
    pid_t ssh = -1;     // the ssh process, or -1
    int process = -1;   // pidfd of it
    evFileID process_id = nullptr;
    int input = -1;                               // its standard input; -1 once that is closed
    struct ssh_stream output = {}, errors = {};   // its standard output and standard error
    std::string known_hosts = {};                 // scratch file with the router's host key, or empty
};

/* --- outbound.cpp ------------------------------------------------------------------------------------------------- */

/* Takes fd, prints, and reads the identification. */
void outbound_accept(int fd, const std::string &peer);
/* Prints the end and the reason, and frees all that the connection has. */
void outbound_end(struct outbound *outbound, const std::string &reason);
/* Ends all at once. */
void outbound_free_all(void);

/* What commands ask of the newest session: a line for its standard input, or the end of it. Null, or why not. */
const char *outbound_type(const std::string &line);
const char *outbound_close(void);

/* --- ssh_client.cpp ----------------------------------------------------------------------------------------------- */

/* Hands the connection to an ssh process, which logs in and starts a shell that reads what is typed. known_host is what
 * ident_known_host gave; with an empty one any host key is taken. outbound_end is called when the process ends. Null,
 * or why ssh cannot be started: outbound_end is then the caller's to call. */
const char *ssh_start(struct outbound *outbound, const std::string &known_host);
/* Ends the process if it runs, and frees what ssh_start made; also after it failed. */
void ssh_stop(struct outbound *outbound);
/* The whole of kelserver --ssh-proxy; the exit status. */
int ssh_pass_connection(void);
