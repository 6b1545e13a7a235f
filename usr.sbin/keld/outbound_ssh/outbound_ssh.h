/*
 * Outbound SSH: for each configured client one long-lived sshd session toward one of that client's servers. The router
 * is the TCP client and the SSH server.
 *
 * A client is a record in the tree ob_ssh_patroot, from the reload that brings it to the one that takes it away. For
 * each attempt the daemon forks a process that looks the server up, connects, identifies the router and then becomes
 * sshd. It is no child of the daemon, which learns no more than its pid and looks after it with one timer a client.
 *
 * All calls belong to the loop's thread. Messages go to the trace file, at level 1 unless told otherwise.
 */
#pragma once

#include "lib/libtarne-timers/qtimers.h"
#include "platform/patricia/patricia.h"

#include <stddef.h>
#include <stdint.h>

extern "C" {

enum {
    OBSSH_NAME_SIZE = 255,       // octets of a name, zero-padded; also of both kinds of key
    OBSSH_INSTANCE_SIZE = 130,   // octets of a routing instance's name, the terminator included
    OBSSH_FILE_SIZE = 1024,      // room for the name of a client's file, without the root
};

/* One server of one client. */
struct obssh_srv_config {
    struct patricia_node sc_node;
    char sc_address[OBSSH_NAME_SIZE];   // key: host name or address
    uint16_t sc_port;                   // host order
    uint32_t sc_retry;                  // attempts on this server
    uint32_t sc_timeout;                // seconds between two looks at the process
};
static_assert(offsetof(obssh_srv_config, sc_address) == sizeof(struct patricia_node));

/* One client. What stands before ac_node is state and outlives a reload, what stands behind is configuration. */
struct obssh_app_config {
    int32_t ac_pid;                         // process of the last attempt, and its group; 0 for none
    char ac_server_name[OBSSH_NAME_SIZE];   // server in use, empty for none
    uint32_t ac_attempts;                   // on this server
    uint32_t ac_retry;                      // sc_retry and sc_timeout of this server
    uint32_t ac_timeout;
    uint32_t ac_deaths;                     // ends of sshd noticed on this server
    uint8_t ac_sshd_seen;                   // 1 once sshd was seen running on this server
    struct qtimer *ac_timer;                // owned
    struct patricia_node ac_node;
    char ac_client_id[OBSSH_NAME_SIZE];     // key
    char ac_device_id[OBSSH_NAME_SIZE];
    char ac_secret[OBSSH_NAME_SIZE];        // key of the HMAC; empty: no host key is sent. Shown nowhere
    uint32_t ac_ka_retry;                   // for sshd, 0 leaves it to sshd
    uint32_t ac_ka_timeout;                 // likewise, seconds
    uint32_t ac_strategy;                   // 0 stays on a server while attempts remain, others move on with each
    int32_t ac_services;                    // 0 offers netconf; -1 if not configured
    struct patricia_root *ac_servers;       // by sc_address; owned; null if none are configured
};
static_assert(offsetof(obssh_app_config, ac_client_id) ==
              offsetof(obssh_app_config, ac_node) + sizeof(struct patricia_node));

/* --- state, defined with the daemon's other globals --------------------------------------------------------------- */

extern char ri_name[OBSSH_INSTANCE_SIZE];        // routing instance for the connections, empty for the default
extern struct patricia_root *ob_ssh_patroot;     // clients by ac_client_id; null only if memory ran out
extern struct qtimer_ctx *obssh_timer_context;   // their timers'; null only if memory ran out

/* The timers' assert callback: traces the text, at level 0. */
void keld_obssh_qtimer_assert(const char *text);

/* --- configuration ------------------------------------------------------------------------------------------------ */

/* Applies the stanza as it is committed. check is 0. 0; -1 without a stanza, which changes nothing, or without clients,
 * which ends all; 1 if the database could not be opened, walked or closed: what was read before that is applied. */
int keld_outbound_ssh_config(int check);
/* Adds the client or, if its client-id is known, updates it, and begins a new attempt if it has to. Copies the
 * configuration of fresh, and takes its servers unless memory ran out. 0, or -1 if it did. */
int keld_obssh_app_config_insert(const struct obssh_app_config *fresh);
/* Ends the client's process, and removes its file and its record. 0, or 1 if there is none of that name. */
int keld_obssh_delete_app_config(const char *name);
/* The same for all clients; ob_ssh_patroot is then a new tree. */
void keld_obssh_delete_app_config_all(void);
/* Kills and unlinks what the clients have outside this process, and leaves the records as they are. For a signal
 * handler that ends the process; may interrupt any of the calls here. */
void keld_obssh_end_all(void);
/* Writes the client's file anew. If the client is new (old is null) or changed so that it must, ends its process and
 * begins an attempt. old is lent. 0. */
int keld_obssh_config_change_handler(const struct obssh_app_config *old, struct obssh_app_config *app);
/* Sets *restart if the change from old to app needs a new process, and leaves it alone otherwise. Empties
 * ac_server_name if that server is gone. */
void obssh_compare_config(const struct obssh_app_config *old, struct obssh_app_config *app, bool *restart);
/* Frees a tree of servers and all that is in it. Null allowed. */
void keld_obssh_server_free_all(struct patricia_root *root);
/* The client's first server in key order; null without one, and for null. */
struct obssh_srv_config *obssh_get_first_server(const struct obssh_app_config *app);
/* The record that holds the node. Null gives null. */
struct obssh_srv_config *keld_obssh_patnode_to_srv_config(struct patricia_node *node);
struct obssh_app_config *keld_obssh_patnode_to_app_config(struct patricia_node *node);

/* --- attempts ----------------------------------------------------------------------------------------------------- */

/* Begins an attempt on the next server and starts the timer. 1, always. Without a server, or if
 * the pid of the process did not come across, no timer is started and the client rests until its configuration changes;
 * a timer of a former attempt that still runs makes one more. */
int outbound_ssh_connect_to_server(struct obssh_app_config *app);
/* Chooses the server for the next attempt and puts its values into app. Null without servers. */
struct obssh_srv_config *obssh_select_server(struct obssh_app_config *app);

/* Each writes its part of the identification to a connected socket, where SIGPIPE must be ignored. A write that fails
 * is traced. device_id is shorter than OBSSH_NAME_SIZE; text is the key text, null for none. The results are 0. */
int obssh_send_device_conn_info(int socket, const char *device_id);
int obssh_send_pub_host_key(int socket, const char *secret);
int obssh_send_hmac(int socket, const char *text, const char *secret);

/* --- sshd --------------------------------------------------------------------------------------------------------- */

/* Writes the client's sshd configuration. A file that cannot be opened is traced. 0, always. */
int generate_obssh_config_file(const struct obssh_app_config *app);
/* Removes it. 0, or -1 with errno. */
int delete_obssh_config_file(const char *client_id);

/* Timer callback; user is the client: looks after its process, and begins an attempt if that has gone. */
void keld_obssh_retry_timer_handler(struct qtimer *timer, uintptr_t user);
/* True if there is a process of that pid, whichever it is. */
bool obssh_is_process_running(int32_t pid);
/* True if the process's command name holds "sshd". */
bool obssh_is_sshd_procname(int32_t pid);
/* Kills the client's process and all of its group. 0 also without a process; -1 with errno. */
int obssh_kill_group(const struct obssh_app_config *app);

}   // extern "C"
