/*
 * Raw messages: layouts of the types that have no codec, as they stand on the socket. Host order; the common header of
 * 24 octets (struct rts_hdr up to rtsh_reserved) comes first in each, and rtsh_msglen is the whole length.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

extern "C" {

/* The header that begins every raw message. */
struct rts_raw_hdr {
    uint32_t magic;       // 0
    uint8_t version, type, op, flag;
    uint32_t msglen, seq, sender;
    uint16_t hdrlen;
    uint8_t creator, reserved;
};
static_assert(sizeof(struct rts_raw_hdr) == 24);

/* Statistics of a route, type 4. Behind it the prefix, padded with zero to whole words; in a reply whose marker is not
 * 0, 13 words of statistics behind that. */
struct rtstats_raw {
    struct rts_raw_hdr hdr;
    uint16_t tid;
    uint8_t af;
    uint8_t aux_byte;
    uint32_t aux_word;
    uint8_t one;            // 1 in a request
    uint8_t marker;         // of a reply: 0 if there are no statistics
    uint16_t prefix_bits;
    uint8_t reserved[16];
};
static_assert(sizeof(struct rtstats_raw) == 52 && offsetof(struct rtstats_raw, prefix_bits) == 34);

/* What interfaces count. */
struct ifstats_counters_raw {
    uint64_t in_packets, in_octets, out_packets, out_octets;
};

/* Statistics of a device, type 15, and of a logical interface, type 16. Behind each its name, with a terminator that
 * name_length counts: "ge-0/0/0" and "ge-0/0/0.0". A request names its object by index or, with index 0, by name. */
struct ifdstats_raw {
    struct rts_raw_hdr hdr;
    uint16_t idx;
    uint8_t aux_byte;
    uint8_t name_length;
    uint16_t option_half;
    uint8_t option_byte;
    uint8_t reserved1;
    uint32_t option_word;
    uint32_t trailing_word;   // the client's
    struct ifstats_counters_raw counters;
    uint32_t reserved2[2];
};
static_assert(sizeof(struct ifdstats_raw) == 80 && offsetof(struct ifdstats_raw, counters) == 40);

struct iflstats_raw {
    struct rts_raw_hdr hdr;
    uint32_t idx;
    uint16_t option_half;
    uint8_t aux_byte;
    uint8_t name_length;
    uint32_t subtype;
    uint32_t trailing_word;   // the client's
    struct ifstats_counters_raw counters;
};
static_assert(sizeof(struct iflstats_raw) == 72 && offsetof(struct iflstats_raw, counters) == 40);

/* Statistics of a family on a logical interface, type 70. */
struct iffstats_raw {
    struct rts_raw_hdr hdr;
    uint32_t ifl_idx;
    uint8_t af;
    uint8_t aux_byte;
    uint16_t reserved;
    uint64_t packets, octets;
};
static_assert(sizeof(struct iffstats_raw) == 48 && offsetof(struct iffstats_raw, packets) == 32);

}   // extern "C"
