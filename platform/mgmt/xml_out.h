/*
 * XML output: documents built element by element from a table of tags, and the methods by which the XML layer reads and
 * writes a management socket.
 *
 * Text goes out a line at a time, each with one call of the send method: a container's tags and an empty element are
 * a line each, and so is a leaf with all that is in it. A line that was begun is ended before its handler returns;
 * there is one such line in the process.
 *
 * Documents are ASCII. Where a call says so, text is escaped: markup as entities, whatever is not printable ASCII as
 * '?'. Text of more than XML_TEXT_MAX octets is cut.
 *
 * Results: 0, or -1 if the send method failed or there is none. A handler may ignore them: a document that could not be
 * sent whole is never taken for a whole one, since its connection is closed.
 */
#pragma once

#include "platform/mgmt/mgmt_sock.h"

#include <stdint.h>
#include <time.h>

extern "C" {

/* What an element is. */
enum : uint32_t {
    ODL_CONTAINER = 0x10000,
    ODL_NUMBER = 0x20002,     // a leaf
    ODL_TEXT = 0x20003,       // a leaf
    ODL_EMPTY = 0x40003,
};

/* A row of a table of tags. The first row is a placeholder, a row of zeros ends the table; a tag is the address of
 * its row. */
struct odl_tag {
    const char *ot_name;
    uint32_t ot_type;
};

enum { XML_TEXT_MAX = 1000 };

/* Flags. */
enum {
    XML_ESCAPE = 1,    // of xml_send_all and xml_jxo_data: the text may hold anything
    XML_EMPTY = 2,     // of xml_send_open: the element has no content and is not closed
    XML_NEWLINE = 4,   // of xml_send_open and xml_send_close: the line ends here
};

/* --- methods ---------------------------------------------------------------------------------------------------- */

/* Sends line, which has no end yet. 0, or -1 with errno. */
typedef int (*xml_send_method)(struct mgmt_sock *msp, const char *line);
/* The next line, without its end, as mgmt_sock_get_xml. */
typedef char *(*xml_get_method)(struct mgmt_sock *msp, uint32_t flags);
/* Non-zero if nothing more will come. */
typedef int (*xml_eof_method)(struct mgmt_sock *msp);

/* Each takes the place of the former one. Null: none. */
void xml_set_send_method(xml_send_method method);
void xml_set_get_method(xml_get_method method);
void xml_set_eof_method(xml_eof_method method);

/* One line by the get method; null with errno, EINVAL without a method. */
char *xml_get_line(struct mgmt_sock *msp);
/* What the eof method says; true without one. */
bool xml_at_end(struct mgmt_sock *msp);
/* One line by the send method. */
int xml_send_line(struct mgmt_sock *msp, const char *line);

/* --- elements --------------------------------------------------------------------------------------------------- */

/* The opening tag, or with XML_EMPTY the whole element. attributes: of xml_attr_seconds or xml_attr_xmlns, null for
 * none. more is 0. */
int xml_send_open(struct mgmt_sock *msp, const struct odl_tag *tag, int flags, const char *attributes, int more);
int xml_send_close(struct mgmt_sock *msp, const struct odl_tag *tag, int flags);
/* Content of a leaf that is open. */
[[gnu::format(printf, 3, 4)]] int xml_jxo_data(struct mgmt_sock *msp, int flags, const char *format, ...);
/* A leaf, a line of its own. */
[[gnu::format(printf, 4, 5)]] int xml_send_all(struct mgmt_sock *msp, const struct odl_tag *tag, int flags,
                                               const char *format, ...);

/* Attributes for xml_send_open. Each is valid until the next call of its kind. uri is cut at 255 octets. */
const char *xml_attr_seconds(time_t seconds);
const char *xml_attr_xmlns(const char *uri);

/* The document on what this program is: name (null: the program's own), release and node name; how it was built and
 * what it runs with only if detail is not 0. */
int xml_show_version(struct mgmt_sock *msp, const char *name, int detail);

}   // extern "C"
