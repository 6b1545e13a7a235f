/*
 * Raw layouts of the message types that have no record and a rendering; those of statistics are in rtslib_raw.h.
 *
 * A message may be shorter than its layout: what is missing reads as 0. Texts in place need no terminator.
 */
#pragma once

#include "lib/librtsock/rtslib_raw.h"

extern "C" {

enum { RTS_RAW_NAME = 32, RTS_RAW_FUNCTION = 64 };

/* An alarm of a device, type 20: what is raised, of what can be. */
struct alarm_raw {
    struct rts_raw_hdr hdr;
    char name[RTS_RAW_NAME];
    uint32_t idx;
    uint32_t alarms, mask;
    uint32_t type;
};
static_assert(sizeof(struct alarm_raw) == 72);

/* A policer, type 38, or shaper, type 39, of a logical interface: bits each second, octets. */
struct cos_rate_raw {
    struct rts_raw_hdr hdr;
    uint32_t ifl;
    uint32_t bandwidth, burst;
};
static_assert(sizeof(struct cos_rate_raw) == 36);

/* A security association, type 41. */
struct sa_raw {
    struct rts_raw_hdr hdr;
    char name[RTS_RAW_NAME];
    uint32_t spi;
    uint32_t idx, iflidx;
    uint8_t direction;   // 1 inbound, 2 outbound, 3 through
    uint8_t proto;
    uint16_t reserved;
};
static_assert(sizeof(struct sa_raw) == 72);

/* The socket's own statistics, type 26: of one message type, the counters of operations 1 to 9. */
enum { RTSM_OPS = 9 };
struct rtsm_counters_raw {
    uint64_t sndpkts, sndbytes;
    uint32_t sndmaxpkt, reserved1;   // octets of the largest
    uint64_t rcvpkts, rcvbytes;
    uint32_t rcvmaxpkt, reserved2;
};
struct rtsm_raw {
    struct rts_raw_hdr hdr;
    uint8_t kind;        // of the table: 0 all operations, 1 failed, 2 vetoed, 3 locked
    uint8_t type;        // of the messages counted
    uint16_t reserved[3];
    struct rtsm_counters_raw ops[RTSM_OPS];   // operation 1 first
};
static_assert(sizeof(struct rtsm_raw) == 464 && offsetof(struct rtsm_raw, ops) == 32);

/* An object in the state that the kernel keeps for its clients, type 47. */
struct ifsm_raw {
    struct rts_raw_hdr hdr;
    uint8_t object_type;   // rtslib_format_ifstate_type
    uint8_t object_op;     // what happened to it, an operation
    uint8_t receivers;     // rtslib_format_mtype_rcv
    uint8_t issu_state;    // rtslib_format_daemon_issu_state
    uint32_t idx;
    uint32_t flags;
    uint32_t clients;      // that have still to hear of it
    uint64_t slots;        // with receivers 1 or 3: one bit for each slot
    uint64_t sequence;
    char name[RTS_RAW_NAME];
};
static_assert(sizeof(struct ifsm_raw) == 88);

/* Limits of a client of that state, type 85. */
struct ifsclim_raw {
    struct rts_raw_hdr hdr;
    uint8_t subtype;       // rtslib_format_ifsclim_subtype
    uint8_t client;        // a sender id
    uint16_t reserved;
    uint32_t pending, pending_max;   // objects that wait for the client
    uint32_t limit_s;                // how long they may
};
static_assert(sizeof(struct ifsclim_raw) == 40);

/* What went wrong with a request, type 109. */
struct rts_err_raw {
    struct rts_raw_hdr hdr;
    char function[RTS_RAW_FUNCTION];
    uint32_t line;
    uint32_t seq_no;       // of the request
    uint8_t type, op;
    uint16_t reserved;
    uint32_t sender_id;
    uint32_t mproc_err;    // of whoever processed it
    uint32_t final_err;    // the target's number
};
static_assert(sizeof(struct rts_err_raw) == 112);

}   // extern "C"
