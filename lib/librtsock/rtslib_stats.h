/*
 * Statistics of next hops (message type 21, struct rnhs_msg) and of routes (type 4, raw).
 *
 * The only operations of the library that wait for the kernel; the first three wait without limit.
 */
#pragma once

#include "lib/librtsock/rtslib_io.h"

extern "C" {

/* What says which next hop's statistics are meant. */
struct rtslib_nh_key {
    uint8_t key_type;           // 2, 3, 4, 20 or 24, else 45
    uint8_t aux_byte1;
    uint32_t word1, word2, aux_word;
    const void *address;        // a sockaddr in the target's form, or null
    const uint32_t *labels;     // or null
    uint32_t label_count;
    const void *octets;         // or null
    uint32_t octets_length;
    uint16_t aux_half;
    uint8_t aux_byte2;
};

/* operation: RTM_OP_GET or RTM_OP_GETNEXT. Results as in rtslib_table.h. */
int rtslib_rnhsm_get(struct rtslib_cookie *cookie, uint8_t family, uint8_t operation, const struct rtslib_nh_key *key,
                     void **message, void **mask);
/* The key is taken from a decoded rnh_msg. */
int rtslib_rnhsm_get_by_nexthop(struct rtslib_cookie *cookie, uint8_t family, uint8_t operation, const void *nexthop,
                                void **message, void **mask);
/* By key type 2 alone, else 45. Mind: *message and *mask are null afterwards, also when the result is 0, and a line
 * about the reading goes to standard error whatever came of it. */
int rtslib_rnhsm_get_by_index(struct rtslib_cookie *cookie, uint32_t word1, uint32_t word2, uint8_t key_type,
                              uint8_t aux_byte1, const uint32_t *labels, uint32_t label_count, const void *address,
                              uint8_t family, uint8_t operation, void **message, void **mask);

enum { RTSLIB_RTSTATS_WORDS = 13 };
struct timeval;
/* Statistics of a route, RTSLIB_RTSTATS_WORDS words in *words. Waits for the answer up to 11 times as long as limit
 * says (null: for ever). 2 if the kernel has none, 22 for a null cookie, prefix or output, 35 if it never answered, 22
 * for a limit that is none. */
int rtslib_rtstats_get(struct rtslib_cookie *cookie, uint8_t family, uint16_t tid, uint8_t aux_byte, uint32_t aux_word,
                       uint16_t prefix_bits, const void *prefix, uint32_t *words, const struct timeval *limit);

}   // extern "C"
