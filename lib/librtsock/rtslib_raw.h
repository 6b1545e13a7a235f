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

}   // extern "C"
