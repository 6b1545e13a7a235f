/*
 * Memory and reports of the library: four allocation hooks that a client may replace, accounting by memory id, and the
 * one report function.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

extern "C" {

struct rtslib_cookie;

/* --- memory ---------------------------------------------------------------------------------------------------- */

/* What a block is for. Frees carry the id of the allocation; the accounting depends on it. */
enum rtslib_memid : uint16_t {
    MEMID_RTSLIB_RECORD = 0,             // the accounting table itself
    MEMID_RTSLIB_SUBTYPE = 5,            // subtype tables
    MEMID_RTSLIB_ASYNC_INFO = 6,         // the asynchronous block
    MEMID_RTSLIB_READ_BUFFER = 7,        // a cookie's read_buffer, compressed blobs
    MEMID_RTSLIB_COOKIE = 8,
    MEMID_RTSLIB_GENCFG_DEPEND = 57,
    MEMID_RTSLIB_GENCFG_PEER = 58,
    MEMID_RTSLIB_CALLBACK = 59,          // rtslib_malloc_cb
    MEMID_RTSLIB_ASYNC_REG = 60,         // registrations and subtype entries
    MEMID_RTSLIB_NAMEINDEX = 62,         // if_nameindex
    MEMID_RTSLIB_ITABLE_MIN = 63,
    MEMID_RTSLIB_ITABLE_BORROWER = 64,
    MEMID_RTSLIB_ITABLE_DONOR = 65,
    MEMID_RTSLIB_ITABLE_MAX = 66,
    MEMID_RTSLIB_BORROWER = 74,          // an entry of donor tracking: a donor, or one of its borrowers
    MEMID_RTSLIB_UNNUM = 75,             // the donor-tracking block
    MEMID_RTSLIB_MSG = 76,               // messages, and all of rtslib_size_alloc
    MEMID_RTSLIB_MAX = 77,
};

/* The hooks. Set before any cookie is made, if at all; a block must go back through the hook that gave it. */
extern void *(*rtslib_malloc)(uint16_t memid, size_t size);
extern void *(*rtslib_calloc)(uint16_t memid, size_t count, size_t size);
extern void *(*rtslib_realloc)(uint16_t memid, void *memory, size_t size);
extern void (*rtslib_free)(uint16_t memid, void *memory);   // null allowed

/* A row of the accounting: check octet k is the exclusive-or of the octets of count k, or 190 where that is 0, so that
 * a 0 always means damage. */
struct rtslib_mem_counts {
    uint8_t check[4];
    uint32_t allocated;
    uint32_t failed;
    uint32_t freed;
    uint32_t outstanding;
};
static_assert(sizeof(struct rtslib_mem_counts) == 20);
enum {
    RTSLIB_MEM_TABLE_SIZE = 1560,   // octets of the table, a little more than its 77 rows
    RTSLIB_MEM_CHECK_ZERO = 190,
};
struct rtslib_mem_record {
    struct rtslib_mem_counts *cnts;         // null until the first event
    uint16_t submod_max;                    // rows
    struct rtslib_mem_counts *cnts_saved;   // the same pointer again, against overwriting
};
extern struct rtslib_mem_record rtslib_mem_record;   // hides the tag: write "struct" for the type
extern uint32_t rtslib_mem_rec_enabled;
extern void (*rtslib_mem_rec_lock)(void);     // null: none
extern void (*rtslib_mem_rec_unlock)(void);

/* Turns the accounting of the default hooks on, for good, with functions around each change (null: none). */
void rtslib_mem_rec_enable(void (*lock)(void), void (*unlock)(void));

/* A zeroed block of size octets, or null; null for a null cookie. */
void *rtslib_size_alloc(struct rtslib_cookie *cookie, size_t size);
enum { RTSLIB_MSG_MAX = 16384 };   // octets of a message buffer, and of the longest message of the normal read
/* rtslib_size_alloc of RTSLIB_MSG_MAX octets. */
void *rtslib_msg_malloc(struct rtslib_cookie *cookie);
/* Frees what came from the two above. Nothing happens if either argument is null: without a cookie the block leaks. */
void rtslib_msg_free(struct rtslib_cookie *cookie, void *message);
void *rtslib_malloc_cb(size_t size);
void rtslib_free_cb(void *memory);

/* Hooks for index tables: opaque points to a memory id, 63 to 66, or the process stops. */
void *rtslib_malloc_itable(uintptr_t opaque, size_t size);
void rtslib_free_itable(uintptr_t opaque, void *memory);
extern uint16_t memid_rtslib_itable_borrower, memid_rtslib_itable_donor;

/* --- reports --------------------------------------------------------------------------------------------------- */

enum rtslib_severity {
    RTSLIB_DEBUG = 0,
    RTSLIB_INFO = 1,
    RTSLIB_WARNING = 2,
    RTSLIB_ERROR = 3,
    RTSLIB_FATAL = 4,
};

typedef void (*rtslib_err_func)(struct rtslib_cookie *cookie, uintptr_t context, int severity, const char *text);

/* Formats "rtslib: WORD TEXT", at most 255 octets, and gives it to the cookie's sink, or to rtslib_lib_error without a
 * cookie. A cookie whose err_fn is null reports nothing at all. errno is kept. */
[[gnu::format(printf, 3, 4)]] void rtslib_err(struct rtslib_cookie *cookie, int severity, const char *format, ...);
/* The default sink: the system log. Exits with status 1 at severity 4. */
void rtslib_lib_error(struct rtslib_cookie *cookie, uintptr_t context, int severity, const char *text);
/* 0, or 22 for a null cookie. func null silences the cookie, fatal reports included. */
int rtslib_lib_error_register(struct rtslib_cookie *cookie, uintptr_t context, rtslib_err_func func);

/* A failed assertion: says so and aborts. line is a constant of the place. */
[[noreturn]] void rtslib_assert_failed(const char *unit, const char *function, int line, const char *expression);

}   // extern "C"
