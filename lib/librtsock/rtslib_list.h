/*
 * Lists of messages, as bulk reads hand them out.
 */
#pragma once

#include "lib/librtsock/rtslib_io.h"

extern "C" {

enum rtslib_msg_list_kind : uint8_t {
    RTSLIB_LIST_BUFFER = 1,    // one buffer of raw messages, which the first entry points to; made by clients alone
    RTSLIB_LIST_ADDED = 2,     // messages added one by one
    RTSLIB_LIST_DECODED = 3,   // decoded messages, with presence masks
};

struct rtslib_msg_list {
    uint8_t version, type;   // rtsh_version and rtsh_type of the messages; of the last one if it was filled
    uint8_t kind;            // enum rtslib_msg_list_kind; 0 while the list is empty
    uint8_t lent;            // 1: the entries lie in the buffer of rtslib_msg_list_fillin, which is not the list's
    uint16_t count;          // messages held
    uint16_t free;           // slots of array behind them
    void **array;
    void **masks;            // as many as messages in a list of kind 3, null entries for IDR and raw; else null
};

/* An empty list, or null: also for a null cookie. */
[[nodiscard]] struct rtslib_msg_list *rtslib_msg_list_alloc(struct rtslib_cookie *cookie);
/* Takes message, which came from rtslib_msg_malloc or was decoded. 0; 22 for anything null, for a message whose type or
 * version differs from the first's, and on a list whose entries lie in one buffer; 12 without memory, and for the
 * 65536th message. On failure the message is still the caller's. */
int rtslib_msg_list_add(struct rtslib_cookie *cookie, struct rtslib_msg_list *list, void *message);
/* Clears the list (it must own nothing) and fills it from size octets of messages, all in the wire form of the first.
 * Enveloped ones are decoded. Raw ones stay where they are: the buffer must then outlive the list, and is not freed
 * with it. 0; 22 for a missing argument and for octets that are no run of whole messages; 45 for messages without a
 * codec; 12; or the error of decoding. On failure the list holds what was decoded before. */
int rtslib_msg_list_fillin(struct rtslib_cookie *cookie, struct rtslib_msg_list *list, uint32_t size, void *buffer);
/* The message, still the list's; null past the end and for a null list. */
void *rtslib_msg_list_get_by_index(const struct rtslib_msg_list *list, uint32_t index);
/* Frees the list and what it owns: the buffer of kind 1, each message of the others, nothing that is lent. Null
 * allowed. */
void rtslib_msg_list_free(struct rtslib_cookie *cookie, struct rtslib_msg_list *list);

}   // extern "C"
