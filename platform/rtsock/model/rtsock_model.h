/*
 * The model kernel: a router's tables inside this process, behind the routing socket.
 *
 * It serves what the library asks with state of its own: what was added can be got, walked and deleted, indexes are
 * given out, events reach the clients that listen, and what is wrong comes back as an error. It is there for tests of
 * clients and for trials without privileges; nothing of the host is touched. One model for the process, empty at first
 * but for the table "default" (index 0) of both families. Results of functions are 0 or the target's error numbers.
 *
 * A walk gives what is strictly behind the object that the request names. An address that is named by its local prefix
 * alone is the first with that prefix, so a walk over addresses names both prefixes of each reply.
 *
 * Text form, for rtsock_model_load: one object a line, words apart by blanks, '#' to the end of the line is a comment.
 *
 *     table NAME index N family inet|inet6|iso [tenant N]
 *     device NAME index N [snmp N] [mtu N] [mac XX:XX:XX:XX:XX:XX] [down]
 *     unit NAME.UNIT index N [snmp N] [tenant N] [lr N] [parent N]
 *     family UNIT-INDEX inet|inet6|iso [mtu N] [donor N]
 *     address UNIT-INDEX inet|inet6 ADDRESS[/BITS] [destination ADDRESS]
 *     nexthop INDEX family inet|inet6 type NAME [interface N] [address ADDRESS]
 *     route TABLE-NAME inet|inet6 PREFIX/BITS type NAME nexthop INDEX
 */
#pragma once

#include "platform/rtsock/kernel/rk.h"

extern "C" {

/* For rtsock_set_kernel. */
extern const struct rtsock_kernel rtsock_model;

/* Empties all tables and clears the faults. Clients that are open stay so. */
void rtsock_model_reset(void);
/* Adds what the file says. 0; on the first bad line an error, with "FILE:LINE: what is wrong" in error (size octets),
 * and the lines before it stand. ENOENT and the like for a file that cannot be read. */
int rtsock_model_load(const char *path, char *error, size_t size);
/* One line of that text. */
int rtsock_model_line(const char *line, char *error, size_t size);

/* What the model does wrong from now on. Never null. */
struct rk_faults *rtsock_model_faults(void);
/* The form of replies and events, RK_FORM_IDR at first. */
void rtsock_model_form(enum rk_form form);
/* The machinery behind it, for those that send events of their own (rk_event_all). Never null. */
struct rk_kernel *rtsock_model_kernel(void);

/* What an ordinary socket was bound to last through this kernel: table index or interface index, -1 for neither. */
int64_t rtsock_model_bound_table(int socket);
int64_t rtsock_model_bound_interface(int socket);

}   // extern "C"
