/*
 * Names and versions of message types, and operations of messages.
 */
#pragma once

#include <stdint.h>

extern "C" {

enum {
    RTSLIB_TYPES = 110,   // message types 0 to 109
    RTSLIB_OPS = 10,
    RTSLIB_INTERFACE_VERSION = 98,
};

/* Names by message type, "unknown" at RTSLIB_TYPES; by operation, "unknown" at RTSLIB_OPS; brief ones likewise. */
extern const char *const rtm_types[RTSLIB_TYPES + 1];
extern const char *const rtm_ops[RTSLIB_OPS + 1];
extern const char *const rtm_ops_brief[RTSLIB_OPS + 1];
/* The library's version table, in the layout that the kernel returns: count of types, interface version, then the
 * version of each type from 1. 0: the library holds none. */
extern const uint8_t rtslib_versions[RTSLIB_TYPES + 1];

/* Operations of messages. */
enum rtm_op : uint8_t {
    RTM_OP_NOP = 0,
    RTM_OP_ADD = 1,
    RTM_OP_CHANGE = 2,
    RTM_OP_DELETE = 3,
    RTM_OP_GET = 4,
    RTM_OP_GETNEXT = 5,
    RTM_OP_CLEAR = 6,
    RTM_OP_DELETEALL = 7,
    RTM_OP_ADD_GET = 8,
    RTM_OP_CHG_GET = 9,
};

}   // extern "C"
