/*
 * The envelope: messages to and from their wire forms.
 *
 * A message crosses the socket raw (the octets of the structure), as IDR or as TLV; the first word tells which: 0x5022
 * IDR, 0x5011 TLV, anything else raw. A request is built in a buffer of rtslib_msg_malloc, its variable parts in the
 * same buffer behind RTSLIB_VARIABLE_AT. A decoded message is one block with all its parts, released whole; it must not
 * be moved.
 */
#pragma once

#include "lib/librtsock/idl/idl.h"
#include "lib/librtsock/rtslib_cookie.h"

extern "C" {

/* Octets of the message that rtslib_msg_idl_encode encoded last, for whoever asks; the library never reads it. */
extern uint32_t rtslib_msglen;

/* Encodes message as TLV with the presence mask, the map_T of its record, or as IDR without one. 0 with *out, to be
 * freed with rtslib_msg_free, and *length; or 12 with both cleared. */
int rtslib_msg_idl_encode(struct rtslib_cookie *cookie, const void *message, const void *mask, void **out,
                          uint32_t *length);
/* IDR into the caller's buffer. *size: room in, octets needed out. 0; 12 if it does not fit; 22 without a buffer. */
int rtslib_msg_idl_encode_pa(struct rtslib_cookie *cookie, const void *message, void *buffer, uint32_t *size);

/* 0 with the decoded message, the caller's until rtslib_msg_idl_release. 45: the octets are not enveloped (reported
 * unless the first word is 0); 22: broken; 12. *mask, if asked for, points to the map_T of a TLV message and is left
 * alone for IDR: clear it before. */
int rtslib_msg_idl_decode(struct rtslib_cookie *cookie, const void *octets, size_t length, void **message, void **mask);
/* The same into the caller's arena, which must be aligned for any object. Nothing to release. */
int rtslib_msg_idl_decode_pa(struct rtslib_cookie *cookie, const void *octets, size_t length, void **message,
                             void **mask, void *arena, size_t arena_size);
void rtslib_msg_idl_release(struct rtslib_cookie *cookie, void *message);

/* Encodes at wbuf_pos of the cookie, without moving it. 0 with *length; 12 and 0 octets if the room does not do. */
int rtslib_bulkmsg_idl_encode(struct rtslib_cookie *cookie, uint32_t *length, const void *message, const void *mask);
/* Decodes at rbuf_pos, without moving it. 0 with *length, octets used up; on an error *reply is as it was. The reply
 * slot is the caller's, as is what it then points to. 5: the message goes beyond what was read. */
int rtslib_bulkmsg_idl_decode(struct rtslib_cookie *cookie, uint32_t *length, void **reply, void **mask);

/* The first word, or the total size of an enveloped message. out, or null under 4 or 8 octets. */
uint32_t *rtslib_idl_peek_magic(uint32_t *out, const void *octets, size_t length);
uint32_t *rtslib_idl_peek_length(uint32_t *out, const void *octets, size_t length);

/* Adds an optional item to a message under construction. The first one carves the table of RTSM_INFO_MAX pointers out
 * of the message's spare space at *cursor, which moves on by RTSM_INFO_TABLE octets. 0, or 12 for a full table or a
 * null *cursor. The item stays the caller's. */
int rtsm_info_user_add(struct rts_hdr *header, struct rts_msg_info *item, uint8_t **cursor);
enum {
    RTSM_INFO_MAX = 128,
    RTSM_INFO_TABLE = RTSM_INFO_MAX * (int)sizeof(void *),
};

}   // extern "C"
