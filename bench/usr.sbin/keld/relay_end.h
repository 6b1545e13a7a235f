/*
 * Relay ends: a reply of the management daemon on its way to the server, through the management script profile or
 * copied plainly. The daemon is a process of its own on the same processor, which writes load.messages lines of
 * load.octets, line end included, and then the line that ends a reply.
 */
#pragma once

#include "bench/usr.sbin/keld/beep/pair.h"

/* Relays the reply in frames, with an ample window. Ends when the sink hangs up. */
void relay_reply(int fd, const struct load &load);
/* Reads and writes as many octets at once as the profile puts into a frame. Ends likewise. */
void plain_copy(int fd, const struct load &load);
/* Grants the window, reads up to the end of the reply, and hangs up. The plain one grants nothing. */
void relay_sink(int fd, const struct load &load);
void copy_sink(int fd, const struct load &load);
