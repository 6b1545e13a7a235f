/*
 * Command server: takes commands of a menu over a Unix socket, and answers with documents.
 *
 * A client sends one command a line and gets the line "<rpc-reply>", the document, and the line "</rpc-reply>". A
 * line that is no command of the menu gets an <rpc-error> in the document's place: <bad-element> is the word,
 * <message> says what is wrong and what could stand there. Lines are answered in their order, also those behind which
 * the client has shut down its sending side.
 *
 * A process has one server, which is there until the process ends.
 */
#pragma once

#include "platform/ev/ev.h"
#include "platform/mgmt/menu.h"
#include "platform/mgmt/mgmt_sock.h"

extern "C" {

enum {
    MS_LINE_MAX = 4096,    // octets of a command, up to a zero if it has one; a longer one gets an <rpc-error>
    MS_CLIENTS_MAX = 32,
    MS_IDLE_S = 60,        // without a step forward, before a client may have to make room for a new one
};

/* Listens on /var/run/NAME.sock, mode 0600, and serves menu on ctx. A socket that stands there is replaced; whoever
 * calls makes sure that no other process serves it. Lines are read and written by the methods set with the XML layer.
 * menu is lent for good. flags is 0. 0, or -1 with errno after a line in the system log; EBUSY if the process has a
 * server. */
[[nodiscard]] int ms_init(evContext ctx, const char *name, const struct menu_row *menu, int flags);

/* A send method for the XML layer: takes line, and a line end behind it, into the write buffer of a client whose
 * command is being run. 0; or -1 with errno: the client is then closed when the command's handler returns. */
int ms_peer_send_line(struct mgmt_sock *msp, const char *line);

}   // extern "C"
