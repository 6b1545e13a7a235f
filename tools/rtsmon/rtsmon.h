/*
 * rtsmon: prints changes of interfaces, addresses, tables, routes and blobs as the kernel tells of them, a line each.
 *
 * A message is a decoded record of the catalogue; both forms of a line come from its table, so that every type can be
 * printed. One that came raw is told by its header alone, whatever its type: what follows the header need not be what a
 * record of that type holds.
 */
#pragma once

#include "lib/librtsock/rtslib.h"
#include "lib/librtsock/rtslib_raw.h"

#include <string>

/* "add route tid 5 af inet prefix 10.1.0.0/16 ...": fields that are 0 or empty are left out. */
std::string rtsmon_text(const struct rts_hdr *message);
/* One JSON object (RFC 8259): "type", "op", "seq", and the record's fields by name. Octets are hexadecimal text, lists are
 * arrays, fields that are 0 or empty are left out. */
std::string rtsmon_json(const struct rts_hdr *message);
/* "add route raw 64 octets", or the object with "raw", the message's octets, in place of the fields. */
std::string rtsmon_raw(const struct rts_raw_hdr *message, bool json);
