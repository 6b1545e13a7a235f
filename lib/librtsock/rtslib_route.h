/*
 * Routes (message type 2, struct rt_msg), matches (12, rtm_msg) and multicast groups (13, mgr_msg).
 *
 * A prefix is a pointer to its octets in network order and a length in bits; (bits + 7) / 8 octets are read. Results,
 * out messages and masks are as in rtslib_table.h; for operations RTM_OP_GET and RTM_OP_GETNEXT, which have a reply, a
 * missing out message is 22 and nothing is sent. Other operations have no reply; an out message is null behind them. A
 * walk with RTM_OP_GETNEXT is the client's: it puts the prefix of each reply into the next request. An add that asks
 * for the route's index gives 5, and no index, if the kernel answers with another kind of object.
 */
#pragma once

#include "lib/librtsock/rtslib_io.h"

extern "C" {

enum { RTSLIB_REQUEST_ACK = 2 };   // of rtsh_flag: the new route's index is asked for

/* Adds a route. gateway: null, or a sockaddr in the target's form (its length, its family, ...), of length 0 for none;
 * the route then carries it as its next hop, otherwise nhidx names one. opaque_type other than 0: opaque_word travels
 * with the route. index: null, or where the route's 16-bit index goes; the operation then waits for no longer than the
 * write, but reads a reply. */
int rtslib_rtm_add(struct rtslib_cookie *cookie, uint16_t tid, uint8_t family, uint8_t rt_type, uint32_t rt_flags,
                   uint8_t nh_type, uint32_t nh_flags, uint8_t aux_byte, uint32_t aux_word1, uint32_t aux_word2,
                   uint32_t nhidx, uint32_t opaque_type, uint32_t opaque_word, const void *prefix, uint16_t prefix_bits,
                   const void *gateway, uint16_t *index);
/* Sends the caller's rt_msg as a deletion, with the sequence number that it has. */
int rtslib_rtm_delete(struct rtslib_cookie *cookie, void *message);
int rtslib_rtm_delete_prefix(struct rtslib_cookie *cookie, uint16_t tid, uint8_t family, uint8_t rt_type,
                             uint32_t rt_flags, const void *prefix, uint16_t prefix_bits, uint32_t aux_word1);

int rtslib_rtm_get(struct rtslib_cookie *cookie, uint16_t tid, uint8_t family, const void *prefix, uint16_t prefix_bits,
                   uint8_t rt_type, uint32_t rt_flags, uint32_t aux_word1, uint8_t aux_byte, uint8_t operation,
                   void **message, void **mask);
int rtslib_rtm_get_by_type(struct rtslib_cookie *cookie, uint8_t family, uint8_t rt_type, uint8_t operation,
                           void **message, void **mask);
int rtslib_rtm_get_by_prefix(struct rtslib_cookie *cookie, uint8_t family, const void *prefix, uint16_t prefix_bits,
                             uint8_t operation, void **message, void **mask);
/* With the caller's rt_msg as the request; it gets the operation and a new sequence number. The _pa form decodes into
 * the caller's arena; see rtslib_long_msg_read_idl_pa for what it does not tell. */
int rtslib_rtm_get_with_msg(struct rtslib_cookie *cookie, void *request, uint8_t operation, void **message,
                            void **mask);
int rtslib_rtm_get_with_msg_pa(struct rtslib_cookie *cookie, void *request, uint8_t operation, void **message,
                               void **mask, void *arena, size_t arena_size);

/* The route that a packet to the prefix would take. */
int rtslib_rtmatch_by_prefix(struct rtslib_cookie *cookie, uint16_t tid, uint8_t family, uint8_t aux_byte,
                             const void *prefix, uint16_t prefix_bits, void **message, void **mask);
/* The same, with the interface of its next hop, asked for with a second request, in ifidx. -1 if the match has no next
 * hop or that cannot be had; the match then stays with the caller all the same. */
int rtslib_rtmatch_fwding_nh_ifindex(struct rtslib_cookie *cookie, uint16_t tid, uint8_t family, uint8_t aux_byte,
                                     const void *prefix, uint16_t prefix_bits, void **message, void **mask);

int rtslib_mgrm_get(struct rtslib_cookie *cookie, uint16_t tid, uint8_t family, const void *prefix,
                    uint16_t prefix_bits, uint8_t operation, void **message, void **mask);

}   // extern "C"
