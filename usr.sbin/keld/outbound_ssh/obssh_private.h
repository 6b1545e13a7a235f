/*
 * What the files of this folder share, and what tests and fuzzing look into.
 */
#pragma once

#include "usr.sbin/keld/outbound_ssh/outbound_ssh.h"

#include <signal.h>
#include <stdio.h>

/* Holds every signal back for as long as it lives, so that keld_obssh_end_all sees whole trees, and every process with
 * its pid. May be nested. */
struct obssh_hold {
    obssh_hold();
    ~obssh_hold();
    obssh_hold(const obssh_hold &) = delete;
    obssh_hold &operator=(const obssh_hold &) = delete;

    sigset_t oh_former;   // mask to go back to
};

/* Puts the resolved beginning of all clients' files where keld_obssh_end_all finds it: a signal handler cannot resolve
 * a path. Called with signals held. */
void obssh_note_files(void);

/* The node of the name's first octets (most of them) in a tree of clients or servers, or null. most is below
 * OBSSH_NAME_SIZE. Null root allowed. */
struct patricia_node *obssh_lookup(const struct patricia_root *root, const char *name, size_t most);
/* The server of that name, or null. Null root allowed. */
struct obssh_srv_config *obssh_find_server(const struct patricia_root *root, const char *name);

/* Name of the client's file, without the root, in buffer of OBSSH_FILE_SIZE octets. buffer. */
const char *obssh_file_name(char *buffer, const char *client_id);
inline constexpr char obssh_file_prefix[] = "/var/etc/sshd_config_obssh.";

/* Copies a template to the stream to, without the lines that are not for a client. True if the copy is empty or ends
 * with a line end. */
bool obssh_copy_template(FILE *from, FILE *to);

/* Cuts the comment of a user at a host off the key text, which is terminated behind length octets. The length left. */
size_t obssh_trim_key(char *text, size_t length);

/* Writes the empty line that ends an identification. */
void obssh_end_identification(int socket);

