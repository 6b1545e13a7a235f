/*
 * The two halves of the bulk road. Internal to the library.
 */
#pragma once

#include "lib/librtsock/rtslib_io.h"

extern "C" {

/* Entries of a client's array that one write carries. */
struct rtslib_batch {
    struct rtslib_iov *iov;
    uint32_t count;        // entries of the array
    uint32_t start, end;   // first and last of the batch
};

/* Writes what stands between wbuf and wbuf_pos. *stop: the entry that the kernel stopped at, -1 for none. */
void rtslib_write_bulk_iov(struct rtslib_cookie *cookie, const struct rtslib_batch *batch, int32_t *stop);
/* Reads until the replies asked for by the batch are decoded into its entries. *ended: the driver is to go no further.
 * Does not return if more replies are expected than the batch asks for. */
void rtslib_read_and_decode_bulk_iov(struct rtslib_cookie *cookie, const struct rtslib_batch *batch, void **masks,
                                     uint32_t expected, bool *ended);

enum rtslib_iov_side { RTSLIB_IOV_WRITE, RTSLIB_IOV_READ };
/* Stores an error of the target (0: the current errno) in entry index. */
void rtslib_set_iov_err(struct rtslib_cookie *cookie, struct rtslib_iov *iov, uint32_t count, uint32_t index,
                        int error, enum rtslib_iov_side side);

/* True for an entry that waits for a reply. */
static inline bool rtslib_iov_asks(const struct rtslib_iov *entry)
{
    return entry->reply == &entry->reply;
}

}   // extern "C"
