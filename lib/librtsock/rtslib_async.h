/*
 * Asynchronous events: what the kernel sends unasked, handed to one function for each type of message.
 *
 * In this order: rtslib_open; rtslib_set_async_context, or rtslib_alloc_async_info for a client with a loop of its own;
 * rtslib_set_async_mode; the registrations; then the event loop, or rtslib_async_event_process whenever the socket is
 * readable. The first registration selects the descriptor. A cookie that is asynchronous takes every message for an
 * event, replies to requests too: ask on another cookie.
 *
 * A handler owns its message: rtslib_msg_free for one that came raw, rtslib_msg_idl_release for a decoded one. Which of
 * the two a type is, the client knows; nothing in the message tells, and a kernel that sends the other one is believed.
 * A handler, and the sink of sequence errors, may register and unregister, end the asynchronous context, and destroy
 * the cookie; the loop then ends behind it, or goes on in a context made anew. They must not read this cookie. The error
 * sink, donor tracking's callback and the functions that decompress blobs may do none of this.
 */
#pragma once

#include "lib/librtsock/rtslib_cookie.h"
#include "platform/ev/ev.h"

#include <stddef.h>
#include <stdint.h>

extern "C" {

/* mask is null. What a handler gives back is nothing: it cannot fail. */
typedef void (*rtslib_async_func)(struct rtslib_cookie *cookie, uintptr_t context, void *message, void *mask);

/* A registration for a type of message, and a pair of a subtype table. */
struct rtslib_async_reg {
    uintptr_t context;
    rtslib_async_func handler;   // null only in a pair: such messages are dropped
};

/* Splits a type by one octet of the message; the context of a registration with rtslib_async_subtype_handler. */
struct rtslib_async_subtypes {
    uint8_t count;
    uint32_t offset;                   // of the octet, in the message as handlers get it
    struct rtslib_async_reg *entries;  // count
};

enum { RTSLIB_ASYNC_SLOTS = 111 };   // one more than there are types that are dispatched

enum rtslib_ev_state : uint8_t {
    RTSLIB_EV_DESTROY = 1,    // the event context ends with the block; set by clients alone
    RTSLIB_EV_SELECTED = 2,
    RTSLIB_EV_OWN_LOOP = 4,   // counts as selected too, and is never deselected; set by clients alone
};

struct rtslib_async_info {
    evContext ev_ctx;                                       // the client's; null: it has a loop of its own
    struct rtslib_async_reg *handlers[RTSLIB_ASYNC_SLOTS];  // by message type; null: none
    uint32_t listen_lo, listen_hi;                          // classes asked of the kernel so far
    evFileID ev_file_id;                                    // of the selection; null if that failed
    uint8_t ev_state;                                       // RTSLIB_EV_...
    uint32_t async_mode;                                    // as the kernel last accepted it
    int (*ev_cleanup)(struct rtslib_cookie *cookie);        // run by rtslib_destroy_async_context; may be null
};

/* Bits of the mode. Those of the mask without a name here are the kernel's business. */
enum rtslib_async_mode : uint32_t {
    RTSLIB_ASYNC_ON = 0x1,             // every mode but 0 has it; rtslib_set_buffers then wants RTSLIB_BUFFER_SIZE
    RTSLIB_ASYNC_ONE_MESSAGE = 0x400,  // the kernel puts one message into a read, and the loop checks that
    RTSLIB_ASYNC_EXT_SELECT = 0x4000,  // the cookie's ext_select is selected in place of the socket
    RTSLIB_ASYNC_MODE_MASK = 0x3ff9f,
};

/* What a cookie's ext_select points to in that mode; func is called with the cookie as uap. fd is for this cookie
 * alone: of two that share it, the event library calls func with the first one only, and the end of either is the end
 * of both selections. Nothing reads the socket then until somebody calls rtslib_async_event_process. Whoever shares the
 * cookie, a thread that wakes fd for one, shares it without a lock: one function on it at a time, registrations and the
 * end of the context included. */
struct rtslib_ext_select {
    uintptr_t client[2];   // the client's
    evFileFunc func;
    intptr_t fd;
};
static_assert(offsetof(struct rtslib_ext_select, func) == 2 * sizeof(uintptr_t) &&
              offsetof(struct rtslib_ext_select, fd) == 3 * sizeof(uintptr_t));

/* --- context --------------------------------------------------------------------------------------------------- */

/* Makes the block. 0; 22 for a null cookie or one that has it; -1 with ENOMEM, reported as fatal. */
int rtslib_alloc_async_info(struct rtslib_cookie *cookie);
/* The same, with the client's event context, a clean-up that deselects the descriptor, and up to 10 reads for each
 * wake-up; without this call it is one read. ctx stays the client's and outlives the block. */
int rtslib_set_async_context(struct rtslib_cookie *cookie, evContext ctx);
/* 0; 22 without cookie or block and for bits that cannot be; -1 with errno if the kernel refuses. */
int rtslib_set_async_mode(struct rtslib_cookie *cookie, uint32_t bits);
/* Ends the block: registrations, selection, memory. Pairs of subtype tables leak, and a registration of type 110. 0,
 * also if there is no block; 22 for a null cookie; or what ev_cleanup gave: nothing has happened then. */
int rtslib_destroy_async_context(struct rtslib_cookie *cookie);

/* --- registrations --------------------------------------------------------------------------------------------- */

/* Has messages of type handed to handler, and the classes low and high sent by the kernel. 0; 22 without cookie, block
 * or handler, for a type that is taken or above 110; -1 with errno if the kernel refuses or memory is out: what was
 * selected and asked of the kernel before that stays. _idl is the same; the name tells the reader that messages come
 * decoded. */
int rtslib_setup_async_registration(struct rtslib_cookie *cookie, uint32_t type, uint32_t low, uint32_t high,
                                    uintptr_t context, rtslib_async_func handler);
int rtslib_setup_async_registration_idl(struct rtslib_cookie *cookie, uint32_t type, uint32_t low, uint32_t high,
                                        uintptr_t context, rtslib_async_func handler);

/* Devices, logical interfaces, families, addresses; routing tables, routes; blobs. Results as above. */
int rtslib_ifdm_async_register(struct rtslib_cookie *cookie, uintptr_t context, rtslib_async_func handler);
int rtslib_iflm_async_register(struct rtslib_cookie *cookie, uintptr_t context, rtslib_async_func handler);
/* flag chooses classes: bits 0 and 2, either, both or none. */
int rtslib_iffm_async_register(struct rtslib_cookie *cookie, uint8_t flag, uintptr_t context,
                               rtslib_async_func handler);
int rtslib_ifam_async_register(struct rtslib_cookie *cookie, uint8_t flag, uintptr_t context,
                               rtslib_async_func handler);
int rtslib_rtbm_async_register(struct rtslib_cookie *cookie, uintptr_t context, rtslib_async_func handler);
int rtslib_rtm_async_register(struct rtslib_cookie *cookie, uintptr_t context, rtslib_async_func handler);
int rtslib_gencfg_async_register(struct rtslib_cookie *cookie, uintptr_t context, rtslib_async_func handler);
/* Ends of chains, subtype 0 of type 85. Asks nothing of the kernel. Results of the subtype road. */
int rtslib_ifstate_eochain_register(struct rtslib_cookie *cookie, uintptr_t context, rtslib_async_func handler);
/* Ends the registration for routes and tells the kernel. Always 0. */
int rtslib_rtm_async_unregister(struct rtslib_cookie *cookie);

/* Registers a table of count subtypes, the octet at offset choosing. handler gets one subtype, or with all every one.
 * The first call for a type decides: later ones give 0 and change nothing. 22 without cookie, block or handler, for a
 * subtype that the table does not have or a type above 110; 12; or the results above. No table is kept on
 * failure. */
int rtslib_async_subtype_handler_register(struct rtslib_cookie *cookie, uint32_t type, uint8_t subtype, uint8_t count,
                                          uint32_t offset, uint8_t all, uint32_t low, uint32_t high,
                                          uintptr_t context, rtslib_async_func handler);
/* The handler of such a registration; table is a struct rtslib_async_subtypes. Takes the message. */
void rtslib_async_subtype_handler(struct rtslib_cookie *cookie, uintptr_t table, void *message, void *mask);

/* Hands a filter of RTS_FILTER_BLOCK_SIZE octets to the kernel, with the classes asked for. 0; 22 without cookie, block
 * or filter; -1 with errno if the kernel refuses. */
int rtslib_async_register_filters(struct rtslib_cookie *cookie, const void *filter);

/* --- the loop -------------------------------------------------------------------------------------------------- */

/* Reads what is there, at most num_read_msg times, and calls the handlers. 0, or -1 with errno: EAGAIN when there was
 * nothing at all, EINVAL for damage, EIO for a message without a header, the error of reading. Messages that could not
 * be decoded or that nobody wants are reported, and are no failure. Damage costs the rest of one read. */
int rtslib_async_event_process(struct rtslib_cookie *cookie);
/* The same; what is selected with the event library. */
int rtslib_async_event_callback(evContext ctx, struct rtslib_cookie *cookie);
/* Reads for each wake-up; below 1 counts as 1. */
void rtslib_async_set_num_read_msg(struct rtslib_cookie *cookie, int32_t count);

/* Not 0: the loop tells the system log of every read, at LOG_DEBUG. Of the process. */
extern uint32_t rtslib_async_io_debug;
void rtslib_async_set_io_debug(uint32_t flag);

}   // extern "C"
