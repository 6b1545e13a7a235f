/*
 * rtsmon: prints changes of interfaces, addresses, tables, routes and blobs as the kernel tells of them, a line each.
 *
 * A message is a decoded record of the catalogue; both forms of a line come from its table, so that every type can be
 * printed. Types without a codec come raw and are told by their header alone.
 */
#pragma once

#include "lib/librtsock/rtslib.h"

#include <string>

/* "add route tid 5 af inet prefix 10.1.0.0/16 ...": fields that are 0 or empty are left out. */
std::string rtsmon_text(const struct rts_hdr *message);
/* One JSON object (RFC 8259): "type", "op", "seq", and the record's fields by name. Octets are hexadecimal text, lists are
 * arrays, fields that are 0 or empty are left out. */
std::string rtsmon_json(const struct rts_hdr *message);
