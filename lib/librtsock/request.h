/*
 * Building requests: what all operations on objects share. Internal to the library.
 *
 * A request is a record in a message buffer, its variable parts behind it. The builder frees it after sending.
 */
#pragma once

#include "lib/librtsock/rtslib_io.h"

#include <stddef.h>

extern "C" {

/* What every message of a type carries. */
struct rtslib_request_form {
    uint8_t type, version;
    uint16_t hdrlen;    // rtsh_hdrlen, a constant of the type whatever the record measures here
    uint32_t record;    // octets of the record
};

/* A zeroed buffer with header and operation filled in and the next sequence number taken, or null. *cursor: where
 * variable parts go, behind rtsh_hdrlen and the record, whichever is longer. */
void *rtslib_request_new(struct rtslib_cookie *cookie, const struct rtslib_request_form *form, uint8_t operation,
                         uint8_t **cursor);
/* Room for size octets at *cursor, which moves behind them, rounded up to a pointer's size; null past the buffer's end
 * (of a request of rtslib_request_new). */
void *rtslib_request_room(void *request, uint8_t **cursor, size_t size);
/* Copies text, cut to RTSLIB_NAME_MAX with its terminator; *length counts that. */
char *rtslib_request_name(void *request, uint8_t **cursor, const char *text, uint32_t *length);
/* Copies size octets. */
uint8_t *rtslib_request_octets(void *request, uint8_t **cursor, const void *octets, size_t size);
/* Copies a prefix of so many bits, padded with zero to whole words. *length: octets stored. */
uint8_t *rtslib_request_prefix(void *request, uint8_t **cursor, const void *prefix, uint16_t bits, uint32_t *length);

/* Sends in IDR and frees the request, in any case. The write's result. */
int rtslib_request_send(struct rtslib_cookie *cookie, void *request);
/* The same, then reads the reply with read (rtslib_msg_read_idl or rtslib_long_msg_read_idl). *message is null on
 * failure. */
typedef int (*rtslib_reply_func)(struct rtslib_cookie *cookie, void **message, void **mask);
int rtslib_request_ask(struct rtslib_cookie *cookie, void *request, rtslib_reply_func read, void **message,
                       void **mask);
/* Whether there is a reply and its record is that of the type. A kernel that answers with another one, under the number
 * that was waited for, must not have it read as what it is not. */
enum { RTSLIB_TYPE_TABLE = 1, RTSLIB_TYPE_ROUTE = 2, RTSLIB_TYPE_NEXTHOP = 10, RTSLIB_TYPE_MATCH = 12 };
bool rtslib_reply_is(const void *reply, uint8_t type);
/* Which operations are answered, as bits by operation: gets alone, or changes with a get too. */
enum {
    RTSLIB_ANSWERED_GETS = 1 << RTM_OP_GET | 1 << RTM_OP_GETNEXT,
    RTSLIB_ANSWERED = RTSLIB_ANSWERED_GETS | 1 << RTM_OP_ADD_GET | 1 << RTM_OP_CHG_GET,
};
bool rtslib_request_is_answered(uint8_t operation, uint32_t answered);
/* 22 for a null cookie or, if the operation is answered, a null message, else 0; clears *message if there is one. */
int rtslib_request_check(const struct rtslib_cookie *cookie, uint8_t operation, uint32_t answered, void **message);
/* Asks if the operation in the request is answered, else sends. Frees the request. */
int rtslib_request_run(struct rtslib_cookie *cookie, void *request, uint32_t answered, rtslib_reply_func read,
                       void **message, void **mask);
/* Octets of a sockaddr in the target's form, which begins with its length. 0 for null. */
size_t rtslib_sockaddr_length(const void *sockaddr);

}   // extern "C"
