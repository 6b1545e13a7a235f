/*
 * Messages of the routing socket as text, for traces and tools.
 *
 * A message of a type that has a record (idl_message_type) is given as decoded; of any other as the raw octets that a
 * read delivers, of which rtsh_msglen says how many there are. Nothing here allocates or keeps state, and nothing fails
 * on a type that it does not know: such a message is its head alone. Texts out of messages have control characters
 * replaced by '?'. Unless said otherwise, what does not fit is cut at the buffer's end, which always holds a
 * terminator where there is room for one.
 */
#pragma once

#include "lib/librtsock/rtslib_cookie.h"

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

extern "C" {

/* --- whole messages -------------------------------------------------------------------------------------------- */

enum {
    RTSLIB_FORMAT_BRIEF_SIZE = 128,    // octets that the brief form writes at most
    RTSLIB_FORMAT_FULL_SIZE = 2048,    // and the full forms
};

/* Of an interface state message: what mode asks for. All other types ignore it. */
enum rtslib_format_mode {
    RTSLIB_FORMAT_MODE_FULL = 0,
    RTSLIB_FORMAT_MODE_BRIEF = 1,      // any other number is the full mode
};

/* Renders message, one line as a rule, into buffer. 0; or -1 after a report at severity 2, if the text did not fit and
 * was cut. */
int rtslib_format_output(struct rtslib_cookie *cookie, char *buffer, size_t size, int mode, const void *message);
/* The same in brief mode into RTSLIB_FORMAT_BRIEF_SIZE octets. */
int rtslib_format_brief_output(struct rtslib_cookie *cookie, char *buffer, const void *message);
/* The title of the columns that a line begins with, a constant. */
const char *rtslib_brief_output_header(void);
/* Renders at most RTSLIB_FORMAT_FULL_SIZE octets and writes them to stream; on failure a line that says so. Flushes.
 * Nothing happens if stream or message is null. */
void rtslib_print_msg_to_file(struct rtslib_cookie *cookie, FILE *stream, int mode, const void *message);

/* Several lines: statistics of the socket (type 26, a struct rtsm_raw) and a device (type 5, a decoded ifdev_msg), into
 * RTSLIB_FORMAT_FULL_SIZE octets. 0; or -1 after a report at severity 2. */
int rtslib_rtsm_format_full_output(struct rtslib_cookie *cookie, char *buffer, const void *message);
int rtslib_ifdm_format_full_output(struct rtslib_cookie *cookie, char *buffer, const void *message);

/* The line of an interface state message (type 47, a struct ifsm_raw) or of its client limits (type 85, a struct
 * ifsclim_raw), without head and line end. 0, or -1 if it was cut. */
int rtslib_ifsm_print(const void *message, char *buffer, size_t size, int mode);
int rtslib_ifsclim_print(const void *message, char *buffer, size_t size);

/* --- the cursor ------------------------------------------------------------------------------------------------ */

/* Formats at *cursor, of which *left octets are left, takes the length of the text off *left and moves *cursor behind
 * it. When *left goes negative the text was cut, and *cursor becomes null; with a null *cursor nothing is written and
 * nothing changes.
 *
 * Mind: a text that fits but for its terminator leaves 0, and loses its last octet to the terminator. */
[[gnu::format(printf, 3, 4)]] void rtslib_fill_format_buf(char **cursor, int *left, const char *format, ...);

/* --- addresses ------------------------------------------------------------------------------------------------- */

enum rtslib_format_form {
    RTSLIB_FORM_FAMILY = 0,   // as the family goes
    RTSLIB_FORM_DOTTED = 1,   // octets in decimal
    RTSLIB_FORM_COLON = 2,    // pairs of octets in hexadecimal
};

/* Text of a prefix: value has (bits + 7) / 8 octets, or what the family always has, in network order. With a form
 * other than 0, mpls and all families without a text of their own go by that form. 0, or -1 if the text was cut. */
int rtslib_format_prefix(char *buffer, size_t size, const void *value, uint32_t bits, int family, int form);
/* Text of an address, a sockaddr in the target's form: its length in the first octet, the family in the second. names
 * not 0: the host's name for an inet address, if it has one; that call waits and is for one thread only. 0, or -1 if
 * the text was cut. */
int rtslib_format_sockaddr(char *buffer, size_t size, const void *sockaddr, int names);

/* --- names of values ------------------------------------------------------------------------------------------- */

/* Constants; never null. A value outside the table, or a negative one, has the table's last row. */
const char *rtslib_format_rtm_type(int type);                  // "unknown"
const char *rtslib_format_op(int operation);                   // "unknown"
const char *rtslib_format_route_type(int type);                // "ifcl", the highest type there is
const char *rtslib_format_nexthop_type(int type);              // empty
const char *rtslib_format_ifstate_type(int type);              // "UNKNOWN"
const char *rtslib_format_mtype_rcv(int value);                // "Invalid"
const char *rtslib_format_daemon_issu_state(int state);        // "UNKNOWN"
const char *rtslib_format_hwmgr_issu_state(int state);         // "UNKNOWN"
const char *rtslib_format_cos_type(int type);                  // "Invalid message type"
const char *rtslib_format_ppm_type(int type);                  // "Invalid"
const char *rtslib_format_ifsclim_subtype(int subtype);        // "Unknown"
const char *rtslib_format_af(int family);                      // the target's; "unknown"
const char *rtslib_format_lb_attr(int attribute);              // "Unknown"
const char *rtslib_format_msg_sender_id(int sender);           // who sends on the socket; "unknown"
const char *rtslib_gencfg_format_majortype(int major);         // classes of blobs; "unknown"
const char *rtslib_gencfg_format_minortype(int major, int minor);   // what a class holds; "unknown"

}   // extern "C"
