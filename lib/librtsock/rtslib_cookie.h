/*
 * The cookie: one connection to the routing socket, its options and its sequence numbers.
 */
#pragma once

#include "lib/librtsock/rtslib_mem.h"
#include "lib/librtsock/rtslib_names.h"

#include <stdint.h>

extern "C" {

struct rts_hdr;
struct rtslib_async_info;
struct rtslib_async_pass;
struct rtslib_unnum;

typedef void (*rtslib_seq_err_func)(struct rtslib_cookie *cookie, uintptr_t context, uint32_t expected,
                                    uint32_t received);
/* *length: room in, octets out. 0 on success. */
typedef int (*rtslib_compress_func)(void *destination, uint32_t *length, const void *source, uint32_t source_length);

struct rtslib_cookie {
    int32_t socket;                      // -1 while not connected
    uint32_t seq;                        // last number handed out; 1 at creation
    uint8_t *version_info;               // the kernel's version table; null until connected
    uint8_t *read_buffer;                // RTSLIB_READ_BUFFER_SIZE octets, one more than the longest message
    struct rtslib_async_info *async_info;   // null: the cookie is synchronous
    uint32_t sync_mode;                  // bit 0: RTS_SYNC_BULK_ENABLE
    rtslib_err_func err_fn;              // null: silent
    uintptr_t err_ctx;
    rtslib_seq_err_func seq_err_fn;      // null: mismatches are reported
    uintptr_t seq_err_ctx;
    uint8_t rnhm_get_flag;               // next-hop gets ask for more; set by the client alone
    struct rtslib_unnum *unnum;          // donor tracking, or null
    uint32_t enable_kbt;                 // writes are bracketed by the kernel's back-trace switch
    rtslib_compress_func blob_compress;
    rtslib_compress_func blob_decompress;
    int32_t num_read_msg;                // reads for each wake-up of the event loop
    uint8_t used_by_stats;
    uint8_t *wbuf, *wbuf_pos;            // bulk send buffer and its fill position
    uint32_t wbuf_sz;
    uint8_t *rbuf_data, *rbuf_pos;       // common receive buffer and its read position
    uint8_t *rbuf_last;                  // its last valid octet
    uint32_t rbuf_sz;
    void *ext_select;                    // a struct rtslib_ext_select of the client's, in place of the socket
    struct rtslib_async_pass *async_pass;   // the read loop that runs now, or null; the library's
};

enum {
    RTS_SYNC_BULK_ENABLE = 1,
    RTSLIB_READ_BUFFER_SIZE = RTSLIB_MSG_MAX + 1,
    RTSLIB_BUFFER_SIZE = 0x80000,        // socket buffers of rtslib_open, and the least for the asynchronous mode
    RTSLIB_HDR_SIZE = 24,                // octets of the header that all forms have; no message is shorter
};

/* A connected cookie, or null. sender names the client to the kernel. */
[[nodiscard]] struct rtslib_cookie *rtslib_open(uint8_t sender);
/* The two halves of it: an error sink registered between them hears of the connection's faults. A failed
 * rtslib_set_defaults may leak the read buffer and an open socket and frees the cookie: its result is null then. */
[[nodiscard]] struct rtslib_cookie *rtslib_cookie_create(void);
struct rtslib_cookie *rtslib_set_defaults(struct rtslib_cookie *cookie, uint8_t sender);
/* Ends the connection and frees all that the cookie owns. Null allowed. */
void rtslib_close(struct rtslib_cookie *cookie);
void rtslib_cookie_destroy(struct rtslib_cookie *cookie);

/* 22 for a null cookie, otherwise 0 even when the kernel refuses, which is reported. */
int rtslib_set_sender_id(struct rtslib_cookie *cookie, uint8_t sender);
/* Sizes of the socket's buffers, in octets, and of rbuf_data where it is in use. 0, 22 for a size that is not above 0
 * or below RTSLIB_BUFFER_SIZE in asynchronous mode, 12, or the error of setting: a send size that took effect stays. */
int rtslib_set_buffers(struct rtslib_cookie *cookie, int32_t send_size, int32_t receive_size);

/* Hands out the next sequence number. 0, or 22 if either argument is null. */
int rtslib_seq_get_next(struct rtslib_cookie *cookie, uint32_t *seq);
/* Judges the number of a message as read (at least RTSLIB_HDR_SIZE octets; enveloped ones are not judged). 0, or -2
 * after the report or seq_err_fn. On an asynchronous cookie seq follows what was received. */
int rtslib_check_read_seq(struct rtslib_cookie *cookie, const void *message);
/* 0, or 22 for a null cookie. */
int rtslib_seq_error_register(struct rtslib_cookie *cookie, uintptr_t context, rtslib_seq_err_func func);
void rtslib_set_used_by_stats(struct rtslib_cookie *cookie, uint8_t flag);

}   // extern "C"
