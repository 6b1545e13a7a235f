/*
 * Message I/O: one message at a time, or many in one write.
 *
 * Nothing here waits. A reply that is not there yet is the result 35, without a report. Faults of form in what was read
 * are reported at severity 4, which ends the process under the default sink; under a sink that returns, the results
 * stand below. A sequence mismatch gives -2: the raw reads deliver the message all the same, the _idl reads do not
 * decode it.
 */
#pragma once

#include "lib/librtsock/rtslib_envelope.h"

extern "C" {

/* Writes length octets as one datagram. 0 or an error number. A short write is a fatal report, and then 0. */
int rtslib_write(struct rtslib_cookie *cookie, const void *octets, uint32_t length);
/* Reads one message of at most RTSLIB_MSG_MAX octets into destination, which has room for that. length may be null. 0,
 * 35, 22 for a null argument, 5 for a malformed message, -2, or the error of reading. */
int rtslib_msg_read(struct rtslib_cookie *cookie, void *destination, uint32_t *length);
/* The same for a message of any size, into a buffer that is the caller's, to be freed with rtslib_msg_free. On failure
 * *out is null and *length 0; 12 without memory. */
int rtslib_long_msg_read(struct rtslib_cookie *cookie, void **out, uint32_t *length);
/* Octets of the next message, which stays unread, or -1 with errno: EAGAIN if there is none. */
int32_t rtslib_peek_pkt_len(int socket);

/* Encodes (as TLV with the presence mask, as IDR with null), writes, frees the copy. The message stays the caller's. */
int rtslib_msg_write_idl(struct rtslib_cookie *cookie, const void *message, const void *mask);
/* Read and decode: see rtslib_msg_idl_decode for *message and *mask (may be null). What fails before decoding is the
 * result. The long form takes messages of any size. */
int rtslib_msg_read_idl(struct rtslib_cookie *cookie, void **message, void **mask);
int rtslib_long_msg_read_idl(struct rtslib_cookie *cookie, void **message, void **mask);
/* The same into the caller's arena. Mind that the long form gives 0 also when the message did not fit or was broken:
 * clear *message before and look at it. */
int rtslib_msg_read_idl_pa(struct rtslib_cookie *cookie, void **message, void **mask, void *arena, size_t arena_size);
int rtslib_long_msg_read_idl_pa(struct rtslib_cookie *cookie, void **message, void **mask, void *arena,
                                size_t arena_size);

/* --- bulk ------------------------------------------------------------------------------------------------------ */

struct rtslib_iov {
    void *msg;           // to send
    void *reply;         // in: the address of this very field asks for a reply. Out: the decoded reply, the caller's;
                         // an entry that still points at itself got none
    uint32_t write_err;  // 0, or why this message did not reach the kernel
    uint32_t read_err;   // 0, or why its reply failed
};

/* Sends count messages in as few writes as wbuf takes and reads the replies asked for. masks is null or has one
 * presence mask for each entry, in for the encoder, out for the reply. 0, or 22 for a null cookie; what became of each
 * message stands in its entry. Needs rtslib_set_sync_mode(1).
 *
 * Mind: an entry that asks for a reply and is the first not to fit into wbuf leaves the batch waiting for one reply too
 * many; once the replies of the batch are read, this never returns. Give wbuf room for all messages of a call
 * (rtslib_set_bulk_buffer), or ask for no replies. */
int rtslib_msg_writev_idl(struct rtslib_cookie *cookie, uint32_t count, struct rtslib_iov *iov, void **masks);
/* 0: one message a write; 1: bulk, which can be set once in the life of a cookie. 0 or -1. */
int rtslib_set_sync_mode(struct rtslib_cookie *cookie, uint32_t mode);
/* Resizes wbuf. 0, 22 outside bulk mode, 12. Not while a batch is being built. */
int rtslib_set_bulk_buffer(struct rtslib_cookie *cookie, uint32_t size);
/* What the kernel tells of the last bulk write: a struct rtsock_bulk_status, 12 octets. 0, 22 or -1. */
int rtslib_get_bulkw_info(struct rtslib_cookie *cookie, void *out);
/* Pacing: which 0 for sending, 1 for receiving; the unit is the kernel's. 0 or -1. */
int rtslib_set_io_min_elapse(struct rtslib_cookie *cookie, uint32_t value, int which);

}   // extern "C"
